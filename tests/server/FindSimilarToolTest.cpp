// velko_find_similar against a recording caller: which query goes out, the not-indexed notice,
// and the thumbnails that follow the JSON text.
#include "server/FindSimilarTool.h"

#include "ipc/IPCClient.h"
#include "json/Writer.h"
#include "server/RecordingCaller.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>

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

} // namespace
} // namespace velko::server
