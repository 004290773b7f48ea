#include "app/RenderPipeline.h"

#include "app/AppFixture.h"
#include "app/Imaging.h"

#include <functional>
#include <gtest/gtest.h>
#include <vector>

namespace velko::app::testing {
namespace {

using core::AdjustmentKind;
using vips::VImage;
using K = AdjustmentKind;

constexpr int kW = 96;
constexpr int kH = 64;

/// Left half `dark`, right half `bright`, grey.
VImage halves(double dark, double bright) {
  return flat(dark, dark, dark)
      .insert(flat(bright, bright, bright).extract_area(0, 0, kW / 2, kH), kW / 2, 0);
}

VImage left(const VImage& i) {
  return i.extract_area(0, 0, kW / 2, kH);
}
VImage right(const VImage& i) {
  return i.extract_area(kW / 2, 0, kW / 2, kH);
}
VImage centre(const VImage& i) {
  return i.extract_area(kW / 2 - 8, kH / 2 - 8, 16, 16);
}
VImage corner(const VImage& i) {
  return i.extract_area(0, 0, 8, 8);
}

VImage linear(const VImage& i) {
  return i.colourspace(VIPS_INTERPRETATION_scRGB);
}
double mean(const VImage& i, int band) {
  return i[band].avg();
}
/// Mean 8-bit sRGB value of the first band.
double encoded(const VImage& i) {
  return mean(i.colourspace(VIPS_INTERPRETATION_sRGB), 0);
}
double chroma(const VImage& i) {
  return mean(i.colourspace(VIPS_INTERPRETATION_LCH), 1);
}

core::EditStack stackOf(const std::vector<std::pair<K, double>>& values, bool treatment = false) {
  core::EditStack s = scalars(values);
  if (treatment) {
    s.setBoolean(K::Treatment, true, core::UserOrigin{}, core::nowSeconds());
  }
  return s;
}

/// `image` plus seeded Gaussian noise of `sigma` 8-bit levels: the same in every band, or
/// different in each (colour noise).
VImage noisy(const VImage& image, double sigma, bool colour = false) {
  std::vector<VImage> bands;
  for (int b = 0; b < 3; ++b) {
    bands.push_back(VImage::gaussnoise(
        kW, kH,
        VImage::option()->set("sigma", sigma)->set("mean", 0.0)->set("seed", colour ? 7 + b : 7)));
  }
  return (image + VImage::bandjoin(bands))
      .cast(VIPS_FORMAT_UCHAR)
      .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

VImage lab(const VImage& i) {
  return i.colourspace(VIPS_INTERPRETATION_LAB);
}
/// The spread of a Lab band over the left half, away from the middle and the borders.
double spread(const VImage& i, int band) {
  return lab(i.extract_area(4, 4, kW / 2 - 16, kH - 8))[band].deviate();
}
/// Mean chroma of a rectangle.
double chromaIn(const VImage& i, int x, int y, int w, int h) {
  return chroma(i.extract_area(x, y, w, h));
}
/// The lightness step across the middle of a halves image.
double step(const VImage& i) {
  return mean(lab(i.extract_area(kW / 2, 0, 2, kH)), 0) -
         mean(lab(i.extract_area(kW / 2 - 2, 0, 2, kH)), 0);
}
/// How unevenly grain is spread (spread over mean of its power in 8 × 8 blocks), and its power.
std::pair<double, double> grainBlocks(const VImage& i) {
  const VImage g = linear(i)[1] - linear(i)[1].avg();
  const VImage power = (g * g).shrink(8, 8);
  return {power.deviate() / power.avg(), power.avg()};
}

class RenderPipeline : public ::testing::Test {
protected:
  RenderPipeline() { initImaging(); }
};

TEST_F(RenderPipeline, SlidersDoWhatTheirNamesSay) {
  struct Case {
    const char* name;
    VImage input;
    core::EditStack stack;
    std::function<void(const VImage& before, const VImage& after)> check;
  };
  const std::vector<Case> cases = {
      {"exposure +1 doubles mid-grey in linear light", flat(118, 118, 118),
       stackOf({{K::Exposure, 1}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_NEAR(luma(a) / luma(b), 2.0, 0.04);
       }},
      {"contrast + darkens dark and brightens bright", halves(60, 200),
       stackOf({{K::Contrast, 0.5}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_LT(encoded(left(a)), encoded(left(b)) - 3);
         EXPECT_GT(encoded(right(a)), encoded(right(b)) + 3);
       }},
      {"shadows + lifts dark more than bright", halves(50, 200), stackOf({{K::Shadows, 0.6}}),
       [](const VImage& b, const VImage& a) {
         const double dark = encoded(left(a)) - encoded(left(b));
         const double bright = encoded(right(a)) - encoded(right(b));
         EXPECT_GT(dark, 10);
         EXPECT_GT(dark, 2 * bright);
       }},
      {"highlights - darkens bright more than dark", halves(50, 200),
       stackOf({{K::Highlights, -0.6}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_LT(encoded(right(a)), encoded(right(b)) - 10);
         EXPECT_NEAR(encoded(left(a)), encoded(left(b)), 3);
       }},
      {"temperature + raises red over blue, keeps brightness", flat(128, 128, 128),
       stackOf({{K::Temperature, 0.5}}),
       [](const VImage& b, const VImage& a) {
         const VImage l = linear(a);
         EXPECT_GT(mean(l, 0) / mean(l, 2), 1.2);
         EXPECT_NEAR(luma(a) / luma(b), 1.0, 0.03);
       }},
      {"saturation -1 leaves no chroma", flat(200, 60, 40), stackOf({{K::Saturation, -1}}),
       [](const VImage&, const VImage& a) {
         EXPECT_LT(chroma(a), 0.5);
       }},
      {"treatment leaves no chroma", flat(40, 90, 200), stackOf({}, true),
       [](const VImage&, const VImage& a) {
         EXPECT_LT(chroma(a), 0.5);
       }},
      {"red band saturation touches red, not blue",
       flat(200, 40, 40).insert(flat(40, 60, 200), kW / 2, 0), stackOf({{K::HslRedSat, -1}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_LT(chroma(left(a)), chroma(left(b)) * 0.2);
         EXPECT_NEAR(chroma(right(a)), chroma(right(b)), 1);
       }},
      {"vignette - darkens the corners, not the centre", flat(128, 128, 128),
       stackOf({{K::VignetteAmount, -1}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_LT(luma(corner(a)), 0.7 * luma(corner(b)));
         EXPECT_NEAR(luma(centre(a)) / luma(centre(b)), 1.0, 0.02);
       }},
      {"luminanceNR smooths flat noise and keeps a step", noisy(halves(70, 180), 5),
       stackOf({{K::LuminanceNR, 1}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_LT(spread(a, 0), 0.5 * spread(b, 0));
         EXPECT_GT(step(a), 0.9 * step(b));
       }},
      {"colorNR smooths chroma noise", noisy(flat(120, 120, 120), 8, true),
       stackOf({{K::ColorNR, 1}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_LT(spread(a, 1), 0.5 * spread(b, 1));
         EXPECT_LT(spread(a, 2), 0.5 * spread(b, 2));
       }},
      {"colorNR keeps a colour edge", flat(200, 40, 40).insert(flat(40, 60, 200), kW / 2, 0),
       stackOf({{K::ColorNR, 1}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_GT(chromaIn(a, kW / 2 - 2, 0, 2, kH), 0.85 * chromaIn(b, kW / 2 - 2, 0, 2, kH));
       }},
      {"sharpenDetail sharpens the step, not the flat noise", noisy(halves(70, 180), 4),
       stackOf({{K::SharpenAmount, 1}, {K::SharpenDetail, 1}}),
       [](const VImage& b, const VImage& a) {
         const VImage everywhere = applyAdjustments(b, stackOf({{K::SharpenAmount, 1}}));
         EXPECT_GT(spread(everywhere, 0), 1.4 * spread(b, 0));
         EXPECT_LT(spread(a, 0), 1.15 * spread(b, 0));
         EXPECT_GT(step(a), 0.9 * step(everywhere));
       }},
      // On the dark side of a step, a purple fringe above an orange band; far from the step, a
      // purple patch.
      {"defringeAmount greys fringe colours on edges only",
       halves(20, 235)
           .insert(flat(160, 60, 220).extract_area(0, 0, 2, kH / 2), kW / 2 - 2, 0)
           .insert(flat(220, 120, 40).extract_area(0, 0, 2, kH / 2), kW / 2 - 2, kH / 2)
           .insert(flat(160, 60, 220).extract_area(0, 0, 24, 24), 8, 20),
       stackOf({{K::DefringeAmount, 1}}),
       [](const VImage& b, const VImage& a) {
         EXPECT_LT(chromaIn(a, kW / 2 - 2, 0, 2, kH / 2),
                   0.4 * chromaIn(b, kW / 2 - 2, 0, 2, kH / 2));
         EXPECT_GT(chromaIn(a, kW / 2 - 2, kH / 2, 2, kH / 2),
                   0.95 * chromaIn(b, kW / 2 - 2, kH / 2, 2, kH / 2));
         EXPECT_NEAR(chromaIn(a, 16, 28, 8, 8), chromaIn(b, 16, 28, 8, 8), 1);
       }},
      {"grainRoughness makes the grain uneven, not stronger", flat(128, 128, 128),
       stackOf({{K::GrainAmount, 0.6}, {K::GrainSize, 0}, {K::GrainRoughness, 1}}),
       [](const VImage& b, const VImage& a) {
         const auto [evenSpread, evenPower] =
             grainBlocks(applyAdjustments(b, stackOf({{K::GrainAmount, 0.6}, {K::GrainSize, 0}})));
         const auto [roughSpread, roughPower] = grainBlocks(a);
         EXPECT_GT(roughSpread, 2 * evenSpread);
         EXPECT_NEAR(roughPower / evenPower, 1, 0.5);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.check(c.input, applyAdjustments(c.input, c.stack));
  }
}

TEST_F(RenderPipeline, KeepsAlphaAndTakesEveryInputFormat) {
  const VImage grey = flat(100, 100, 100).colourspace(VIPS_INTERPRETATION_B_W);
  const core::EditStack stack = stackOf({{K::Exposure, 1}, {K::Contrast, 0.2}});
  struct Case {
    const char* name;
    VImage input;
    int bands;
  };
  const std::vector<Case> cases = {
      {"grey", grey, 3},
      {"grey with alpha", grey.bandjoin_const({255}), 4},
      {"sRGB with alpha", flat(100, 100, 100).bandjoin_const({128}), 4},
      {"16-bit", flat(100, 100, 100).colourspace(VIPS_INTERPRETATION_RGB16), 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const VImage out = applyAdjustments(c.input, stack);
    ASSERT_EQ(out.bands(), c.bands);
    EXPECT_GT(luma(out), 1.8 * luma(c.input.colourspace(VIPS_INTERPRETATION_sRGB)));
    if (c.bands == 4) {
      // Alpha is carried through untouched, whatever scale scRGB gives it.
      EXPECT_NEAR(mean(out, 3), mean(c.input.colourspace(VIPS_INTERPRETATION_scRGB), 3), 1e-3);
    }
  }
}

TEST_F(RenderPipeline, PointColourMovesColoursNearTheTargetOnly) {
  // A sky blue (HSL hue 216°, saturation 0.68, lightness 0.57) beside an orange.
  const VImage scene = flat(70, 130, 220).insert(flat(220, 120, 40), kW / 2, 0);
  const auto lch = [](const VImage& i, int band) {
    return mean(i.colourspace(VIPS_INTERPRETATION_LCH), band);
  };
  struct Case {
    double hue, sat, lum;
    int band;       ///< of LCh that must move
    double blueMin; ///< the least it moves on the blue
  };
  for (const Case& c : std::vector<Case>{{1, 0, 0, 2, 15}, {0, -1, 0, 1, 30}, {0, 0, 1, 0, 12}}) {
    SCOPED_TRACE(c.band);
    core::EditStack stack;
    stack.setPointColors({{0.6, 0.68, 0.57, c.hue, c.sat, c.lum, 0.3}}, core::UserOrigin{},
                         core::nowSeconds());
    const VImage out = applyAdjustments(scene, stack);
    EXPECT_GT(std::abs(lch(left(out), c.band) - lch(left(scene), c.band)), c.blueMin);
    for (int band = 0; band < 3; ++band) {
      EXPECT_NEAR(lch(right(out), band), lch(right(scene), band), 0.5);
    }
  }
}

} // namespace
} // namespace velko::app::testing
