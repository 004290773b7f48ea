#include "app/Masks.h"

#include "app/PixelOp.h"
#include "app/RenderMath.h"
#include "app/RenderPipeline.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <utility>
#include <vector>

namespace velko::app {
namespace {

using core::AdjustmentKind;
using vips::VImage;

constexpr int kBrushCanvas = 1024;  ///< long edge of the canvas strokes are drawn on, at most
constexpr int kAiWorkingEdge = 256; ///< long edge of the copy the AI approximations work on
constexpr int kTile = 128;

double finiteOr(double v, double fallback) {
  return std::isfinite(v) ? v : fallback;
}

/// A shape's coordinate or size, finite and within reach of the frame.
double coordinate(double v, double fallback) {
  return std::clamp(finiteOr(v, fallback), -100.0, 100.0);
}

double feather01(double f) {
  return std::clamp(finiteOr(f, 0), 0.0, 1.0);
}


VImage zeros(int w, int h) {
  return VImage::black(w, h).cast(VIPS_FORMAT_FLOAT);
}

VImage positive(const VImage& x) {
  return (x + x.abs()) * 0.5;
}

VImage clamp01(const VImage& x) {
  return positive(x) - positive(x - 1);
}

VImage maxOf(const VImage& a, const VImage& b) {
  return (a + b + (a - b).abs()) * 0.5;
}

/// 0 below e0, 1 above e1, a smoothstep between; a step at e0 when the two meet.
VImage rising(const VImage& x, double e0, double e1) {
  if (e1 - e0 < 1e-9) {
    return (x >= e0).cast(VIPS_FORMAT_FLOAT) * (1 / 255.0);
  }
  const VImage t = clamp01(x.linear(1 / (e1 - e0), -e0 / (e1 - e0)));
  return t * t * (t * -2 + 3);
}

/// 1 below e0, 0 above e1; a step after e0 when the two meet.
VImage falling(const VImage& x, double e0, double e1) {
  if (e1 - e0 < 1e-9) {
    return (x <= e0).cast(VIPS_FORMAT_FLOAT) * (1 / 255.0);
  }
  return 1 - rising(x, e0, e1);
}



/// `image` made readable twice without computing it twice: a blend reads it both untouched and
/// through the mask's rendering, and each mask blends the previous one's result, so without
/// this the stages before the masks would run 2^masks times. Images up to kInMemoryPixels (a
/// preview or a modest rendition) are computed once into memory; larger ones go through a lazy
/// cache of computed tiles, which holds a few rows of tiles, not the whole image.
VImage shared(const VImage& image) {
  constexpr double kInMemoryPixels = 4e6;
  if (static_cast<double>(image.width()) * image.height() <= kInMemoryPixels) {
    return image.copy_memory();
  }
  const int across = (image.width() + kTile - 1) / kTile;
  return image.tilecache(VImage::option()
                             ->set("tile_width", kTile)
                             ->set("tile_height", kTile)
                             ->set("max_tiles", std::max(64, 8 * across))
                             ->set("access", VIPS_ACCESS_RANDOM)
                             ->set("threaded", true));
}


/// The image a mask stage reads its mattes from, with the derived images shapes share, each
/// made on first use.
class MatteSource {
public:
  explicit MatteSource(VImage scrgb) : image_(std::move(scrgb)) {}

  int width() const { return image_.width(); }
  int height() const { return image_.height(); }

  /// Lightness, chroma and Lab hue, lazily.
  const VImage& lch() {
    if (!lch_) {
      lch_ = image_.colourspace(VIPS_INTERPRETATION_LCH);
    }
    return *lch_;
  }

  /// The AI approximations at working size, scaled to the image.
  VImage subject() {
    if (!subject_) {
      subject_ = subjectMatte(small());
    }
    return resizeTo(*subject_, width(), height(), VIPS_KERNEL_LINEAR);
  }
  VImage people() {
    if (!people_) {
      people_ = peopleMatte(small());
    }
    return resizeTo(*people_, width(), height(), VIPS_KERNEL_LINEAR);
  }

private:
  /// A reduced copy in memory, at most kAiWorkingEdge on the long edge.
  const VImage& small() {
    if (!small_) {
      const double scale =
          std::min(1.0, static_cast<double>(kAiWorkingEdge) / std::max(width(), height()));
      const VImage reduced =
          scale < 1 ? image_.resize(scale, VImage::option()->set("kernel", VIPS_KERNEL_LINEAR))
                    : image_;
      small_ = withInterpretation(reduced, VIPS_INTERPRETATION_scRGB).copy_memory();
    }
    return *small_;
  }

  /// Salient subject, approximated: how far each pixel's colour lies from the mean colour of
  /// the frame's border (the background, as subjects seldom touch the edges), weighted toward
  /// the centre, blurred, then normalised to its peak and cut softly. A frame with nothing that
  /// stands out by at least a few Lab units has no subject.
  static VImage subjectMatte(const VImage& small) {
    constexpr double kCentreSigma = 0.35; ///< of the frame's width and height
    constexpr double kMinDistance = 6;    ///< Lab units
    const int w = small.width();
    const int h = small.height();
    const VImage lab = small.colourspace(VIPS_INTERPRETATION_LAB).copy_memory();
    // The border's mean is the whole frame's sums less the inside's, in two passes.
    const int edge = std::max(1, static_cast<int>(std::lround(0.06 * std::min(w, h))));
    const VImage whole = lab.stats();
    const bool hasInside = w > 2 * edge && h > 2 * edge;
    const VImage inside =
        hasInside ? lab.extract_area(edge, edge, w - 2 * edge, h - 2 * edge).stats() : VImage();
    const double area = static_cast<double>(w) * h -
                        (hasInside ? static_cast<double>(w - 2 * edge) * (h - 2 * edge) : 0);
    std::vector<double> border(3, 0.0);
    for (int b = 0; b < 3; ++b) {
      constexpr int kSum = 2; // stats column; row 0 is all bands, row b + 1 band b
      const double sum =
          whole.getpoint(kSum, b + 1)[0] - (hasInside ? inside.getpoint(kSum, b + 1)[0] : 0);
      border[static_cast<std::size_t>(b)] = -sum / area;
    }
    const VImage diff = lab.linear({1.0, 1.0, 1.0}, border);
    const double sigma = std::max(1.0, 0.015 * std::max(w, h));
    const auto blur = [sigma](const VImage& band) {
      return band.gaussblur(sigma, VImage::option()->set("precision", VIPS_PRECISION_FLOAT));
    };
    const VImage distance = blur((diff * diff).bandmean().linear(3.0, 0.0).pow(0.5));
    const VImage xy = VImage::xyz(w, h);
    const VImage dx = xy[0].linear(1.0 / w, 0.5 / w - 0.5);
    const VImage dy = xy[1].linear(1.0 / h, 0.5 / h - 0.5);
    const VImage centre = ((dx * dx + dy * dy) * (-1 / (2 * kCentreSigma * kCentreSigma))).exp();
    const VImage salience = (distance * centre).copy_memory();
    const double peak = salience.max();
    if (!(peak >= kMinDistance)) {
      return zeros(w, h);
    }
    return blur(rising(salience / peak, 0.3, 0.6)).copy_memory();
  }

  /// People, approximated by skin tones: chroma (Cb, Cr) inside an ellipse around the usual
  /// skin cluster, not too dark to judge, blurred into a soft region.
  static VImage peopleMatte(const VImage& small) {
    const VImage srgb = small.colourspace(VIPS_INTERPRETATION_sRGB).cast(VIPS_FORMAT_FLOAT);
    std::array<double, 9> matrix{0.299, 0.587, 0.114,     -0.168736, -0.331264,
                                 0.5,   0.5,   -0.418688, -0.081312};
    const VImage ycc = srgb.recomb(VImage::new_matrix(3, 3, matrix.data(), 9));
    // Skin gathers around Cb 102, Cr 153 (of 255): an ellipse 25 by 20 wide there.
    const VImage cb = ycc[1].linear(1 / 25.0, (128 - 102) / 25.0);
    const VImage cr = ycc[2].linear(1 / 20.0, (128 - 153) / 20.0);
    const VImage distance = (cb * cb + cr * cr).pow(0.5);
    const VImage skin = falling(distance, 0.7, 1.1) * rising(ycc[0], 30, 60);
    const double sigma = std::max(1.0, 0.01 * std::max(small.width(), small.height()));
    return skin.gaussblur(sigma, VImage::option()->set("precision", VIPS_PRECISION_FLOAT))
        .copy_memory();
  }

  VImage image_;
  std::optional<VImage> lch_, small_, subject_, people_;
};

// ---- shapes ---------------------------------------------------------------------------------

/// A matte of one float band whose value depends on the pixel's position alone, drawn row by
/// row in one pass: `at(x, y)` is the value at the pixel centre (x + 0.5, y + 0.5), in float
/// and without branches, so that a row is computed several pixels at a time.
template <typename At> VImage drawnMatte(int w, int h, At at) {
  return pixelOp(w, h, 1, VIPS_INTERPRETATION_B_W,
                 [at](const float* const*, float* out, int x0, int y, int n) {
                   const float row = static_cast<float>(y) + 0.5F;
                   const float left = static_cast<float>(x0) + 0.5F;
                   for (int i = 0; i < n; ++i) {
                     out[i] = at(left + static_cast<float>(i), row);
                   }
                 });
}

/// smoothstep in float, without branches; `e1` above `e0`.
inline float rampUp(float e0, float e1, float x) {
  const float t = std::clamp((x - e0) / (e1 - e0), 0.0F, 1.0F);
  return t * t * (3 - 2 * t);
}

VImage linearMatte(const core::LinearShape& s, int w, int h) {
  const double sx = coordinate(s.start.x, 0) * w;
  const double sy = coordinate(s.start.y, 0) * h;
  const double vx = coordinate(s.end.x, 0) * w - sx;
  const double vy = coordinate(s.end.y, 0) * h - sy;
  const double length2 = vx * vx + vy * vy;
  if (length2 <= 0) {
    return zeros(w, h); // no direction to grade along
  }
  // Full coverage before the start, none past the end, graded smoothly along start → end.
  // Along start → end, 0 at the start and 1 at the end.
  const auto ax = static_cast<float>(vx / length2), ay = static_cast<float>(vy / length2);
  const auto origin = static_cast<float>(-(sx * vx + sy * vy) / length2);
  return drawnMatte(w, h,
                    [=](float x, float y) { return 1 - rampUp(0, 1, origin + x * ax + y * ay); });
}

VImage radialMatte(const core::RadialShape& s, int w, int h) {
  const double rx = std::max(coordinate(s.radius.width, 0) * w, 1e-3);
  const double ry = std::max(coordinate(s.radius.height, 0) * h, 1e-3);
  const double cx = coordinate(s.center.x, 0.5) * w;
  const double cy = coordinate(s.center.y, 0.5) * h;
  // Even a hard edge is smoothed over one pixel, so it does not stair-step.
  const double pixel = 1 / std::min(rx, ry);
  const double inner = 1 - feather01(s.feather) - pixel / 2, outer = 1 + pixel / 2;
  const auto fx = static_cast<float>(1 / rx), fy = static_cast<float>(1 / ry);
  const auto x0 = static_cast<float>(cx), y0 = static_cast<float>(cy);
  const auto from = static_cast<float>(inner), to = static_cast<float>(outer);
  // Inverted, the matte rises where it would fall.
  const float base = s.inverted ? 0 : 1, sign = s.inverted ? 1 : -1;
  return drawnMatte(w, h, [=](float x, float y) {
    const float dx = (x - x0) * fx, dy = (y - y0) * fy;
    return base + sign * rampUp(from, to, std::sqrt(dx * dx + dy * dy));
  });
}

VImage luminanceMatte(const core::LuminanceRangeShape& s, MatteSource& source) {
  double lower = coordinate(s.lower, 0);
  double upper = coordinate(s.upper, 1);
  if (lower > upper) {
    std::swap(lower, upper);
  }
  const double f = feather01(s.feather);
  const VImage l = source.lch()[0] * 0.01;
  return rising(l, lower - f, lower) * falling(l, upper, upper + f);
}

constexpr int kHueSteps = 10; ///< table entries per degree of Lab hue

VImage colourMatte(const core::ColorRangeShape& s, MatteSource& source) {
  const double hue = coordinate(s.hue, 0) - std::floor(coordinate(s.hue, 0));
  const double range = std::max(0.0, coordinate(s.range, 0));
  const double f = feather01(s.feather);
  const int entries = 360 * kHueSteps + 1;
  std::vector<float> table(static_cast<std::size_t>(entries));
  for (int i = 0; i < entries; ++i) {
    const double wheel = wheelHue(static_cast<double>(i) / kHueSteps) / 360;
    double d = std::abs(wheel - hue);
    d = std::min(d, 1 - d);
    table[static_cast<std::size_t>(i)] = static_cast<float>(1 - smoothstep(range, range + f, d));
  }
  VipsImage* lut = vips_image_new_from_memory_copy(table.data(), table.size() * sizeof(float),
                                                   entries, 1, 1, VIPS_FORMAT_FLOAT);
  if (lut == nullptr) {
    throw vips::VError();
  }
  const VImage& lch = source.lch();
  const VImage index = (lch[2] * kHueSteps + 0.5).cast(VIPS_FORMAT_USHORT);
  // Greys have no hue to speak of: coverage fades in with chroma.
  return index.maplut(VImage(lut)) * rising(lch[1], 4, 12);
}

/// Distance from (px, py) to the segment a–b.
double segmentDistance(double px, double py, double ax, double ay, double bx, double by) {
  const double vx = bx - ax;
  const double vy = by - ay;
  const double length2 = vx * vx + vy * vy;
  double t = length2 > 0 ? ((px - ax) * vx + (py - ay) * vy) / length2 : 0;
  t = std::clamp(t, 0.0, 1.0);
  return std::hypot(px - (ax + t * vx), py - (ay + t * vy));
}

/// Strokes rasterised on a canvas of at most kBrushCanvas pixels on the long edge: each is the
/// union of capsules along its points (a single point is a dab), added by max or erased by
/// multiplying with its complement, in order.
VImage brushMatte(const core::BrushShape& s, int w, int h) {
  const double scale = std::min(1.0, static_cast<double>(kBrushCanvas) / std::max(w, h));
  const int cw = std::max(1, static_cast<int>(std::lround(w * scale)));
  const int ch = std::max(1, static_cast<int>(std::lround(h * scale)));
  const double longEdge = std::max(cw, ch);
  const double feather = feather01(s.feather);
  std::vector<float> coverage(static_cast<std::size_t>(cw) * static_cast<std::size_t>(ch), 0.0F);
  std::vector<float> stroke;
  for (const core::BrushStroke& brush : s.strokes) {
    const double radius = std::clamp(finiteOr(brush.radius, 0), 0.0, 2.0) * longEdge;
    if (brush.points.empty() || radius <= 0) {
      continue;
    }
    std::vector<std::pair<double, double>> points;
    for (const core::Point& p : brush.points) {
      if (!std::isfinite(p.x) || !std::isfinite(p.y)) {
        continue;
      }
      const std::pair<double, double> point{coordinate(p.x, 0) * cw, coordinate(p.y, 0) * ch};
      // A point within half a pixel of the previous one adds time, not coverage.
      if (points.empty() || std::hypot(point.first - points.back().first,
                                       point.second - points.back().second) >= 0.5) {
        points.push_back(point);
      }
    }
    if (points.empty()) {
      continue;
    }
    // Full coverage within radius · (1 − feather), none past the radius; half a pixel of
    // smoothing either side keeps a hard edge from stair-stepping.
    const double inner = radius * (1 - feather) - 0.5;
    const double outer = radius + 0.5;
    stroke.assign(coverage.size(), 0.0F);
    int x0 = cw, y0 = ch, x1 = -1, y1 = -1; // the stroke's bounding box, for the merge
    // One segment between each pair of neighbours; a lone point is a segment of no length.
    const std::size_t segments = std::max<std::size_t>(1, points.size() - 1);
    for (std::size_t i = 0; i < segments; ++i) {
      const auto [ax, ay] = points[i];
      const auto [bx, by] = points[std::min(i + 1, points.size() - 1)];
      const auto within = [](double v, int size) {
        return static_cast<int>(std::clamp(v, 0.0, static_cast<double>(size - 1)));
      };
      const int left = within(std::floor(std::min(ax, bx) - outer), cw);
      const int right = within(std::ceil(std::max(ax, bx) + outer), cw);
      const int top = within(std::floor(std::min(ay, by) - outer), ch);
      const int bottom = within(std::ceil(std::max(ay, by) + outer), ch);
      x0 = std::min(x0, left);
      y0 = std::min(y0, top);
      x1 = std::max(x1, right);
      y1 = std::max(y1, bottom);
      for (int y = top; y <= bottom; ++y) {
        for (int x = left; x <= right; ++x) {
          const double d = segmentDistance(x + 0.5, y + 0.5, ax, ay, bx, by);
          const auto v = static_cast<float>(1 - smoothstep(inner, outer, d));
          float& cell = stroke[static_cast<std::size_t>(y) * static_cast<std::size_t>(cw) +
                               static_cast<std::size_t>(x)];
          cell = std::max(cell, v);
        }
      }
    }
    for (int y = y0; y <= y1; ++y) {
      for (int x = x0; x <= x1; ++x) {
        const std::size_t i = static_cast<std::size_t>(y) * static_cast<std::size_t>(cw) +
                              static_cast<std::size_t>(x);
        coverage[i] =
            brush.erase ? coverage[i] * (1 - stroke[i]) : std::max(coverage[i], stroke[i]);
      }
    }
  }
  VipsImage* canvas = vips_image_new_from_memory_copy(
      coverage.data(), coverage.size() * sizeof(float), cw, ch, 1, VIPS_FORMAT_FLOAT);
  if (canvas == nullptr) {
    throw vips::VError();
  }
  return resizeTo(VImage(canvas), w, h, VIPS_KERNEL_LINEAR);
}

VImage shapeMatte(const core::MaskShape& shape, MatteSource& source) {
  const int w = source.width();
  const int h = source.height();
  if (const auto* s = std::get_if<core::LinearShape>(&shape)) {
    return linearMatte(*s, w, h);
  }
  if (const auto* s = std::get_if<core::RadialShape>(&shape)) {
    return radialMatte(*s, w, h);
  }
  if (const auto* s = std::get_if<core::LuminanceRangeShape>(&shape)) {
    return luminanceMatte(*s, source);
  }
  if (const auto* s = std::get_if<core::ColorRangeShape>(&shape)) {
    return colourMatte(*s, source);
  }
  if (const auto* s = std::get_if<core::BrushShape>(&shape)) {
    return brushMatte(*s, w, h);
  }
  if (const auto* s = std::get_if<core::AiSubjectShape>(&shape)) {
    const VImage m = source.subject();
    return s->inverted ? 1 - m : m;
  }
  const auto& people = std::get<core::AiPeopleShape>(shape);
  const VImage m = source.people();
  return people.inverted ? 1 - m : m;
}

VImage coverage(const core::LocalMask& mask, MatteSource& source) {
  VImage m = shapeMatte(mask.shape, source);
  for (const core::MaskComponent& component : mask.refinements()) {
    const VImage b = shapeMatte(component.shape, source);
    switch (component.mode) {
    case core::CompositeMode::Add:
      m = maxOf(m, b);
      break;
    case core::CompositeMode::Subtract:
      m = m * (1 - b);
      break;
    case core::CompositeMode::Intersect:
      m = m * b;
      break;
    }
  }
  return m.cast(VIPS_FORMAT_FLOAT);
}

/// The kinds a mask renders: those of the stages before it that act on pixels one region at a
/// time. Effects, looks, geometry and the frame belong to the whole picture.
bool rendersInMask(AdjustmentKind kind) {
  if (kind == AdjustmentKind::CgBalance) {
    return true;
  }
  const auto group = core::groupOf(kind);
  if (!group) {
    return false;
  }
  switch (*group) {
  case core::EditGroup::Light:
  case core::EditGroup::Curve:
  case core::EditGroup::Color:
  case core::EditGroup::ColorMixer:
  case core::EditGroup::ColorGrade:
  case core::EditGroup::Detail:
  case core::EditGroup::Presence:
    return true;
  default:
    return false;
  }
}

double neutralValue(AdjustmentKind kind) {
  switch (kind) {
  case AdjustmentKind::WbRedGain:
  case AdjustmentKind::WbBlueGain:
  case AdjustmentKind::LevelsWhite:
    return 1;
  default:
    return 0;
  }
}

bool hasAiShape(const core::LocalMask& mask) {
  return !core::aiMatteRegions(mask).empty();
}

} // namespace

core::EditStack maskStack(const core::LocalMask& mask) {
  core::EditStack stack;
  const core::EditOrigin origin = core::UserOrigin{};
  for (const auto& [kind, value] : mask.adjustments) {
    if (!std::isfinite(value) || !rendersInMask(kind) || value == neutralValue(kind)) {
      continue;
    }
    switch (core::payloadType(kind)) {
    case core::PayloadType::Scalar:
      stack.setScalar(kind, value, origin, json::Date{});
      break;
    case core::PayloadType::Boolean:
      stack.setBoolean(kind, true, origin, json::Date{}); // non-zero: on
      break;
    default:
      break;
    }
  }
  return stack;
}

bool rendersMasks(const core::EditStack& stack) {
  return std::any_of(stack.masks().begin(), stack.masks().end(), [](const core::LocalMask& m) {
    return m.isEnabled && !maskStack(m).isEmpty();
  });
}

bool masksReadNeighbours(const core::EditStack& stack) {
  return std::any_of(stack.masks().begin(), stack.masks().end(), [](const core::LocalMask& m) {
    if (!m.isEnabled) {
      return false;
    }
    const core::EditStack own = maskStack(m);
    return !own.isEmpty() && (hasAiShape(m) || readsNeighbours(own));
  });
}

VImage maskMatte(const core::LocalMask& mask, const VImage& image) {
  VImage scrgb = image.colourspace(VIPS_INTERPRETATION_scRGB);
  if (scrgb.bands() > 3) {
    scrgb = scrgb.extract_band(0, VImage::option()->set("n", 3));
  }
  MatteSource source(withInterpretation(scrgb.cast(VIPS_FORMAT_FLOAT), VIPS_INTERPRETATION_scRGB));
  return coverage(mask, source);
}

VImage applyMasks(const VImage& rgb, const core::EditStack& stack) {
  const VImage entering = shared(rgb);
  MatteSource source(entering);
  VImage current = entering;
  bool first = true;
  for (const core::LocalMask& mask : stack.masks()) {
    if (!mask.isEnabled) {
      continue;
    }
    const core::EditStack own = maskStack(mask);
    if (own.isEmpty()) {
      continue;
    }
    const VImage base = first ? current : shared(current);
    const VImage masked = applyAdjustments(base, own);
    if (masked.get_image() == base.get_image()) {
      continue; // nothing the stages render
    }
    first = false;
    current = withInterpretation(base + (masked - base) * coverage(mask, source),
                                 VIPS_INTERPRETATION_scRGB);
  }
  return withInterpretation(current.cast(VIPS_FORMAT_FLOAT), VIPS_INTERPRETATION_scRGB);
}

std::optional<std::vector<PixelMask>> pixelMasks(const core::EditStack& stack, int width,
                                                 int height) {
  const auto drawn = [](const core::MaskShape& shape) {
    return std::holds_alternative<core::LinearShape>(shape) ||
           std::holds_alternative<core::RadialShape>(shape) ||
           std::holds_alternative<core::BrushShape>(shape);
  };
  std::vector<PixelMask> masks;
  // Drawn shapes never read the image, so the source is a stand-in of the right size.
  MatteSource source(VImage::black(width, height, VImage::option()->set("bands", 3)));
  for (const core::LocalMask& mask : stack.masks()) {
    if (!mask.isEnabled) {
      continue;
    }
    core::EditStack own = maskStack(mask);
    if (own.isEmpty()) {
      continue;
    }
    if (readsNeighbours(own) || !drawn(mask.shape) ||
        !std::all_of(mask.refinements().begin(), mask.refinements().end(),
                     [&](const core::MaskComponent& c) { return drawn(c.shape); })) {
      return std::nullopt;
    }
    VImage m = coverage(mask, source);
    masks.push_back({std::move(own), std::move(m)});
  }
  return masks;
}

} // namespace velko::app
