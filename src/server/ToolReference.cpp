#include "server/ToolReference.h"

#include "server/Prompts.h"
#include "server/ToolTable.h"
#include "json/Writer.h"

#include <algorithm>
#include <string_view>

namespace velko::server {
namespace {

/// Text shown as written: an angle bracket (as in "hsl<Band>Hue") would start an HTML tag. In a
/// table cell, pipes are escaped too and line breaks become <br>.
std::string prose(std::string_view text, bool inCell = false) {
  std::string out;
  for (char c : text) {
    if (inCell && c == '\n') {
      out += "<br>";
      continue;
    }
    if (c == '<' || c == '*' || (inCell && c == '|')) {
      out += '\\';
    }
    out += c;
  }
  return out;
}

/// A string as written; a number (the schemas hold whole numbers only) in JSON.
std::string stringOf(const json::Value& value) {
  return value.is_string() ? std::string(value.get_string()) : json::toCompact(value);
}

bool isRequired(const json::Object& schema, std::string_view key) {
  const json::Value* required = schema.if_contains("required");
  return required != nullptr &&
         std::ranges::find(required->as_array(), json::Value(key)) != required->as_array().end();
}

/// "string", "integer 1–50", "string: \"a\" or \"b\"", "array of string",
/// "array of object {kind, scalar?}" (a question mark marks an optional key). The schemas have
/// one type each (ToolTableTest checks that).
std::string typeOf(const json::Value& property) {
  const json::Object& p = property.as_object();
  std::string type = stringOf(p.at("type"));
  if (const json::Value* items = p.if_contains("items")) {
    type += " of " + typeOf(*items);
  }
  if (const json::Value* properties = p.if_contains("properties");
      properties != nullptr && !properties->as_object().empty()) {
    std::string keys;
    for (const auto& member : properties->as_object()) {
      keys += (keys.empty() ? "" : ", ") + std::string(member.key()) +
              (isRequired(p, member.key()) ? "" : "?");
    }
    type += " {" + keys + "}";
  }
  const json::Value* minimum = p.if_contains("minimum");
  const json::Value* maximum = p.if_contains("maximum");
  if (minimum != nullptr && maximum != nullptr) {
    type += " " + stringOf(*minimum) + "\u2013" + stringOf(*maximum);
  } else if (minimum != nullptr) {
    type += " \u2265 " + stringOf(*minimum);
  } else if (maximum != nullptr) {
    type += " \u2264 " + stringOf(*maximum);
  }
  if (const json::Value* values = p.if_contains("enum")) {
    std::string list;
    for (const json::Value& v : values->as_array()) {
      list += (list.empty() ? "" : ", ") + ("`" + stringOf(v) + "`");
    }
    type += ": " + list;
  }
  return type;
}

/// A heading, the description, and the argument table (`columns`, then `rows`) or "No arguments."
std::string section(std::string_view name, std::string_view description, std::string_view columns,
                    const std::vector<std::string>& rows) {
  std::string out = "### " + std::string(name) + "\n\n" + prose(description) + "\n\n";
  if (rows.empty()) {
    return out + "No arguments.\n\n";
  }
  out += columns;
  for (const std::string& row : rows) {
    out += row;
  }
  return out + "\n";
}

std::string describeTool(const Tool& tool) {
  const json::Object& schema = tool.inputSchema.as_object();
  std::vector<std::string> rows;
  for (const auto& member : schema.at("properties").as_object()) {
    const json::Value* description = member.value().as_object().if_contains("description");
    rows.push_back("| `" + std::string(member.key()) + "` | " + prose(typeOf(member.value()), true) +
                   " | " + (isRequired(schema, member.key()) ? "yes" : "no") + " | " +
                   (description != nullptr ? prose(stringOf(*description), true) : "") + " |\n");
  }
  return section(tool.name, tool.description,
                 "| Argument | Type | Required | Description |\n|---|---|---|---|\n", rows);
}

std::string describePrompt(const json::Object& entry) {
  std::vector<std::string> rows;
  for (const json::Value& argument : entry.at("arguments").as_array()) {
    const json::Object& a = argument.as_object();
    const json::Value* required = a.if_contains("required");
    rows.push_back("| `" + stringOf(a.at("name")) + "` | " +
                   (required != nullptr && *required == true ? "yes" : "no") + " | " +
                   prose(stringOf(a.at("description")), true) + " |\n");
  }
  return section(stringOf(entry.at("name")), stringOf(entry.at("description")),
                 "| Argument | Required | Description |\n|---|---|---|\n", rows);
}

} // namespace

std::string renderToolReference() {
  const std::vector<Tool>& tools = toolTable();
  const json::Object prompts[] = {promptListEntry(), cullPromptListEntry(),
                                  describePromptListEntry()};
  std::string out =
      "# Tools and prompts\n\n"
      "What velko-mcp offers an assistant: its tools in the order of \"tools/list\", then its "
      "workflow prompts. Every argument is a member of the call's `arguments` object; a question "
      "mark after a key inside `{…}` marks it optional.\n\n"
      "This file is generated from the tool table; do not edit it by hand. After changing a "
      "tool or a prompt, run from the source tree:\n\n"
      "    cmake --build build --target velko_tool_reference\n"
      "    build/src/server/velko_tool_reference > docs/tools.md\n\n";
  out += "## Tools (" + std::to_string(tools.size()) + ")\n\n";
  for (const Tool& tool : tools) {
    out += describeTool(tool);
  }
  out += "## Prompts (" + std::to_string(std::size(prompts)) + ")\n\n";
  for (const json::Object& prompt : prompts) {
    out += describePrompt(prompt);
  }
  out.pop_back(); // one line feed at the end
  return out;
}

} // namespace velko::server
