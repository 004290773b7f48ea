#include "app/Looks.h"

#include "app/ColorProfiles.h"
#include "app/Imaging.h"
#include "support/TestPeer.h"

#include <gmock/gmock.h>
#include <sstream>
#include <vector>

namespace velko::app {
namespace {

/// One row of the given pixels (interleaved bands) in the given format, values 0..255 (or
/// 0..65535 for ushort, then 16-bit RGB).
vips::VImage imageOf(std::vector<double> values, int bands, VipsBandFormat format) {
  const auto space =
      format == VIPS_FORMAT_USHORT ? VIPS_INTERPRETATION_RGB16 : VIPS_INTERPRETATION_sRGB;
  return vips::VImage::new_from_memory(values.data(), values.size() * sizeof(double),
                                       int(values.size()) / bands, 1, bands, VIPS_FORMAT_DOUBLE)
      .cast(format)
      .copy(vips::VImage::option()->set("interpretation", space))
      .copy_memory();
}

std::vector<double> pixels(const vips::VImage& image) {
  auto d = image.cast(VIPS_FORMAT_DOUBLE).copy_memory();
  const auto* data = static_cast<const double*>(d.data());
  return {data, data + VIPS_IMAGE_SIZEOF_IMAGE(d.get_image()) / sizeof(double)};
}

std::string identity3D(int n) {
  std::ostringstream out;
  out << "TITLE \"Identity\"\n# a comment\n\nLUT_3D_SIZE " << n << "\n";
  for (int b = 0; b < n; ++b) {
    for (int g = 0; g < n; ++g) {
      for (int r = 0; r < n; ++r) {
        out << double(r) / (n - 1) << ' ' << double(g) / (n - 1) << ' ' << double(b) / (n - 1)
            << "\n";
      }
    }
  }
  return out.str();
}

class Looks : public ::testing::Test {
protected:
  static void SetUpTestSuite() { initImaging(); }
  velko::testing::TempDir dir_;
};

TEST_F(Looks, CubeTablesMapColours) {
  const std::string invert1D = "LUT_1D_SIZE 2\n1 1 1\n0 0 0\n";
  // Red and blue swapped: the entry at (r, g, b) holds (b, g, r).
  const std::string swap3D = "LUT_3D_SIZE 2\n"
                             "0 0 0\n0 0 1\n0 1 0\n0 1 1\n"
                             "1 0 0\n1 0 1\n1 1 0\n1 1 1\n";
  // Inputs 0..0.5 spread over the whole output; above 0.5 clamps to the last entry.
  const std::string halfDomain =
      "DOMAIN_MIN 0 0 0\nDOMAIN_MAX 0.5 0.5 0.5\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n";
  const std::string resolveRange = "LUT_3D_INPUT_RANGE 0 0.5\n" + identity3D(2);
  const struct {
    const char* name;
    std::string text;
    double intensity;
    std::vector<double> in, expected; // one RGBA pixel: alpha must pass through
  } cases[] = {
      {"1D invert", invert1D, 1.0, {0, 100, 255, 7}, {255, 155, 0, 7}},
      {"1D invert at half", invert1D, 0.5, {0, 100, 255, 7}, {127.5, 127.5, 127.5, 7}},
      {"3D swap at half", swap3D, 0.5, {200, 50, 10, 99}, {105, 50, 105, 99}},
      {"3D identity of 17", identity3D(17), 1.0, {200, 50, 10, 99}, {200, 50, 10, 99}},
      {"DOMAIN_MAX 0.5", halfDomain, 1.0, {0, 51, 200, 0}, {0, 102, 255, 0}},
      {"LUT_3D_INPUT_RANGE 0 0.5", resolveRange, 1.0, {0, 51, 200, 0}, {0, 102, 255, 0}},
  };
  for (const auto& c : cases) {
    for (auto format : {VIPS_FORMAT_UCHAR, VIPS_FORMAT_FLOAT}) {
      SCOPED_TRACE(std::string(c.name) + (format == VIPS_FORMAT_UCHAR ? " uchar" : " float"));
      const auto lut = parseCube(c.text, "look.cube");
      const auto out = pixels(applyCube(imageOf(c.in, 4, format), lut, c.intensity));
      const double tolerance = format == VIPS_FORMAT_UCHAR ? 0.5 : 1e-3;
      EXPECT_THAT(out, ::testing::Pointwise(::testing::DoubleNear(tolerance), c.expected));
    }
  }
}

TEST_F(Looks, LargeImagesAreSplitWithoutSeams) {
  const auto xy = vips::VImage::xyz(1024, 600);
  const auto image =
      (xy.extract_band(0) / 4)
          .bandjoin(xy.extract_band(1) / 3)
          .bandjoin(xy.extract_band(0) % 256)
          .cast(VIPS_FORMAT_UCHAR)
          .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
  const auto inverted =
      applyCube(image, parseCube("LUT_1D_SIZE 2\n1 1 1\n0 0 0\n", "invert.cube"), 1.0);
  EXPECT_EQ((inverted.cast(VIPS_FORMAT_INT) - (255 - image.cast(VIPS_FORMAT_INT))).abs().max(), 0);
}

TEST_F(Looks, MalformedCubesNameTheLine) {
  const struct {
    const char* text;
    const char* where;
  } cases[] = {
      {"LUT_3D_SIZE 2\n0 0 0\n1 0 0\n", "look.cube line 3: the table ends after 2 rows of the 8"},
      {"LUT_1D_SIZE 2\n0 0 0\n1 1 1\n1 1 1\n", "look.cube line 4: more rows"},
      {"LUT_1D_SIZE 2\n0 0\n1 1 1\n", "look.cube line 2: expected three numbers"},
      {"LUT_3D_SIZE 257\n", "look.cube line 1: LUT_3D_SIZE 257 is out of range 2..256"},
      {"# both\nLUT_1D_SIZE 2\nLUT_3D_SIZE 2\n", "look.cube line 3: the file gives both"},
      {"0 0 0\n", "look.cube line 1: a table row comes before"},
      {"LUT_1D_SIZE 2\n0 0 0\nDOMAIN_MIN 0 0 0\n1 1 1\n",
       "look.cube line 3: keyword DOMAIN_MIN comes after"},
      {"DOMAIN_MIN 1 0 0\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n",
       "look.cube line 4: DOMAIN_MIN must be below"},
      {"LUT_1D_SIZE 2\n0 0 nan\n1 1 1\n", "look.cube line 2: \"nan\" is not a number"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_THAT([&] { parseCube(c.text, "look.cube"); },
                ::testing::ThrowsMessage<std::runtime_error>(::testing::HasSubstr(c.where)));
  }
  EXPECT_THROW(loadCube(dir_.file("missing.cube")), std::runtime_error);
  // Windows line ends, inline comments and Resolve's flags are fine.
  const auto lut = parseCube(
      "LUT_IN_VIDEO_RANGE\r\nLUT_1D_SIZE 3 # three\r\n0 0 0\r\n.5 .5 .5\r\n1 1 1\r\n", "x");
  EXPECT_EQ(lut.size, 3);
  EXPECT_EQ(lut.table.size(), 9u);
}

TEST_F(Looks, DisplayP3HoldsSrgbRedInsideItsGamut) {
  // toDisplayP3 writes its profile into the folder; wrong bytes there would move these colours.
  const std::string folder = dir_.file("profiles");
  for (const auto& [format, white] :
       {std::pair{VIPS_FORMAT_UCHAR, 255.0}, {VIPS_FORMAT_USHORT, 65535.0}}) {
    SCOPED_TRACE(vips_enum_nick(VIPS_TYPE_BAND_FORMAT, format));
    const auto p3 = toDisplayP3(imageOf({white, 0, 0}, 3, format), folder);
    const auto px = pixels(p3);
    ASSERT_EQ(px.size(), 3u);
    // sRGB red is about (234, 51, 35) in Display P3.
    EXPECT_NEAR(px[0] / white, 234.0 / 255, 0.02);
    EXPECT_NEAR(px[1] / white, 51.0 / 255, 0.03);
    EXPECT_NEAR(px[2] / white, 35.0 / 255, 0.03);
    EXPECT_EQ(p3.format(), format);
  }
}

} // namespace
} // namespace velko::app
