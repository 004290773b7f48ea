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

std::vector<Tool> contentTable() {
  std::vector<Tool> table;
  addContentTools(table);
  return table;
}

TEST(ContentTools, AppendsTwoRowsWithConventionalSchemas) {
  std::vector<Tool> table = contentTable();
  EXPECT_EQ(testing::toolNames(table),
            (std::vector<std::string_view>{"velko_find_similar", "velko_import"}));
  for (const Tool& tool : table) {
    testing::expectSchemaFollowsConventions(tool);
  }
}

TEST(ContentTools, FindSimilarSchemaHasNoRequiredList) {
  std::vector<Tool> table = contentTable();
  const Tool& tool = findTool(table, "velko_find_similar");
  EXPECT_FALSE(tool.inputSchema.as_object().contains("required"));
  EXPECT_EQ(propertyNames(tool), (std::vector<std::string>{"path", "image", "id", "limit"}));
  const json::Value& p = tool.inputSchema.at("properties");
  EXPECT_EQ(p.at("limit"), json::parse(R"({"type": "integer", "minimum": 1, "maximum": 50,
                                           "description": "Max matches (default 12)."})"));
  EXPECT_EQ(p.at("path").at("description"), "Path to a query image file on disk (png/jpeg/heic).");
  EXPECT_EQ(p.at("image").at("description"),
            "Query image as base64 (png/jpeg), if you can't use a path.");
  EXPECT_EQ(p.at("id").at("description"),
            "A catalog photo localIdentifier \u2014 find more that look like it.");
}

TEST(ContentTools, ImportSchemaRequiresPaths) {
  std::vector<Tool> table = contentTable();
  EXPECT_EQ(findTool(table, "velko_import").inputSchema, json::parse(R"({"type": "object",
                            "properties": {"paths": {"type": "array", "items": {"type": "string"}}},
                            "required": ["paths"]})"));
}

TEST(ContentTools, DescriptionsKeepTheirExactCharacters) {
  std::vector<Tool> table = contentTable();
  std::string_view similar = findTool(table, "velko_find_similar").description;
  EXPECT_TRUE(similar.starts_with(
      "Find catalog photos that LOOK LIKE a given image \u2014 visual similarity (composition, "
      "colour, subject)"));
  EXPECT_NE(similar.find("Give it ONE of: \"path\" (a file on disk \u2014 best for an image"),
            std::string_view::npos);
  EXPECT_NE(similar.find("or \"id\" (an existing catalog photo, i.e. \"more like this one\")."),
            std::string_view::npos);
  EXPECT_NE(similar.find("if \"indexed\" is 0 the pass hasn't run yet \u2014 tell the user"),
            std::string_view::npos);
  EXPECT_TRUE(similar.ends_with("Everything stays on-device."));

  std::string_view import = findTool(table, "velko_import").description;
  EXPECT_TRUE(import.starts_with("Import image files from disk into the Apple Photos library."));
  EXPECT_NE(import.find("Give {paths: [...]} (absolute or ~-relative)."), std::string_view::npos);
  EXPECT_TRUE(import.ends_with("Apple Photos libraries only."));
}

TEST(ContentTools, RowsRunTheirHandlers) {
  // Arguments both refuse before touching the file system or the application.
  testing::UnreachableCaller caller;
  std::vector<Tool> table = contentTable();
  EXPECT_EQ(json::Value(
                findTool(table, "velko_find_similar").invoke(json::parse(R"({"id":42})"), caller)),
            json::Value(textResult("velko_find_similar needs one of: path, image, or id", true)));
  EXPECT_EQ(json::Value(findTool(table, "velko_import").invoke(std::nullopt, caller)),
            json::Value(textResult("velko_import needs a non-empty paths array", true)));
}

} // namespace
} // namespace velko::server
