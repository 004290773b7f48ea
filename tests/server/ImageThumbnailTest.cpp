#include "server/ImageThumbnail.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>
#include <vips/vips.h>

namespace velko::server {
namespace {

// Test images are made with libvips linked directly; the code under test opens it by itself. The
// thumbnails are decoded again, which checks their base64 too.
class ImageThumbnail : public ::testing::Test {
protected:
  static void SetUpTestSuite() { ASSERT_EQ(VIPS_INIT("velko-tests"), 0); }

  /// A width×height RGB image with a bright left half, saved through the saver of the name's
  /// suffix.
  std::string makeImage(const std::string& name, int width, int height, int orientation = 0) {
    VipsImage* image = nullptr;
    EXPECT_EQ(vips_black(&image, width, height, "bands", 3, nullptr), 0);
    EXPECT_EQ(vips_draw_rect1(image, 255.0, 0, 0, width / 2, height, "fill", TRUE, nullptr), 0);
    if (orientation != 0) {
      vips_image_set_int(image, VIPS_META_ORIENTATION, orientation);
    }
    const std::string path = dir_.file(name);
    EXPECT_EQ(vips_image_write_to_file(image, path.c_str(), nullptr), 0) << vips_error_buffer();
    g_object_unref(image);
    return path;
  }

  /// Decodes `base64` as an image and returns {width, height}; {0, 0} if it is not a JPEG.
  static std::pair<int, int> jpegSize(const std::string& base64) {
    gsize length = 0;
    guchar* decoded = g_base64_decode(base64.c_str(), &length);
    const std::string bytes(reinterpret_cast<const char*>(decoded), length);
    g_free(decoded);
    VipsImage* image = bytes.starts_with("\xff\xd8\xff")
                           ? vips_image_new_from_buffer(bytes.data(), bytes.size(), "", nullptr)
                           : nullptr;
    if (image == nullptr) {
      return {0, 0};
    }
    std::pair<int, int> size{vips_image_get_width(image), vips_image_get_height(image)};
    g_object_unref(image);
    return size;
  }

  testing::TempDir dir_;
};

// Find_similar's test gives it a missing file and one that is not an image.
TEST_F(ImageThumbnail, ShrinksLongSideUprightAndNeverEnlarges) {
  struct Case {
    const char* name;
    int width, height, maxPixel, orientation;
    std::pair<int, int> expected;
  } cases[] = {
      {"wide.jpg", 400, 200, 100, 0, {100, 50}},
      {"tall.png", 120, 600, 300, 0, {60, 300}},
      {"small.png", 40, 20, 1024, 0, {40, 20}},
      // Orientation 6 means "rotate 90° clockwise to display": 400×200 shows as 200×400.
      {"rotated.jpg", 400, 200, 100, 6, {50, 100}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = makeImage(c.name, c.width, c.height, c.orientation);
    std::optional<std::string> out = downscaledImageBase64(path, c.maxPixel);
    ASSERT_TRUE(out.has_value());
    EXPECT_EQ(out->find('\n'), std::string::npos);
    EXPECT_EQ(jpegSize(*out), c.expected);
  }
  // Images cut short give nothing, rather than a thumbnail of what was there.
  for (const char* name : {"wide.jpg", "tall.png"}) {
    SCOPED_TRACE(name);
    const std::string cut = testing::readFile(dir_.file(name)).substr(0, 64);
    EXPECT_EQ(downscaledImageBase64(dir_.write(std::string("cut-") + name, cut), 100),
              std::nullopt);
  }
}

} // namespace
} // namespace velko::server
