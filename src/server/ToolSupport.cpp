#include "server/ToolSupport.h"

#include "json/Errors.h"
#include "json/Writer.h"

#include <cmath>
#include <limits>

namespace velko::server {

ContentItem textItem(std::string text) {
  return {"text", std::move(text), std::nullopt, std::nullopt};
}

ContentItem pngItem(std::string pngBase64) {
  return {"image", std::nullopt, std::move(pngBase64), "image/png"};
}

ToolResult toolResult(std::vector<ContentItem> items, bool isError) {
  json::Value result = json::encode(ContentResult{std::move(items), isError});
  return std::move(result.as_object());
}

ToolResult textResult(std::string_view text, bool isError) {
  return toolResult({textItem(std::string(text))}, isError);
}

ToolResult textPlusImageResult(std::string_view summary, std::string_view pngBase64) {
  return toolResult({textItem(std::string(summary)), pngItem(std::string(pngBase64))});
}

void setImagePayload(ToolResult& result, std::size_t index, json::Value pngBase64) {
  result.at("content").as_array().at(index).as_object()["data"] = std::move(pngBase64);
}

ToolResult jsonValueTextResult(const json::Value& value) {
  return prettyTextResult([&] { return json::toPretty(value); });
}

// What could not be written is not worth more to the assistant than this.
ToolResult encodingFailedResult() { return textResult("encoding failed", true); }

const json::Object& argsObject(const ToolArgs& args) {
  static const json::Object kEmpty;
  if (args) {
    if (const json::Object* obj = args->if_object()) {
      return *obj;
    }
  }
  return kEmpty;
}

const json::Value* argValue(const ToolArgs& args, std::string_view key) {
  return argsObject(args).if_contains(key);
}

std::optional<std::int64_t> intArg(const json::Value* value) {
  if (value == nullptr) {
    return std::nullopt;
  }
  switch (value->kind()) {
  case boost::json::kind::int64:
    return value->get_int64();
  case boost::json::kind::uint64: {
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return static_cast<std::int64_t>(std::min(value->get_uint64(), kMax));
  }
  case boost::json::kind::double_: {
    // Truncation toward zero; a value beyond the 64-bit range clamps rather than overflowing.
    const double d = std::trunc(value->get_double());
    if (d >= 9223372036854775807.0) {
      return std::numeric_limits<std::int64_t>::max();
    }
    if (d <= -9223372036854775808.0) {
      return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(d);
  }
  case boost::json::kind::bool_:
    // The host's JSON numbers carry booleans too, so true and false read as 1 and 0.
    return value->get_bool() ? 1 : 0;
  default:
    return std::nullopt;
  }
}

std::optional<double> doubleArg(const json::Value* value) {
  if (value == nullptr) {
    return std::nullopt;
  }
  switch (value->kind()) {
  case boost::json::kind::int64:
    return static_cast<double>(value->get_int64());
  case boost::json::kind::uint64:
    return static_cast<double>(value->get_uint64());
  case boost::json::kind::double_:
    return value->get_double();
  case boost::json::kind::bool_:
    return value->get_bool() ? 1.0 : 0.0;
  default:
    return std::nullopt;
  }
}

std::optional<std::string> stringArg(const json::Value* value) {
  if (value == nullptr || !value->is_string()) {
    return std::nullopt;
  }
  const json::String& s = value->get_string();
  return std::string(s.data(), s.size());
}

json::Value wholeNumbersAsIntegers(const json::Value& value) {
  switch (value.kind()) {
  case boost::json::kind::double_: {
    const double d = value.get_double();
    if (std::trunc(d) == d && d >= -0x1p63 && d < 0x1p63) {
      return json::Value(static_cast<std::int64_t>(d));
    }
    return value;
  }
  case boost::json::kind::array: {
    json::Array array;
    array.reserve(value.get_array().size());
    for (const json::Value& element : value.get_array()) {
      array.push_back(wholeNumbersAsIntegers(element));
    }
    return array;
  }
  case boost::json::kind::object: {
    json::Object object;
    object.reserve(value.get_object().size());
    for (const auto& member : value.get_object()) {
      object.emplace(member.key(), wholeNumbersAsIntegers(member.value()));
    }
    return object;
  }
  default:
    return value;
  }
}

const json::Value& idsProperty() {
  static const json::Value kIds = json::parse(R"({
    "type": "array",
    "items": {"type": "string"},
    "description": "Photo localIdentifiers (from velko_list / velko_selection)."
  })");
  return kIds;
}

namespace {

void substituteIds(json::Value& schema) {
  json::Object* obj = schema.if_object();
  if (obj == nullptr) {
    return;
  }
  if (json::Value* props = obj->if_contains("properties"); props && props->is_object()) {
    for (auto& member : props->get_object()) {
      if (const json::String* s = member.value().if_string(); s && *s == "$ids") {
        member.value() = idsProperty();
      } else {
        substituteIds(member.value());
      }
    }
  }
  if (json::Value* items = obj->if_contains("items")) {
    substituteIds(*items);
  }
}

} // namespace

json::Value parseSchema(std::string_view text) {
  json::Value schema = json::parse(text);
  substituteIds(schema);
  return schema;
}

} // namespace velko::server
