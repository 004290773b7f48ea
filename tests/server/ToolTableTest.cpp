#include "server/ToolTable.h"

#include "json/Writer.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <string_view>

namespace velko::server {
namespace {

TEST(ToolTable, EveryListedToolHasExactlyOneRowInListingOrder) {
  std::multiset<std::string_view> names;
  for (const Tool& row : collectToolRows()) {
    names.insert(row.name);
  }
  EXPECT_EQ(names, std::multiset<std::string_view>(kToolOrder.begin(), kToolOrder.end()));
  ASSERT_EQ(toolTable().size(), kToolOrder.size());
  for (std::size_t i = 0; i < kToolOrder.size(); ++i) {
    EXPECT_EQ(toolTable()[i].name, kToolOrder[i]);
  }
}

TEST(ToolTable, OrderingDropsUnlistedAndRepeatedRows) {
  auto row = [](std::string_view name, std::string_view description) {
    return Tool{name, description, json::Object(), {}};
  };
  std::vector<Tool> rows;
  rows.push_back(row("velko_list", "first list"));
  rows.push_back(row("velko_other", "unlisted"));
  rows.push_back(row("velko_ping", "ping"));
  rows.push_back(row("velko_list", "second list"));
  const std::vector<Tool> table = orderToolRows(std::move(rows));
  ASSERT_EQ(table.size(), 2u);
  EXPECT_EQ(table[0].name, "velko_ping");
  EXPECT_EQ(table[1].description, "first list");
}

/// Checks one property schema (recursively for arrays and nested objects): a known `type`,
/// only the permitted keywords, `items` on every array, `required` names that exist. The top
/// level is an object schema with a `properties` object.
void expectPropertyFollowsConventions(const json::Value& schema, const std::string& where) {
  SCOPED_TRACE(where);
  ASSERT_TRUE(schema.is_object());
  const json::Object& obj = schema.as_object();
  static const std::set<std::string_view> kAllowed = {
      "type", "description", "enum", "minimum", "maximum", "items", "properties", "required"};
  static const std::set<std::string_view> kTypes = {"string",  "integer", "number",
                                                    "boolean", "array",   "object"};
  for (const auto& member : obj) {
    EXPECT_TRUE(kAllowed.contains(member.key())) << "keyword " << member.key();
  }
  ASSERT_TRUE(obj.contains("type") && obj.at("type").is_string()) << "no type";
  const std::string_view type = obj.at("type").as_string();
  EXPECT_TRUE(kTypes.contains(type)) << "type " << type;
  if (const json::Value* description = obj.if_contains("description")) {
    EXPECT_TRUE(description->is_string() && !description->as_string().empty());
  }
  if (const json::Value* values = obj.if_contains("enum")) {
    EXPECT_TRUE(values->is_array() && !values->as_array().empty());
  }
  EXPECT_EQ(type == "array", obj.contains("items")) << "items go with arrays only";
  if (type == "array" && obj.contains("items")) {
    expectPropertyFollowsConventions(obj.at("items"), where + "[]");
  }
  if (const json::Value* properties = obj.if_contains("properties")) {
    ASSERT_EQ(type, "object");
    ASSERT_TRUE(properties->is_object());
    for (const auto& p : properties->as_object()) {
      expectPropertyFollowsConventions(p.value(), where + "." + std::string(p.key()));
    }
  }
  if (const json::Value* required = obj.if_contains("required")) {
    ASSERT_TRUE(obj.contains("properties") && required->is_array());
    EXPECT_FALSE(required->as_array().empty()) << "empty required list";
    for (const json::Value& name : required->as_array()) {
      EXPECT_TRUE(name.is_string() && obj.at("properties").as_object().contains(name.as_string()))
          << "required " << json::toCompact(name) << " is not a property";
    }
  }
}

TEST(ToolTable, EverySchemaFollowsTheConventions) {
  for (const Tool& tool : toolTable()) {
    ASSERT_TRUE(tool.inputSchema.is_object()) << tool.name;
    EXPECT_EQ(tool.inputSchema.at("type"), "object") << tool.name;
    EXPECT_TRUE(tool.inputSchema.as_object().contains("properties")) << tool.name;
    expectPropertyFollowsConventions(tool.inputSchema, std::string(tool.name));
    EXPECT_FALSE(tool.description.empty()) << tool.name;
    EXPECT_TRUE(tool.invoke) << tool.name;
  }
}

} // namespace
} // namespace velko::server
