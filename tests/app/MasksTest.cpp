#include "app/Masks.h"

#include "app/AppFixture.h"
#include "app/Imaging.h"
#include "app/RenderPipeline.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

namespace velko::app::testing {
namespace {

using core::CompositeMode;
using vips::VImage;
using K = core::AdjustmentKind;

constexpr int kW = 96;
constexpr int kH = 64;

VImage srgb(const VImage& i) {
  return i.cast(VIPS_FORMAT_UCHAR)
      .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}
/// A centred square of `size` in colour (r, g, b) on `ground`.
VImage patch(const VImage& ground, double r, double g, double b, int size) {
  return ground.insert(flat(r, g, b, size, size), (kW - size) / 2, (kH - size) / 2);
}
/// Grey from black at the left to white at the right.
VImage rampX() {
  const VImage v = VImage::xyz(kW, kH)[0] * (255.0 / (kW - 1));
  return srgb(VImage::bandjoin({v, v, v}));
}
/// Hue all the way round the Lab wheel from left to right, at one lightness and chroma.
VImage hueRampX() {
  const VImage h = VImage::xyz(kW, kH)[0] * (360.0 / kW);
  return srgb(VImage::bandjoin({h * 0 + 60, h * 0 + 40, h})
                  .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_LCH))
                  .colourspace(VIPS_INTERPRETATION_sRGB));
}

struct Area {
  int x, y, w, h;
};
constexpr Area kCentre{kW / 2 - 8, kH / 2 - 8, 16, 16};
constexpr Area kCorner{0, 0, 8, 8};

/// Mean linear luminance of an area.
double luma(const VImage& i, Area a) {
  return velko::app::testing::luma(i.extract_area(a.x, a.y, a.w, a.h));
}

core::LocalMask maskOf(core::MaskShape shape,
                       core::MaskAdjustments adjustments = {{K::Exposure, 1}},
                       std::vector<core::MaskComponent> refinements = {}) {
  core::LocalMask m;
  m.id = core::Uuid::random();
  m.shape = std::move(shape);
  m.adjustments = std::move(adjustments);
  if (!refinements.empty()) {
    m.refinementList = std::move(refinements);
  }
  return m;
}
core::MaskComponent refine(core::MaskShape shape, CompositeMode mode) {
  return {core::Uuid::random(), std::move(shape), mode};
}
core::EditStack stackOf(std::vector<core::LocalMask> masks) {
  core::EditStack s;
  s.setMasks(std::move(masks));
  return s;
}
core::RadialShape radial(double cx, double cy, double r, double feather, bool inverted = false) {
  return {{cx, cy}, {r, r}, feather, inverted};
}
core::BrushStroke stroke(std::vector<core::Point> points, double radius, bool erase = false) {
  return {std::move(points), radius, erase};
}

class Masks : public ::testing::Test {
protected:
  Masks() { initImaging(); }
};

TEST_F(Masks, ExposurePlacedByEachShapeLandsWhereTheShapeIs) {
  struct Case {
    const char* name;
    VImage input;
    core::MaskShape shape;
    Area inside;  ///< must brighten by about a stop
    Area outside; ///< must stay as it was
  };
  const VImage grey = flat(118, 118, 118);
  const VImage object = patch(grey, 200, 50, 40, 24);
  const Area lineStart{16, kH / 2 - 1, 24, 2};
  const core::BrushStroke line = stroke({{0.1, 0.5}, {0.9, 0.5}}, 0.04);
  const std::vector<Case> cases = {
      {"radial", grey, radial(0.5, 0.5, 0.3, 0.2), kCentre, kCorner},
      {"inverted radial", grey, radial(0.5, 0.5, 0.3, 0.2, true), kCorner, kCentre},
      {"linear: start side, not end side",
       grey,
       core::LinearShape{{0.5, 0.1}, {0.5, 0.9}},
       {0, 0, kW, 5},
       {0, kH - 5, kW, 5}},
      {"luminance: the bright end of a ramp",
       rampX(),
       core::LuminanceRangeShape{0.5, 1.0, 0},
       {kW * 2 / 3, 0, kW / 3, kH},
       {0, 0, kW / 3, kH}},
      {"colour: red, not blue",
       flat(200, 40, 40).insert(flat(40, 60, 200), kW / 2, 0),
       core::ColorRangeShape{0.0, 0.08, 0.04},
       {0, 0, kW / 2, kH},
       {kW / 2, 0, kW / 2, kH}},
      {"brush: along the stroke", grey, core::BrushShape{{line}, 0}, lineStart, {0, 0, kW, 5}},
      {"brush: erased where erased",
       grey,
       core::BrushShape{{line, stroke({{0.62, 0.5}, {1.0, 0.5}}, 0.1, true)}, 0},
       lineStart,
       {62, kH / 2 - 1, 22, 2}},
      {"subject: the distinct object", object, core::AiSubjectShape{}, kCentre, kCorner},
      {"inverted subject: the ground", object, core::AiSubjectShape{true}, kCorner, kCentre},
      {"people: skin, not sky", patch(flat(100, 150, 230), 224, 172, 140, 28),
       core::AiPeopleShape{}, kCentre, kCorner},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const VImage out = applyAdjustments(c.input, stackOf({maskOf(c.shape)}));
    EXPECT_GT(luma(out, c.inside) / luma(c.input, c.inside), 1.9);
    EXPECT_LT(luma(out, c.outside) / luma(c.input, c.outside), 1.03);
  }
}

TEST_F(Masks, RefinementsCombineWithTheShapeInListOrder) {
  const core::RadialShape big = radial(0.5, 0.5, 0.4, 0); // covers the centre and both rings
  const core::RadialShape hole = radial(0.5, 0.5, 0.15, 0);
  const core::RadialShape dot = radial(0, 0, 0.1, 0); // the top-left corner
  struct Case {
    const char* name;
    std::vector<core::MaskComponent> refinements;
    double centre, leftRing, rightRing, topLeft;
  };
  const std::vector<Case> cases = {
      {"none", {}, 1, 1, 1, 0},
      {"subtract cuts a hole", {refine(hole, CompositeMode::Subtract)}, 0, 1, 1, 0},
      {"intersect keeps the overlap", {refine(hole, CompositeMode::Intersect)}, 1, 0, 0, 0},
      {"add joins a region", {refine(dot, CompositeMode::Add)}, 1, 1, 1, 1},
      {"intersect with a gradient",
       {refine(core::LinearShape{{0.3, 0.5}, {0.7, 0.5}}, CompositeMode::Intersect)},
       0.5,
       1,
       0,
       0},
      {"add, then subtract",
       {refine(dot, CompositeMode::Add), refine(dot, CompositeMode::Subtract)},
       1,
       1,
       1,
       0},
      {"subtract, then add",
       {refine(dot, CompositeMode::Subtract), refine(dot, CompositeMode::Add)},
       1,
       1,
       1,
       1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const VImage m = maskMatte(maskOf(big, {}, c.refinements), flat(118, 118, 118));
    ASSERT_EQ(m.bands(), 1);
    EXPECT_NEAR(m.getpoint(kW / 2, kH / 2)[0], c.centre, 0.1);
    EXPECT_NEAR(m.getpoint(kW / 2 - 24, kH / 2)[0], c.leftRing, 0.02);
    EXPECT_NEAR(m.getpoint(kW / 2 + 24, kH / 2)[0], c.rightRing, 0.02);
    EXPECT_NEAR(m.getpoint(1, 1)[0], c.topLeft, 0.02);
  }
}

TEST_F(Masks, FeatherZeroIsAHardEdgeAndMoreFeatherASoftRamp) {
  struct Case {
    const char* name;
    VImage input;
    core::MaskShape hard, soft;
  };
  const VImage grey = flat(118, 118, 118);
  const core::BrushStroke down = stroke({{0.5, 0.1}, {0.5, 0.9}}, 0.3);
  const std::vector<Case> cases = {
      {"radial", grey, radial(0.5, 0.5, 0.4, 0), radial(0.5, 0.5, 0.4, 1)},
      {"brush", grey, core::BrushShape{{down}, 0}, core::BrushShape{{down}, 1}},
      {"luminance", rampX(), core::LuminanceRangeShape{0.4, 0.6, 0},
       core::LuminanceRangeShape{0.4, 0.6, 0.2}},
      {"colour", hueRampX(), core::ColorRangeShape{0.15, 0.02, 0},
       core::ColorRangeShape{0.15, 0.02, 0.2}},
  };
  // Pixels along the middle row that are neither in nor out.
  const auto partial = [](const core::MaskShape& shape, const VImage& input) {
    const VImage row = maskMatte(maskOf(shape), input).extract_area(0, kH / 2, kW, 1);
    return ((row > 0.02) & (row < 0.98)).avg() / 255 * kW;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_LE(partial(c.hard, c.input), 4);
    EXPECT_GE(partial(c.soft, c.input), 12);
  }
}

TEST_F(Masks, MattesStayInRangeForAnyNumbersAndFrameSize) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<core::MaskShape> shapes = {
      core::LinearShape{{nan, 0.5}, {0.5, inf}},
      core::LinearShape{{0.5, 0.5}, {0.5, 0.5}},
      core::RadialShape{{1e300, -1e300}, {0, inf}, nan, false},
      core::LuminanceRangeShape{0.9, 0.1, -3},
      core::ColorRangeShape{-7.25, inf, nan},
      core::BrushShape{{stroke({{nan, 0.5}, {1e300, 1e300}, {0.5, -inf}}, 1e300),
                        stroke({{0.5, 0.5}}, -1), stroke({}, 0.1),
                        stroke({{0.2, 0.2}, {0.2, 0.2}, {0.9, 0.9}}, 0.1, true)},
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

TEST_F(Masks, LaterMasksWorkOnTheEarlierOnesResult) {
  // The larger frame is shared between readers through the tile cache, not in memory.
  for (const auto& [w, h] : {std::pair{kW, kH}, std::pair{2200, 2000}}) {
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    const VImage grey = flat(60, 60, 60, w, h);
    const VImage out = applyAdjustments(grey, stackOf({maskOf(radial(0.5, 0.5, 0.3, 0)),
                                                       maskOf(radial(0.5, 0.5, 0.3, 0))}))
                           .copy_memory();
    const Area middle{w / 2 - 4, h / 2 - 4, 8, 8};
    EXPECT_NEAR(luma(out, middle) / luma(grey, middle), 4.0, 0.05);
    EXPECT_NEAR(luma(out, kCorner) / luma(grey, kCorner), 1.0, 0.01);
  }
}

TEST_F(Masks, WhatAMaskRendersDecidesTheShortcuts) {
  core::LocalMask disabled = maskOf(core::AiSubjectShape{});
  disabled.isEnabled = false;
  struct Case {
    const char* name;
    core::LocalMask mask;
    bool renders, readsNeighbours;
  };
  const std::vector<Case> cases = {
      {"radial exposure", maskOf(radial(0.5, 0.5, 0.3, 0)), true, false},
      {"radial clarity", maskOf(radial(0.5, 0.5, 0.3, 0), {{K::Clarity, 0.5}}), true, true},
      {"subject", maskOf(core::AiSubjectShape{}), true, true},
      {"people as a refinement",
       maskOf(radial(0.5, 0.5, 0.3, 0), {{K::Exposure, 1}},
              {refine(core::AiPeopleShape{}, CompositeMode::Intersect)}),
       true, true},
      {"disabled", disabled, false, false},
      {"neutral values", maskOf(core::AiPeopleShape{}, {{K::Exposure, 0}, {K::WbRedGain, 1}}),
       false, false},
      {"whole-frame kinds only",
       maskOf(radial(0.5, 0.5, 0.3, 0),
              {{K::VignetteAmount, -1}, {K::Rotation, 1}, {K::LutIntensity, 0.5}}),
       false, false},
  };
  const VImage grey = flat(118, 118, 118);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const core::EditStack stack = stackOf({c.mask});
    EXPECT_EQ(rendersMasks(stack), c.renders);
    EXPECT_EQ(readsNeighbours(stack), c.readsNeighbours);
    // A stack whose masks render nothing hands back the very image it was given.
    EXPECT_EQ(applyAdjustments(grey, stack).get_image() == grey.get_image(), !c.renders);
  }
}

// Every kind that reads neighbours or draws noise, and every mask shape, in one stack.
TEST_F(Masks, SameStackGivesSameBytes) {
  const VImage input = srgb(patch(rampX(), 224, 172, 140, 20).gaussblur(2)).bandjoin_const({255});
  core::EditStack stack = scalars({{K::Exposure, 0.3},
                                   {K::Clarity, 0.5},
                                   {K::Dehaze, 0.3},
                                   {K::SharpenAmount, 0.5},
                                   {K::CgShadowSat, 0.4},
                                   {K::HslOrangeHue, 0.3},
                                   {K::GrainAmount, 0.5},
                                   {K::VignetteAmount, -0.4},
                                   {K::LuminanceNR, 0.4},
                                   {K::ColorNR, 0.5},
                                   {K::SharpenDetail, 0.5},
                                   {K::DefringeAmount, 0.5},
                                   {K::GrainRoughness, 0.5}});
  stack.setPointColors({{0.1, 0.5, 0.5, 0.2, -0.3, 0.1, 0.4}}, core::UserOrigin{},
                       core::nowSeconds());
  stack.setMasks({
      maskOf(core::AiSubjectShape{}, {{K::Exposure, 0.4}, {K::Clarity, 0.3}}),
      maskOf(core::AiPeopleShape{}, {{K::Saturation, -0.5}}),
      maskOf(core::BrushShape{{stroke({{0.1, 0.1}, {0.8, 0.7}, {0.3, 0.9}}, 0.05)}, 0.5},
             {{K::Temperature, 0.4}},
             {refine(core::LuminanceRangeShape{0.2, 0.8, 0.1}, CompositeMode::Intersect),
              refine(core::ColorRangeShape{0.1, 0.1, 0.1}, CompositeMode::Add),
              refine(core::LinearShape{{0, 0}, {1, 1}}, CompositeMode::Subtract)}),
  });
  const std::string first = pixelBytes(applyAdjustments(input, stack));
  EXPECT_NE(first.size(), 0U);
  EXPECT_TRUE(first == pixelBytes(applyAdjustments(input, stack)))
      << "two renders of one stack differ";
}

TEST_F(Masks, CoordinatesBelongToTheRenderedFrame) {
  // Through the streaming decoder: the crop keeps the right half, and a mask at the centre
  // lands at the centre of what is shown. The AI shape reads the decode out of order.
  const velko::testing::TempDir dir;
  const std::string path = dir.file("grey.jpg");
  flat(118, 118, 118, 2 * kW, kH).jpegsave(path.c_str());
  for (const bool ai : {false, true}) {
    SCOPED_TRACE(ai ? "inverted subject" : "radial");
    core::EditStack stack = stackOf(
        {maskOf(ai ? core::MaskShape{core::AiSubjectShape{true}} : radial(0.5, 0.5, 0.2, 0))});
    stack.setRect(K::Crop, {0.5, 0, 0.5, 1}, core::UserOrigin{}, core::nowSeconds());
    // Read once, as an encoder does.
    const VImage out = renderStack(path, stack, std::nullopt, dir.path()).copy_memory();
    ASSERT_EQ(out.width(), kW);
    // A flat frame has no subject, so the inverted subject covers all of it.
    const double before = velko::app::testing::luma(flat(118, 118, 118));
    EXPECT_NEAR(luma(out, kCentre) / before, 2, 0.05);
    EXPECT_NEAR(luma(out, kCorner) / before, ai ? 2 : 1, 0.05);
  }
}

} // namespace
} // namespace velko::app::testing
