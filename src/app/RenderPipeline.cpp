#include "app/RenderPipeline.h"

#include "app/Masks.h"
#include "app/PixelOp.h"
#include "app/RenderMath.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <numbers>
#include <optional>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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
  /// It runs for every entry of a 4,097-entry table, so integer powers are products and the
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

/// A Gaussian blur of a float band at full size, by libvips (noise reduction, the edge measure).
VImage blur(const VImage& band, double sigma) {
  return band.gaussblur(sigma, VImage::option()->set("precision", VIPS_PRECISION_FLOAT));
}

#if defined(__x86_64__)
/// Whether the processor has AVX2, asked once.
bool hasAvx2() {
  static const bool avx2 = __builtin_cpu_supports("avx2");
  return avx2;
}

template <typename Loops> __attribute__((target("avx2"))) void withAvx2(const Loops& loops) {
  loops();
}
#endif

/// Runs `loops` compiled for AVX2 (inlined into withAvx2) where the processor has it. The
/// compiler then makes vector code eight floats wide; a loop over interleaved pixels, which the
/// baseline instructions vectorise only two floats at a time, gains most. Fused multiply-adds stay
/// off, so the results are those of the baseline code.
template <typename Loops> void vectorised(const Loops& loops) {
#if defined(__x86_64__)
  if (hasAvx2()) {
    withAvx2(loops);
    return;
  }
#endif
  loops();
}

/// `out[i] = w * in[i]` over `n` floats, or with `add`, `out[i] += w * in[i]`; `out` and `in`
/// apart. This is the inner loop of the blurs, a function of its own so that the compiler
/// vectorises it instead of jamming it, scalar, with the loop over the taps around it.
__attribute__((noinline)) void weighted(float* out, const float* in, float w, int n, bool add) {
  vectorised([&] {
    if (add) {
      for (int i = 0; i < n; ++i) {
        out[i] += w * in[i];
      }
    } else {
      for (int i = 0; i < n; ++i) {
        out[i] = w * in[i];
      }
    }
  });
}

/// A row's working buffer, left uninitialised: every use writes it whole before reading it.
inline std::unique_ptr<float[]> scratch(std::size_t n) {
  return std::make_unique_for_overwrite<float[]>(n);
}

// ---- develop, tone, colour and grade: one function per pixel --------------------------------

constexpr int kToneEntries = 4097; ///< interpolated linearly between entries
constexpr int kHueSteps = 10;         ///< table entries per degree of hue
constexpr int kLightnessSteps = 100;  ///< table entries per unit of Lab lightness
constexpr double kDegree = kPi / 180;

// libvips' D65 white and matrices, so that our Lab is the Lab libvips converts to.
constexpr float kX0 = 95.047F, kY0 = 100.0F, kZ0 = 108.8827F;

/// The cube root of a positive float: an estimate from the exponent bits, then three Newton
/// steps (each squares the relative error: 5 %, 0.25 %, 6e-6, then float precision).
inline float cubeRoot(float x) {
  std::uint32_t bits = 0;
  std::memcpy(&bits, &x, sizeof bits);
  bits = bits / 3 + 709921077U;
  float y = 0;
  std::memcpy(&y, &bits, sizeof y);
  for (int i = 0; i < 3; ++i) {
    y = (2 * y + x / (y * y)) * (1.0F / 3);
  }
  return y;
}

/// The angle of (a, b) in degrees, 0..360, within 0.001°.
inline float hueDegrees(float b, float a) {
  const float ax = std::abs(a), ay = std::abs(b);
  const float big = std::max(ax, ay);
  if (big == 0) {
    return 0;
  }
  const float t = std::min(ax, ay) / big;
  const float t2 = t * t;
  // atan(t) on 0..1 within 1.2e-5 radians (Hastings' odd polynomial).
  float r = t * (0.9998660F +
                 t2 * (-0.3302995F + t2 * (0.1801410F + t2 * (-0.0851330F + t2 * 0.0208351F))));
  if (ay > ax) {
    r = static_cast<float>(kPi / 2) - r;
  }
  if (a < 0) {
    r = static_cast<float>(kPi) - r;
  }
  float degrees = r * static_cast<float>(180 / kPi);
  if (b < 0) {
    degrees = 360 - degrees;
  }
  return degrees >= 360 ? 0 : degrees;
}

/// Linear scRGB to CIE Lab.
inline void linearToLab(const float* rgb, float* lab) {
  const float r = rgb[0] * kY0, g = rgb[1] * kY0, b = rgb[2] * kY0;
  const float x = (0.4124F * r + 0.3576F * g + 0.1805F * b) / kX0;
  const float y = (0.2126F * r + 0.7152F * g + 0.0722F * b) / kY0;
  const float z = (0.0193F * r + 0.1192F * g + 0.9505F * b) / kZ0;
  const auto f = [](float t) { return t > 0.008856F ? cubeRoot(t) : 7.787F * t + 16.0F / 116; };
  const float fx = f(x), fy = f(y), fz = f(z);
  lab[0] = y > 0.008856F ? 116 * fy - 16 : 903.3F * y;
  lab[1] = 500 * (fx - fy);
  lab[2] = 200 * (fy - fz);
}

/// CIE Lab to linear scRGB. Divisions by constants are written as products, and both sides of
/// every choice are computed and then selected, with no branch, so that a loop over pixels runs
/// several at once: it runs for every pixel of an export.
inline void labToLinear(float l, float a, float b, float& red, float& green, float& blue) {
  const auto inverse = [](float t) {
    const float cube = t * t * t;
    const float line = (t - 16.0F / 116) * (1 / 7.787F);
    return t < 0.2069F ? line : cube;
  };
  const float fyHigh = (l + 16) * (1.0F / 116), yHigh = fyHigh * fyHigh * fyHigh;
  const float yLow = l * (1 / 903.3F), fyLow = 7.787F * yLow + 16.0F / 116;
  const bool low = l < 8;
  const float y = low ? yLow : yHigh;
  const float fy = low ? fyLow : fyHigh;
  // X and Z relative to the white's Y, so that Y is already on scRGB's scale.
  const float x = inverse(a * (1.0F / 500) + fy) * (kX0 / kY0);
  const float z = inverse(fy - b * (1.0F / 200)) * (kZ0 / kY0);
  red = 3.2406F * x - 1.5372F * y - 0.4986F * z;
  green = -0.9689F * x + 1.8758F * y + 0.0415F * z;
  blue = 0.0557F * x - 0.2040F * y + 1.0570F * z;
}

inline void labToLinear(const float* lab, float* rgb) {
  labToLinear(lab[0], lab[1], lab[2], rgb[0], rgb[1], rgb[2]);
}

/// labToLinear over `n` interleaved Lab pixels, into three planes.
void labRowToLinear(const float* lab, std::size_t n, float* r, float* g, float* b) {
  vectorised([&] {
    for (std::size_t i = 0; i < n; ++i) {
      labToLinear(lab[3 * i], lab[3 * i + 1], lab[3 * i + 2], r[i], g[i], b[i]);
    }
  });
}

/// A table index: `v` scaled by `steps`, rounded, and held within the table. It is clamped as a
/// float (NaN to 0) and converted through int: a float to std::size_t conversion has no single
/// instruction and costs a branch.
inline std::size_t entry(float v, int steps, int entries) {
  const float i = std::min(static_cast<float>(entries - 1),
                           std::max(0.0F, v * static_cast<float>(steps) + 0.5F));
  return static_cast<std::size_t>(static_cast<int>(i));
}

/// One lookup per channel, indexed by the square root of the linear value (fine steps in the
/// shadows), giving the toned linear value. Values past white are clipped to white.
std::vector<float> toneTable(const Settings& s) {
  std::vector<float> table(static_cast<std::size_t>(kToneEntries) * 3);
  const bool sameForAll = !s.channel[0] && !s.channel[1] && !s.channel[2];
  for (int i = 0; i < kToneEntries; ++i) {
    const double root = static_cast<double>(i) / (kToneEntries - 1);
    const double toned = s.tone(toPerceptual(root * root));
    float* e = &table[static_cast<std::size_t>(i) * 3];
    if (sameForAll) {
      e[0] = e[1] = e[2] = static_cast<float>(toLinear(toned));
      continue;
    }
    for (std::size_t c = 0; c < 3; ++c) {
      const auto& curve = s.channel[c];
      e[c] = static_cast<float>(toLinear(curve ? (*curve)(toned) : toned));
    }
  }
  return table;
}

/// Per hue: the mixer's hue shift in degrees, its chroma factor and its lightness shift, each
/// a smooth blend of the two nearest bands.
std::vector<float> mixerTable(const Settings& s) {
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
  return table;
}

/// Per lightness: the grade's (L, a, b) offset, from the shadow, midtone and highlight weights
/// (a partition of unity whose pivot cgBalance moves) and the global wheel.
std::vector<float> gradeTable(const Settings& s) {
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
  return table;
}

/// A picked colour (hue, saturation and lightness of sRGB, 0..1 each) in LCh, converted as the
/// pixels are.
std::array<double, 3> lchOf(const core::PointColorTarget& t) {
  const double c = (1 - std::abs(2 * t.targetLum - 1)) * t.targetSat;
  const double sector = t.targetHue * 6;
  const double x = c * (1 - std::abs(std::fmod(sector, 2) - 1));
  static constexpr std::array<std::array<int, 3>, 6> kOrder{
      {{0, 1, 2}, {1, 0, 2}, {2, 0, 1}, {2, 1, 0}, {1, 2, 0}, {0, 2, 1}}};
  const auto& order = kOrder[static_cast<std::size_t>(std::min(5.0, std::floor(sector)))];
  const std::array<double, 3> parts{c, x, 0};
  std::array<float, 3> linear{};
  for (std::size_t i = 0; i < 3; ++i) {
    linear[i] = static_cast<float>(
        toLinear(parts[static_cast<std::size_t>(order[i])] + t.targetLum - c / 2));
  }
  std::array<float, 3> lab{};
  linearToLab(linear.data(), lab.data());
  double h = std::atan2(lab[2], lab[1]) / kDegree;
  if (h < 0) {
    h += 360;
  }
  return {lab[0], std::hypot(lab[1], lab[2]), h};
}

/// Point colour as tables: for each target, its weight by closeness in hue, chroma and
/// lightness (each 1 near the pick, fading to 0 at a distance that grows with the range), and
/// its shifts. A shift of 1 turns hue by 30°, scales chroma by 2 (−1 removes it) and moves
/// lightness by 20. Weights come from the colours before any target moves them.
struct PointColors {
  static constexpr int kChromaSteps = 10; ///< table entries per unit of chroma, up to 200
  static constexpr int kLumSteps = 100;   ///< per unit of lightness, up to 100
  static constexpr int kHueEntries = 360 * kHueSteps + 1;
  static constexpr int kChromaEntries = 200 * kChromaSteps + 1;
  static constexpr int kLumEntries = 100 * kLumSteps + 1;
  std::size_t n = 0;
  std::vector<float> hue, chroma, lum;            ///< entry-major, n per entry
  std::vector<float> hueShift, chromaShift, lumShift;

  explicit PointColors(const std::vector<core::PointColorTarget>& targets) : n(targets.size()) {
    hue.resize(kHueEntries * n);
    chroma.resize(kChromaEntries * n);
    lum.resize(kLumEntries * n);
    const auto near = [](double distance, double width) {
      return 1 - smoothstep(0.3 * width, width, distance);
    };
    for (std::size_t t = 0; t < n; ++t) {
      const core::PointColorTarget& target = targets[t];
      const auto [pickL, pickC, pickH] = lchOf(target);
      // A grey pick has no hue to match: its hue weight fades to 1.
      const double hueCertainty = smoothstep(2, 10, pickC);
      const auto at = [this, t](int i) { return static_cast<std::size_t>(i) * n + t; };
      for (int i = 0; i < kHueEntries; ++i) {
        const double d = std::abs(std::remainder(static_cast<double>(i) / kHueSteps - pickH, 360));
        hue[at(i)] = static_cast<float>(1 - hueCertainty * (1 - near(d, 20 + 60 * target.range)));
      }
      for (int i = 0; i < kChromaEntries; ++i) {
        chroma[at(i)] = static_cast<float>(
            near(std::abs(static_cast<double>(i) / kChromaSteps - pickC), 15 + 45 * target.range));
      }
      for (int i = 0; i < kLumEntries; ++i) {
        lum[at(i)] = static_cast<float>(
            near(std::abs(static_cast<double>(i) / kLumSteps - pickL), 20 + 50 * target.range));
      }
      hueShift.push_back(static_cast<float>(30 * target.hue));
      chromaShift.push_back(static_cast<float>(target.sat));
      lumShift.push_back(static_cast<float>(20 * target.lum));
    }
  }

  void apply(float& l, float& c, float& h) const {
    const float* wh = &hue[entry(h, kHueSteps, kHueEntries) * n];
    const float* wc = &chroma[entry(c, kChromaSteps, kChromaEntries) * n];
    const float* wl = &lum[entry(l, kLumSteps, kLumEntries) * n];
    float dh = 0, dc = 0, dl = 0;
    for (std::size_t t = 0; t < n; ++t) {
      const float w = wh[t] * wc[t] * wl[t];
      dh += w * hueShift[t];
      dc += w * chromaShift[t];
      dl += w * lumShift[t];
    }
    const float turned = h + dh;
    // Back onto 0..360, where the mixer's table expects it.
    h = turned < 0 ? turned + 360 : turned >= 360 ? turned - 360 : turned;
    c = std::max(0.0F, c * (1 + dc));
    l += dl;
  }
};

/// The develop, tone, colour and grade stages of one stack as a function of one pixel: gains,
/// then the tone tables on linear light, then (in LCh) point colour, the mixer, vibrance and
/// saturation, then the grade's Lab offsets. Built once per render; read by every thread.
class PixelStages {
public:
  explicit PixelStages(const Settings& s)
      : gains_{static_cast<float>(s.gains[0]), static_cast<float>(s.gains[1]),
               static_cast<float>(s.gains[2])},
        develop_(s.developOrExposure()), colour_(s.colour()), vibrance_(static_cast<float>(s.vibrance)),
        chroma_(s.monochrome ? 0.0F : static_cast<float>(s.chroma)) {
    if (s.tone()) {
      tone_ = toneTable(s);
    }
    if (s.mixer()) {
      mixer_ = mixerTable(s);
    }
    if (!s.pointColors.empty()) {
      points_.emplace(s.pointColors);
    }
    if (s.grade()) {
      grade_ = gradeTable(s);
    }
  }

  bool any() const { return develop_ || !tone_.empty() || lab(); }
  /// Whether the stages need Lab (colour or grade).
  bool lab() const { return colour_ || !grade_.empty(); }
  /// The channel gains, when they are all the stages do.
  std::optional<std::array<float, 3>> gainsOnly() const {
    return tone_.empty() && !lab() ? std::optional(gains_) : std::nullopt;
  }

  /// One pixel of linear light through the stages: Lab out when `labOut`, else linear light.
  void apply(float* p, bool labOut) const {
    if (develop_) {
      p[0] *= gains_[0];
      p[1] *= gains_[1];
      p[2] *= gains_[2];
    }
    if (!tone_.empty()) {
      for (std::size_t c = 0; c < 3; ++c) {
        const float root = p[c] > 0 ? std::sqrt(p[c]) : 0.0F;
        const float position = std::min(root, 1.0F) * (kToneEntries - 1);
        const auto i =
            static_cast<std::size_t>(std::min(static_cast<int>(position), kToneEntries - 2));
        const float* e = &tone_[i * 3 + c];
        p[c] = e[0] + (e[3] - e[0]) * (position - static_cast<float>(i));
      }
    }
    if (!lab() && !labOut) {
      return;
    }
    float lab[3];
    linearToLab(p, lab);
    if (colour_) {
      float l = lab[0];
      const float chroma = std::sqrt(lab[1] * lab[1] + lab[2] * lab[2]);
      float c = chroma;
      // Hue is only needed by the tables indexed by it; chroma alone scales a and b.
      const float hue = points_ || !mixer_.empty() ? hueDegrees(lab[2], lab[1]) : 0.0F;
      float h = hue;
      if (points_) {
        points_->apply(l, c, h);
      }
      if (!mixer_.empty()) {
        const float* mix = &mixer_[entry(h, kHueSteps, 360 * kHueSteps + 1) * 3];
        // Lightness moves only where there is colour: a grey pixel's hue means nothing.
        l += mix[2] * std::min(1.0F, c / 20);
        c *= mix[1];
        h += mix[0];
      }
      // Vibrance favours the muted colours: full effect at no chroma, none from chroma 70 up.
      c *= 1 + vibrance_ * std::max(0.0F, 1 - c / 70);
      c *= chroma_;
      lab[0] = l;
      if (h != hue) {
        const float radians = h * static_cast<float>(kDegree);
        lab[1] = c * std::cos(radians);
        lab[2] = c * std::sin(radians);
      } else {
        const float scale = chroma > 0 ? c / chroma : 0.0F;
        lab[1] *= scale;
        lab[2] *= scale;
      }
    }
    if (!grade_.empty()) {
      const float* offset = &grade_[entry(lab[0], kLightnessSteps, 100 * kLightnessSteps + 1) * 3];
      lab[0] += offset[0];
      lab[1] += offset[1];
      lab[2] += offset[2];
    }
    if (labOut) {
      p[0] = lab[0];
      p[1] = lab[1];
      p[2] = lab[2];
    } else {
      labToLinear(lab, p);
    }
  }

private:
  std::array<float, 3> gains_;
  bool develop_;
  bool colour_;
  float vibrance_, chroma_;
  std::vector<float> tone_, mixer_, grade_;
  std::optional<PointColors> points_;
};

/// a or b as the first pass stores them for the detail pass: 16-bit fixed point in steps of
/// 1/kAbScale, rounded half away from zero.
constexpr float kAbScale = 32;
inline std::int16_t toFixed(float v) {
  const float scaled = std::clamp(v * kAbScale, -32767.0F, 32767.0F);
  return static_cast<std::int16_t>(scaled + std::copysign(0.5F, scaled));
}

/// Pixel `i` of a first-pass row: the lightness of `lab` into `l`, its a and b into `ab`
/// (interleaved, toFixed).
inline void storeLab(const std::array<float, 3>& lab, int i, float* l, std::int16_t* ab) {
  l[i] = lab[0];
  ab[2 * i] = toFixed(lab[1]);
  ab[2 * i + 1] = toFixed(lab[2]);
}

/// The per-pixel stages of an 8-bit sRGB picture as a table: the stages computed on a lattice of
/// 33 levels per channel, and each pixel interpolated between the four lattice points of the
/// tetrahedron around it (exact along the grey axis). An approximation of PixelStages::apply:
/// within about one 8-bit level for ordinary stacks, more only where a stage bends sharply within
/// one lattice cell (a steep tone curve, a clip). It is used for images of many more pixels than
/// the lattice has points, where it costs a fraction of the stages themselves.
class StageTable {
public:
  static constexpr int kLevels = 33;
  /// Pixels from which an image is worth the table: the table computes the stages 35,937 times.
  static constexpr double kWorthFrom = 16.0 * kLevels * kLevels * kLevels;

  explicit StageTable(const PixelStages& stages) {
    entries_.resize(static_cast<std::size_t>(kLevels * kLevels * kLevels) * kB);
    std::array<float, kLevels> linear{};
    for (int i = 0; i < kLevels; ++i) {
      linear[static_cast<std::size_t>(i)] =
          static_cast<float>(toLinear(static_cast<double>(i) / (kLevels - 1)));
    }
    float* e = entries_.data();
    for (int r = 0; r < kLevels; ++r) {
      for (int g = 0; g < kLevels; ++g) {
        for (int b = 0; b < kLevels; ++b, e += kB) {
          e[0] = linear[static_cast<std::size_t>(r)];
          e[1] = linear[static_cast<std::size_t>(g)];
          e[2] = linear[static_cast<std::size_t>(b)];
          stages.apply(e, true);
        }
      }
    }
    for (int v = 0; v < 256; ++v) {
      const float position = static_cast<float>(v) * (kLevels - 1) / 255;
      const int cell = std::min(static_cast<int>(position), kLevels - 2);
      cell_[static_cast<std::size_t>(v)] = cell;
      fraction_[static_cast<std::size_t>(v)] = position - static_cast<float>(cell);
    }
  }

  /// One pixel: 8-bit R, G, B in, three floats out.
  void apply(const std::uint8_t* rgb, float* out) const {
    const float fr = fraction_[rgb[0]], fg = fraction_[rgb[1]], fb = fraction_[rgb[2]];
    const float* c = &entries_[cell_[rgb[0]] * kR + cell_[rgb[1]] * kG + cell_[rgb[2]] * kB];
    // The tetrahedron is the one walk from the cell's black corner to its white corner that
    // steps along the channels in the order of their fractions: first along the largest, then
    // along the middle one, reaching the corner that lacks only the smallest. Chosen by selects:
    // which of six tetrahedra a pixel falls in is as good as random in a photo.
    const bool rg = fr >= fg, gb = fg >= fb, rb = fr >= fb;
    const std::size_t first = rg ? (rb ? kR : kB) : (gb ? kG : kB);
    const std::size_t smallest = rg ? (gb ? kB : kG) : (rb ? kB : kR);
    const std::size_t second = kR + kG + kB - smallest;
    const float f1 = std::max(fr, std::max(fg, fb)), f3 = std::min(fr, std::min(fg, fb));
    const float f2 = fr + fg + fb - f1 - f3;
    const float* a = c + first;
    const float* b = c + second;
    const float* w = c + kR + kG + kB;
    for (std::size_t k = 0; k < 3; ++k) {
      out[k] = c[k] + f1 * (a[k] - c[k]) + f2 * (b[k] - a[k]) + f3 * (w[k] - b[k]);
    }
  }

  /// A row of `n` pixels, 8-bit R, G, B, to Lab, stored as storeLab stores it. Eight pixels at a
  /// time where the processor has AVX2 (the same arithmetic in the same order, so the same
  /// results), one at a time otherwise.
  void labRow(const std::uint8_t* rgb, int n, float* l, std::int16_t* ab) const {
    int i = 0;
#if defined(__x86_64__)
    if (hasAvx2()) {
      i = labRowAvx2(rgb, n, l, ab);
    }
#endif
    for (; i < n; ++i) {
      std::array<float, 3> p{};
      apply(rgb + 3 * static_cast<std::size_t>(i), p.data());
      storeLab(p, i, l, ab);
    }
  }

private:
  /// Entry strides: each entry is four floats (Lab and one unused), so that a corner is one
  /// 16-byte load.
  static constexpr int kB = 4, kG = kLevels * kB, kR = kLevels * kG;

#if defined(__x86_64__)
  /// labRow for as many whole groups of eight pixels as it can read 16 bytes at a time without
  /// passing the row's end; returns the pixels done.
  __attribute__((target("avx2"))) int labRowAvx2(const std::uint8_t* rgb, int n, float* l,
                                                 std::int16_t* ab) const {
    const __m256 steps = _mm256_set1_ps(kLevels - 1), top = _mm256_set1_ps(255);
    const __m256i lastCell = _mm256_set1_epi32(kLevels - 2);
    const __m256i r = _mm256_set1_epi32(kR), g = _mm256_set1_epi32(kG), b = _mm256_set1_epi32(kB);
    const __m256i white = _mm256_set1_epi32(kR + kG + kB);
    const __m256 scale = _mm256_set1_ps(kAbScale), most = _mm256_set1_ps(32767);
    const __m256 least = _mm256_set1_ps(-32767), half = _mm256_set1_ps(0.5F);
    const __m256 sign = _mm256_set1_ps(-0.0F);
    int i = 0;
    // Pixels 4..7 are read as 16 bytes from pixel 4: two pixels past the group.
    for (; i + 10 <= n; i += 8) {
      const std::uint8_t* at = rgb + 3 * static_cast<std::size_t>(i);
      const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
      const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 12));
      __m256 fraction[3];
      __m256i base = _mm256_setzero_si256();
      for (int c = 0; c < 3; ++c) {
        // Channel c of the eight pixels, one per 32-bit lane.
        const auto k = static_cast<char>(c);
        const __m128i pick = _mm_setr_epi8(k, -1, -1, -1, static_cast<char>(k + 3), -1, -1, -1,
                                           static_cast<char>(k + 6), -1, -1, -1,
                                           static_cast<char>(k + 9), -1, -1, -1);
        const __m256 v = _mm256_cvtepi32_ps(
            _mm256_set_m128i(_mm_shuffle_epi8(high, pick), _mm_shuffle_epi8(low, pick)));
        const __m256 position = _mm256_div_ps(_mm256_mul_ps(v, steps), top);
        const __m256i cell = _mm256_min_epi32(_mm256_cvttps_epi32(position), lastCell);
        fraction[c] = _mm256_sub_ps(position, _mm256_cvtepi32_ps(cell));
        base = _mm256_add_epi32(base, _mm256_mullo_epi32(cell, c == 0 ? r : c == 1 ? g : b));
      }
      const __m256 fr = fraction[0], fg = fraction[1], fb = fraction[2];
      const __m256i rg = _mm256_castps_si256(_mm256_cmp_ps(fr, fg, _CMP_GE_OQ));
      const __m256i gb = _mm256_castps_si256(_mm256_cmp_ps(fg, fb, _CMP_GE_OQ));
      const __m256i rb = _mm256_castps_si256(_mm256_cmp_ps(fr, fb, _CMP_GE_OQ));
      const __m256i first =
          _mm256_blendv_epi8(_mm256_blendv_epi8(b, g, gb), _mm256_blendv_epi8(b, r, rb), rg);
      const __m256i smallest =
          _mm256_blendv_epi8(_mm256_blendv_epi8(r, b, rb), _mm256_blendv_epi8(g, b, gb), rg);
      const __m256i second = _mm256_sub_epi32(white, smallest);
      const __m256 f1 = _mm256_max_ps(fr, _mm256_max_ps(fg, fb));
      const __m256 f3 = _mm256_min_ps(fr, _mm256_min_ps(fg, fb));
      const __m256 f2 =
          _mm256_sub_ps(_mm256_sub_ps(_mm256_add_ps(_mm256_add_ps(fr, fg), fb), f1), f3);
      const __m256i atA = _mm256_add_epi32(base, first), atB = _mm256_add_epi32(base, second);
      const __m256i atW = _mm256_add_epi32(base, white);
      // The corners are read a whole entry at a time, pixel by pixel, then turned back into one
      // vector per channel: four loads a pixel cost less than twelve gathers per eight pixels.
      alignas(32) std::int32_t corner[4][8];
      alignas(32) float weight[3][8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(corner[0]), base);
      _mm256_store_si256(reinterpret_cast<__m256i*>(corner[1]), atA);
      _mm256_store_si256(reinterpret_cast<__m256i*>(corner[2]), atB);
      _mm256_store_si256(reinterpret_cast<__m256i*>(corner[3]), atW);
      _mm256_store_ps(weight[0], f1);
      _mm256_store_ps(weight[1], f2);
      _mm256_store_ps(weight[2], f3);
      __m128 pixel[8];
      const float* e = entries_.data();
      for (int p = 0; p < 8; ++p) {
        const __m128 vc = _mm_loadu_ps(e + corner[0][p]), va = _mm_loadu_ps(e + corner[1][p]);
        const __m128 vb = _mm_loadu_ps(e + corner[2][p]), vw = _mm_loadu_ps(e + corner[3][p]);
        __m128 o = _mm_add_ps(vc, _mm_mul_ps(_mm_set1_ps(weight[0][p]), _mm_sub_ps(va, vc)));
        o = _mm_add_ps(o, _mm_mul_ps(_mm_set1_ps(weight[1][p]), _mm_sub_ps(vb, va)));
        pixel[p] = _mm_add_ps(o, _mm_mul_ps(_mm_set1_ps(weight[2][p]), _mm_sub_ps(vw, vb)));
      }
      _MM_TRANSPOSE4_PS(pixel[0], pixel[1], pixel[2], pixel[3]);
      _MM_TRANSPOSE4_PS(pixel[4], pixel[5], pixel[6], pixel[7]);
      const __m256 out[3] = {_mm256_set_m128(pixel[4], pixel[0]),
                             _mm256_set_m128(pixel[5], pixel[1]),
                             _mm256_set_m128(pixel[6], pixel[2])};
      _mm256_storeu_ps(l + i, out[0]);
      __m256i fixed[2];
      for (int c = 0; c < 2; ++c) {
        const __m256 v =
            _mm256_min_ps(_mm256_max_ps(_mm256_mul_ps(out[c + 1], scale), least), most);
        const __m256 away = _mm256_or_ps(_mm256_and_ps(v, sign), half);
        fixed[c] = _mm256_cvttps_epi32(_mm256_add_ps(v, away));
      }
      // Interleaved a, b: per 128-bit lane, pixels 0,1 | 2,3 (then 4,5 | 6,7), packed to 16 bits.
      const __m256i pairs = _mm256_packs_epi32(_mm256_unpacklo_epi32(fixed[0], fixed[1]),
                                               _mm256_unpackhi_epi32(fixed[0], fixed[1]));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(ab + 2 * static_cast<std::size_t>(i)), pairs);
    }
    return i;
  }
#endif

  std::vector<float> entries_; ///< red-major, then green, then blue; kB floats each
  std::array<std::size_t, 256> cell_{};
  std::array<float, 256> fraction_{};
};

/// Where the per-pixel stages meet the picture in the first pass over it: as themselves on
/// float linear light, or as a StageTable on 8-bit sRGB. The table holds Lab, the space the
/// stages end in and the detail stages read; where linear light is wanted, it is taken from the
/// interpolated Lab pixel by pixel (a table of linear light measured no closer to the stages).
class FirstPass {
public:
  FirstPass(std::shared_ptr<const PixelStages> stages, const VImage& input, bool labOut)
      : stages_(std::move(stages)), labOut_(labOut) {
    if (input.format() == VIPS_FORMAT_UCHAR) {
      table_ = std::make_shared<const StageTable>(*stages_);
    }
  }

  /// A row of `n` input pixels to Lab (`labOut` only), stored as storeLab stores it.
  void labRow(const float* row, int n, float* l, std::int16_t* ab) const {
    if (table_) {
      table_->labRow(reinterpret_cast<const std::uint8_t*>(row), n, l, ab);
      return;
    }
    for (int i = 0; i < n; ++i) {
      std::array<float, 3> p{};
      apply(row, i, p.data());
      storeLab(p, i, l, ab);
    }
  }

  /// Pixel `i` of an input row into `p` (three floats).
  void apply(const float* row, int i, float* p) const {
    const auto at = 3 * static_cast<std::size_t>(i);
    if (!table_) {
      std::copy(row + at, row + at + 3, p);
      stages_->apply(p, labOut_);
    } else if (labOut_) {
      table_->apply(reinterpret_cast<const std::uint8_t*>(row) + at, p);
    } else {
      std::array<float, 3> lab{};
      table_->apply(reinterpret_cast<const std::uint8_t*>(row) + at, lab.data());
      labToLinear(lab.data(), p);
    }
  }

private:
  std::shared_ptr<const PixelStages> stages_;
  std::shared_ptr<const StageTable> table_;
  bool labOut_ = false;
};

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

/// A narrow Gaussian blur of a band held in memory, computed where it is read, a row at a time:
/// libvips' own kernel (gaussmat, cut where it falls below `minAmplitude` of its peak) run down
/// the columns around the row, then along it, the edges repeated. As a libvips blur it would be
/// one more full-size image computed into buffers of its own and read back.
class NarrowBlur {
public:
  NarrowBlur(const VImage& band, double sigma, double minAmplitude)
      : band_(band), data_(static_cast<const float*>(band.data())), width_(band.width()),
        height_(band.height()) {
    const VImage mask = VImage::gaussmat(
        sigma, minAmplitude,
        VImage::option()->set("separable", true)->set("precision", VIPS_PRECISION_FLOAT));
    const double scale = mask.get_double("scale");
    for (int i = 0; i < mask.width(); ++i) {
      weights_.push_back(static_cast<float>(mask.getpoint(i, 0)[0] / scale));
    }
  }

  /// The blurred band along row `y`, from pixel `x0`, `n` pixels, into `out`.
  void row(int x0, int y, int n, float* out) const {
    const int radius = static_cast<int>(weights_.size()) / 2;
    // Column sums from x0 - radius to x0 + n + radius, those past the edges repeating the edge.
    const int span = n + 2 * radius;
    const auto column = scratch(static_cast<std::size_t>(span));
    const int lo = std::max(0, x0 - radius), hi = std::min(width_, x0 + n + radius);
    float* inside = column.get() + (lo - (x0 - radius));
    for (std::size_t k = 0; k < weights_.size(); ++k) {
      const int j = std::clamp(y + static_cast<int>(k) - radius, 0, height_ - 1);
      weighted(inside, data_ + static_cast<std::size_t>(j) * width_ + lo, weights_[k], hi - lo,
               k > 0);
    }
    std::fill(column.get(), inside, inside[0]);
    std::fill(inside + (hi - lo), column.get() + span, inside[hi - lo - 1]);
    for (std::size_t k = 0; k < weights_.size(); ++k) {
      weighted(out, column.get() + k, weights_[k], n, k > 0);
    }
  }

private:
  VImage band_; ///< kept for its pixels
  const float* data_;
  int width_, height_;
  std::vector<float> weights_;
};

/// Wide blurs of one band, held small, as one weighted sum: the band reduced, blurred there at
/// each sigma, weighted and summed on one grid, kept in memory, then read back at full size by
/// bilinear interpolation. Every reduced blur's sigma is several reduced pixels, so the
/// interpolations add no visible error, and the cost no longer grows with the image or the
/// number of blurs: nothing of it runs at full size but one interpolation.
class WideBlur {
public:
  /// `reduced` is the band already shrunk by `factor` (an integer box average), in memory;
  /// `terms` are (sigma, weight) pairs.
  WideBlur(const VImage& reduced, double factor, int width, int height,
           std::vector<std::pair<double, double>> terms) {
    constexpr double kReducedSigma = 4;
    // The narrowest blur needs the finest grid; the others are brought to it.
    std::sort(terms.begin(), terms.end());
    std::optional<VImage> sum;
    for (const auto& [sigma, weight] : terms) {
      const double shrink = std::max(1.0, sigma / kReducedSigma / factor);
      VImage blurred = reduced.resize(1 / shrink)
                           .gaussblur(sigma / factor / shrink,
                                      VImage::option()->set("precision", VIPS_PRECISION_FLOAT));
      if (sum) {
        blurred = resizeTo(blurred, sum->width(), sum->height(), VIPS_KERNEL_LINEAR);
      }
      sum = sum ? *sum + blurred * weight : blurred * weight;
    }
    small_ = sum->cast(VIPS_FORMAT_FLOAT).copy_memory();
    data_ = static_cast<const float*>(small_.data());
    w_ = small_.width();
    h_ = small_.height();
    const float sx = static_cast<float>(w_) / static_cast<float>(width);
    sy_ = static_cast<float>(h_) / static_cast<float>(height);
    for (int x = 0; x < width; ++x) {
      columns_.push_back(lattice(static_cast<float>(x), sx, w_));
    }
  }

  /// The blurred value at every pixel of row `y` from `x0`, `n` pixels, into `out`.
  void row(int x0, int y, int n, float* out) const {
    const auto [j0, j1, fy] = lattice(static_cast<float>(y), sy_, h_);
    const float* top = data_ + static_cast<std::size_t>(j0) * w_;
    const float* bottom = data_ + static_cast<std::size_t>(j1) * w_;
    // The reduced columns the row reads, interpolated down to the row first, so that each pixel
    // interpolates between two values instead of four.
    const int first = columns_[static_cast<std::size_t>(x0)].lower;
    const int last = columns_[static_cast<std::size_t>(x0 + n - 1)].upper;
    const auto between = scratch(static_cast<std::size_t>(last - first + 1));
    for (int c = first; c <= last; ++c) {
      between[static_cast<std::size_t>(c - first)] = top[c] + (bottom[c] - top[c]) * fy;
    }
    for (int i = 0; i < n; ++i) {
      const auto [i0, i1, fx] = columns_[static_cast<std::size_t>(x0 + i)];
      const float left = between[static_cast<std::size_t>(i0 - first)];
      out[i] = left + (between[static_cast<std::size_t>(i1 - first)] - left) * fx;
    }
  }

private:
  struct Cell {
    int lower, upper;
    float fraction;
  };
  /// The two reduced samples either side of full-size position `p` (pixel centres aligned) and
  /// how far between them it lies; held within the reduced image.
  static Cell lattice(float p, float scale, int size) {
    const float u = std::clamp((p + 0.5F) * scale - 0.5F, 0.0F, static_cast<float>(size - 1));
    const int lower = static_cast<int>(u);
    return {lower, std::min(lower + 1, size - 1), u - static_cast<float>(lower)};
  }

  VImage small_;
  const float* data_ = nullptr;
  int w_ = 0, h_ = 0;
  float sy_ = 0;
  std::vector<Cell> columns_; ///< per full-size column, the same for every row
};

/// Sharpening, texture, clarity and the local part of dehaze all add detail of one scale (the
/// lightness minus its blur at that scale), each taken from the same lightness, and all of it
/// comes together in one pass over the pixels with the dehaze veil. Narrow blurs are NarrowBlurs
/// and wide ones one WideBlur, both computed in that pass. Amount 1 adds the detail once more,
/// -1 removes it.
VImage applyLightness(const VImage& rgb, std::shared_ptr<const PixelStages> front,
                      const Settings& s) {
  const int width = rgb.width(), height = rgb.height();
  const double longEdge = std::max(width, height);
  // The per-pixel stages run once, in the pass that computes lightness into memory (one float
  // band): the blurs read around each tile, and recomputing everything before this stage for
  // every margin would cost far more. The same pass writes a and b beside it as 16-bit fixed
  // point (toFixed, up to ±1023), which keeps the whole Lab image at 8 bytes a pixel.
  const VImage abFixed =
      memoryImage(width, height, 2, VIPS_FORMAT_SHORT, VIPS_INTERPRETATION_MULTIBAND);
  auto* abData = reinterpret_cast<std::int16_t*>(VIPS_IMAGE_ADDR(abFixed.get_image(), 0, 0));
  const VImage lightness = inMemory(
      pixelOp({rgb}, 1, VIPS_INTERPRETATION_B_W,
              [first = FirstPass(std::move(front), rgb, true), abData,
               width](const float* const* in, float* out, int x, int y, int n) {
                first.labRow(in[0], n, out, abData + 2 * (static_cast<std::size_t>(y) * width + x));
              }));
  // Luminance noise reduction comes first, so that everything after works on the smoothed
  // lightness; its sigma and noise level are in output pixels and Lab units.
  const VImage l =
      s.luminanceNR > 0
          ? inMemory(suppressNoise(lightness, 1 + 1.5 * s.luminanceNR, 8 * s.luminanceNR))
          : lightness;
  // a and b stay fixed point into the last pass unless a stage on the way changes them.
  const bool abChanges = s.colorNR > 0 || s.defringe > 0;
  VImage ab = abChanges ? abFixed * (1 / kAbScale) : abFixed;

  std::optional<VImage> deviation;
  const auto edges = [&] {
    if (!deviation) {
      deviation = localDeviation(l);
    }
    return *deviation;
  };
  if (s.colorNR > 0) {
    // Colour noise is coarser than lightness noise: a wider neighbourhood, same rule.
    ab = suppressNoise(ab, 1 + 3 * s.colorNR, 12 * s.colorNR);
  }
  if (s.defringe > 0) {
    // Chroma is taken out of fringe hues where lightness changes sharply nearby.
    const VImage hue = withInterpretation(VImage::bandjoin({l, ab}), VIPS_INTERPRETATION_LAB)
                           .colourspace(VIPS_INTERPRETATION_LCH)[2];
    const VImage fringe = (hue * kHueSteps + 0.5).cast(VIPS_FORMAT_USHORT).maplut(fringeTable());
    const VImage keep = 1 - fringe * smoothstep(3, 10, edges()) * s.defringe;
    ab = ab * keep;
  }

  // What the pass reads: lightness, a and b, and the local deviation if sharpening is masked.
  std::vector<VImage> inputs{l, abChanges ? ab.cast(VIPS_FORMAT_FLOAT) : ab};
  struct Detail {
    float amount;
    std::shared_ptr<const NarrowBlur> blur;
    int edges = -1;      ///< edge masking (sharpening only): the deviation's input,
    float threshold = 0; ///< and the deviation from which the detail is full
  };
  std::vector<Detail> details;
  // Wide blurs add up: the sum of amount × (l − blur) over them is l × (the sum of the amounts)
  // − (the amounts' weighted sum of the blurs), and the weighted sum is one small image.
  std::vector<std::pair<double, double>> wideTerms;
  float wideAmount = 0;
  constexpr double kNarrow = 6; ///< widest sigma blurred at full size
  const auto add = [&](double sigma, double amount, int edges = -1, float threshold = 0,
                       double minAmplitude = 0.2) {
    if (amount == 0) {
      return;
    }
    const double clamped = std::max(amount, -1.0);
    if (sigma > kNarrow) {
      wideTerms.emplace_back(sigma, clamped);
      wideAmount += static_cast<float>(clamped);
      return;
    }
    Detail d{static_cast<float>(clamped)};
    d.edges = edges;
    d.threshold = threshold;
    d.blur = std::make_shared<const NarrowBlur>(l, sigma, minAmplitude);
    details.push_back(std::move(d));
  };
  // The sharpening mask's kernel runs out to 1 % of its peak: libvips' default cut, 20 %, leaves
  // a lone centre tap below a sigma of 0.56 px, and the narrower half of the radius range would
  // then sharpen nothing.
  constexpr double kSharpenKernel = 0.01;
  if (s.sharpenAmount != 0 && s.sharpenDetail > 0) {
    // Edge masking: no sharpening where the local deviation is under half the threshold, full
    // sharpening from the threshold up, so flat areas and their noise are left alone.
    inputs.push_back(edges());
    add(0.8 * std::exp2(s.sharpenRadius), 1.5 * s.sharpenAmount,
        static_cast<int>(inputs.size()) - 1, static_cast<float>(16 * s.sharpenDetail),
        kSharpenKernel);
  } else {
    add(0.8 * std::exp2(s.sharpenRadius), 1.5 * s.sharpenAmount, -1, 0, kSharpenKernel);
  }
  add(std::max(1.0, longEdge * 0.004), 0.8 * s.texture);
  add(std::max(2.0, longEdge * 0.015), 0.6 * s.clarity);
  add(std::max(4.0, longEdge * 0.05), 0.3 * s.dehaze);
  // A veil of bright haze over the scene: removing it (dehaze > 0) stretches lightness down
  // from white and restores colour; adding it (< 0) does the reverse. The broad local contrast
  // above stands in for a per-region haze estimate.
  const auto veil = static_cast<float>(0.2 * s.dehaze);
  std::shared_ptr<const WideBlur> wide;
  if (!wideTerms.empty()) {
    // One shared box average for every wide blur: the smallest of them is still several reduced
    // pixels wide.
    constexpr int kBox = 3;
    wide = std::make_shared<const WideBlur>(l.shrink(kBox, kBox).copy_memory(), kBox, l.width(),
                                            l.height(), std::move(wideTerms));
  }

  return pixelOp(inputs, 3, VIPS_INTERPRETATION_LAB,
                 [details = std::move(details), wide, wideAmount, veil,
                  abChanges](const float* const* in, float* out, int x, int y, int n) {
                   const float* l = in[0];
                   std::vector<float> acc(l, l + n);
                   if (wide) {
                     const auto sum = scratch(static_cast<std::size_t>(n));
                     wide->row(x, y, n, sum.get());
                     for (int i = 0; i < n; ++i) {
                       acc[i] += l[i] * wideAmount - sum[i];
                     }
                   }
                   const auto blurred = scratch(details.empty() ? 0 : static_cast<std::size_t>(n));
                   for (const Detail& d : details) {
                     d.blur->row(x, y, n, blurred.get());
                     for (int i = 0; i < n; ++i) {
                       float amount = d.amount;
                       if (d.edges >= 0) {
                         amount *= static_cast<float>(
                             smoothstep(d.threshold / 2, d.threshold, in[d.edges][i]));
                       }
                       acc[i] += (l[i] - blurred[i]) * amount;
                     }
                   }
                   const float keep = 1 / (1 - veil);
                   for (int i = 0; i < n; ++i) {
                     out[3 * i] = (acc[i] - 100 * veil) * keep;
                   }
                   if (abChanges) {
                     for (int i = 0; i < 2 * n; ++i) {
                       out[3 * (i / 2) + 1 + i % 2] = in[1][i] * keep;
                     }
                   } else {
                     const auto* ab = reinterpret_cast<const std::int16_t*>(in[1]);
                     const float scale = keep / kAbScale;
                     for (int i = 0; i < n; ++i) {
                       out[3 * i + 1] = static_cast<float>(ab[2 * i]) * scale;
                       out[3 * i + 2] = static_cast<float>(ab[2 * i + 1]) * scale;
                     }
                   }
                 });
}

// ---- effects: linear scRGB ----------------------------------------------------------------

constexpr int kRadiusSteps = 1000; ///< table entries per unit of normalised radius

/// Catmull-Rom weights of the four lattice points around a fraction `t` of the way between the
/// middle two (the kernel of libvips' bicubic upsizing).
inline std::array<float, 4> catmullRom(float t) {
  const float t2 = t * t, t3 = t2 * t;
  return {(-t3 + 2 * t2 - t) / 2, (3 * t3 - 5 * t2 + 2) / 2, (-3 * t3 + 4 * t2 + t) / 2,
          (t3 - t2) / 2};
}

/// Seeded noise on a coarse lattice, interpolated (Catmull-Rom) to every pixel. Each lattice
/// point holds an approximately Gaussian value of unit variance (the sum of four uniform ones,
/// centred and scaled) drawn from a hash of its position and the seed, so any part of the
/// image can be computed alone, on any thread, in any order, with the same result. Lattice rows
/// are hashed once, by the first row of pixels that needs them, and kept as 16-bit fixed point.
class LatticeNoise {
public:
  /// Variance left of the lattice's unit variance once interpolated, over the image: the mean
  /// of the squared kernel weights, (Σw²)² averaged over the fractions, 0.663.
  static constexpr double kInterpolatedVariance = 0.663;

  LatticeNoise(int width, int height, double cell, std::uint64_t seed)
      : columns_(std::max(1, static_cast<int>(width / cell))),
        rows_(std::max(1, static_cast<int>(height / cell))),
        scaleY_(static_cast<float>(rows_) / static_cast<float>(height)), seed_(seed),
        lattice_(static_cast<std::size_t>(rows_) * stride()),
        hashed_(std::make_unique<std::once_flag[]>(static_cast<std::size_t>(rows_))) {
    // Every column's lattice position and weights, the same for every row.
    const float scaleX = static_cast<float>(columns_) / static_cast<float>(width);
    for (int x = 0; x < width; ++x) {
      const float u = (static_cast<float>(x) + 0.5F) * scaleX - 0.5F;
      const int i = static_cast<int>(std::floor(u));
      left_.push_back(i - 1 + kPad);
      weights_.push_back(catmullRom(u - static_cast<float>(i)));
    }
  }

  /// The noise along row `y`, from pixel `x0`, `n` pixels, into `out`.
  void row(int x0, int y, int n, float* out) const {
    const float v = (static_cast<float>(y) + 0.5F) * scaleY_ - 0.5F;
    const int j = static_cast<int>(std::floor(v));
    const std::array<float, 4> wy = catmullRom(v - static_cast<float>(j));
    std::array<const std::int16_t*, 4> rows{};
    for (int k = 0; k < 4; ++k) {
      rows[static_cast<std::size_t>(k)] = latticeRow(std::clamp(j - 1 + k, 0, rows_ - 1));
    }
    // The lattice columns the row needs, interpolated down to the row first. (A row's buffers
    // are its own: libvips' worker threads outlive a render, so thread-local ones would too.)
    const int first = left_[static_cast<std::size_t>(x0)];
    const int last = left_[static_cast<std::size_t>(x0 + n - 1)] + 3;
    const auto column = scratch(static_cast<std::size_t>(last - first + 1));
    for (int i = first; i <= last; ++i) {
      const auto c = static_cast<std::size_t>(i);
      column[static_cast<std::size_t>(i - first)] =
          (wy[0] * rows[0][c] + wy[1] * rows[1][c] + wy[2] * rows[2][c] + wy[3] * rows[3][c]) *
          (1.0F / kFixed);
    }
    for (int x = 0; x < n; ++x) {
      const auto at = static_cast<std::size_t>(x0 + x);
      const std::array<float, 4>& w = weights_[at];
      const float* c = &column[static_cast<std::size_t>(left_[at] - first)];
      out[x] = w[0] * c[0] + w[1] * c[1] + w[2] * c[2] + w[3] * c[3];
    }
  }

private:
  static constexpr int kPad = 2;        ///< edge entries repeated either side of a row
  static constexpr float kFixed = 4096; ///< fixed-point steps per unit (values within ±3.5)
  std::size_t stride() const { return static_cast<std::size_t>(columns_ + 2 * kPad); }

  /// Lattice row `j`, hashed on first use.
  const std::int16_t* latticeRow(int j) const {
    std::int16_t* row = &lattice_[static_cast<std::size_t>(j) * stride()];
    std::call_once(hashed_[static_cast<std::size_t>(j)], [&] {
      for (int i = -kPad; i < columns_ + kPad; ++i) {
        row[i + kPad] =
            static_cast<std::int16_t>(std::lrint(at(std::clamp(i, 0, columns_ - 1), j) * kFixed));
      }
    });
    return row;
  }

  /// The lattice point (i, j).
  float at(int i, int j) const {
    // splitmix64 of the seed and the position.
    std::uint64_t z = seed_ * 0x9e3779b97f4a7c15ULL +
                      (static_cast<std::uint64_t>(j) << 32 | static_cast<std::uint64_t>(i));
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    z ^= z >> 31;
    float sum = 0;
    for (int k = 0; k < 4; ++k) {
      sum += static_cast<float>((z >> (16 * k)) & 0xffff) + 0.5F;
    }
    // Four uniforms on 0..1 have mean 2 and variance 1/3.
    return (sum / 65536.0F - 2) * 1.7320508F;
  }

  int columns_, rows_;
  float scaleY_;
  std::uint64_t seed_;
  std::vector<int> left_;                     ///< per column: the first lattice entry it reads
  std::vector<std::array<float, 4>> weights_; ///< per column: the four entries' weights
  mutable std::vector<std::int16_t> lattice_; ///< rows of stride() entries, padded
  std::unique_ptr<std::once_flag[]> hashed_;
};

/// The effect stage: a vignette (a gain that falls or rises with the distance from the centre,
/// radius 1 at a corner: nothing changes inside the midpoint, the feather sets how gradually
/// the full amount arrives) and monochrome film grain (seeded noise clumped by `grainSize`, as
/// a multiplicative ripple in linear light, made uneven by `grainRoughness`).
class Effects {
public:
  Effects(const Settings& s, int width, int height) : width_(width), height_(height) {
    if (s.vignetteAmount != 0) {
      const double inner = 0.8 * s.vignetteMidpoint;
      const double outer = inner + (1.05 - inner) * (0.15 + 0.85 * s.vignetteFeather);
      for (int i = 0; i < kRadiusSteps + 2; ++i) {
        const double weight = smoothstep(inner, outer, static_cast<double>(i) / kRadiusSteps);
        vignette_.push_back(static_cast<float>(std::exp2(1.5 * s.vignetteAmount * weight)));
      }
    }
    if (s.grainAmount != 0) {
      constexpr std::uint64_t kSeed = 0x6a41;
      const double cell = 1 + 3 * s.grainSize;
      grain_.emplace(width, height, cell, kSeed);
      strength_ = static_cast<float>(0.3 * s.grainAmount);
      if (s.grainRoughness > 0) {
        // Rough grain is uneven: its strength varies in clumps four times the grain's size, by
        // exp(σZ − σ²v), v the variance the interpolation leaves of the clumps' unit noise:
        // that keeps the grain's mean power.
        clumps_.emplace(width, height, 4 * cell, kSeed + 1);
        spread_ = static_cast<float>(1.2 * s.grainRoughness);
      }
    }
  }

  bool any() const { return !vignette_.empty() || grain_; }

  /// Row `y` of linear light as three planes of `n` pixels each (red, green, blue), from pixel
  /// `x0`, in place. Both effects are one gain per pixel, for all three channels.
  void apply(float* planes, int x0, int y, int n) const {
    const auto size = static_cast<std::size_t>(n);
    std::vector<float> gain(size, 1.0F);
    if (!vignette_.empty()) {
      const float halfW = static_cast<float>(width_) / 2, halfH = static_cast<float>(height_) / 2;
      const float dy = (static_cast<float>(y) + 0.5F - halfH) / halfH;
      const float across = 1 / halfW;
      const auto position = scratch(size);
      const auto last = static_cast<float>(vignette_.size() - 1);
      for (int x = 0; x < n; ++x) {
        const float dx = (static_cast<float>(x0 + x) + 0.5F - halfW) * across;
        position[static_cast<std::size_t>(x)] =
            std::sqrt((dx * dx + dy * dy) * 0.5F) * kRadiusSteps + 0.5F;
      }
      for (std::size_t x = 0; x < size; ++x) {
        gain[x] = vignette_[static_cast<unsigned>(static_cast<int>(std::min(position[x], last)))];
      }
    }
    if (grain_) {
      const auto noise = scratch(size);
      grain_->row(x0, y, n, noise.get());
      if (clumps_) {
        const auto clumps = scratch(size);
        clumps_->row(x0, y, n, clumps.get());
        const auto bias =
            static_cast<float>(spread_ * spread_ * LatticeNoise::kInterpolatedVariance);
        for (std::size_t x = 0; x < size; ++x) {
          noise[x] *= std::exp(clumps[x] * spread_ - bias);
        }
      }
      for (std::size_t x = 0; x < size; ++x) {
        gain[x] *= 1 + noise[x] * strength_;
      }
    }
    for (std::size_t c = 0; c < 3; ++c) {
      float* plane = planes + c * size;
      for (std::size_t x = 0; x < size; ++x) {
        plane[x] *= gain[x];
      }
    }
  }

private:
  int width_, height_;
  std::vector<float> vignette_;
  std::optional<LatticeNoise> grain_, clumps_;
  float strength_ = 0, spread_ = 0;
};

/// Linear light to 8-bit sRGB by a table on the linear value in steps of 1/65535: it rounds as
/// the transfer function does, but for values within 1/131070 of halfway between two levels.
class SrgbEncoder {
public:
  static const SrgbEncoder& get() {
    static const SrgbEncoder encoder;
    return encoder;
  }

  std::uint8_t operator()(float linear) const { return table_[entry(linear, kSteps - 1, kSteps)]; }

  /// `n` pixels of three planes into interleaved 8-bit R, G, B: eight at a time where the
  /// processor has AVX2, one at a time otherwise.
  void row(const float* r, const float* g, const float* b, int n, std::uint8_t* out) const {
    int i = 0;
#if defined(__x86_64__)
    if (hasAvx2()) {
      i = rowAvx2(r, g, b, n, out);
    }
#endif
    for (; i < n; ++i) {
      out[3 * i] = (*this)(r[i]);
      out[3 * i + 1] = (*this)(g[i]);
      out[3 * i + 2] = (*this)(b[i]);
    }
  }

private:
  static constexpr int kSteps = 65536;
  SrgbEncoder() {
    for (int i = 0; i < kSteps; ++i) {
      table_[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(
          std::lround(255 * toPerceptual(static_cast<double>(i) / (kSteps - 1))));
    }
  }

#if defined(__x86_64__)
  /// row for whole groups of eight pixels while the last group's 16-byte store stays within the
  /// row; returns the pixels done. Entries are gathered four bytes at a time (the table has three
  /// bytes to spare) and the low byte kept.
  __attribute__((target("avx2"))) int rowAvx2(const float* r, const float* g, const float* b, int n,
                                              std::uint8_t* out) const {
    const __m256 scale = _mm256_set1_ps(kSteps - 1), half = _mm256_set1_ps(0.5F);
    const __m256 zero = _mm256_setzero_ps(), last = _mm256_set1_ps(kSteps - 1.0F);
    const __m256i low = _mm256_set1_epi32(0xFF);
    const auto* table = reinterpret_cast<const int*>(table_.data());
    // Per 128-bit lane: the low three bytes of each of its four pixels, then four unused bytes.
    const __m256i squeeze =
        _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5, 6,
                         8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    int i = 0;
    for (; 3 * (i + 8) + 4 <= 3 * n; i += 8) {
      __m256i pixel = _mm256_setzero_si256();
      const float* planes[3] = {r, g, b};
      for (int c = 0; c < 3; ++c) {
        const __m256 v = _mm256_add_ps(_mm256_mul_ps(_mm256_loadu_ps(planes[c] + i), scale), half);
        const __m256i at = _mm256_cvttps_epi32(_mm256_min_ps(last, _mm256_max_ps(zero, v)));
        const __m256i level = _mm256_and_si256(_mm256_i32gather_epi32(table, at, 1), low);
        pixel = _mm256_or_si256(pixel, _mm256_slli_epi32(level, 8 * c));
      }
      const __m256i packed = _mm256_shuffle_epi8(pixel, squeeze);
      std::uint8_t* to = out + 3 * static_cast<std::size_t>(i);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm256_castsi256_si128(packed));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(to + 12), _mm256_extracti128_si256(packed, 1));
    }
    return i;
  }
#endif

  std::array<std::uint8_t, kSteps + 3> table_{};
};

/// What is left of a render after the neighbourhood stages, in one pass over the pixels: the
/// per-pixel stages if they have not run yet (`front`), Lab back to linear light (`lab`), the
/// masks that render pixel by pixel, each blended through its coverage, the effects, and with
/// `srgb8`, the encoding to 8-bit sRGB.
VImage finish(const VImage& image, bool lab, std::shared_ptr<const PixelStages> front,
              const std::vector<PixelMask>& masks, std::shared_ptr<const Effects> effects,
              bool srgb8 = false) {
  std::vector<VImage> inputs{image};
  auto stages = std::make_shared<std::vector<PixelStages>>();
  for (const PixelMask& mask : masks) {
    PixelStages own{Settings(mask.stack)};
    if (own.any()) {
      stages->push_back(std::move(own));
      inputs.push_back(mask.coverage);
    }
  }
  // An 8-bit input is sRGB on its way to the table of the per-pixel stages, which also turns it
  // into linear light.
  const bool bytes = image.format() == VIPS_FORMAT_UCHAR;
  if (front && !front->any() && !bytes) {
    front.reset();
  }
  if (effects && !effects->any()) {
    effects.reset();
  }
  if (!lab && !front && stages->empty() && !effects && !srgb8) {
    return image;
  }
  std::optional<FirstPass> first;
  if (front) {
    first.emplace(std::move(front), image, false);
  }
  const SrgbEncoder& encoder = SrgbEncoder::get();
  return pixelOp(
      inputs, 3, srgb8 ? VIPS_INTERPRETATION_sRGB : VIPS_INTERPRETATION_scRGB,
      [lab, first = std::move(first), stages, effects, srgb8,
       &encoder](const float* const* in, float* out, int x, int y, int n) {
        // The row is worked on as three planes, so that each step is a plain loop over floats.
        const auto size = static_cast<std::size_t>(n);
        const auto planes = scratch(3 * size);
        float* r = planes.get();
        float* g = r + size;
        float* b = g + size;
        if (lab) {
          labRowToLinear(in[0], size, r, g, b);
        } else {
          for (std::size_t i = 0; i < size; ++i) {
            std::array<float, 3> p{};
            if (first) {
              first->apply(in[0], static_cast<int>(i), p.data());
            } else {
              std::copy(in[0] + 3 * i, in[0] + 3 * i + 3, p.data());
            }
            r[i] = p[0];
            g[i] = p[1];
            b[i] = p[2];
          }
        }
        for (std::size_t m = 0; m < stages->size(); ++m) {
          const PixelStages& own = (*stages)[m];
          const float* coverage = in[m + 1];
          if (const auto gains = own.gainsOnly()) {
            // Blending a gain through the coverage is a gain itself.
            for (std::size_t c = 0; c < 3; ++c) {
              float* plane = planes.get() + c * size;
              const float k = (*gains)[c] - 1;
              for (std::size_t i = 0; i < size; ++i) {
                plane[i] *= 1 + k * coverage[i];
              }
            }
            continue;
          }
          for (std::size_t i = 0; i < size; ++i) {
            std::array<float, 3> masked{r[i], g[i], b[i]};
            own.apply(masked.data(), false);
            r[i] += (masked[0] - r[i]) * coverage[i];
            g[i] += (masked[1] - g[i]) * coverage[i];
            b[i] += (masked[2] - b[i]) * coverage[i];
          }
        }
        if (effects) {
          effects->apply(planes.get(), x, y, n);
        }
        if (srgb8) {
          encoder.row(r, g, b, n, reinterpret_cast<std::uint8_t*>(out));
        } else {
          for (std::size_t i = 0; i < size; ++i) {
            out[3 * i] = r[i];
            out[3 * i + 1] = g[i];
            out[3 * i + 2] = b[i];
          }
        }
      },
      srgb8 ? VIPS_FORMAT_UCHAR : VIPS_FORMAT_FLOAT);
}

} // namespace

bool readsNeighbours(const core::EditStack& stack) {
  return Settings(stack).lightness() || masksReadNeighbours(stack);
}

bool rereadsInput(const VImage& image, const core::EditStack& stack) {
  const bool alpha = image.bands() == 2 || image.bands() > 3;
  return masksReadNeighbours(stack) || (alpha && readsNeighbours(stack));
}

VImage applyAdjustments(VImage image, const core::EditStack& stack, const Look& look,
                        Encoding encoding) {
  const Settings s(stack);
  const bool masks = rendersMasks(stack);
  if (!s.any() && !look && !masks) {
    return image;
  }
  std::shared_ptr<const PixelStages> front = std::make_shared<const PixelStages>(s);
  // A large 8-bit sRGB picture goes through the per-pixel stages as a table, read straight from
  // its bytes; anything else is first turned into linear light.
  const bool table = image.format() == VIPS_FORMAT_UCHAR &&
                     image.interpretation() == VIPS_INTERPRETATION_sRGB && image.bands() >= 3 &&
                     (s.lightness() || front->any()) &&
                     static_cast<double>(image.width()) * image.height() >= StageTable::kWorthFrom;
  // scRGB: three float bands of linear light, then alpha (if any) untouched to the end.
  const VImage original = image;
  image = image.colourspace(VIPS_INTERPRETATION_scRGB);
  if (image.format() != VIPS_FORMAT_FLOAT) {
    image = withInterpretation(image.cast(VIPS_FORMAT_FLOAT), VIPS_INTERPRETATION_scRGB);
  }
  const bool alpha = image.bands() > 3;
  const VImage extra =
      alpha ? image.extract_band(3, VImage::option()->set("n", image.bands() - 3)) : VImage();
  const auto colour = [&](const VImage& i) {
    return alpha ? i.extract_band(0, VImage::option()->set("n", 3)) : i;
  };
  VImage rgb = colour(table ? original : image);

  // The per-pixel stages (develop, tone, colour, grade) run in one pass with whatever follows
  // them up to the next stage that reads around pixels or works in another encoding.
  bool lab = false; // whether rgb holds Lab, still to be turned back into linear light
  if (s.lightness()) {
    rgb = applyLightness(rgb, front, s);
    front.reset();
    lab = true;
  }
  if (look) {
    rgb = finish(rgb, lab, front, {}, nullptr);
    front.reset();
    lab = false;
    // Looks are made for display-referred 8-bit sRGB.
    rgb = withInterpretation(look(rgb.colourspace(VIPS_INTERPRETATION_sRGB)), VIPS_INTERPRETATION_sRGB)
              .colourspace(VIPS_INTERPRETATION_scRGB);
    if (rgb.format() != VIPS_FORMAT_FLOAT) {
      rgb = withInterpretation(rgb.cast(VIPS_FORMAT_FLOAT), VIPS_INTERPRETATION_scRGB);
    }
  }
  std::optional<std::vector<PixelMask>> perPixel =
      masks ? pixelMasks(stack, rgb.width(), rgb.height()) : std::vector<PixelMask>{};
  if (!perPixel) {
    // Masks that read the image or around each pixel: the general mask stage.
    rgb = applyMasks(finish(rgb, lab, front, {}, nullptr), stack);
    front.reset();
    lab = false;
    perPixel.emplace();
  }
  // The last pass encodes for an 8-bit result itself, unless alpha must join it in linear light.
  const bool srgb8 = encoding == Encoding::Srgb8 && !alpha;
  rgb = finish(rgb, lab, front, *perPixel,
               std::make_shared<const Effects>(s, rgb.width(), rgb.height()), srgb8);
  if (srgb8) {
    return rgb;
  }
  rgb = withInterpretation(rgb.cast(VIPS_FORMAT_FLOAT), VIPS_INTERPRETATION_scRGB);
  return alpha ? rgb.bandjoin(extra) : rgb;
}

} // namespace velko::app
