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

TEST(ContentTools, SchemasAndDescriptions) {
  std::vector<Tool> table = contentTable();
  EXPECT_EQ(testing::toolNames(table),
            (std::vector<std::string_view>{"velko_find_similar", "velko_import"}));
  const Tool& similar = findTool(table, "velko_find_similar");
  EXPECT_FALSE(similar.inputSchema.as_object().contains("required"));
  EXPECT_EQ(propertyNames(similar), (std::vector<std::string>{"path", "image", "id", "limit"}));
  EXPECT_EQ(similar.inputSchema.at("properties").at("limit"),
            json::parse(R"({"type": "integer", "minimum": 1, "maximum": 50,
                            "description": "Max matches (default 12)."})"));
  EXPECT_EQ(findTool(table, "velko_import").inputSchema, json::parse(R"({"type": "object",
                            "properties": {"paths": {"type": "array", "items": {"type": "string"}}},
                            "required": ["paths"]})"));

  EXPECT_NE(
      similar.description.find("Give it ONE of: \"path\" (a file on disk \u2014 best for an image"),
      std::string_view::npos);
  EXPECT_TRUE(similar.description.ends_with("Everything stays on-device."));
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
