#include "app/RenderPipeline.h"

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

/// An 8-bit sRGB image of one colour.
VImage flat(double r, double g, double b) {
  return (VImage::black(kW, kH, VImage::option()->set("bands", 3)) + std::vector<double>{r, g, b})
      .cast(VIPS_FORMAT_UCHAR)
      .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

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
/// Mean linear luminance.
double luma(const VImage& i) {
  const VImage l = linear(i);
  return 0.2126 * mean(l, 0) + 0.7152 * mean(l, 1) + 0.0722 * mean(l, 2);
}
/// Mean 8-bit sRGB value of the first band.
double encoded(const VImage& i) {
  return mean(i.colourspace(VIPS_INTERPRETATION_sRGB), 0);
}
double chroma(const VImage& i) {
  return mean(i.colourspace(VIPS_INTERPRETATION_LCH), 1);
}

core::EditStack stackOf(const std::vector<std::pair<K, double>>& scalars, bool treatment = false) {
  core::EditStack s;
  for (auto [kind, v] : scalars) {
    s.setScalar(kind, v, core::UserOrigin{}, core::nowSeconds());
  }
  if (treatment) {
    s.setBoolean(K::Treatment, true, core::UserOrigin{}, core::nowSeconds());
  }
  return s;
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
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.check(c.input, applyAdjustments(c.input, c.stack));
  }
}

TEST_F(RenderPipeline, SameStackGivesSameBytes) {
  const VImage input = halves(40, 210)
                           .gaussblur(3)
                           .cast(VIPS_FORMAT_UCHAR)
                           .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
  const core::EditStack stack = stackOf({{K::Exposure, 0.3},
                                         {K::Clarity, 0.5},
                                         {K::Dehaze, 0.3},
                                         {K::SharpenAmount, 0.5},
                                         {K::CgShadowSat, 0.4},
                                         {K::HslOrangeHue, 0.3},
                                         {K::GrainAmount, 0.5},
                                         {K::VignetteAmount, -0.4}});
  const auto bytes = [&] {
    const VImage out = applyAdjustments(input, stack);
    std::size_t size = 0;
    void* data = out.write_to_memory(&size);
    std::string copy(static_cast<const char*>(data), size);
    g_free(data);
    return copy;
  };
  const std::string first = bytes();
  EXPECT_TRUE(first == bytes()) << "two renders of one stack differ";
  EXPECT_NE(first.size(), 0U);
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

} // namespace
} // namespace velko::app::testing
