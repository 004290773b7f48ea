// Shared checks for tool-table rows: the input-schema conventions every tool follows, and a
// Caller that fails the test if a handler reaches the application.
#pragma once

#include "server/Tool.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace velko::server::testing {

/// Checks one property schema (recursively for arrays and nested objects): a known `type`,
/// only the permitted keywords, `items` on every array, `required` names that exist.
inline void expectPropertyFollowsConventions(const json::Value& schema, const std::string& where) {
  SCOPED_TRACE(where);
  ASSERT_TRUE(schema.is_object());
  const json::Object& obj = schema.as_object();
  for (const auto& member : obj) {
    static constexpr std::string_view kAllowed[] = {
        "type", "description", "enum", "minimum", "maximum", "items", "properties", "required"};
    EXPECT_NE(std::find(std::begin(kAllowed), std::end(kAllowed), member.key()), std::end(kAllowed))
        << "keyword " << member.key();
  }
  const json::Value* type = obj.if_contains("type");
  ASSERT_NE(type, nullptr) << "no type";
  ASSERT_TRUE(type->is_string());
  static constexpr std::string_view kTypes[] = {"string",  "integer", "number",
                                                "boolean", "array",   "object"};
  EXPECT_NE(std::find(std::begin(kTypes), std::end(kTypes), type->as_string()), std::end(kTypes))
      << "type " << type->as_string();
  if (const json::Value* description = obj.if_contains("description")) {
    ASSERT_TRUE(description->is_string());
    EXPECT_FALSE(description->as_string().empty());
  }
  if (const json::Value* values = obj.if_contains("enum")) {
    ASSERT_TRUE(values->is_array());
    EXPECT_FALSE(values->as_array().empty());
  }
  if (type->as_string() == "array") {
    const json::Value* items = obj.if_contains("items");
    ASSERT_NE(items, nullptr) << "array without items";
    expectPropertyFollowsConventions(*items, where + "[]");
  } else {
    EXPECT_EQ(obj.if_contains("items"), nullptr);
  }
  if (const json::Value* properties = obj.if_contains("properties")) {
    ASSERT_EQ(type->as_string(), "object");
    ASSERT_TRUE(properties->is_object());
    for (const auto& p : properties->as_object()) {
      expectPropertyFollowsConventions(p.value(), where + "." + std::string(p.key()));
    }
  }
  if (const json::Value* required = obj.if_contains("required")) {
    const json::Value* properties = obj.if_contains("properties");
    ASSERT_NE(properties, nullptr);
    ASSERT_TRUE(required->is_array());
    EXPECT_FALSE(required->as_array().empty()) << "empty required list";
    for (const json::Value& name : required->as_array()) {
      ASSERT_TRUE(name.is_string());
      EXPECT_TRUE(properties->as_object().contains(name.as_string()))
          << "required " << name.as_string() << " is not a property";
    }
  }
}

/// The top level: an object schema with a `properties` object.
inline void expectSchemaFollowsConventions(const Tool& tool) {
  SCOPED_TRACE(std::string(tool.name));
  ASSERT_TRUE(tool.inputSchema.is_object());
  const json::Object& schema = tool.inputSchema.as_object();
  ASSERT_NE(schema.if_contains("type"), nullptr);
  EXPECT_EQ(schema.at("type"), "object");
  ASSERT_NE(schema.if_contains("properties"), nullptr);
  EXPECT_TRUE(schema.at("properties").is_object());
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
