#include "server/ToolTable.h"

#include "core/AdjustmentKind.h"
#include "json/Writer.h"

#include <gtest/gtest.h>
#include <cctype>
#include <regex>
#include <set>
#include <string>
#include <string_view>

namespace velko::server {
namespace {

TEST(ToolTable, EveryToolHasOneRowAndEveryPlaceInTheListingOneTool) {
  std::set<int> places;
  std::set<std::string_view> names;
  for (const ToolRow& row : collectToolRows()) {
    EXPECT_TRUE(places.insert(row.listed).second) << "place " << row.listed << " twice";
    EXPECT_TRUE(names.insert(row.name).second) << row.name << " twice";
  }
  ASSERT_EQ(places.size(), 50u);
  EXPECT_EQ(*places.begin(), 1);
  EXPECT_EQ(*places.rbegin(), 50);
  EXPECT_EQ(toolTable().front().name, "velko_ping");
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

// Names and schemas within what the strictest MCP hosts and model APIs accept: no $ref, no
// combinators and no type unions (several function-calling APIs refuse or flatten them).
TEST(ToolTable, EverySchemaFollowsTheConventions) {
  const std::regex portableName("[A-Za-z0-9_-]{1,64}");
  for (const Tool& tool : toolTable()) {
    EXPECT_TRUE(std::regex_match(std::string(tool.name), portableName)) << tool.name;
    ASSERT_TRUE(tool.inputSchema.is_object()) << tool.name;
    EXPECT_EQ(tool.inputSchema.at("type"), "object") << tool.name;
    EXPECT_TRUE(tool.inputSchema.as_object().contains("properties")) << tool.name;
    expectPropertyFollowsConventions(tool.inputSchema, std::string(tool.name));
    EXPECT_FALSE(tool.description.empty()) << tool.name;
    EXPECT_TRUE(tool.invoke) << tool.name;
  }
}

// The descriptions teach the assistant the adjustment kinds by name; a renamed or misspelt kind
// there would have it send ops the application refuses. Every camelCase word of the editing
// tools' descriptions is a kind (hsl<Band>Hue and cg<Region>Sat stand for each band and region),
// and so is every entry of the scalar-kind list.
TEST(ToolTable, EveryKindTheEditingDescriptionsNameExists) {
  const std::set<std::string> notKinds = {"expectedVersion", "versionConflict"};
  const std::vector<std::string> bands = {"Red",  "Orange", "Yellow", "Green",
                                          "Aqua", "Blue",   "Purple", "Magenta"};
  const std::vector<std::string> regions = {"Shadow", "Mid", "Highlight", "Global"};
  const std::regex word(R"([a-z][a-z0-9]*(<Band>|<Region>)?[A-Z][A-Za-z0-9]*)");
  int checked = 0;
  for (const Tool& tool : toolTable()) {
    if (tool.name != "velko_edit_set" && tool.name != "velko_mask") {
      continue;
    }
    SCOPED_TRACE(std::string(tool.name));
    const std::string text(tool.description);
    std::vector<std::string> names;
    for (std::sregex_iterator it(text.begin(), text.end(), word), end; it != end; ++it) {
      const std::string w = it->str();
      const std::string slot = (*it)[1].str();
      if (slot.empty()) {
        names.push_back(w);
        continue;
      }
      const std::size_t at = w.find(slot);
      for (const std::string& fill : slot == "<Band>" ? bands : regions) {
        names.push_back(w.substr(0, at) + fill + w.substr(at + slot.size()));
      }
    }
    // "Scalar kinds (…): exposure, contrast, …, rotation (…)." lists plain words too.
    if (const auto list = text.find("Scalar kinds"); list != std::string::npos) {
      const auto colon = text.find("): ", list);
      const auto stop = text.find(". ", colon);
      // Items are separated by commas outside parentheses; each starts with its kind.
      int depth = 0;
      bool atItem = true;
      for (std::size_t i = colon + 3; i < stop; ++i) {
        const char c = text[i];
        depth += c == '(' ? 1 : c == ')' ? -1 : 0;
        if (atItem && std::isalpha(static_cast<unsigned char>(c))) {
          std::size_t end = i;
          while (end < stop && std::isalnum(static_cast<unsigned char>(text[end]))) {
            ++end;
          }
          names.push_back(text.substr(i, end - i));
          atItem = false;
        } else if (c == ',' && depth == 0) {
          atItem = true;
        }
      }
    }
    for (const std::string& name : names) {
      if (!notKinds.contains(name)) {
        EXPECT_TRUE(core::parseAdjustmentKind(name)) << name;
        ++checked;
      }
    }
  }
  EXPECT_GT(checked, 60); // the lists were found
}

} // namespace
} // namespace velko::server
