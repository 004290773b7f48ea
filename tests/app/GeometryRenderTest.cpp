#include "app/AppFixture.h"
#include "app/Imaging.h"
#include "app/RenderGeometry.h"
#include "support/TestPeer.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

namespace velko::app::testing {
namespace {

using core::AdjustmentKind;
using vips::VImage;
using K = AdjustmentKind;

constexpr int kW = 240;
constexpr int kH = 160;

VImage grey(double level) {
  return (VImage::black(kW, kH) + level)
      .cast(VIPS_FORMAT_UCHAR)
      .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_B_W));
}

/// Black, with white where `inside(x, y)` (normalised coordinates) holds.
VImage shape(const std::function<VImage(const VImage& x, const VImage& y)>& inside) {
  const VImage xy = VImage::xyz(kW, kH);
  const VImage mask = inside((xy[0] + 0.5) / kW, (xy[1] + 0.5) / kH);
  return mask.ifthenelse(255, 0)
      .cast(VIPS_FORMAT_UCHAR)
      .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_B_W));
}

using Scalar = std::pair<K, double>;
const auto stackOf = scalars;

/// The stack's geometry on `image` at full size, as renderStack does it.
VImage geometryOf(const VImage& image, const core::EditStack& stack) {
  const GeometrySettings g(stack);
  const Warp warp(g, static_cast<double>(image.width()) / image.height());
  const RenderPlan plan =
      planRender(image.width(), image.height(), g, warp, FrameSettings(stack), std::nullopt);
  return applyGeometry(image, g, warp, plan);
}

/// The row of the centre of brightness in column `x`.
double brightRow(const VImage& image, int x) {
  const VImage column = image.extract_area(x, 0, 1, image.height()).cast(VIPS_FORMAT_DOUBLE);
  const VImage rows = VImage::xyz(1, image.height())[1];
  return (column * rows).avg() / column.avg();
}

/// The width of the bright run in row `y`, in pixels.
double brightWidth(const VImage& image, int y) {
  return image.extract_area(0, y, image.width(), 1).avg() / 255 * image.width();
}

class GeometryRender : public ::testing::Test {
protected:
  GeometryRender() { initImaging(); }
};

TEST_F(GeometryRender, StraightenTurnsALineAndKeepsTheAspect) {
  const VImage line = shape([](const VImage&, const VImage& y) { return (y - 0.5).abs() < 0.01; });
  for (double degrees : {10.0, -10.0}) {
    SCOPED_TRACE(degrees);
    const VImage out = geometryOf(line, stackOf({{K::Straighten, degrees}}));
    EXPECT_NEAR(static_cast<double>(out.width()) / out.height(), 1.5, 0.02);
    EXPECT_LT(out.width(), kW);
    const int x0 = out.width() / 4;
    const int x1 = 3 * out.width() / 4;
    const double angle =
        std::atan2(brightRow(out, x1) - brightRow(out, x0), x1 - x0) * 180 / std::numbers::pi;
    // Clockwise on screen (y down) is a positive slope.
    EXPECT_NEAR(angle, degrees, 0.5);
  }
}

TEST_F(GeometryRender, AutoCropIsTheLargestRectangleWithNothingEmpty) {
  struct Case {
    const char* name;
    std::vector<Scalar> stack;
  };
  const std::vector<Case> cases = {
      {"straighten 10", {{K::Straighten, 10}}},
      {"straighten -45", {{K::Straighten, -45}}},
      {"keystone up", {{K::PerspectiveVertical, 1}}},
      {"keystone left", {{K::PerspectiveHorizontal, -1}}},
      {"pincushion correction", {{K::LensDistortion, -1}}},
      {"all at once",
       {{K::Straighten, 7},
        {K::PerspectiveVertical, -0.6},
        {K::PerspectiveHorizontal, 0.4},
        {K::LensDistortion, -0.5}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Warp warp(GeometrySettings(stackOf(c.stack)), 1.5);
    ASSERT_LT(warp.autoCrop(), 1);
    // Every point of the picture's edge comes from inside the frame, and some comes from its
    // very edge: a larger rectangle would show emptiness.
    double reach = 0;
    for (int i = 0; i <= 100; ++i) {
      const double t = i / 100.0;
      for (core::Point p :
           {core::Point{t, 0}, core::Point{t, 1}, core::Point{0, t}, core::Point{1, t}}) {
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

TEST_F(GeometryRender, PerspectiveWidensOneEdge) {
  const VImage column = shape([](const VImage& x, const VImage&) { return (x - 0.5).abs() < 0.2; });
  const VImage band = shape([](const VImage&, const VImage& y) { return (y - 0.5).abs() < 0.2; });
  struct Case {
    const char* name;
    VImage input;
    core::EditStack stack;
    bool vertical;
    bool firstWider; ///< top (or left) wider than bottom (or right)
  };
  const std::vector<Case> cases = {
      {"vertical +1 widens the top", column, stackOf({{K::PerspectiveVertical, 1}}), true, true},
      {"vertical -1 widens the bottom", column, stackOf({{K::PerspectiveVertical, -1}}), true,
       false},
      {"horizontal +1 widens the right", band, stackOf({{K::PerspectiveHorizontal, 1}}), false,
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    VImage out = geometryOf(c.input, c.stack);
    if (!c.vertical) {
      out = out.rot(VIPS_ANGLE_D90); // the left edge becomes the top
    }
    const double first = brightWidth(out, 2);
    const double last = brightWidth(out, out.height() - 3);
    EXPECT_GT(c.firstWider ? first / last : last / first, 1.3);
  }
}

TEST_F(GeometryRender, LensDistortionBendsStraightLines) {
  const VImage line = shape([](const VImage&, const VImage& y) { return (y - 0.2).abs() < 0.01; });
  const double flat = brightRow(line, kW / 2) - brightRow(line, kW / 10);
  ASSERT_NEAR(flat, 0, 0.01);
  for (double amount : {1.0, -1.0}) {
    SCOPED_TRACE(amount);
    const VImage out = geometryOf(line, stackOf({{K::LensDistortion, amount}}));
    // Correcting barrel pushes the periphery out: the line's ends rise above its middle.
    const double sag = brightRow(out, out.width() / 2) - brightRow(out, out.width() / 10);
    EXPECT_GT(sag * amount, 2);
  }
}

TEST_F(GeometryRender, CropIsARectangleOfTheStraightenedPicture) {
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

TEST_F(GeometryRender, FramePadsToItsAspectInItsColour) {
  struct Case {
    const char* name;
    std::vector<Scalar> frame;
    double aspect;
    bool linked = true;
  };
  const std::vector<Case> cases = {
      {"square, fitted", {{K::FrameAspect, 1}}, 1},
      {"4:5, linked inset", {{K::FrameAspect, 0.8}, {K::FrameInset, 0.05}}, 0.8},
      {"square, filled, inset",
       {{K::FrameAspect, 1}, {K::FrameFitMode, 1}, {K::FrameInset, 0.1}},
       1},
      {"source aspect, deep bottom",
       {{K::FrameAspect, -1}, {K::FrameInsetBottom, 0.2}, {K::FrameInsetTop, 0.02}},
       1.5,
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    core::EditStack stack = stackOf(c.frame);
    stack.setString(K::FrameColor, "#FF2000", core::UserOrigin{}, core::nowSeconds());
    stack.setBoolean(K::FrameInsetLinked, c.linked, core::UserOrigin{}, core::nowSeconds());
    const GeometrySettings g(stack);
    const Warp warp(g, 1.5);
    const FrameSettings frame(stack);
    const RenderPlan plan = planRender(kW, kH, g, warp, frame, 200);
    const VImage out = applyFrame(applyGeometry(grey(90), g, warp, plan), plan, frame.color)
                           .colourspace(VIPS_INTERPRETATION_sRGB);
    EXPECT_NEAR(static_cast<double>(out.width()) / out.height(), c.aspect, 0.01);
    EXPECT_EQ(std::max(out.width(), out.height()), 200);
    // The frame colour at the bottom edge, the photo in the middle.
    EXPECT_EQ(out.getpoint(out.width() / 2, out.height() - 1), (std::vector<double>{255, 32, 0}));
    EXPECT_EQ(out.getpoint(out.width() / 2, out.height() / 2), (std::vector<double>{90, 90, 90}));
    if (frame.fill) {
      // Filling leaves no colour bands inside the insets.
      EXPECT_EQ(plan.photoWidth, plan.canvasWidth - 2 * plan.photoLeft);
      EXPECT_EQ(plan.photoHeight, plan.canvasHeight - 2 * plan.photoTop);
    }
  }
}

TEST_F(GeometryRender, RenderedFileIsFramedAtTheLongEdgeAskedForAndRepeats) {
  velko::testing::TempDir dir;
  const std::string path = dir.file("shot.png");
  writePhoto(path, {.width = 600, .height = 400, .pattern = true});
  core::EditStack stack = stackOf({{K::Straighten, 8},
                                   {K::PerspectiveVertical, 0.4},
                                   {K::LensDistortion, 0.3},
                                   {K::FrameAspect, 1},
                                   {K::FrameInset, 0.05}});
  stack.setString(K::FrameColor, "#00000080", core::UserOrigin{}, core::nowSeconds());
  const auto render = [&] {
    return renderStack(path, stack, 128, {});
  };
  const VImage out = render();
  EXPECT_EQ(out.width(), 128);
  EXPECT_EQ(out.height(), 128);
  ASSERT_EQ(out.bands(), 4);
  EXPECT_NEAR(out.getpoint(0, 0)[3], 128, 1); // a translucent frame
  EXPECT_NEAR(out.getpoint(64, 64)[3], 255, 1);
  const std::string first = encodePng(out).bytes;
  EXPECT_TRUE(first == encodePng(render()).bytes) << "two renders of one stack differ";
}

} // namespace
} // namespace velko::app::testing
