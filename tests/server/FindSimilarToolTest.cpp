// velko_find_similar against a recording caller: which query goes out, the not-indexed notice,
// and the thumbnails that follow the JSON text; and the downscaled query image it sends.
#include "server/FindSimilarTool.h"

#include "ipc/IPCClient.h"
#include "json/Writer.h"
#include "server/ImageThumbnail.h"
#include "server/RecordingCaller.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>
#include <vips/vips.h>

namespace velko::server {
namespace {

using testing::RecordingCaller;
using testing::textAt;

TEST(FindSimilarTool, ChoosesTheQuery) {
  velko::testing::TempDir tmp;
  // A 4×2 binary PPM, which the image library reads without extra loaders.
  const std::string image =
      tmp.write("query.ppm", "P6\n4 2\n255\n" + std::string(4 * 2 * 3, '\x80'));
  const std::string notImage = tmp.write("notes.txt", "not an image");

  struct Case {
    const char* name;
    json::Value arguments;
    const char* sent;  // the similar.find params; null when nothing may be sent
    std::string error; // the error result's text when nothing is sent
  } cases[] = {
      {"path beats id", json::Object{{"path", image}, {"id", "X"}, {"limit", 3}}, "image", ""},
      {"empty path falls to id", json::parse(R"({"path":"","id":"X"})"), R"({"id":"X"})", ""},
      {"non-string path falls to image", json::parse(R"({"path":5,"image":"abc","id":"X"})"),
       R"({"imageBase64":"abc"})", ""},
      {"fractional limit is dropped", json::parse(R"({"id":"X","limit":3.5})"), R"({"id":"X"})",
       ""},
      {"not an image", json::Object{{"path", notImage}, {"id", "X"}}, nullptr,
       "couldn't read an image at " + notImage},
      {"path is not expanded", json::parse(R"({"path":"~/query.ppm"})"), nullptr,
       "couldn't read an image at ~/query.ppm"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingCaller caller;
    if (c.sent != nullptr) {
      caller.answer(R"({"matches":[{"id":"A","distance":0.1}],"indexed":0})");
    }
    const ToolResult result = runFindSimilar(c.arguments, caller);
    if (c.sent == nullptr) {
      EXPECT_TRUE(result.at("isError").as_bool());
      EXPECT_EQ(textAt(result), c.error);
      EXPECT_TRUE(caller.requests.empty());
      continue;
    }
    // With nothing indexed the matches mean nothing, and no thumbnails are asked for.
    EXPECT_EQ(json::toCompact(result),
              R"({"content":[{"type":"text","text":"No photos are indexed for visual search yet — )"
              R"(let velko finish describing the library (Settings ▸ Photo descriptions), then try )"
              R"(again."}],"isError":false})");
    ASSERT_EQ(caller.requests.size(), 1u);
    EXPECT_EQ(caller.requests[0].method, protocol::IPCMethod::SimilarFind);
    const json::Object& params = caller.requests[0].params->as_object();
    if (std::string_view(c.sent) == "image") {
      // The file goes out as a shrunk JPEG, base64, with the limit and without the id.
      EXPECT_TRUE(params.at("imageBase64").as_string().starts_with("/9j/"));
      EXPECT_FALSE(params.contains("id"));
      EXPECT_EQ(params.at("limit"), 3);
    } else {
      EXPECT_EQ(json::toCompact(params), c.sent);
    }
  }
}

TEST(FindSimilarTool, ThumbnailsForTheNearestSixOnly) {
  RecordingCaller caller;
  json::Array matches;
  for (int i = 1; i <= 12; ++i) {
    matches.push_back(json::Object{{"id", "m" + std::to_string(i)}, {"distance", 0.12345 * i}});
  }
  caller.answer(json::toCompact(json::Object{{"matches", matches}, {"indexed", 500}}));
  const char* kPreview = R"({"pngBase64":"PNG","width":256,"height":192,)"
                         R"("appliedStackVersion":0,"basedOnOriginal":true})";
  caller.answer(kPreview).answer(kPreview).fail(ipc::ClientError::connectionClosed());
  caller.answer(kPreview).answer(kPreview).answer(kPreview);

  const ToolResult result = runFindSimilar(json::parse(R"({"id":"X","limit":12})"), caller);
  EXPECT_FALSE(result.at("isError").as_bool());
  ASSERT_EQ(caller.requests.size(), 7u);
  EXPECT_EQ(caller.sent()[1], R"(preview.render {"id":"m1","longEdge":256})");
  EXPECT_EQ(caller.sent()[6], R"(preview.render {"id":"m6","longEdge":256})");

  const json::Array& content = result.at("content").as_array();
  ASSERT_EQ(content.size(), 1u + 2 * 5); // the third thumbnail failed and is skipped
  EXPECT_EQ(json::parse(content[0].at("text").as_string()).at("matches").as_array().size(), 12u);
  EXPECT_EQ(json::toCompact(content[1]), R"({"type":"image","data":"PNG","mimeType":"image/png"})");
  EXPECT_EQ(content[2].at("text"), "m1 (distance 0.123)");
  EXPECT_EQ(content[6].at("text"), "m4 (distance 0.494)");
}

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

  velko::testing::TempDir dir_;
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
    const std::string cut = velko::testing::readFile(dir_.file(name)).substr(0, 64);
    EXPECT_EQ(downscaledImageBase64(dir_.write(std::string("cut-") + name, cut), 100),
              std::nullopt);
  }
}

} // namespace
} // namespace velko::server
