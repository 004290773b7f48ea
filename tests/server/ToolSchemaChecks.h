// Shared checks for tool-table rows: the input-schema conventions every tool follows, and a
// Caller that fails the test if a handler reaches the application.
#pragma once

#include "json/Writer.h"
#include "server/Tool.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace velko::server::testing {

/// Checks one property schema (recursively for arrays and nested objects): a known `type`,
/// only the permitted keywords, `items` on every array, `required` names that exist. The top
/// level is an object schema with a `properties` object.
inline void expectPropertyFollowsConventions(const json::Value& schema, const std::string& where) {
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

inline void expectSchemaFollowsConventions(const Tool& tool) {
  ASSERT_TRUE(tool.inputSchema.is_object());
  EXPECT_TRUE(tool.inputSchema.as_object().contains("type") &&
              tool.inputSchema.at("type") == "object")
      << tool.name;
  EXPECT_TRUE(tool.inputSchema.as_object().contains("properties")) << tool.name;
  expectPropertyFollowsConventions(tool.inputSchema, std::string(tool.name));
}

/// The `required` names of a row's schema; empty when the key is absent.
inline std::vector<std::string> requiredNames(const Tool& tool) {
  std::vector<std::string> names;
  if (const json::Value* required = tool.inputSchema.as_object().if_contains("required")) {
    for (const json::Value& name : required->as_array()) {
      names.emplace_back(name.as_string());
    }
  }
  return names;
}

/// The property names of a row's schema, in their listed order.
inline std::vector<std::string> propertyNames(const Tool& tool) {
  std::vector<std::string> names;
  for (const auto& p : tool.inputSchema.at("properties").as_object()) {
    names.emplace_back(p.key());
  }
  return names;
}

inline const Tool& findTool(const std::vector<Tool>& table, std::string_view name) {
  for (const Tool& tool : table) {
    if (tool.name == name) {
      return tool;
    }
  }
  throw std::runtime_error("no tool " + std::string(name));
}

inline std::vector<std::string_view> toolNames(const std::vector<Tool>& table) {
  std::vector<std::string_view> names;
  for (const Tool& tool : table) {
    names.push_back(tool.name);
  }
  return names;
}

/// A Caller that records nothing and fails the test when called.
class UnreachableCaller : public ipc::Caller {
public:
  json::Value call(protocol::IPCMethod method, const std::optional<json::Value>&) override {
    ADD_FAILURE() << "unexpected IPC call " << protocol::rawValue(method);
    return nullptr;
  }
};

} // namespace velko::server::testing
