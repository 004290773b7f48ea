#include "json/Errors.h"
#include "json/Writer.h"
#include "server/RecordingCaller.h"
#include "server/Tool.h"
#include "server/ToolSchemaChecks.h"
#include "server/ToolSupport.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace velko::server {
namespace {

using testing::findTool;
using testing::propertyNames;
using testing::requiredNames;

std::vector<Tool> deliveryTable() {
  std::vector<Tool> table;
  addDeliveryTools(table);
  return table;
}

TEST(DeliveryTools, AppendsFourRowsInListingOrder) {
  EXPECT_EQ(testing::toolNames(deliveryTable()),
            (std::vector<std::string_view>{"velko_export", "velko_video_commit", "velko_make_movie",
                                           "velko_movie_list"}));
}

TEST(DeliveryTools, ExportSchemaAndDescription) {
  std::vector<Tool> table = deliveryTable();
  const Tool& exportTool = findTool(table, "velko_export");
  EXPECT_EQ(propertyNames(exportTool),
            (std::vector<std::string>{"ids", "directory", "format", "longEdge", "quality",
                                      "colorSpace", "filenamePrefix"}));
  EXPECT_EQ(requiredNames(exportTool), (std::vector<std::string>{"ids", "directory"}));
  const json::Value& p = exportTool.inputSchema.at("properties");
  EXPECT_EQ(p.at("ids"), json::parse(R"({"type": "array", "items": {"type": "string"},
      "description": "Photo localIdentifiers (from velko_list / velko_selection)."})"));
  // The enumerated properties carry no description of their own.
  EXPECT_EQ(p.at("format"), json::parse(R"({"type": "string",
                                            "enum": ["jpeg", "heic", "png", "tiff16"]})"));
  EXPECT_EQ(p.at("quality"), json::parse(R"({"type": "number",
      "description": "0\u20131 for JPEG/HEIC (default 0.9)."})"));

  std::string_view text = exportTool.description;
  EXPECT_TRUE(text.starts_with(
      "Export photos (WITH their edits) to real files on disk \u2014 the endpoint for \"cull, "
      "edit, then hand off the keepers\". Give {ids, directory};"));
  EXPECT_NE(text.find("(files become prefix-1.jpg, prefix-2.jpg, \u2026; otherwise"),
            std::string_view::npos);
  EXPECT_TRUE(text.ends_with("so it works despite the app sandbox."));
}

TEST(DeliveryTools, VideoCommitAndMoviesDecodeTheArgumentsIntoTheRecords) {
  struct Case {
    const char* tool;
    const char* arguments; // null: no arguments key
    const char* sent;
    const char* reply;
  } cases[] = {
      {"velko_video_commit", R"({"id":"V","startSeconds":1.5})",
       R"(video.commit {"id":"V","startSeconds":1.5})", R"({"committed":true,"version":2})"},
      {"velko_make_movie", R"({"ids":["a","b"],"name":"Reel","extra":0})",
       R"(movie.make {"ids":["a","b"],"name":"Reel"})",
       R"({"id":"M1","name":"Reel","clipCount":2,"durationSeconds":12.5})"},
      {"velko_movie_list", nullptr, "movie.list",
       R"({"movies":[{"id":"M1","name":"Reel","clipCount":2,"durationSeconds":12.5}]})"},
  };
  std::vector<Tool> table = deliveryTable();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.tool);
    testing::RecordingCaller caller;
    caller.answer(c.reply);
    ToolArgs args;
    if (c.arguments != nullptr) {
      args = json::parse(c.arguments);
    }
    ToolResult result = findTool(table, c.tool).invoke(args, caller);
    EXPECT_EQ(caller.sent(), std::vector<std::string>{c.sent});
    EXPECT_EQ(result.at("isError"), false);
    EXPECT_EQ(std::string_view(result.at("content").at(0).at("text").as_string()),
              json::toPretty(json::parse(c.reply)));
  }
  testing::RecordingCaller caller;
  EXPECT_THROW(findTool(table, "velko_make_movie").invoke(std::nullopt, caller), json::DecodeError);
  EXPECT_TRUE(caller.requests.empty());
}

TEST(DeliveryTools, ExportRowRunsTheExportHandler) {
  // Arguments it refuses before touching the file system or the application.
  testing::UnreachableCaller caller;
  std::vector<Tool> table = deliveryTable();
  ToolResult result = findTool(table, "velko_export")
                          .invoke(json::parse(R"({"ids":[7],"directory":"/x"})"), caller);
  EXPECT_EQ(json::Value(result),
            json::Value(textResult("velko_export needs a non-empty ids array", true)));
}

} // namespace
} // namespace velko::server
