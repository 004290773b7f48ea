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

const json::Value kIdsProperty = json::parse(R"({"type": "array", "items": {"type": "string"},
    "description": "Photo localIdentifiers (from velko_list / velko_selection)."})");

TEST(DeliveryTools, AppendsFourRowsInListingOrder) {
  EXPECT_EQ(testing::toolNames(deliveryTable()),
            (std::vector<std::string_view>{"velko_export", "velko_video_commit", "velko_make_movie",
                                           "velko_movie_list"}));
}

TEST(DeliveryTools, SchemasFollowTheConventions) {
  for (const Tool& tool : deliveryTable()) {
    testing::expectSchemaFollowsConventions(tool);
  }
}

TEST(DeliveryTools, RequiredLists) {
  struct Case {
    std::string_view tool;
    std::vector<std::string> required;
  };
  const Case cases[] = {
      {"velko_export", {"ids", "directory"}},
      {"velko_video_commit", {"id"}},
      {"velko_make_movie", {"ids"}},
      {"velko_movie_list", {}},
  };
  std::vector<Tool> table = deliveryTable();
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool));
    const Tool& tool = findTool(table, c.tool);
    EXPECT_EQ(requiredNames(tool), c.required);
    EXPECT_EQ(tool.inputSchema.as_object().contains("required"), !c.required.empty());
  }
}

TEST(DeliveryTools, ExportSchemaProperties) {
  std::vector<Tool> table = deliveryTable();
  const Tool& exportTool = findTool(table, "velko_export");
  EXPECT_EQ(propertyNames(exportTool),
            (std::vector<std::string>{"ids", "directory", "format", "longEdge", "quality",
                                      "colorSpace", "filenamePrefix"}));
  const json::Value& p = exportTool.inputSchema.at("properties");
  EXPECT_EQ(p.at("ids"), kIdsProperty);
  EXPECT_EQ(p.at("directory").at("description"),
            "Destination folder (created if needed; ~ is expanded).");
  // The enumerated and prefix properties carry no description of their own.
  EXPECT_EQ(p.at("format"), json::parse(R"({"type": "string",
                                            "enum": ["jpeg", "heic", "png", "tiff16"]})"));
  EXPECT_EQ(p.at("colorSpace"),
            json::parse(R"({"type": "string", "enum": ["sRGB", "displayP3"]})"));
  EXPECT_EQ(p.at("filenamePrefix"), json::parse(R"({"type": "string"})"));
  EXPECT_EQ(p.at("longEdge"), json::parse(R"({"type": "integer",
      "description": "Long-edge pixels; omit for full resolution."})"));
  EXPECT_EQ(p.at("quality"), json::parse(R"({"type": "number",
      "description": "0\u20131 for JPEG/HEIC (default 0.9)."})"));
}

TEST(DeliveryTools, OtherSchemaProperties) {
  std::vector<Tool> table = deliveryTable();
  const json::Value& video = findTool(table, "velko_video_commit").inputSchema.at("properties");
  EXPECT_EQ(video, json::parse(R"({"id": {"type": "string"},
      "startSeconds": {"type": "number", "description": "Trim start (omit to keep from the beginning)."},
      "endSeconds": {"type": "number", "description": "Trim end (omit to keep to the end)."}})"));
  const json::Value& movie = findTool(table, "velko_make_movie").inputSchema.at("properties");
  EXPECT_EQ(movie.at("ids"), kIdsProperty);
  EXPECT_EQ(movie.at("name").at("description"), "Movie name, e.g. 'Summer Reel'.");
  EXPECT_EQ(findTool(table, "velko_movie_list").inputSchema,
            json::parse(R"({"type": "object", "properties": {}})"));
}

TEST(DeliveryTools, DescriptionsKeepTheirExactCharacters) {
  struct Case {
    std::string_view tool;
    std::string_view start;
    std::string_view inside;
    std::string_view end;
  };
  const Case cases[] = {
      {"velko_export", "Export photos (WITH their edits) to real files on disk \u2014 the endpoint",
       "the endpoint for \"cull, edit, then hand off the keepers\". Give {ids, directory};",
       "so it works despite the app sandbox."},
      {"velko_export", "Export", "quality (0\u20131, lossy formats), colorSpace (sRGB | displayP3)",
       "sandbox."},
      {"velko_export", "Export", "(files become prefix-1.jpg, prefix-2.jpg, \u2026; otherwise",
       "sandbox."},
      {"velko_video_commit", "Render a VIDEO with its edits and (optionally) trim it",
       "DESTRUCTIVE \u2014 only when the user explicitly asks;",
       "Non-destructive edits stay live in velko until then."},
      {"velko_make_movie", "Assemble video clips into a movie project",
       "Great for \"make a highlight reel from these clips\" \u2014 pair with velko_query "
       "(videoOnly:true)",
       "a movie references clips; it doesn't change Photos."},
      {"velko_movie_list", "List the user's movie projects", "(id, name, clip count, duration)",
       "duration)."},
  };
  std::vector<Tool> table = deliveryTable();
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tool) + ": " + std::string(c.inside));
    std::string_view text = findTool(table, c.tool).description;
    EXPECT_TRUE(text.starts_with(c.start));
    EXPECT_NE(text.find(c.inside), std::string_view::npos);
    EXPECT_TRUE(text.ends_with(c.end));
  }
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
