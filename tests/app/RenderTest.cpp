// What each kind of edit does to pixels: a table per stage (adjustments, geometry and frame, local
// masks), each case a small synthetic picture and the property the kind must have on it.
#include "app/AppFixture.h"
#include "app/Imaging.h"
#include "app/Masks.h"
#include "app/RenderGeometry.h"
#include "app/RenderPipeline.h"
#include "support/TestPeer.h"

#include <array>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <numbers>
#include <set>
#include <string>
#include <vector>

namespace velko::app::testing {
namespace {

using core::CompositeMode;
using vips::VImage;
using K = core::AdjustmentKind;
using Scalar = std::pair<K, double>;

constexpr int kW = 96, kH = 64;
constexpr int kGW = 240, kGH = 160; ///< the geometry and frame tests' picture

struct Area {
  int x, y, w, h;
};
constexpr Area kWhole{0, 0, kW, kH}, kLeft{0, 0, kW / 2, kH}, kRight{kW / 2, 0, kW / 2, kH};
constexpr Area kCentre{kW / 2 - 8, kH / 2 - 8, 16, 16}, kCorner{0, 0, 8, 8};

class Render : public ::testing::Test {
protected:
  static void SetUpTestSuite() { initImaging(); }

  // ---- Pictures ----
  static VImage srgb(const VImage& i) {
    return i.cast(VIPS_FORMAT_UCHAR)
        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
  }
  static VImage flat(double r, double g, double b, int width = kW, int height = kH) {
    return srgb(VImage::black(width, height, VImage::option()->set("bands", 3)) +
                std::vector<double>{r, g, b});
  }
  /// Left half `dark`, right half `bright`, grey.
  static VImage halves(double dark, double bright) {
    return flat(dark, dark, dark).insert(flat(bright, bright, bright, kW / 2), kW / 2, 0);
  }
  /// `image` plus seeded Gaussian noise of `sigma` 8-bit levels, the same in every band.
  static VImage noisy(const VImage& image, double sigma) {
    const VImage n = VImage::gaussnoise(
        kW, kH, VImage::option()->set("sigma", sigma)->set("mean", 0.0)->set("seed", 7));
    return srgb(image + VImage::bandjoin({n, n, n}));
  }
  /// A centred square of `size` in colour (r, g, b) on `ground`.
  static VImage patch(const VImage& ground, double r, double g, double b, int size) {
    return ground.insert(flat(r, g, b, size, size), (kW - size) / 2, (kH - size) / 2);
  }
  /// Grey from black at the left to white at the right.
  static VImage rampX() {
    const VImage v = VImage::xyz(kW, kH)[0] * (255.0 / (kW - 1));
    return srgb(VImage::bandjoin({v, v, v}));
  }
  /// Hue all the way round the Lab wheel from left to right, at one lightness and chroma.
  static VImage hueRampX() {
    const VImage h = VImage::xyz(kW, kH)[0] * (360.0 / kW);
    return srgb(VImage::bandjoin({h * 0 + 60, h * 0 + 40, h})
                    .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_LCH))
                    .colourspace(VIPS_INTERPRETATION_sRGB));
  }
  /// A kGW × kGH mask picture: black, with white where `inside(x, y)` (normalised) holds.
  static VImage shape(const std::function<VImage(const VImage& x, const VImage& y)>& inside) {
    const VImage xy = VImage::xyz(kGW, kGH);
    return inside((xy[0] + 0.5) / kGW, (xy[1] + 0.5) / kGH)
        .ifthenelse(255, 0)
        .cast(VIPS_FORMAT_UCHAR)
        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_B_W));
  }

  // ---- Measures ----
  static VImage in(const VImage& i, Area a) { return i.extract_area(a.x, a.y, a.w, a.h); }
  /// Mean linear luminance.
  static double luma(const VImage& image) {
    const VImage l = image.colourspace(VIPS_INTERPRETATION_scRGB);
    return 0.2126 * l[0].avg() + 0.7152 * l[1].avg() + 0.0722 * l[2].avg();
  }
  static double lumaIn(const VImage& i, Area a) { return luma(in(i, a)); }
  /// The mean of `band` over `a` in `space`.
  static double mean(const VImage& i, Area a, VipsInterpretation space, int band) {
    return in(i, a).colourspace(space)[band].avg();
  }
  /// The largest difference between two pictures in 8-bit sRGB levels, over every band.
  static double largestDifference(const VImage& a, const VImage& b) {
    const auto eight = [](const VImage& i) {
      return i.colourspace(VIPS_INTERPRETATION_sRGB).cast(VIPS_FORMAT_FLOAT);
    };
    return (eight(a) - eight(b)).abs().max();
  }
  /// The spread of lightness (or Lab a, b) over the left half, away from the middle and borders.
  static double spread(const VImage& i, int band = 0) {
    return in(i, {4, 4, kW / 2 - 16, kH - 8}).colourspace(VIPS_INTERPRETATION_LAB)[band].deviate();
  }
  /// The lightness step across the middle of a halves image.
  static double step(const VImage& i) {
    return mean(i, {kW / 2, 0, 2, kH}, VIPS_INTERPRETATION_LAB, 0) -
           mean(i, {kW / 2 - 2, 0, 2, kH}, VIPS_INTERPRETATION_LAB, 0);
  }
  /// How unevenly grain is spread (spread over mean of its power in 8 × 8 blocks), and its power.
  static std::pair<double, double> grainBlocks(const VImage& i) {
    const VImage l = i.colourspace(VIPS_INTERPRETATION_scRGB)[1];
    const VImage power = ((l - l.avg()) * (l - l.avg())).shrink(8, 8);
    return {power.deviate() / power.avg(), power.avg()};
  }
  /// The row of the centre of brightness in column `x`.
  static double brightRow(const VImage& image, int x) {
    const VImage column = image.extract_area(x, 0, 1, image.height()).cast(VIPS_FORMAT_DOUBLE);
    return (column * VImage::xyz(1, image.height())[1]).avg() / column.avg();
  }

  // ---- Stacks ----
  /// A stack of these values, set by the user. A boolean kind is true for any value but 0, a
  /// curve runs through (0.5, value), a point colour turns a sky blue (HSL hue 216°, saturation
  /// 0.68, lightness 0.57) by the value.
  static core::EditStack stackOf(const std::vector<Scalar>& values) {
    core::EditStack s;
    for (auto [kind, v] : values) {
      const json::Date at = core::nowSeconds();
      switch (core::payloadType(kind)) {
      case core::PayloadType::Boolean:
        s.setBoolean(kind, v != 0, core::UserOrigin{}, at);
        break;
      case core::PayloadType::Curve:
        s.setCurve(kind, {{0, 0}, {0.5, v}, {1, 1}}, core::UserOrigin{}, at);
        break;
      case core::PayloadType::PointColors:
        s.setPointColors({{0.6, 0.68, 0.57, v, 0, 0, 0.3}}, core::UserOrigin{}, at);
        break;
      default:
        s.setScalar(kind, v, core::UserOrigin{}, at);
      }
    }
    return s;
  }
  /// The stack's geometry on `image` at full size, as renderStack does it.
  static VImage geometryOf(const VImage& image, const core::EditStack& stack) {
    const GeometrySettings g(stack);
    const bool turned = g.quarterTurns % 2 == 1;
    const int w = turned ? image.height() : image.width();
    const int h = turned ? image.width() : image.height();
    const Warp warp(g, static_cast<double>(w) / h);
    return applyGeometry(image, g, warp,
                         planRender(w, h, g, warp, FrameSettings(stack), std::nullopt));
  }
  static core::LocalMask maskOf(core::MaskShape shape,
                                core::MaskAdjustments adjustments = {{K::Exposure, 1}},
                                std::vector<core::MaskComponent> refinements = {}) {
    // No refinements leaves the list absent, as most stored masks have it.
    core::LocalMask m{.id = core::Uuid::random(), .shape = std::move(shape),
                      .adjustments = std::move(adjustments)};
    if (!refinements.empty()) {
      m.refinementList = std::move(refinements);
    }
    return m;
  }
  static core::MaskComponent refine(core::MaskShape shape, CompositeMode mode) {
    return {core::Uuid::random(), std::move(shape), mode};
  }
  static core::EditStack masked(std::vector<core::LocalMask> masks) {
    core::EditStack s;
    s.setMasks(std::move(masks));
    return s;
  }
  static core::RadialShape radial(double cx, double cy, double r, double feather,
                                  bool inverted = false) {
    return {{cx, cy}, {r, r}, feather, inverted};
  }

  const VImage grey_ = flat(118, 118, 118);
};

// Every kind of the pixel stages, one case each (the mixer's bands and the grade's regions by
// loop): what the kind does at one value to a small picture, against the same stack without it.
// At the end, every kind must have its property here or in one of the tests named there.
TEST_F(Render, EachKindDoesWhatItsNameSays) {
  using Measure = std::function<double(const VImage&)>;
  using Check = std::function<void(const VImage& before, const VImage& after)>;
  const auto within = [](std::function<double(const VImage&, const VImage&)> f, double low,
                         double high) -> Check {
    return [=](const VImage& b, const VImage& a) {
      const double v = f(b, a);
      EXPECT_TRUE(v >= low && v <= high) << v << " not in " << low << ".." << high;
    };
  };
  // The change of a measure and its ratio.
  const auto moves = [&](Measure m, double low, double high = 1e9) {
    return within([=](const VImage& b, const VImage& a) { return m(a) - m(b); }, low, high);
  };
  const auto keeps = [&](Measure m, double by) { return moves(m, -by, by); };
  const auto scales = [&](Measure m, double low, double high = 1e9) {
    return within([=](const VImage& b, const VImage& a) { return m(a) / m(b); }, low, high);
  };
  // Means over an area: lightness, a, b, chroma and hue; linear and encoded channels.
  const auto of = [](VipsInterpretation space, int band) {
    return [=](Area r) {
      return Measure([=](const VImage& i) { return mean(i, r, space, band); });
    };
  };
  const auto L = of(VIPS_INTERPRETATION_LAB, 0), A = of(VIPS_INTERPRETATION_LAB, 1),
             B = of(VIPS_INTERPRETATION_LAB, 2), C = of(VIPS_INTERPRETATION_LCH, 1),
             H = of(VIPS_INTERPRETATION_LCH, 2);
  const auto linear = [&](int band) { return of(VIPS_INTERPRETATION_scRGB, band)(kWhole); };
  const auto encoded = [&](int band) { return of(VIPS_INTERPRETATION_sRGB, band)(kWhole); };
  const auto turns = [&](Area r, double low, double high) {
    return within([=](const VImage& b,
                      const VImage& a) { return std::remainder(H(r)(a) - H(r)(b), 360); },
                  low, high);
  };
  const auto lumaOf = [](Area r) { return Measure([=](const VImage& i) { return lumaIn(i, r); }); };
  const Measure lSpread = [](const VImage& i) { return spread(i); };
  const Measure aSpread = [](const VImage& i) { return spread(i, 1); };
  // How much of the grain is left after averaging 4 × 4 blocks: more, the coarser it is.
  const Measure coarseness = [](const VImage& i) {
    const VImage l = i.colourspace(VIPS_INTERPRETATION_LAB)[0];
    return l.shrink(4, 4).deviate() / l.deviate();
  };
  const Measure uneven = [](const VImage& i) { return grainBlocks(i).first; };
  const Measure power = [](const VImage& i) { return grainBlocks(i).second; };

  // Dark, with mid-grey in the centre and bright on the right.
  const VImage tones = patch(halves(50, 210), 118, 118, 118, 24);
  const Area dark = kCorner, mid = kCentre, bright{kW - 8, 0, 8, 8};
  const Measure span = [&](const VImage& i) { return L(bright)(i) - L(dark)(i); };
  const VImage edge = halves(70, 180), noisyEdge = noisy(edge, 4), muted = flat(150, 110, 90);
  const Area nearEdge{kW / 2 + 1, 0, 2, kH}, ring{kW / 4 - 4, kH / 4 - 4, 8, 8};
  // On the dark side of a step, a purple fringe above an orange band; far from it, purple.
  const VImage fringed = halves(20, 235)
                             .insert(flat(160, 60, 220, 2, kH / 2), kW / 2 - 2, 0)
                             .insert(flat(220, 120, 40, 2, kH / 2), kW / 2 - 2, kH / 2)
                             .insert(flat(160, 60, 220, 24, 24), 8, 20);
  const Area fringe{kW / 2 - 2, 0, 2, kH / 2}, orange{kW / 2 - 2, kH / 2, 2, kH / 2},
      purple{16, 28, 8, 8};
  // Red against blue noise: it moves a and b far more than lightness.
  const VImage n = VImage::gaussnoise(kW, kH, VImage::option()->set("sigma", 6.0)->set("seed", 7));
  const VImage chromaNoise = srgb(grey_ + VImage::bandjoin({n, n * 0, n * -1}));
  // The sky blue that stackOf's point colour picks on the left, orange on the right.
  const VImage skyOrange = flat(70, 130, 220).insert(flat(220, 120, 40, kW / 2), kW / 2, 0);

  struct Case {
    K kind;
    double value;
    VImage input;
    std::vector<Check> checks;
    std::vector<Scalar> with = {}; ///< in both renders
  };
  std::vector<Case> cases = {
      {K::Exposure, 1, grey_, {scales(luma, 1.96, 2.04)}},
      {K::Contrast, 0.5, tones, {moves(L(dark), -99, -3), moves(L(bright), 3), keeps(L(mid), 1)}},
      {K::Highlights, -1, tones, {moves(L(bright), -99, -4), moves(span, -99, -3)}},
      {K::Shadows, 0.6, tones, {moves(L(dark), 5), moves(L(bright), -0.5, 1)}},
      {K::Whites, 1, tones, {moves(L(bright), 3), keeps(L(dark), 0.5)}},
      {K::Blacks, 1, tones, {moves(L(dark), 3), keeps(L(bright), 0.5)}},
      {K::Temperature, 0.5, grey_, {moves(B(kWhole), 5), scales(luma, 0.97, 1.03)}},
      {K::Tint, 0.5, grey_, {moves(A(kWhole), 2.5), scales(luma, 0.97, 1.03)}},
      {K::WbRedGain, 2, grey_, {scales(linear(0), 1.95, 2.05), scales(linear(1), 0.99, 1.01)}},
      {K::WbBlueGain, 2, grey_, {scales(linear(2), 1.95, 2.05), scales(linear(1), 0.99, 1.01)}},
      {K::Vibrance, 1, muted.insert(flat(220, 40, 30, kW / 2), kW / 2, 0),
       {scales(C(kLeft), 1.4, 2), scales(C(kRight), 0.97, 1.03)}},
      {K::Saturation, -1, muted, {scales(C(kWhole), 0, 0.02)}},
      {K::Treatment, 1, muted, {scales(C(kWhole), 0, 0.02)}},
      {K::ColorProfile, 5, muted, {scales(C(kWhole), 0, 0.02)}}, // Monochrome
      {K::ColorProfile, 1, muted, {scales(C(kWhole), 1.1, 1.4)}}, // Vivid
      {K::ToneCurve, 0.7, tones, {moves(L(mid), 8)}},
      {K::ToneCurveRed, 0.7, grey_, {moves(encoded(0), 20), keeps(encoded(1), 0.5)}},
      {K::ToneCurveGreen, 0.7, grey_, {moves(encoded(1), 20), keeps(encoded(2), 0.5)}},
      {K::ToneCurveBlue, 0.7, grey_, {moves(encoded(2), 20), keeps(encoded(0), 0.5)}},
      {K::LevelsBlack, 0.2, tones, {moves(L(dark), -99, -15)}},
      {K::LevelsWhite, 0.8, tones, {moves(L(bright), 10)}},
      {K::LevelsGamma, 1, tones, {moves(L(mid), 5)}},
      {K::SharpenAmount, 1, noisyEdge, {scales(lSpread, 1.4), moves(step, 3)}},
      {K::SharpenAmount, 1, edge, {moves(step, 1.5)}, {{K::SharpenRadius, -1}}},
      {K::SharpenRadius, 1, edge, {moves(L(nearEdge), 3)}, {{K::SharpenAmount, 1}}},
      {K::SharpenDetail, 1, noisyEdge, {scales(lSpread, 0, 0.53), scales(step, 0.9)},
       {{K::SharpenAmount, 1}}},
      {K::LuminanceNR, 1, noisy(edge, 5), {scales(lSpread, 0, 0.5), scales(step, 0.9)}},
      {K::ColorNR, 1, chromaNoise, {scales(aSpread, 0, 0.5), scales(lSpread, 0.9, 1.1)}},
      {K::DefringeAmount, 1, fringed,
       {scales(C(fringe), 0, 0.4), scales(C(orange), 0.95), keeps(C(purple), 1)}},
      {K::Texture, 1, edge, {moves(step, 2), keeps(L(nearEdge), 0.3)}},
      {K::Clarity, 1, edge, {moves(L(nearEdge), 2)}},
      {K::Dehaze, 1, patch(flat(215, 205, 195), 170, 180, 205, 24),
       {scales(C(mid), 1.15), moves(L(dark), -99, -2)}},
      {K::PointColor, 1, skyOrange,
       {turns(kLeft, 15, 45), turns(kRight, -0.5, 0.5), keeps(C(kRight), 0.5),
        keeps(L(kRight), 0.5)}},
      {K::VignetteAmount, -1, grey_, {scales(lumaOf(kCorner), 0, 0.7), keeps(lumaOf(mid), 0.003)}},
      {K::VignetteMidpoint, 1, grey_, {scales(lumaOf(ring), 1.1)}, {{K::VignetteAmount, -1}}},
      {K::VignetteFeather, 1, grey_,
       {scales(lumaOf(ring), 1.05), scales(lumaOf(kCorner), 0.9, 1.3)}, {{K::VignetteAmount, -1}}},
      {K::GrainAmount, 1, grey_, {scales(lSpread, 1.7, 2.3)}, {{K::GrainAmount, 0.5}}},
      {K::GrainSize, 1, grey_, {scales(coarseness, 1.8)}, {{K::GrainAmount, 1}, {K::GrainSize, 0}}},
      {K::GrainRoughness, 1, grey_, {scales(uneven, 2), scales(power, 0.5, 1.5)},
       {{K::GrainAmount, 0.6}, {K::GrainSize, 0}}},
      {K::CgBalance, 1, tones, {moves(A(mid), 3)}, {{K::CgHighlightSat, 1}}},
  };
  // Each band turns, greys and lightens a patch of its own hue, not one of the band opposite.
  const auto hue = [](core::ColorMixerBand band, int width) {
    return flat(core::centerHueDegrees(band) / 360 * 255, 180, 200, width)
        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_HSV))
        .colourspace(VIPS_INTERPRETATION_sRGB);
  };
  for (std::size_t b = 0; b < 8; ++b) {
    const core::ColorMixerBand band = core::kAllColorMixerBands[b];
    const VImage pair =
        hue(band, kW).insert(hue(core::kAllColorMixerBands[(b + 4) % 8], kW / 2), kW / 2, 0);
    cases.push_back({hueKind(band), 1, pair, {turns(kLeft, 10, 40), turns(kRight, -0.5, 0.5)}});
    cases.push_back(
        {saturationKind(band), -1, pair, {scales(C(kLeft), 0, 0.2), keeps(C(kRight), 0.5)}});
    cases.push_back({luminanceKind(band), 1, pair, {moves(L(kLeft), 8), keeps(L(kRight), 0.5)}});
  }
  // Each region tints (towards +a at hue 0) and lightens its own tones more than the tones
  // farthest from them; Global tints dark and bright alike. Hue 1/4 turns the tint to +b.
  const std::array<Area, 4> own{dark, mid, bright, dark}, far{bright, bright, dark, bright};
  for (std::size_t r = 0; r < 4; ++r) {
    const core::ColorGradeRegion region = core::kAllColorGradeRegions[r];
    const auto lead = [&, r](const std::function<Measure(Area)>& m) {
      return Measure([=](const VImage& i) { return m(own[r])(i) - m(far[r])(i); });
    };
    const double low = r < 3 ? 2 : -2, high = r < 3 ? 99 : 2;
    const auto sat = saturationKind(region);
    cases.push_back({sat, 1, tones, {moves(A(own[r]), 5), moves(lead(A), low, high)}});
    cases.push_back({hueKind(region), 0.25, tones,
                     {moves(B(own[r]), 5), moves(A(own[r]), -99, -5)}, {{sat, 1}}});
    cases.push_back({luminanceKind(region), 1, tones,
                     {moves(L(own[r]), 5), moves(lead(L), low, high)}});
  }
  std::set<K> exercised;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(core::rawValue(c.kind)) + " " + std::to_string(c.value));
    std::vector<Scalar> values = c.with;
    const VImage before = applyAdjustments(c.input, stackOf(values));
    values.emplace_back(c.kind, c.value);
    const VImage after = applyAdjustments(c.input, stackOf(values));
    for (const Check& check : c.checks) {
      check(before, after);
    }
    exercised.insert(c.kind);
  }
  const std::set<K> elsewhere = {
      // GeometryKindsMoveLinesAsNamed, CropIsARectangleOfTheStraightenedPicture
      K::Rotation, K::FlipHorizontal, K::FlipVertical, K::Straighten, K::PerspectiveVertical,
      K::PerspectiveHorizontal, K::LensDistortion, K::Crop,
      // FramePadsToItsAspectInItsColour
      K::FrameAspect, K::FrameFitMode, K::FrameColor, K::FrameInset, K::FrameInsetLinked,
      K::FrameInsetTop, K::FrameInsetBottom, K::FrameInsetLeft, K::FrameInsetRight,
      // LooksTest (CubeTablesMapColours), EditingMethodsTest (the look at its intensity)
      K::Lut, K::LutIntensity,
      // Renders nothing: every file is already developed, and there is no raw decoder.
      K::DevelopSource};
  for (K kind : core::allAdjustmentKinds()) {
    EXPECT_EQ(exercised.count(kind) + elsewhere.count(kind), 1u) << core::rawValue(kind);
  }
}

TEST_F(Render, KeepsAlphaAndTakesEveryInputFormat) {
  const VImage grey = flat(100, 100, 100);
  for (const auto& [input, bands] : {std::pair{grey.colourspace(VIPS_INTERPRETATION_B_W), 3},
                                     {grey.bandjoin_const({128}), 4},
                                     {grey.colourspace(VIPS_INTERPRETATION_RGB16), 3}}) {
    SCOPED_TRACE(vips_enum_nick(VIPS_TYPE_INTERPRETATION, input.interpretation()) +
                 std::to_string(input.bands()));
    const VImage out = applyAdjustments(input, stackOf({{K::Exposure, 1}, {K::Contrast, 0.2}}));
    ASSERT_EQ(out.bands(), bands);
    EXPECT_GT(luma(out), 1.8 * luma(input.colourspace(VIPS_INTERPRETATION_sRGB)));
    if (bands == 4) {
      // Alpha is carried through untouched, whatever scale scRGB gives it.
      EXPECT_NEAR(out[3].avg(), input.colourspace(VIPS_INTERPRETATION_scRGB)[3].avg(), 1e-3);
    }
  }
}

// ---- Geometry and frame, on a kGW × kGH picture ----

TEST_F(Render, GeometryKindsMoveLinesAsNamed) {
  const auto line = [](double y) {
    return shape([y](const VImage&, const VImage& v) { return (v - y).abs() < 0.01; });
  };
  // Clockwise on screen (y down) is a positive slope.
  const auto slope = [](const VImage& out) {
    const int x0 = out.width() / 4, x1 = 3 * out.width() / 4;
    return std::atan2(brightRow(out, x1) - brightRow(out, x0), x1 - x0) * 180 / std::numbers::pi;
  };
  // Correcting barrel pushes the periphery out: the line's ends rise above its middle.
  const auto sag = [](const VImage& out) {
    return brightRow(out, out.width() / 2) - brightRow(out, out.width() / 10);
  };
  // How much wider the bright run of the first row is than that of the last, and (turned) of the
  // first column than of the last.
  const auto widening = [](const VImage& out) {
    return out.extract_area(0, 2, out.width(), 1).avg() /
           out.extract_area(0, out.height() - 3, out.width(), 1).avg();
  };
  const auto columnWidening = [&](const VImage& out) { return widening(out.rot(VIPS_ANGLE_D90)); };
  // Where a horizontal line lies (0 at the top, 1 at the bottom), and a vertical one (0: left).
  const auto row = [](const VImage& out) { return brightRow(out, out.width() / 2) / out.height(); };
  const auto across = [&](const VImage& out) { return row(out.rot(VIPS_ANGLE_D90)); };
  const VImage upright =
      shape([](const VImage& x, const VImage&) { return (x - 0.2).abs() < 0.01; });
  const VImage column = shape([](const VImage& x, const VImage&) { return (x - 0.5).abs() < 0.2; });
  const VImage band = shape([](const VImage&, const VImage& y) { return (y - 0.5).abs() < 0.2; });
  ASSERT_NEAR(sag(line(0.2)), 0, 0.01);
  struct Case {
    const char* name;
    VImage input;
    Scalar value;
    std::function<double(const VImage& out)> measure;
    double low, high;
  };
  const std::vector<Case> cases = {
      {"straighten 10", line(0.5), {K::Straighten, 10}, slope, 9.5, 10.5},
      {"vertical +1 widens the top", column, {K::PerspectiveVertical, 1}, widening, 1.3, 100},
      {"horizontal +1 widens the right", band, {K::PerspectiveHorizontal, 1}, columnWidening, 0,
       1 / 1.3},
      {"lens distortion +1 bends a straight line", line(0.2), {K::LensDistortion, 1}, sag, 2, 100},
      {"a quarter turn clockwise puts the top at the right", line(0.2), {K::Rotation, 1}, across,
       0.78, 0.82},
      {"flipHorizontal", upright, {K::FlipHorizontal, 1}, across, 0.78, 0.82},
      {"flipVertical", line(0.2), {K::FlipVertical, 1}, row, 0.78, 0.82},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const core::EditStack stack = stackOf({c.value});
    const VImage out = geometryOf(c.input, stack);
    const double measured = c.measure(out);
    EXPECT_TRUE(measured >= c.low && measured <= c.high) << measured;
    // The picture keeps its aspect (turned by a quarter turn), cropped to what the warp fills.
    const bool turned = GeometrySettings(stack).quarterTurns % 2 == 1;
    EXPECT_NEAR(static_cast<double>(out.width()) / out.height(), turned ? 1 / 1.5 : 1.5, 0.02);
    EXPECT_NEAR(std::max(out.width(), out.height()),
                kGW * Warp(GeometrySettings(stack), 1.5).autoCrop(), 1);
  }
}

TEST_F(Render, AutoCropIsTheLargestRectangleWithNothingEmpty) {
  const std::vector<std::vector<Scalar>> cases = {
      {{K::Straighten, -45}},
      {{K::Straighten, 7}, {K::PerspectiveVertical, -0.6}, {K::PerspectiveHorizontal, 0.4},
       {K::LensDistortion, -0.5}},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    const Warp warp(GeometrySettings(stackOf(cases[i])), 1.5);
    ASSERT_LT(warp.autoCrop(), 1);
    // Every point of the picture's edge comes from inside the frame, and some comes from its
    // very edge: a larger rectangle would show emptiness.
    double reach = 0;
    for (int j = 0; j <= 100; ++j) {
      const double t = j / 100.0;
      for (core::Point p : {core::Point{t, 0}, {t, 1}, {0, t}, {1, t}}) {
        const core::Point s = warp.source(p);
        reach = std::max({reach, std::abs(2 * s.x - 1), std::abs(2 * s.y - 1)});
      }
    }
    EXPECT_LE(reach, 1 + 1e-6);
    EXPECT_GT(reach, 0.995);
  }
  // For a turn alone the rectangle is known: 1 / (cos θ + aspect · sin θ).
  const double theta = 10 * std::numbers::pi / 180;
  EXPECT_NEAR(Warp(GeometrySettings(stackOf({{K::Straighten, 10}})), 1.5).autoCrop(),
              1 / (std::cos(theta) + 1.5 * std::sin(theta)), 1e-3);
  EXPECT_EQ(Warp(GeometrySettings(stackOf({{K::LensDistortion, 1}})), 1.5).autoCrop(), 1);
}

TEST_F(Render, CropIsARectangleOfTheStraightenedPicture) {
  const VImage picture = shape(
      [](const VImage& x, const VImage& y) { return ((x * 7).sin() + (y * 11).cos()) > 0.3; });
  core::EditStack straightened = stackOf({{K::Straighten, 12}});
  const VImage whole = geometryOf(picture, straightened);
  straightened.setRect(K::Crop, {0.5, 0.25, 0.5, 0.5}, core::UserOrigin{}, core::nowSeconds());
  const VImage quarter = geometryOf(picture, straightened);
  ASSERT_NEAR(quarter.width(), whole.width() / 2.0, 1);
  ASSERT_NEAR(quarter.height(), whole.height() / 2.0, 1);
  const VImage same = whole.extract_area(whole.width() - quarter.width(), whole.height() / 4,
                                         quarter.width(), quarter.height());
  EXPECT_LT((same.cast(VIPS_FORMAT_FLOAT) - quarter.cast(VIPS_FORMAT_FLOAT)).abs().avg(), 4);
}

TEST_F(Render, FramePadsToItsAspectInItsColour) {
  struct Case {
    const char* name;
    std::vector<Scalar> frame;
    double aspect;
    std::array<double, 4> insets; ///< top, bottom, left, right
    bool linked = true;
  };
  const std::vector<Case> cases = {
      {"square, filled, inset", {{K::FrameAspect, 1}, {K::FrameFitMode, 1}, {K::FrameInset, 0.1}},
       1, {0.1, 0.1, 0.1, 0.1}},
      {"source aspect, each side its own",
       {{K::FrameAspect, -1}, {K::FrameInsetBottom, 0.2}, {K::FrameInsetTop, 0.02},
        {K::FrameInsetLeft, 0.1}, {K::FrameInsetRight, 0.05}},
       1.5, {0.02, 0.2, 0.1, 0.05}, false},
  };
  const VImage grey = (VImage::black(kGW, kGH) + 90)
                          .cast(VIPS_FORMAT_UCHAR)
                          .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_B_W));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    core::EditStack stack = stackOf(c.frame);
    stack.setString(K::FrameColor, "#FF2000", core::UserOrigin{}, core::nowSeconds());
    stack.setBoolean(K::FrameInsetLinked, c.linked, core::UserOrigin{}, core::nowSeconds());
    const GeometrySettings g(stack);
    const Warp warp(g, 1.5);
    const FrameSettings frame(stack);
    const RenderPlan plan = planRender(kGW, kGH, g, warp, frame, 200);
    const VImage out = applyFrame(applyGeometry(grey, g, warp, plan), plan, frame.color)
                           .colourspace(VIPS_INTERPRETATION_sRGB);
    EXPECT_NEAR(static_cast<double>(out.width()) / out.height(), c.aspect, 0.01);
    EXPECT_EQ(std::max(out.width(), out.height()), 200);
    // The frame colour at the bottom edge, the photo in the middle.
    EXPECT_EQ(out.getpoint(out.width() / 2, out.height() - 1), (std::vector<double>{255, 32, 0}));
    EXPECT_EQ(out.getpoint(out.width() / 2, out.height() / 2), (std::vector<double>{90, 90, 90}));
    // Top and bottom as asked; left and right too, around the photo centred in what is left.
    const double side = std::min(plan.canvasWidth, plan.canvasHeight);
    const int right = plan.canvasWidth - plan.photoLeft - plan.photoWidth;
    EXPECT_NEAR(plan.photoTop, c.insets[0] * side, 1);
    EXPECT_NEAR(plan.canvasHeight - plan.photoTop - plan.photoHeight, c.insets[1] * side, 1);
    EXPECT_NEAR(plan.photoLeft - right, (c.insets[2] - c.insets[3]) * side, 1.5);
    if (frame.fill) {
      // Filling leaves no colour bands inside the insets.
      EXPECT_EQ(plan.photoWidth, plan.canvasWidth - 2 * plan.photoLeft);
      EXPECT_EQ(plan.photoHeight, plan.canvasHeight - 2 * plan.photoTop);
    }
  }
}

// ---- Local masks ----

TEST_F(Render, MaskExposureLandsWhereEachShapeIs) {
  struct Case {
    const char* name;
    VImage input;
    core::MaskShape shape;
    Area inside;  ///< must brighten by about a stop
    Area outside; ///< must stay as it was
  };
  const Area top{0, 0, kW, 5}, bottom{0, kH - 5, kW, 5}, lineStart{16, kH / 2 - 1, 24, 2};
  const Area bright{kW * 2 / 3, 0, kW / 3, kH}, dark{0, 0, kW / 3, kH},
      erased{62, kH / 2 - 1, 22, 2};
  const core::BrushStroke line{{{0.1, 0.5}, {0.9, 0.5}}, 0.04},
      erase{{{0.62, 0.5}, {1.0, 0.5}}, 0.1, true};
  const core::LinearShape downwards{{0.5, 0.1}, {0.5, 0.9}};
  const std::vector<Case> cases = {
      {"inverted radial", grey_, radial(0.5, 0.5, 0.3, 0.2, true), kCorner, kCentre},
      {"linear: start side, not end side", grey_, downwards, top, bottom},
      {"luminance: the bright end of a ramp", rampX(), core::LuminanceRangeShape{0.5, 1, 0}, bright,
       dark},
      {"colour: red, not blue", flat(200, 40, 40).insert(flat(40, 60, 200, kW / 2), kW / 2, 0),
       core::ColorRangeShape{0.0, 0.08, 0.04}, kLeft, kRight},
      {"brush: along the stroke", grey_, core::BrushShape{{line}, 0}, lineStart, top},
      {"brush: erased where erased", grey_, core::BrushShape{{line, erase}, 0}, lineStart, erased},
      {"subject: the distinct object", patch(grey_, 200, 50, 40, 24), core::AiSubjectShape{},
       kCentre, kCorner},
      {"people: skin, not sky", patch(flat(100, 150, 230), 224, 172, 140, 28),
       core::AiPeopleShape{}, kCentre, kCorner},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const VImage out = applyAdjustments(c.input, masked({maskOf(c.shape)}));
    EXPECT_GT(lumaIn(out, c.inside) / lumaIn(c.input, c.inside), 1.9);
    EXPECT_LT(lumaIn(out, c.outside) / lumaIn(c.input, c.outside), 1.03);
  }
}

TEST_F(Render, MaskRefinementsCombineInListOrder) {
  const core::RadialShape big = radial(0.5, 0.5, 0.4, 0); // covers the centre and both rings
  const core::RadialShape hole = radial(0.5, 0.5, 0.15, 0);
  const core::RadialShape dot = radial(0, 0, 0.1, 0); // the top-left corner
  // The matte at the centre, the left ring, the right ring and the top left.
  const std::tuple<const char*, std::vector<core::MaskComponent>, std::array<double, 4>> cases[] = {
      {"subtract cuts a hole", {refine(hole, CompositeMode::Subtract)}, {0, 1, 1, 0}},
      {"intersect keeps the overlap", {refine(hole, CompositeMode::Intersect)}, {1, 0, 0, 0}},
      {"subtract, then add",
       {refine(dot, CompositeMode::Subtract), refine(dot, CompositeMode::Add)},
       {1, 1, 1, 1}},
  };
  for (const auto& [name, refinements, expected] : cases) {
    SCOPED_TRACE(name);
    const VImage m = maskMatte(maskOf(big, {}, refinements), grey_);
    ASSERT_EQ(m.bands(), 1);
    EXPECT_NEAR(m.getpoint(kW / 2, kH / 2)[0], expected[0], 0.1);
    EXPECT_NEAR(m.getpoint(kW / 2 - 24, kH / 2)[0], expected[1], 0.02);
    EXPECT_NEAR(m.getpoint(kW / 2 + 24, kH / 2)[0], expected[2], 0.02);
    EXPECT_NEAR(m.getpoint(1, 1)[0], expected[3], 0.02);
  }
}

TEST_F(Render, MaskFeatherZeroIsAHardEdgeAndMoreFeatherASoftRamp) {
  const core::BrushStroke down{{{0.5, 0.1}, {0.5, 0.9}}, 0.3};
  const std::tuple<const char*, VImage, core::MaskShape, core::MaskShape> cases[] = {
      {"radial", grey_, radial(0.5, 0.5, 0.4, 0), radial(0.5, 0.5, 0.4, 1)},
      {"brush", grey_, core::BrushShape{{down}, 0}, core::BrushShape{{down}, 1}},
      {"colour", hueRampX(), core::ColorRangeShape{0.15, 0.02, 0},
       core::ColorRangeShape{0.15, 0.02, 0.2}},
  };
  // Pixels along the middle row that are neither in nor out.
  const auto partial = [](const core::MaskShape& shape, const VImage& input) {
    const VImage row = maskMatte(maskOf(shape), input).extract_area(0, kH / 2, kW, 1);
    return ((row > 0.02) & (row < 0.98)).avg() / 255 * kW;
  };
  for (const auto& [name, input, hard, soft] : cases) {
    SCOPED_TRACE(name);
    EXPECT_LE(partial(hard, input), 4);
    EXPECT_GE(partial(soft, input), 12);
  }
}

TEST_F(Render, MattesStayInRangeForAnyNumbersAndFrameSize) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<core::MaskShape> shapes = {
      core::LinearShape{{nan, 0.5}, {0.5, inf}},
      core::LinearShape{{0.5, 0.5}, {0.5, 0.5}},
      core::RadialShape{{1e300, -1e300}, {0, inf}, nan, false},
      core::LuminanceRangeShape{0.9, 0.1, -3},
      core::ColorRangeShape{-7.25, inf, nan},
      core::BrushShape{{{{{nan, 0.5}, {1e300, 1e300}, {0.5, -inf}}, 1e300},
                        {{{0.5, 0.5}}, -1},
                        {{}, 0.1},
                        {{{0.2, 0.2}, {0.2, 0.2}, {0.9, 0.9}}, 0.1, true}},
                       nan},
      core::AiSubjectShape{},
      core::AiPeopleShape{true},
  };
  for (const auto& [w, h] :
       {std::pair{kW, kH}, std::pair{1, 1}, std::pair{3, 2}, std::pair{1, 40}}) {
    for (std::size_t i = 0; i < shapes.size(); ++i) {
      SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h) + ", shape " + std::to_string(i));
      const VImage m =
          maskMatte(maskOf(shapes[i]), patch(rampX(), 224, 172, 140, 20).extract_area(0, 0, w, h))
              .copy_memory();
      ASSERT_EQ(m.width(), w);
      ASSERT_EQ(m.height(), h);
      EXPECT_EQ((m != m).max(), 0) << "NaN in the matte";
      EXPECT_GE(m.min(), 0);
      EXPECT_LE(m.max(), 1);
    }
  }
}

TEST_F(Render, LaterMasksWorkOnTheEarlierOnesResult) {
  // The larger frame is shared between readers through the tile cache, not in memory.
  for (const auto& [w, h] : {std::pair{kW, kH}, std::pair{2200, 2000}}) {
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    const VImage grey = flat(60, 60, 60, w, h);
    const core::LocalMask twice = maskOf(radial(0.5, 0.5, 0.3, 0));
    const VImage out = applyAdjustments(grey, masked({twice, twice})).copy_memory();
    const Area middle{w / 2 - 4, h / 2 - 4, 8, 8};
    EXPECT_NEAR(lumaIn(out, middle) / lumaIn(grey, middle), 4.0, 0.05);
    EXPECT_NEAR(lumaIn(out, kCorner) / lumaIn(grey, kCorner), 1.0, 0.01);
  }
}

TEST_F(Render, WhatAMaskRendersDecidesTheShortcuts) {
  core::LocalMask disabled = maskOf(core::AiSubjectShape{});
  disabled.isEnabled = false;
  const core::LocalMask clarity = maskOf(radial(0.5, 0.5, 0.3, 0), {{K::Clarity, 0.5}});
  const core::LocalMask wholeFrameKinds =
      maskOf(radial(0.5, 0.5, 0.3, 0),
             {{K::VignetteAmount, -1}, {K::Rotation, 1}, {K::LutIntensity, 0.5}});
  for (const auto& [name, mask, renders] :
       {std::tuple{"radial clarity", clarity, true}, std::tuple{"disabled", disabled, false},
        std::tuple{"whole-frame kinds only", wholeFrameKinds, false}}) {
    SCOPED_TRACE(name);
    const core::EditStack stack = masked({mask});
    EXPECT_EQ(rendersMasks(stack), renders);
    EXPECT_EQ(readsNeighbours(stack), renders); // clarity reads around each pixel
    // A stack whose masks render nothing hands back the very image it was given.
    EXPECT_EQ(applyAdjustments(grey_, stack).get_image() == grey_.get_image(), !renders);
  }
}

// The per-pixel stages and the drawn masks run in one pass of our own code; each must give what
// the libvips colour conversions and the general mask stage give.
TEST_F(Render, OnePassMatchesLibvipsAndTheGeneralMaskStage) {
  // Covers every pixel, but reads the image, so the mask goes through the general stage.
  const std::vector<core::MaskComponent> everywhere = {
      refine(core::LuminanceRangeShape{-1, 2, 0}, CompositeMode::Intersect)};
  const auto twoMasks = [](const std::vector<core::MaskComponent>& refinements) {
    return masked(
        {maskOf(radial(0.4, 0.5, 0.3, 0.5), {{K::Exposure, 0.7}, {K::Saturation, 0.4}},
                refinements),
         maskOf(core::LinearShape{{0.2, 0.2}, {0.8, 0.7}}, {{K::Contrast, 0.5}}, refinements)});
  };
  const std::tuple<const char*, VImage, core::EditStack, VImage> cases[] = {
      {"Lab and back, chroma only", hueRampX(), stackOf({{K::Vibrance, 1e-9}}), hueRampX()},
      {"Lab and back through a hue turn", hueRampX(), stackOf({{K::HslRedHue, 1e-7}}), hueRampX()},
      {"grade off the ramp's lightness", rampX(), stackOf({{K::CgMidLum, 1e-9}}), rampX()},
      {"radial and linear masks", rampX(), twoMasks({}),
       applyAdjustments(rampX(), twoMasks(everywhere))},
  };
  for (const auto& [name, input, stack, expected] : cases) {
    SCOPED_TRACE(name);
    EXPECT_LE(largestDifference(applyAdjustments(input, stack), expected), 1.0);
  }
}

// A large 8-bit picture goes through a table of the per-pixel stages and is encoded to 8 bits by
// the last pass. The table must stay close to the stages run on every pixel of a 16-bit copy
// (colour difference in ΔE76: a just visible one is about 2.3), and the last pass must encode as
// libvips does, within rounding.
TEST_F(Render, LargeEightBitPicturesMatchTheExactStages) {
  constexpr int kSide = 800; // enough pixels for the table
  const VImage xy = VImage::xyz(kSide, kSide);
  const VImage picture =
      srgb(VImage::bandjoin({xy[0] * (255.0 / (kSide - 1)), xy[1] * (255.0 / (kSide - 1)),
                             (xy[0] * 7 + xy[1] * 13) % 256}));
  const VImage exact = picture.colourspace(VIPS_INTERPRETATION_RGB16);
  const auto lab = [](const VImage& i) { return i.colourspace(VIPS_INTERPRETATION_LAB); };
  const std::vector<std::pair<const char*, core::EditStack>> stacks = {
      {"tone and colour",
       stackOf({{K::Exposure, 0.4}, {K::Contrast, 0.3}, {K::Highlights, -0.5}, {K::Shadows, 0.4},
                {K::Temperature, 0.3}, {K::Vibrance, 0.4}, {K::HslBlueSat, 0.5},
                {K::HslOrangeLum, 0.3}, {K::CgShadowSat, 0.4}, {K::PointColor, 0.5}})},
      {"curve and levels",
       stackOf({{K::ToneCurve, 0.7}, {K::LevelsBlack, 0.1}, {K::Saturation, -0.5}})},
      {"with detail", stackOf({{K::Exposure, -0.3}, {K::HslRedHue, 0.5}, {K::Clarity, 0.4}})},
  };
  for (const auto& [name, stack] : stacks) {
    SCOPED_TRACE(name);
    const VImage fast = applyAdjustments(picture, stack, {}, Encoding::Srgb8);
    ASSERT_EQ(fast.format(), VIPS_FORMAT_UCHAR);
    const VImage slow = applyAdjustments(exact, stack).colourspace(VIPS_INTERPRETATION_sRGB);
    const VImage dE = lab(fast).dE76(lab(slow));
    EXPECT_LE(dE.max(), 5.0);
    EXPECT_LE(dE.avg(), 0.6);
    const VImage encoded = applyAdjustments(exact, stack, {}, Encoding::Srgb8);
    EXPECT_LE(largestDifference(encoded, slow), 1.0);
  }
}

// From a file, the decoder streams from the top: the neighbourhood stages read it once, in order,
// without a copy, and a picture with alpha, read twice, is held in memory first. Both give what
// the same stack gives on the decoded picture in memory.
TEST_F(Render, StreamedDecodesRenderLikeDecodesInMemory) {
  velko::testing::TempDir dir;
  const core::EditStack stack = stackOf({{K::Exposure, 0.3}, {K::Clarity, 0.5}, {K::Texture, 0.3}});
  const VImage opaque = rampX().resize(10); // 960 × 640: the table's size
  const VImage translucent = opaque.bandjoin_const({200});
  for (const auto& [name, picture] : std::vector<std::pair<std::string, VImage>>{
           {"opaque.png", opaque}, {"alpha.png", translucent}}) {
    SCOPED_TRACE(name);
    const std::string path = dir.file(name);
    picture.pngsave(path.c_str());
    const VImage streamed = renderStack(path, stack, std::nullopt, {});
    EXPECT_EQ(streamed.bands(), picture.bands());
    const VImage expected = applyAdjustments(VImage::new_from_file(path.c_str()).copy_memory(),
                                             stack, {}, Encoding::Srgb8);
    EXPECT_LE(largestDifference(streamed, expected), 1.0);
  }
}

TEST_F(Render, MaskCoordinatesBelongToTheRenderedFrame) {
  // Through the streaming decoder: the crop keeps the right half, and a mask at the centre
  // lands at the centre of what is shown. The AI shape reads the decode out of order.
  const velko::testing::TempDir dir;
  const std::string path = dir.file("grey.jpg");
  flat(118, 118, 118, 2 * kW, kH).jpegsave(path.c_str());
  for (const bool ai : {false, true}) {
    SCOPED_TRACE(ai ? "inverted subject" : "radial");
    core::EditStack stack = masked(
        {maskOf(ai ? core::MaskShape{core::AiSubjectShape{true}} : radial(0.5, 0.5, 0.2, 0))});
    stack.setRect(K::Crop, {0.5, 0, 0.5, 1}, core::UserOrigin{}, core::nowSeconds());
    // Read once, as an encoder does.
    const VImage out = renderStack(path, stack, std::nullopt, dir.path()).copy_memory();
    ASSERT_EQ(out.width(), kW);
    // A flat frame has no subject, so the inverted subject covers all of it.
    const double before = luma(grey_);
    EXPECT_NEAR(lumaIn(out, kCentre) / before, 2, 0.05);
    EXPECT_NEAR(lumaIn(out, kCorner) / before, ai ? 2 : 1, 0.05);
  }
}

// A file rendered through every stage: geometry, a translucent frame at the long edge asked for,
// every kind that reads neighbours or draws noise, and every mask shape. Two renders of one stack
// give the same bytes.
TEST_F(Render, WholeStackFromAFileIsFramedAndRepeats) {
  velko::testing::TempDir dir;
  const std::string path = dir.file("shot.png");
  writePhoto(path, {.width = 600, .height = 400, .pattern = true});
  core::EditStack stack = stackOf({{K::Straighten, 8}, {K::FrameAspect, 1}, {K::FrameInset, 0.05}});
  for (K kind :
       {K::PerspectiveVertical, K::LensDistortion, K::Exposure, K::Clarity, K::Dehaze,
        K::SharpenAmount, K::CgShadowSat, K::HslOrangeHue, K::GrainAmount, K::VignetteAmount,
        K::LuminanceNR, K::ColorNR, K::SharpenDetail, K::DefringeAmount, K::GrainRoughness}) {
    stack.setScalar(kind, 0.4, core::UserOrigin{}, core::nowSeconds());
  }
  stack.setString(K::FrameColor, "#00000080", core::UserOrigin{}, core::nowSeconds());
  stack.setPointColors({{0.1, 0.5, 0.5, 0.2, -0.3, 0.1, 0.4}}, core::UserOrigin{},
                       core::nowSeconds());
  stack.setMasks({
      maskOf(core::AiSubjectShape{}, {{K::Exposure, 0.4}, {K::Clarity, 0.3}}),
      maskOf(core::AiPeopleShape{}, {{K::Saturation, -0.5}}),
      maskOf(core::BrushShape{{{{{0.1, 0.1}, {0.8, 0.7}, {0.3, 0.9}}, 0.05}}, 0.5},
             {{K::Temperature, 0.4}},
             {refine(core::LuminanceRangeShape{0.2, 0.8, 0.1}, CompositeMode::Intersect),
              refine(core::ColorRangeShape{0.1, 0.1, 0.1}, CompositeMode::Add),
              refine(core::LinearShape{{0, 0}, {1, 1}}, CompositeMode::Subtract)}),
  });
  const VImage out = renderStack(path, stack, 400, {});
  EXPECT_EQ(out.width(), 400);
  EXPECT_EQ(out.height(), 400);
  ASSERT_EQ(out.bands(), 4);
  EXPECT_NEAR(out.getpoint(0, 0)[3], 128, 1); // a translucent frame
  EXPECT_NEAR(out.getpoint(200, 200)[3], 255, 1);
  const std::string first = encodePng(out).bytes;
  EXPECT_TRUE(first == encodePng(renderStack(path, stack, 400, {})).bytes)
      << "two renders of one stack differ";
}

} // namespace
} // namespace velko::app::testing
