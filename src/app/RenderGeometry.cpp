#include "app/RenderGeometry.h"

#include "app/RenderMath.h"
#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace velko::app {
namespace {

using core::AdjustmentKind;
using vips::VImage;

/// Keystone strength: at ±1 the widened edge is 1/(1 − 0.3) of its old length, the other
/// 1/(1 + 0.3), a ratio of about 1.86.
constexpr double kKeystone = 0.3;
/// Lens strength: at ±1 a corner is resampled from 0.8 (or 1.2) of its distance to the centre.
constexpr double kLens = 0.2;
/// r² past which the lens term stops growing, so the radial map stays monotone for points the
/// auto-crop search tries outside the frame.
constexpr double kLensRadiusCap = 1.5;
/// The narrowest inner area a frame leaves, as a fraction of the frame.
constexpr double kMinInner = 0.1;

double finiteOr(double v, double fallback) {
  return std::isfinite(v) ? v : fallback;
}

double capped(double v, double cap) {
  return std::min(v, cap);
}
VImage capped(const VImage& v, double cap) {
  return (v > cap).ifthenelse(cap, v);
}

/// `image` brought to exactly `width` × `height`: a centred cut where it is larger, a resize
/// for what is left (never more than a pixel or two of rounding).
VImage exactly(VImage image, int width, int height) {
  if (image.width() > width || image.height() > height) {
    const int w = std::min(image.width(), width);
    const int h = std::min(image.height(), height);
    image = image.extract_area((image.width() - w) / 2, (image.height() - h) / 2, w, h);
  }
  if (image.width() != width || image.height() != height) {
    image =
        image.resize(static_cast<double>(width) / image.width(),
                     VImage::option()->set("vscale", static_cast<double>(height) / image.height()));
    if (image.width() != width || image.height() != height) {
      image = image
                  .embed(0, 0, std::max(width, image.width()), std::max(height, image.height()),
                         VImage::option()->set("extend", VIPS_EXTEND_COPY))
                  .extract_area(0, 0, width, height);
    }
  }
  return image;
}

/// The largest alpha of an interpretation: 16-bit images count to 65535, all others to 255
/// (scRGB included: libvips keeps its alpha on the 8-bit scale).
double maxAlpha(VipsInterpretation interpretation) {
  return interpretation == VIPS_INTERPRETATION_RGB16 || interpretation == VIPS_INTERPRETATION_GREY16
             ? 65535
             : 255;
}


} // namespace

GeometrySettings::GeometrySettings(const core::EditStack& stack) {
  const double turns = stack.scalar(AdjustmentKind::Rotation, 0);
  if (std::isfinite(turns)) {
    quarterTurns = ((static_cast<int>(std::lround(std::fmod(turns, 4))) % 4) + 4) % 4;
  }
  flipHorizontal = stack.boolean(AdjustmentKind::FlipHorizontal, false);
  flipVertical = stack.boolean(AdjustmentKind::FlipVertical, false);
  if (auto r = stack.rect(AdjustmentKind::Crop)) {
    const double x = std::clamp(r->x, 0.0, 1.0);
    const double y = std::clamp(r->y, 0.0, 1.0);
    const double w = std::min(r->width, 1 - x);
    const double h = std::min(r->height, 1 - y);
    // A degenerate rectangle (or NaN) would leave nothing to show; it is ignored.
    if (w > 0 && h > 0) {
      crop = {x, y, w, h};
    }
  }
  const auto unit = [&](AdjustmentKind kind) {
    return std::clamp(finiteOr(stack.scalar(kind, 0), 0), -1.0, 1.0);
  };
  straighten = std::clamp(finiteOr(stack.scalar(AdjustmentKind::Straighten, 0), 0), -45.0, 45.0);
  perspectiveVertical = unit(AdjustmentKind::PerspectiveVertical);
  perspectiveHorizontal = unit(AdjustmentKind::PerspectiveHorizontal);
  lensDistortion = unit(AdjustmentKind::LensDistortion);
}

bool GeometrySettings::warps() const {
  return straighten != 0 || perspectiveVertical != 0 || perspectiveHorizontal != 0 ||
         lensDistortion != 0;
}

Warp::Warp(const GeometrySettings& g, double aspect) : aspect_(aspect) {
  const double angle = g.straighten * std::numbers::pi / 180;
  rotates_ = g.straighten != 0;
  cos_ = std::cos(angle);
  sin_ = std::sin(angle);
  // The forward keystone divides by w = 1 + tiltY·y + tiltX·x (x, y in -1..1, y down): where
  // w < 1 the picture grows, so a positive vertical amount widens the top (y = -1) and a
  // positive horizontal one the right side (x = 1).
  tiltY_ = kKeystone * g.perspectiveVertical;
  tiltX_ = -kKeystone * g.perspectiveHorizontal;
  tilts_ = tiltY_ != 0 || tiltX_ != 0;
  lens_ = kLens * g.lensDistortion;
  bends_ = lens_ != 0;
  if (!fits(1)) {
    // The centre always maps to the centre, so a small enough rectangle fits.
    double inside = 0;
    double outside = 1;
    for (int i = 0; i < 40; ++i) {
      const double mid = (inside + outside) / 2;
      (fits(mid) ? inside : outside) = mid;
    }
    autoCrop_ = std::max(inside, 1e-3);
  }
}

/// A point of the straightened picture before the auto-crop, in units of half the frame's
/// height from its centre (x in -aspect..aspect, y in -1..1, y down), to the same units of the
/// frame. Written once for numbers (the auto-crop search, tests) and for images (the map).
template <class T> std::pair<T, T> Warp::toFrame(T x, T y) const {
  if (rotates_) {
    // The picture turned clockwise by the angle; this turns each point back.
    T turnedX = x * cos_ + y * sin_;
    T turnedY = y * cos_ - x * sin_;
    x = turnedX;
    y = turnedY;
  }
  if (tilts_) {
    // The inverse of a homography with last row (tiltX, tiltY, 1) has last row (-tiltX, -tiltY, 1).
    T w = 1.0 - y * tiltY_ - x * (tiltX_ / aspect_);
    x = x / w;
    y = y / w;
  }
  if (bends_) {
    // Radius 1 at the corners. Positive k resamples from nearer the centre: corrects barrel.
    T r2 = capped((x * x + y * y) * (1 / (aspect_ * aspect_ + 1)), kLensRadiusCap);
    T f = 1.0 - r2 * lens_;
    x = x * f;
    y = y * f;
  }
  return {x, y};
}

bool Warp::fits(double scale) const {
  // The rectangle's edges are enough: the map is one-to-one, so what lies inside the mapped
  // boundary lies inside the frame too.
  constexpr int kSteps = 64;
  constexpr double kSlack = 1e-9;
  const double w = aspect_ * scale;
  for (int i = 0; i <= kSteps; ++i) {
    const double t = -1 + 2.0 * i / kSteps;
    const std::pair<double, double> points[] = {
        {t * w, -scale}, {t * w, scale}, {-w, t * scale}, {w, t * scale}};
    for (auto [x, y] : points) {
      auto [fx, fy] = toFrame(x, y);
      if (std::abs(fx) > aspect_ + kSlack || std::abs(fy) > 1 + kSlack) {
        return false;
      }
    }
  }
  return true;
}

core::Point Warp::source(core::Point straightened) const {
  auto [fx, fy] =
      toFrame((2 * straightened.x - 1) * aspect_ * autoCrop_, (2 * straightened.y - 1) * autoCrop_);
  return {(fx / aspect_ + 1) / 2, (fy + 1) / 2};
}

VImage Warp::apply(const VImage& frame, const core::Rect& crop, int width, int height) const {
  // Output pixel centres to the straightened picture (0..1), then to centred units, in one
  // linear step per axis.
  const VImage xy = VImage::xyz(width, height);
  const double scaleX = crop.width / width * 2 * aspect_ * autoCrop_;
  const double scaleY = crop.height / height * 2 * autoCrop_;
  const VImage x = xy[0].linear(scaleX, (2 * crop.x - 1) * aspect_ * autoCrop_ + scaleX / 2);
  const VImage y = xy[1].linear(scaleY, (2 * crop.y - 1) * autoCrop_ + scaleY / 2);
  auto [fx, fy] = toFrame(x, y);
  // Centred units to the frame's pixel coordinates (pixel centres at whole numbers).
  const double halfW = frame.width() / 2.0;
  const double halfH = frame.height() / 2.0;
  const VImage index =
      fx.linear(halfW / aspect_, halfW - 0.5).bandjoin(fy.linear(halfH, halfH - 0.5));
  return frame.copy_memory().mapim(
      index, VImage::option()
                 ->set("interpolate", vips::VInterpolate::new_from_name("bicubic"))
                 ->set("extend", VIPS_EXTEND_COPY));
}

FrameSettings::FrameSettings(const core::EditStack& stack) {
  if (!stack.hasFrame()) {
    return;
  }
  const double a = stack.scalar(AdjustmentKind::FrameAspect, 0);
  if (a == core::EditStack::frameAspectMatchSource) {
    matchSource = true;
  } else if (std::isfinite(a) && a > 0) {
    aspect = std::clamp(a, 0.1, 10.0);
  } else {
    return; // another negative number names no aspect
  }
  fill = stack.frameFit() == core::FrameFit::Fill;
  color = stack.frameColorValue();
  const core::FrameInsets raw = stack.frameInsets();
  const auto side = [](double v) {
    return std::clamp(finiteOr(v, 0), 0.0, 0.45);
  };
  insets = {side(raw.top), side(raw.bottom), side(raw.left), side(raw.right)};
}

RenderPlan planRender(int frameWidth, int frameHeight, const GeometrySettings& geometry,
                      const Warp& warp, const FrameSettings& frame, std::optional<int> longEdge) {
  // Content: what the geometry leaves of the frame, in the frame's own pixels.
  const double contentW = frameWidth * warp.autoCrop() * geometry.crop.width;
  const double contentH = frameHeight * warp.autoCrop() * geometry.crop.height;
  // The frame in a unit where its height is 1, and the content's length in that unit per pixel.
  double canvasW = contentW;
  double canvasH = contentH;
  double perPixel = 1;
  core::FrameInsets in;
  double frameW = 1;
  if (frame.any()) {
    frameW = frame.matchSource ? contentW / contentH : frame.aspect;
    const double shortEdge = std::min(frameW, 1.0);
    in = frame.insets;
    // Opposite insets together leave at least kMinInner of the frame.
    const auto keepInner = [&](double& a, double& b, double length) {
      const double most = (1 - kMinInner) * length / shortEdge;
      if (a + b > most) {
        const double f = most / (a + b);
        a *= f;
        b *= f;
      }
    };
    keepInner(in.left, in.right, frameW);
    keepInner(in.top, in.bottom, 1);
    const double innerW = frameW - (in.left + in.right) * shortEdge;
    const double innerH = 1 - (in.top + in.bottom) * shortEdge;
    perPixel = frame.fill ? std::max(innerW / contentW, innerH / contentH)
                          : std::min(innerW / contentW, innerH / contentH);
    canvasW = frameW / perPixel;
    canvasH = 1 / perPixel;
    in = {in.top * shortEdge, in.bottom * shortEdge, in.left * shortEdge, in.right * shortEdge};
  }
  const double scale = longEdge ? std::min(1.0, *longEdge / std::max(canvasW, canvasH)) : 1.0;
  const auto pixels = [](double v) {
    return std::max(1, static_cast<int>(std::lround(v)));
  };

  RenderPlan plan;
  plan.decodeLongEdge = pixels(std::max(frameWidth, frameHeight) * scale);
  plan.contentWidth = pixels(contentW * scale);
  plan.contentHeight = pixels(contentH * scale);
  if (!frame.any()) {
    plan.photoWidth = plan.canvasWidth = plan.contentWidth;
    plan.photoHeight = plan.canvasHeight = plan.contentHeight;
    return plan;
  }
  plan.canvasWidth = pixels(canvasW * scale);
  plan.canvasHeight = pixels(canvasH * scale);
  const double unit = scale / perPixel; // output pixels per unit of the frame
  const auto inset = [&](double v) {
    return static_cast<int>(std::lround(v * unit));
  };
  const int left = inset(in.left);
  const int top = inset(in.top);
  const int innerW = std::max(1, plan.canvasWidth - left - inset(in.right));
  const int innerH = std::max(1, plan.canvasHeight - top - inset(in.bottom));
  plan.photoWidth = frame.fill ? innerW : std::min(plan.contentWidth, innerW);
  plan.photoHeight = frame.fill ? innerH : std::min(plan.contentHeight, innerH);
  plan.photoLeft = left + (innerW - plan.photoWidth) / 2;
  plan.photoTop = top + (innerH - plan.photoHeight) / 2;
  return plan;
}

VImage applyGeometry(VImage image, const GeometrySettings& g, const Warp& warp,
                     const RenderPlan& plan) {
  static constexpr VipsAngle kAngles[] = {VIPS_ANGLE_D0, VIPS_ANGLE_D90, VIPS_ANGLE_D180,
                                          VIPS_ANGLE_D270};
  if (g.quarterTurns != 0) {
    image = image.rot(kAngles[g.quarterTurns]);
  }
  if (g.flipHorizontal) {
    image = image.flip(VIPS_DIRECTION_HORIZONTAL);
  }
  if (g.flipVertical) {
    image = image.flip(VIPS_DIRECTION_VERTICAL);
  }
  if (g.warps()) {
    image = warp.apply(image, g.crop, plan.contentWidth, plan.contentHeight);
  } else if (g.crop.width < 1 || g.crop.height < 1) {
    const int w = image.width();
    const int h = image.height();
    const int left = std::min(w - 1, static_cast<int>(std::lround(g.crop.x * w)));
    const int top = std::min(h - 1, static_cast<int>(std::lround(g.crop.y * h)));
    const int width = std::clamp(static_cast<int>(std::lround(g.crop.width * w)), 1, w - left);
    const int height = std::clamp(static_cast<int>(std::lround(g.crop.height * h)), 1, h - top);
    image = image.extract_area(left, top, width, height);
  }
  // Rounding in the decode and the cut can leave a pixel too many or too few; a filling frame
  // takes the centre of the content.
  return exactly(exactly(image, plan.contentWidth, plan.contentHeight), plan.photoWidth,
                 plan.photoHeight);
}

VImage applyFrame(VImage photo, const RenderPlan& plan, const core::FrameColorRGBA& color) {
  if (photo.bands() < 3) {
    photo = photo.colourspace(photo.interpretation() == VIPS_INTERPRETATION_GREY16
                                  ? VIPS_INTERPRETATION_RGB16
                                  : VIPS_INTERPRETATION_sRGB);
  }
  const double top = maxAlpha(photo.interpretation());
  const double alpha = std::clamp(color.a, 0.0, 1.0);
  if (alpha < 1 && !photo.has_alpha()) {
    photo = photo.bandjoin_const({top});
  }
  // The colour in the photo's own encoding: one scRGB pixel converted the way the photo would be.
  const std::vector<double> linear = {toLinear(std::clamp(color.r, 0.0, 1.0)),
                                      toLinear(std::clamp(color.g, 0.0, 1.0)),
                                      toLinear(std::clamp(color.b, 0.0, 1.0))};
  const VImage pixel = (VImage::black(1, 1, VImage::option()->set("bands", 3)) + linear)
                           .cast(VIPS_FORMAT_FLOAT)
                           .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_scRGB))
                           .colourspace(photo.interpretation())
                           .cast(photo.format());
  std::vector<double> background = pixel.getpoint(0, 0);
  background.resize(3);
  if (photo.bands() > 3) {
    background.push_back(alpha * top);
    background.resize(static_cast<std::size_t>(photo.bands()), top);
  }
  return photo.embed(
      plan.photoLeft, plan.photoTop, plan.canvasWidth, plan.canvasHeight,
      VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", background));
}

} // namespace velko::app
