#include "server/ToolReference.h"

#include "server/Prompts.h"
#include "server/ToolTable.h"
#include "json/Writer.h"

#include <algorithm>
#include <string_view>

namespace velko::server {
namespace {

/// Text shown as written: an angle bracket (as in "hsl<Band>Hue") would start an HTML tag.
std::string prose(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == '<' || c == '*') {
      out += '\\';
    }
    out += c;
  }
  return out;
}

/// Text safe inside a Markdown table cell: pipes escaped, line breaks as <br>.
std::string cell(std::string_view text) {
  std::string out;
  for (char c : prose(text)) {
    if (c == '|') {
      out += "\\|";
    } else if (c == '\n') {
      out += "<br>";
    } else {
      out += c;
    }
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

std::string describeTool(const Tool& tool) {
  std::string out = "### " + std::string(tool.name) + "\n\n" + prose(tool.description) + "\n\n";
  const json::Object& schema = tool.inputSchema.as_object();
  const json::Object& properties = schema.at("properties").as_object();
  if (properties.empty()) {
    return out + "No arguments.\n\n";
  }
  out += "| Argument | Type | Required | Description |\n|---|---|---|---|\n";
  for (const auto& member : properties) {
    const json::Value* description = member.value().as_object().if_contains("description");
    out += "| `" + std::string(member.key()) + "` | " + cell(typeOf(member.value())) + " | " +
           (isRequired(schema, member.key()) ? "yes" : "no") + " | " +
           (description != nullptr ? cell(stringOf(*description)) : "") + " |\n";
  }
  return out + "\n";
}

std::string describePrompt(const json::Object& entry) {
  std::string out = "### " + stringOf(entry.at("name")) + "\n\n" +
                    prose(stringOf(entry.at("description"))) + "\n\n";
  const json::Array& arguments = entry.at("arguments").as_array();
  if (arguments.empty()) {
    return out + "No arguments.\n\n";
  }
  out += "| Argument | Required | Description |\n|---|---|---|\n";
  for (const json::Value& argument : arguments) {
    const json::Object& a = argument.as_object();
    const json::Value* required = a.if_contains("required");
    out += "| `" + stringOf(a.at("name")) + "` | " +
           (required != nullptr && *required == true ? "yes" : "no") + " | " +
           cell(stringOf(a.at("description"))) + " |\n";
  }
  return out + "\n";
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
      "    build/tests/server/velko_tool_reference > docs/tools.md\n\n";
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
