#include "app/RenderPipeline.h"

#include "app/Masks.h"
#include "app/RenderMath.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <vector>

namespace velko::app {
namespace {

using app::smoothstep; // beside the image overload below
using core::AdjustmentKind;
using vips::VImage;

constexpr double kPi = std::numbers::pi;




/// A stored scalar, or `fallback` when it is absent or not a number.
double scalar(const core::EditStack& stack, AdjustmentKind kind, double fallback = 0) {
  const double v = stack.scalar(kind, fallback);
  return std::isfinite(v) ? v : fallback;
}

/// A monotone cubic (Fritsch-Carlson) through a tone curve's points, on 0..1; flat outside the
/// first and last point. Absent when the curve changes nothing.
class ToneCurve {
public:
  static std::optional<ToneCurve> from(const std::optional<core::Curve>& curve) {
    if (!curve || *curve == core::identityToneCurvePoints) {
      return std::nullopt;
    }
    ToneCurve c;
    for (const core::Point& p : *curve) {
      if (std::isfinite(p.x) && std::isfinite(p.y)) {
        c.x_.push_back(clamp01(p.x));
        c.y_.push_back(clamp01(p.y));
      }
    }
    // Sorted by input; of two points at the same input the later one wins.
    std::vector<std::size_t> order(c.x_.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
      order[i] = i;
    }
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return c.x_[a] < c.x_[b]; });
    std::vector<double> xs;
    std::vector<double> ys;
    for (std::size_t i : order) {
      if (!xs.empty() && c.x_[i] - xs.back() < 1e-6) {
        ys.back() = c.y_[i];
      } else {
        xs.push_back(c.x_[i]);
        ys.push_back(c.y_[i]);
      }
    }
    if (xs.size() < 2) {
      return std::nullopt;
    }
    c.x_ = std::move(xs);
    c.y_ = std::move(ys);
    const std::size_t n = c.x_.size();
    std::vector<double> slope(n - 1);
    for (std::size_t i = 0; i + 1 < n; ++i) {
      slope[i] = (c.y_[i + 1] - c.y_[i]) / (c.x_[i + 1] - c.x_[i]);
    }
    c.m_.assign(n, 0);
    c.m_[0] = slope[0];
    c.m_[n - 1] = slope[n - 2];
    for (std::size_t i = 1; i + 1 < n; ++i) {
      c.m_[i] = slope[i - 1] * slope[i] <= 0 ? 0 : (slope[i - 1] + slope[i]) / 2;
    }
    for (std::size_t i = 0; i + 1 < n; ++i) {
      if (slope[i] == 0) {
        c.m_[i] = c.m_[i + 1] = 0;
        continue;
      }
      const double a = c.m_[i] / slope[i];
      const double b = c.m_[i + 1] / slope[i];
      const double h = std::hypot(a, b);
      if (h > 3) {
        c.m_[i] = 3 * a / h * slope[i];
        c.m_[i + 1] = 3 * b / h * slope[i];
      }
    }
    return c;
  }

  double operator()(double x) const {
    if (x <= x_.front()) {
      return y_.front();
    }
    if (x >= x_.back()) {
      return y_.back();
    }
    const std::size_t i =
        static_cast<std::size_t>(std::upper_bound(x_.begin(), x_.end(), x) - x_.begin()) - 1;
    const double h = x_[i + 1] - x_[i];
    const double t = (x - x_[i]) / h;
    const double t2 = t * t;
    const double t3 = t2 * t;
    return clamp01((2 * t3 - 3 * t2 + 1) * y_[i] + (t3 - 2 * t2 + t) * h * m_[i] +
                   (-2 * t3 + 3 * t2) * y_[i + 1] + (t3 - t2) * h * m_[i + 1]);
  }

private:
  std::vector<double> x_, y_, m_;
};

/// Everything the pipeline reads from a stack, read once, with documented defaults.
struct Settings {
  // develop
  std::array<double, 3> gains{1, 1, 1}; ///< linear R, G, B; exposure folded in
  // tone
  double whites = 0, blacks = 0, shadows = 0, highlights = 0;
  double contrast = 1; ///< slope at mid-grey
  double levelsBlack = 0, levelsWhite = 1, levelsGamma = 0;
  std::optional<ToneCurve> master;
  std::array<std::optional<ToneCurve>, 3> channel;
  // colour
  double chroma = 1; ///< saturation factor
  double vibrance = 0;
  bool monochrome = false;
  std::array<double, 8> bandHue{}, bandSat{}, bandLum{};
  std::array<double, 4> gradeHue{}, gradeSat{}, gradeLum{};
  double gradeBalance = 0;
  std::vector<core::PointColorTarget> pointColors; ///< clamped; targets that shift nothing left out
  // detail and presence
  double sharpenAmount = 0, sharpenRadius = 0, texture = 0, clarity = 0, dehaze = 0;
  double sharpenDetail = 0, luminanceNR = 0, colorNR = 0, defringe = 0; ///< 0..1
  // effects
  double vignetteAmount = 0, vignetteMidpoint = 0.5, vignetteFeather = 0.5;
  double grainAmount = 0, grainSize = 0.25, grainRoughness = 0;

  explicit Settings(const core::EditStack& s) {
    const core::ColorProfile profile = s.colorProfile();
    const core::ColorProfileTraits& traits = core::traits(profile);

    // White balance: temperature trades red against blue, tint green against magenta, both
    // normalised so that a neutral grey keeps its luminance. Channel gains come on top.
    const double temperature = scalar(s, AdjustmentKind::Temperature) + traits.warmth;
    const double tint = scalar(s, AdjustmentKind::Tint);
    std::array<double, 3> wb{std::exp2(0.4 * temperature), std::exp2(-0.3 * tint),
                             std::exp2(-0.4 * temperature)};
    const double luminance = 0.2126 * wb[0] + 0.7152 * wb[1] + 0.0722 * wb[2];
    const auto gain = [&](AdjustmentKind kind) {
      return std::clamp(scalar(s, kind, 1), core::EditStack::whiteBalanceGainRange.lower,
                        core::EditStack::whiteBalanceGainRange.upper);
    };
    const double exposure = std::exp2(std::clamp(scalar(s, AdjustmentKind::Exposure), -10.0, 10.0));
    gains = {wb[0] / luminance * gain(AdjustmentKind::WbRedGain) * exposure,
             wb[1] / luminance * exposure,
             wb[2] / luminance * gain(AdjustmentKind::WbBlueGain) * exposure};

    const auto unit = [&](AdjustmentKind kind) {
      return std::clamp(scalar(s, kind), -1.0, 1.0);
    };
    whites = unit(AdjustmentKind::Whites);
    blacks = unit(AdjustmentKind::Blacks);
    shadows = unit(AdjustmentKind::Shadows);
    highlights = unit(AdjustmentKind::Highlights);
    contrast =
        std::exp2(std::clamp(scalar(s, AdjustmentKind::Contrast), -2.0, 2.0)) * traits.contrast;
    levelsBlack = clamp01(scalar(s, AdjustmentKind::LevelsBlack, 0));
    levelsWhite = clamp01(scalar(s, AdjustmentKind::LevelsWhite, 1));
    levelsGamma = unit(AdjustmentKind::LevelsGamma);
    master = ToneCurve::from(s.curve(AdjustmentKind::ToneCurve));
    channel = {ToneCurve::from(s.curve(AdjustmentKind::ToneCurveRed)),
               ToneCurve::from(s.curve(AdjustmentKind::ToneCurveGreen)),
               ToneCurve::from(s.curve(AdjustmentKind::ToneCurveBlue))};

    chroma = std::max(0.0, 1 + std::clamp(scalar(s, AdjustmentKind::Saturation), -1.0, 2.0)) *
             traits.saturation;
    vibrance = unit(AdjustmentKind::Vibrance);
    monochrome = s.boolean(AdjustmentKind::Treatment, false) || core::isMonochrome(profile);
    for (core::ColorMixerBand band : core::kAllColorMixerBands) {
      const auto i = static_cast<std::size_t>(band);
      bandHue[i] = unit(core::hueKind(band));
      bandSat[i] = unit(core::saturationKind(band));
      bandLum[i] = unit(core::luminanceKind(band));
    }
    for (core::ColorGradeRegion region : core::kAllColorGradeRegions) {
      const auto i = static_cast<std::size_t>(region);
      gradeHue[i] = scalar(s, core::hueKind(region));
      gradeSat[i] = clamp01(scalar(s, core::saturationKind(region)));
      gradeLum[i] = unit(core::luminanceKind(region));
    }
    gradeBalance = unit(AdjustmentKind::CgBalance);
    for (core::PointColorTarget t : s.pointColors()) {
      const std::array<double, 7> all{t.targetHue, t.targetSat, t.targetLum, t.hue,
                                      t.sat,       t.lum,       t.range};
      if (t.isIdentity() ||
          !std::all_of(all.begin(), all.end(), [](double v) { return std::isfinite(v); })) {
        continue;
      }
      t.targetHue = t.targetHue - std::floor(t.targetHue); // around the wheel
      t.targetSat = clamp01(t.targetSat);
      t.targetLum = clamp01(t.targetLum);
      t.hue = std::clamp(t.hue, -1.0, 1.0);
      t.sat = std::clamp(t.sat, -1.0, 1.0);
      t.lum = std::clamp(t.lum, -1.0, 1.0);
      t.range = clamp01(t.range);
      pointColors.push_back(t);
    }

    sharpenAmount = unit(AdjustmentKind::SharpenAmount);
    sharpenRadius = unit(AdjustmentKind::SharpenRadius);
    texture = unit(AdjustmentKind::Texture);
    clarity = unit(AdjustmentKind::Clarity);
    dehaze = unit(AdjustmentKind::Dehaze);
    sharpenDetail = clamp01(scalar(s, AdjustmentKind::SharpenDetail));
    luminanceNR = clamp01(scalar(s, AdjustmentKind::LuminanceNR));
    colorNR = clamp01(scalar(s, AdjustmentKind::ColorNR));
    defringe = clamp01(scalar(s, AdjustmentKind::DefringeAmount));

    vignetteAmount = unit(AdjustmentKind::VignetteAmount);
    vignetteMidpoint = clamp01(scalar(s, AdjustmentKind::VignetteMidpoint, 0.5));
    vignetteFeather = clamp01(scalar(s, AdjustmentKind::VignetteFeather, 0.5));
    grainAmount = clamp01(scalar(s, AdjustmentKind::GrainAmount));
    grainSize = clamp01(scalar(s, AdjustmentKind::GrainSize, 0.25));
    grainRoughness = clamp01(scalar(s, AdjustmentKind::GrainRoughness));
  }

  bool developOrExposure() const { return gains != std::array<double, 3>{1, 1, 1}; }
  bool tone() const {
    return whites != 0 || blacks != 0 || shadows != 0 || highlights != 0 || contrast != 1 ||
           levelsBlack != 0 || levelsWhite != 1 || levelsGamma != 0 || master || channel[0] ||
           channel[1] || channel[2];
  }
  bool mixer() const {
    const auto any = [](const std::array<double, 8>& a) {
      return std::any_of(a.begin(), a.end(), [](double v) { return v != 0; });
    };
    return any(bandHue) || any(bandSat) || any(bandLum);
  }
  bool colour() const {
    return chroma != 1 || vibrance != 0 || monochrome || mixer() || !pointColors.empty();
  }
  bool grade() const {
    for (std::size_t i = 0; i < 4; ++i) {
      if (gradeSat[i] != 0 || gradeLum[i] != 0) {
        return true;
      }
    }
    return false;
  }
  bool lightness() const {
    return sharpenAmount != 0 || texture != 0 || clarity != 0 || dehaze != 0 || luminanceNR != 0 ||
           colorNR != 0 || defringe != 0;
  }
  bool any() const {
    return developOrExposure() || tone() || colour() || grade() || lightness() ||
           vignetteAmount != 0 || grainAmount != 0;
  }

  /// The tone functions on one perceptual value, before the per-channel curve.
  /// It runs for every entry of a 65,536-entry table, so integer powers are products and the
  /// powers that change nothing are skipped.
  double tone(double x) const {
    x = clamp01(x + whites * 0.2 * (x * x) * (x * x));
    const double z = 1 - x;
    x = clamp01(x + blacks * 0.2 * (z * z) * (z * z));
    // Both bumps keep the curve monotone for amounts in -1..1 and leave 0 and 1 in place.
    const double w = 1 - x;
    x += shadows * x * (w * w * w);
    x += highlights * (x * x * x) * (1 - x);
    // Contrast: two power segments meeting at mid-grey with the given slope there.
    static const double mid = toPerceptual(0.18);
    if (contrast != 1) {
      x = x < mid ? mid * std::pow(x / mid, contrast)
                  : 1 - (1 - mid) * std::pow((1 - x) / (1 - mid), contrast);
    }
    if (master) {
      x = (*master)(x);
    }
    x = clamp01((x - levelsBlack) / std::max(levelsWhite - levelsBlack, 1e-3));
    return levelsGamma == 0 ? x : std::pow(x, std::exp2(-levelsGamma));
  }
};


/// A float lookup table image of `entries` columns and `bands` interleaved bands, owning a copy
/// of `values` (a plain memory image would point at the vector after it is gone).
VImage lutImage(const std::vector<float>& values, int entries, int bands) {
  VipsImage* lut = vips_image_new_from_memory_copy(values.data(), values.size() * sizeof(float),
                                                   entries, 1, bands, VIPS_FORMAT_FLOAT);
  if (lut == nullptr) {
    throw vips::VError();
  }
  return VImage(lut);
}

/// max(image, 0) without a branch.
VImage positive(const VImage& image) {
  return (image + image.abs()) * 0.5;
}


/// A Gaussian blur of a float band; wide ones blur a reduced copy and scale it back, so the
/// cost stays flat when the radius grows with the image.
VImage blur(const VImage& band, double sigma) {
  constexpr double kDirect = 6;
  if (sigma <= kDirect) {
    return band.gaussblur(sigma, VImage::option()->set("precision", VIPS_PRECISION_FLOAT));
  }
  const double shrink = sigma / kDirect * 1.5;
  const VImage small = band.resize(1 / shrink);
  const VImage blurred =
      small.gaussblur(sigma / shrink, VImage::option()->set("precision", VIPS_PRECISION_FLOAT));
  return resizeTo(blurred, band.width(), band.height());
}

// ---- develop and tone: linear scRGB in and out --------------------------------------------

constexpr int kToneEntries = 65536;

/// One lookup per channel, indexed by the square root of the linear value (fine steps in the
/// shadows), giving the toned linear value. Values past white are clipped to white.
VImage applyTone(const VImage& rgb, const Settings& s) {
  std::vector<float> table(static_cast<std::size_t>(kToneEntries) * 3);
  const bool sameForAll = !s.channel[0] && !s.channel[1] && !s.channel[2];
  for (int i = 0; i < kToneEntries; ++i) {
    const double root = static_cast<double>(i) / (kToneEntries - 1);
    const double toned = s.tone(toPerceptual(root * root));
    float* entry = &table[static_cast<std::size_t>(i) * 3];
    if (sameForAll) {
      entry[0] = entry[1] = entry[2] = static_cast<float>(toLinear(toned));
      continue;
    }
    for (std::size_t c = 0; c < 3; ++c) {
      const auto& curve = s.channel[c];
      entry[c] = static_cast<float>(toLinear(curve ? (*curve)(toned) : toned));
    }
  }
  const VImage index = (positive(rgb).pow(0.5) * (kToneEntries - 1) + 0.5).cast(VIPS_FORMAT_USHORT);
  return withInterpretation(index.maplut(lutImage(table, kToneEntries, 3)),
                            VIPS_INTERPRETATION_scRGB);
}

// ---- colour: LCh, then Lab ----------------------------------------------------------------

constexpr int kHueSteps = 10; ///< table entries per degree of hue


/// Per hue: the mixer's hue shift in degrees, its chroma factor and its lightness shift, each
/// a smooth blend of the two nearest bands.
VImage mixerTable(const Settings& s) {
  std::vector<float> table;
  const int entries = 360 * kHueSteps + 1;
  table.reserve(static_cast<std::size_t>(entries) * 3);
  for (int i = 0; i < entries; ++i) {
    const double hue = wheelHue(static_cast<double>(i) / kHueSteps);
    std::array<double, 8> weight{};
    for (std::size_t b = 0; b < 8; ++b) {
      const double from = core::centerHueDegrees(core::kAllColorMixerBands[b]);
      double to = core::centerHueDegrees(core::kAllColorMixerBands[(b + 1) % 8]);
      if (to <= from) {
        to += 360;
      }
      const double h = hue < from ? hue + 360 : hue;
      if (h >= from && h < to) {
        const double t = smoothstep(0, 1, (h - from) / (to - from));
        weight[b] += 1 - t;
        weight[(b + 1) % 8] += t;
      }
    }
    double shift = 0, factor = 1, lum = 0;
    for (std::size_t b = 0; b < 8; ++b) {
      shift += weight[b] * s.bandHue[b] * 30;
      factor += weight[b] * s.bandSat[b];
      lum += weight[b] * s.bandLum[b] * 20;
    }
    table.insert(table.end(), {static_cast<float>(shift), static_cast<float>(std::max(0.0, factor)),
                               static_cast<float>(lum)});
  }
  return lutImage(table, entries, 3);
}

/// A picked colour (hue, saturation and lightness of sRGB, 0..1 each) in LCh, converted by
/// libvips as the pixels are.
std::array<double, 3> lchOf(const core::PointColorTarget& t) {
  const double c = (1 - std::abs(2 * t.targetLum - 1)) * t.targetSat;
  const double sector = t.targetHue * 6;
  const double x = c * (1 - std::abs(std::fmod(sector, 2) - 1));
  static constexpr std::array<std::array<int, 3>, 6> kOrder{
      {{0, 1, 2}, {1, 0, 2}, {2, 0, 1}, {2, 1, 0}, {1, 2, 0}, {0, 2, 1}}};
  const auto& order = kOrder[static_cast<std::size_t>(std::min(5.0, std::floor(sector)))];
  const std::array<double, 3> parts{c, x, 0};
  std::vector<double> linear(3);
  for (std::size_t i = 0; i < 3; ++i) {
    linear[i] = toLinear(parts[static_cast<std::size_t>(order[i])] + t.targetLum - c / 2);
  }
  const std::vector<double> lch =
      withInterpretation(
          (VImage::black(1, 1, VImage::option()->set("bands", 3)) + linear).cast(VIPS_FORMAT_FLOAT),
          VIPS_INTERPRETATION_scRGB)
          .colourspace(VIPS_INTERPRETATION_LCH)
          .getpoint(0, 0);
  return {lch[0], lch[1], lch[2]};
}

/// Point colour: each target moves the colours near its picked one, weighted by closeness in
/// hue, chroma and lightness (each 1 near the pick, fading to 0 at a distance that grows with
/// the range). A shift of 1 turns hue by 30°, scales chroma by 2 (−1 removes it) and moves
/// lightness by 20. Weights come from the colours before any target moves them.
void applyPointColor(VImage& l, VImage& c, VImage& h,
                     const std::vector<core::PointColorTarget>& targets) {
  constexpr int kChromaSteps = 10; ///< table entries per unit of chroma, up to 200
  constexpr int kLumSteps = 100;   ///< per unit of lightness, up to 100
  const int hueEntries = 360 * kHueSteps + 1;
  const int chromaEntries = 200 * kChromaSteps + 1;
  const int lumEntries = 100 * kLumSteps + 1;
  const auto n = static_cast<int>(targets.size());
  std::vector<float> hueTable(static_cast<std::size_t>(hueEntries * n));
  std::vector<float> chromaTable(static_cast<std::size_t>(chromaEntries * n));
  std::vector<float> lumTable(static_cast<std::size_t>(lumEntries * n));
  const auto near = [](double distance, double width) {
    return 1 - smoothstep(0.3 * width, width, distance);
  };
  std::vector<double> hueShift, chromaShift, lumShift;
  for (int t = 0; t < n; ++t) {
    const core::PointColorTarget& target = targets[static_cast<std::size_t>(t)];
    const auto [pickL, pickC, pickH] = lchOf(target);
    // A grey pick has no hue to match: its hue weight fades to 1.
    const double hueCertainty = smoothstep(2, 10, pickC);
    const auto at = [n, t](int entry) {
      return static_cast<std::size_t>(entry * n + t);
    };
    for (int i = 0; i < hueEntries; ++i) {
      const double d = std::abs(std::remainder(static_cast<double>(i) / kHueSteps - pickH, 360));
      hueTable[at(i)] =
          static_cast<float>(1 - hueCertainty * (1 - near(d, 20 + 60 * target.range)));
    }
    for (int i = 0; i < chromaEntries; ++i) {
      chromaTable[at(i)] = static_cast<float>(
          near(std::abs(static_cast<double>(i) / kChromaSteps - pickC), 15 + 45 * target.range));
    }
    for (int i = 0; i < lumEntries; ++i) {
      lumTable[at(i)] = static_cast<float>(
          near(std::abs(static_cast<double>(i) / kLumSteps - pickL), 20 + 50 * target.range));
    }
    hueShift.push_back(30 * target.hue);
    chromaShift.push_back(target.sat);
    lumShift.push_back(20 * target.lum);
  }
  const auto index = [](const VImage& v, int steps, int entries) {
    const VImage i = (positive(v) * steps + 0.5).cast(VIPS_FORMAT_USHORT);
    return (i > entries - 1).ifthenelse(entries - 1, i).cast(VIPS_FORMAT_USHORT);
  };
  const VImage weight =
      index(h, kHueSteps, hueEntries).maplut(lutImage(hueTable, hueEntries, n)) *
      index(c, kChromaSteps, chromaEntries).maplut(lutImage(chromaTable, chromaEntries, n)) *
      index(l, kLumSteps, lumEntries).maplut(lutImage(lumTable, lumEntries, n));
  const auto total = [&](const std::vector<double>& shifts) {
    return n == 1 ? weight * shifts : (weight * shifts).bandmean() * n;
  };
  const VImage turned = h + total(hueShift);
  // Back onto 0..360, where the mixer's table expects it.
  h = (turned < 0).ifthenelse(turned + 360, (turned >= 360).ifthenelse(turned - 360, turned));
  c = positive(c * (1 + total(chromaShift)));
  l = l + total(lumShift);
}

VImage applyColour(const VImage& rgb, const Settings& s) {
  const VImage lch = rgb.colourspace(VIPS_INTERPRETATION_LCH);
  VImage l = lch[0];
  VImage c = lch[1];
  VImage h = lch[2];
  if (!s.pointColors.empty()) {
    applyPointColor(l, c, h, s.pointColors);
  }
  if (s.mixer()) {
    const VImage index = (h * kHueSteps + 0.5).cast(VIPS_FORMAT_USHORT);
    const VImage mix = index.maplut(mixerTable(s));
    // Lightness moves only where there is colour: a grey pixel's hue means nothing.
    const VImage colourful = 1 - positive(1 - c / 20);
    l = l + mix[2] * colourful;
    c = c * mix[1];
    h = h + mix[0];
  }
  if (s.vibrance != 0) {
    // Vibrance favours the muted colours: full effect at no chroma, none from chroma 70 up.
    c = c * (1 + s.vibrance * positive(1 - c / 70));
  }
  c = s.monochrome ? c * 0 : c * s.chroma;
  return withInterpretation(VImage::bandjoin({l, c, h}), VIPS_INTERPRETATION_LCH)
      .colourspace(VIPS_INTERPRETATION_LAB);
}

constexpr int kLightnessSteps = 100; ///< table entries per unit of Lab lightness

/// Per lightness: the grade's (L, a, b) offset, from the shadow, midtone and highlight weights
/// (a partition of unity whose pivot cgBalance moves) and the global wheel.
VImage gradeTable(const Settings& s) {
  std::vector<float> table;
  const int entries = 100 * kLightnessSteps + 1;
  table.reserve(static_cast<std::size_t>(entries) * 3);
  for (int i = 0; i < entries; ++i) {
    const double t = std::pow(static_cast<double>(i) / (entries - 1), std::exp2(-s.gradeBalance));
    const std::array<double, 4> weight{(1 - t) * (1 - t), 2 * t * (1 - t), t * t, 1};
    double dl = 0, da = 0, db = 0;
    for (std::size_t r = 0; r < 4; ++r) {
      const double angle = 2 * kPi * s.gradeHue[r];
      da += weight[r] * s.gradeSat[r] * 25 * std::cos(angle);
      db += weight[r] * s.gradeSat[r] * 25 * std::sin(angle);
      dl += weight[r] * s.gradeLum[r] * 15;
    }
    table.insert(table.end(),
                 {static_cast<float>(dl), static_cast<float>(da), static_cast<float>(db)});
  }
  return lutImage(table, entries, 3);
}

VImage applyGrade(const VImage& lab, const Settings& s) {
  // Lightness past 100 (values past white) takes the table's last entry.
  const VImage index = (lab[0] * kLightnessSteps + 0.5).cast(VIPS_FORMAT_USHORT);
  const VImage lastEntry = index > 100 * kLightnessSteps;
  const VImage clamped =
      lastEntry.ifthenelse(100 * kLightnessSteps, index).cast(VIPS_FORMAT_USHORT);
  return withInterpretation(lab + clamped.maplut(gradeTable(s)), VIPS_INTERPRETATION_LAB);
}

// ---- detail and presence: Lab lightness ---------------------------------------------------

/// A value clamped to 0..1 without a branch.
VImage unitClamp(const VImage& image) {
  return 1 - positive(1 - positive(image));
}

/// A local-statistics filter after Lee's, band by band: where the local variance is within what
/// noise of standard deviation `noise` explains, a value becomes its neighbourhood mean; where
/// it is three times that or more (an edge, real texture), the value stays; linear between.
/// Lee's own rule keeps only the share of the variance above the noise, which also softens
/// strong edges a little; this one leaves them alone.
VImage suppressNoise(const VImage& bands, double sigma, double noise) {
  const VImage mean = blur(bands, sigma);
  const VImage variance = positive(blur(bands * bands, sigma) - mean * mean);
  const double level = noise * noise;
  const VImage keep = unitClamp((variance - level) / (2 * level));
  return mean + (bands - mean) * keep;
}

/// The standard deviation of lightness over a few pixels around each one: how much edge or
/// texture is there.
VImage localDeviation(const VImage& l) {
  constexpr double kSigma = 1.5;
  const VImage mean = blur(l, kSigma);
  return positive(blur(l * l, kSigma) - mean * mean).pow(0.5);
}

/// 0 below `low`, 1 above `high`, smooth between.
VImage smoothstep(double low, double high, const VImage& x) {
  const VImage t = unitClamp((x - low) / (high - low));
  return t * t * (3 - 2 * t);
}

/// How much a Lab hue looks like a fringe: purple (about 290° to 340°) or green (about 120° to
/// 165°), the colours that lateral aberration and blooming leave along high-contrast edges.
VImage fringeTable() {
  std::vector<float> table;
  const int entries = 360 * kHueSteps + 1;
  for (int i = 0; i < entries; ++i) {
    const double hue = static_cast<double>(i) / kHueSteps;
    const auto bump = [&](double centre, double width) {
      return 1 - smoothstep(0.5 * width, width, std::abs(std::remainder(hue - centre, 360)));
    };
    table.push_back(static_cast<float>(std::max(bump(315, 30), bump(142, 26))));
  }
  return lutImage(table, entries, 1);
}

/// Sharpening, texture, clarity and the local part of dehaze all add detail of one scale (the
/// lightness minus its blur at that scale), each taken from the same lightness: one level of
/// neighbourhood reads, so tiles never recompute each other's margins. Amount 1 adds the detail
/// once more, -1 removes it.
VImage applyLightness(const VImage& lab, const Settings& s) {
  const double longEdge = std::max(lab.width(), lab.height());
  // Lightness is computed once into memory (one float band): the blurs read around each tile,
  // and recomputing everything before this stage for every margin would cost far more.
  // Luminance noise reduction comes first, so that everything after works on the smoothed
  // lightness; its sigma and noise level are in output pixels and Lab units.
  const VImage l =
      (s.luminanceNR > 0 ? suppressNoise(lab[0], 1 + 1.5 * s.luminanceNR, 8 * s.luminanceNR)
                         : lab[0])
          .copy_memory();
  VImage a = lab[1];
  VImage b = lab[2];
  VImage out = l;
  std::optional<VImage> deviation;
  const auto edges = [&] {
    if (!deviation) {
      deviation = localDeviation(l);
    }
    return *deviation;
  };
  const auto detail = [&](double sigma, double amount) {
    if (amount != 0) {
      out = out + (l - blur(l, sigma)) * std::max(amount, -1.0);
    }
  };
  if (s.sharpenAmount != 0 && s.sharpenDetail > 0) {
    // Edge masking: no sharpening where the local deviation is under half the threshold, full
    // sharpening from the threshold up, so flat areas and their noise are left alone.
    const double threshold = 16 * s.sharpenDetail;
    const double sigma = 0.8 * std::exp2(s.sharpenRadius);
    out = out + (l - blur(l, sigma)) * smoothstep(threshold / 2, threshold, edges()) *
                    std::max(1.5 * s.sharpenAmount, -1.0);
  } else {
    detail(0.8 * std::exp2(s.sharpenRadius), 1.5 * s.sharpenAmount);
  }
  if (s.colorNR > 0) {
    // Colour noise is coarser than lightness noise: a wider neighbourhood, same rule.
    const VImage ab = suppressNoise(a.bandjoin(b), 1 + 3 * s.colorNR, 12 * s.colorNR);
    a = ab[0];
    b = ab[1];
  }
  if (s.defringe > 0) {
    // Chroma is taken out of fringe hues where lightness changes sharply nearby.
    const VImage hue = withInterpretation(VImage::bandjoin({l, a, b}), VIPS_INTERPRETATION_LAB)
                           .colourspace(VIPS_INTERPRETATION_LCH)[2];
    const VImage fringe = (hue * kHueSteps + 0.5).cast(VIPS_FORMAT_USHORT).maplut(fringeTable());
    const VImage keep = 1 - fringe * smoothstep(3, 10, edges()) * s.defringe;
    a = a * keep;
    b = b * keep;
  }
  detail(std::max(1.0, longEdge * 0.004), 0.8 * s.texture);
  detail(std::max(2.0, longEdge * 0.015), 0.6 * s.clarity);
  detail(std::max(4.0, longEdge * 0.05), 0.3 * s.dehaze);
  if (s.dehaze != 0) {
    // A veil of bright haze over the scene: removing it (dehaze > 0) stretches lightness down
    // from white and restores colour; adding it (< 0) does the reverse. The broad local
    // contrast above stands in for a per-region haze estimate.
    const double veil = 0.2 * s.dehaze;
    out = (out - 100 * veil) / (1 - veil);
    a = a / (1 - veil);
    b = b / (1 - veil);
  }
  return withInterpretation(VImage::bandjoin({out, a, b}), VIPS_INTERPRETATION_LAB);
}

// ---- effects: linear scRGB ----------------------------------------------------------------

constexpr int kRadiusSteps = 1000; ///< table entries per unit of normalised radius

/// A gain that falls (or rises) with the distance from the centre: radius 1 is a corner.
/// Nothing changes inside the midpoint; the feather sets how gradually the full amount arrives.
VImage applyVignette(const VImage& rgb, const Settings& s) {
  const int w = rgb.width();
  const int h = rgb.height();
  const VImage xy = VImage::xyz(w, h);
  const VImage dx = (xy[0] + 0.5 - w / 2.0) / (w / 2.0);
  const VImage dy = (xy[1] + 0.5 - h / 2.0) / (h / 2.0);
  const VImage radius = ((dx * dx + dy * dy) * 0.5).pow(0.5);
  const double inner = 0.8 * s.vignetteMidpoint;
  const double outer = inner + (1.05 - inner) * (0.15 + 0.85 * s.vignetteFeather);
  std::vector<float> table;
  const int entries = kRadiusSteps + 2;
  for (int i = 0; i < entries; ++i) {
    const double weight = smoothstep(inner, outer, static_cast<double>(i) / kRadiusSteps);
    table.push_back(static_cast<float>(std::exp2(1.5 * s.vignetteAmount * weight)));
  }
  const VImage gain =
      (radius * kRadiusSteps + 0.5).cast(VIPS_FORMAT_USHORT).maplut(lutImage(table, entries, 1));
  return withInterpretation(rgb * gain, VIPS_INTERPRETATION_scRGB);
}

/// Monochrome film grain: seeded Gaussian noise (the same for the same size, so renders repeat),
/// clumped by `grainSize`, as a multiplicative ripple in linear light.
VImage applyGrain(const VImage& rgb, const Settings& s) {
  constexpr int kSeed = 0x6a41;
  const int w = rgb.width();
  const int h = rgb.height();
  const double cell = 1 + 3 * s.grainSize;
  const VImage noise = VImage::gaussnoise(
      std::max(1, static_cast<int>(w / cell)), std::max(1, static_cast<int>(h / cell)),
      VImage::option()->set("sigma", 1.0)->set("mean", 0.0)->set("seed", kSeed));
  VImage grain = resizeTo(noise, w, h);
  if (s.grainRoughness > 0) {
    // Rough grain is uneven: its strength varies in clumps four times the grain's size, by
    // exp(σZ − σ²v), where v is the variance of unit noise once resized up (libvips' default
    // kernel leaves 2/3 of it, whatever the factor): that keeps the grain's mean power.
    constexpr double kResizedVariance = 0.67;
    const double spread = 1.2 * s.grainRoughness;
    const VImage clumps = VImage::gaussnoise(
        std::max(1, static_cast<int>(w / (4 * cell))),
        std::max(1, static_cast<int>(h / (4 * cell))),
        VImage::option()->set("sigma", 1.0)->set("mean", 0.0)->set("seed", kSeed + 1));
    grain = grain * (resizeTo(clumps, w, h) * spread - spread * spread * kResizedVariance).exp();
  }
  return withInterpretation(rgb * (1 + grain * (0.3 * s.grainAmount)), VIPS_INTERPRETATION_scRGB);
}

} // namespace

bool readsNeighbours(const core::EditStack& stack) {
  return Settings(stack).lightness() || masksReadNeighbours(stack);
}

VImage applyAdjustments(VImage image, const core::EditStack& stack, const Look& look) {
  const Settings s(stack);
  const bool masks = rendersMasks(stack);
  if (!s.any() && !look && !masks) {
    return image;
  }
  // scRGB: three float bands of linear light, then alpha (if any) untouched to the end.
  image = image.colourspace(VIPS_INTERPRETATION_scRGB);
  if (image.format() != VIPS_FORMAT_FLOAT) {
    image = withInterpretation(image.cast(VIPS_FORMAT_FLOAT), VIPS_INTERPRETATION_scRGB);
  }
  const bool alpha = image.bands() > 3;
  const VImage extra =
      alpha ? image.extract_band(3, VImage::option()->set("n", image.bands() - 3)) : VImage();
  VImage rgb = alpha ? image.extract_band(0, VImage::option()->set("n", 3)) : image;

  if (s.developOrExposure()) {
    rgb = rgb.linear(std::vector<double>(s.gains.begin(), s.gains.end()), {0.0, 0.0, 0.0});
  }
  if (s.tone()) {
    rgb = applyTone(rgb, s);
  }
  if (s.colour() || s.grade() || s.lightness()) {
    VImage lab = s.colour() ? applyColour(rgb, s) : rgb.colourspace(VIPS_INTERPRETATION_LAB);
    if (s.grade()) {
      lab = applyGrade(lab, s);
    }
    if (s.lightness()) {
      lab = applyLightness(lab, s);
    }
    rgb = lab.colourspace(VIPS_INTERPRETATION_scRGB);
  }
  if (look) {
    // Looks are made for display-referred 8-bit sRGB.
    rgb = withInterpretation(look(rgb.colourspace(VIPS_INTERPRETATION_sRGB)), VIPS_INTERPRETATION_sRGB)
              .colourspace(VIPS_INTERPRETATION_scRGB);
  }
  if (masks) {
    rgb = applyMasks(rgb, stack);
  }
  if (s.vignetteAmount != 0) {
    rgb = applyVignette(rgb, s);
  }
  if (s.grainAmount != 0) {
    rgb = applyGrain(rgb, s);
  }
  rgb = withInterpretation(rgb.cast(VIPS_FORMAT_FLOAT), VIPS_INTERPRETATION_scRGB);
  return alpha ? rgb.bandjoin(extra) : rgb;
}

} // namespace velko::app
