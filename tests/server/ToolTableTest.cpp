// The tool table: its rows, the portability of its schemas, the kinds its descriptions name, and
// docs/tools.md, which must match what the table says now.
#include "server/ToolTable.h"

#include "core/AdjustmentKind.h"
#include "json/Writer.h"
#include "server/ToolReference.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
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

/// Checks one property schema and, recursively, those of its items and properties: one known
/// `type`, only the permitted keywords, `items` exactly on arrays, `required` names that exist.
void expectPortable(const json::Value& schema, const std::string& where) {
  SCOPED_TRACE(where);
  static const std::set<std::string_view> kAllowed = {
      "type", "description", "enum", "minimum", "maximum", "items", "properties", "required"};
  static const std::set<std::string_view> kTypes = {"string",  "integer", "number",
                                                    "boolean", "array",   "object"};
  const json::Object& obj = schema.as_object();
  for (const auto& member : obj) {
    EXPECT_TRUE(kAllowed.contains(member.key())) << "keyword " << member.key();
  }
  ASSERT_TRUE(obj.contains("type") && obj.at("type").is_string()) << "no single type";
  const std::string_view type = obj.at("type").as_string();
  EXPECT_TRUE(kTypes.contains(type)) << "type " << type;
  EXPECT_EQ(type == "array", obj.contains("items")) << "items go with arrays only";
  if (const json::Value* items = obj.if_contains("items")) {
    expectPortable(*items, where + "[]");
  }
  const json::Value* properties = obj.if_contains("properties");
  EXPECT_TRUE(properties == nullptr || type == "object");
  for (const auto& p : properties ? properties->as_object() : json::Object()) {
    expectPortable(p.value(), where + "." + std::string(p.key()));
  }
  for (const json::Value& name : obj.contains("required") ? obj.at("required").as_array()
                                                          : json::Array()) {
    EXPECT_TRUE(properties && properties->as_object().contains(name.as_string()))
        << "required " << json::toCompact(name) << " is not a property";
  }
}

// Names and schemas within what the strictest MCP hosts and model APIs accept: no $ref, no
// combinators and no type unions (several function-calling APIs refuse or flatten them).
TEST(ToolTable, EverySchemaIsPortable) {
  const std::regex portableName("[A-Za-z0-9_-]{1,64}");
  for (const Tool& tool : toolTable()) {
    EXPECT_TRUE(std::regex_match(std::string(tool.name), portableName)) << tool.name;
    EXPECT_EQ(tool.inputSchema.at("type"), "object") << tool.name;
    EXPECT_TRUE(tool.inputSchema.as_object().contains("properties")) << tool.name;
    expectPortable(tool.inputSchema, std::string(tool.name));
  }
}

// The descriptions teach the assistant the adjustment kinds by name; a renamed or misspelt kind
// there would have it send ops the application refuses. Every camelCase word of the editing
// tools' descriptions is a kind (hsl<Band>Hue and cg<Region>Sat stand for each band and region),
// and so is every entry of the scalar-kind list.
TEST(ToolTable, EveryKindTheEditingDescriptionsNameExists) {
  const std::map<std::string, std::vector<std::string>> fills = {
      {"<Band>", {"Red", "Orange", "Yellow", "Green", "Aqua", "Blue", "Purple", "Magenta"}},
      {"<Region>", {"Shadow", "Mid", "Highlight", "Global"}}};
  const std::regex word(R"([a-z][a-z0-9]*(<Band>|<Region>)?[A-Z][A-Za-z0-9]*)");
  int checked = 0;
  const auto expectKind = [&checked](const std::string& name) {
    if (name != "expectedVersion" && name != "versionConflict") {
      EXPECT_TRUE(core::parseAdjustmentKind(name)) << name;
      ++checked;
    }
  };
  for (std::string_view tool : {"velko_edit_set", "velko_mask"}) {
    SCOPED_TRACE(tool);
    const std::string text(findTool(tool)->description);
    for (std::sregex_iterator it(text.begin(), text.end(), word), end; it != end; ++it) {
      const std::string w = it->str(), slot = (*it)[1].str();
      const std::size_t at = w.find(slot);
      for (const std::string& fill : slot.empty() ? std::vector<std::string>{""} : fills.at(slot)) {
        expectKind(slot.empty() ? w : w.substr(0, at) + fill + w.substr(at + slot.size()));
      }
    }
    // "Scalar kinds (…): exposure, contrast, …, rotation (…)." lists plain words too.
    if (const auto at = text.find("Scalar kinds"); at != std::string::npos) {
      const auto colon = text.find("): ", at) + 3;
      const std::string list = std::regex_replace(text.substr(colon, text.find(". ", colon) - colon),
                                                  std::regex(R"( \([^)]*\))"), "");
      const std::regex name("[A-Za-z]+");
      for (std::sregex_iterator it(list.begin(), list.end(), name), end; it != end; ++it) {
        expectKind(it->str());
      }
    }
  }
  EXPECT_GT(checked, 60); // the lists were found
}

constexpr const char* kRegenerate = "cmake --build build --target velko_tool_reference && "
                                    "build/src/server/velko_tool_reference > docs/tools.md";

TEST(ToolReference, DocsFileIsCurrent) {
  std::ifstream file(VELKO_SOURCE_DIR "/docs/tools.md", std::ios::binary);
  ASSERT_TRUE(file) << "docs/tools.md is missing; create it from the source tree with: "
                    << kRegenerate;
  const std::string onDisk{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  EXPECT_TRUE(onDisk == renderToolReference())
      << "docs/tools.md is stale; regenerate it from the source tree with: " << kRegenerate;
}

} // namespace
} // namespace velko::server
