// What every tool handler shares: the MCP tool-result builders, the numeric and string argument
// readers, the `ids` schema fragment, schema parsing and the two generic handlers (`direct`:
// arguments decoded straight into a params record; `noParams`: no parameters). Area files
// include this header and append their rows, naming a generic handler or one of their own.
#pragma once

#include "ipc/Caller.h"
#include "json/Codec.h"
#include "json/Path.h"
#include "json/RecordText.h"
#include "json/Value.h"
#include "protocol/IPCMethod.h"
#include "server/Tool.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace velko::server {

// ---- Tool results ---------------------------------------------------------------------------

/// {"content":[{"type":"text","text":text}],"isError":isError}
ToolResult textResult(std::string_view text, bool isError);

/// One item of a tool result's content: a text, or a PNG image in base64.
struct ContentItem {
  std::string type;                    ///< "text" or "image"
  std::optional<std::string> text;     ///< a text item's text
  std::optional<std::string> data;     ///< an image item's PNG, base64
  std::optional<std::string> mimeType; ///< "image/png" for an image

  static constexpr auto jsonFields() {
    return std::tuple{json::field("type", &ContentItem::type),
                      json::field("text", &ContentItem::text),
                      json::field("data", &ContentItem::data),
                      json::field("mimeType", &ContentItem::mimeType)};
  }
};

ContentItem textItem(std::string text);
ContentItem pngItem(std::string pngBase64);

/// A tool's result: its content items, in order, and whether the call failed.
struct ContentResult {
  std::vector<ContentItem> content;
  bool isError = false;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("content", &ContentResult::content),
                      json::field("isError", &ContentResult::isError)};
  }
};

/// The result made of `items`.
ToolResult toolResult(std::vector<ContentItem> items, bool isError = false);

/// A text item followed by a PNG image item; `pngBase64` is passed through unchecked.
ToolResult textPlusImageResult(std::string_view summary, std::string_view pngBase64);

/// A typed call whose reply carries one large string member `key`, an image's base64: the
/// member is moved out of the reply instead of copied (the record receives it empty) and
/// returned beside the record, for setImagePayload. Replies without such a string decode as
/// ipc::call would, with the same errors.
template <class R, class P>
std::pair<R, json::Value> callTakingPayload(ipc::Caller& caller, protocol::IPCMethod method,
                                            const P& params, std::string_view key) {
  json::Value result = caller.call(method, json::encode(params));
  json::Value payload;
  if (json::Object* obj = result.if_object()) {
    if (json::Value* member = obj->if_contains(key); member != nullptr && member->is_string()) {
      payload = std::move(*member);
      *member = json::String();
    }
  }
  R record = json::decodeAs<R>(result, json::Path("result"));
  return {std::move(record), std::move(payload)};
}

/// Puts `pngBase64` (a string value from callTakingPayload) into the image item at `index` of
/// `result`'s content, without copying it.
void setImagePayload(ToolResult& result, std::size_t index, json::Value pngBase64);

/// The pretty, key-sorted text of `value` as a text result; "encoding failed" (isError true)
/// when the value holds a non-finite number or a string that is not UTF-8. Never throws.
ToolResult jsonValueTextResult(const json::Value& value);

/// "encoding failed" (isError true): what a text result says when its JSON cannot be written.
ToolResult encodingFailedResult();

/// The text `write()` returns as a text result, or encodingFailedResult() when it throws
/// json::EncodeError.
template <class F> ToolResult prettyTextResult(F&& write) {
  std::string text;
  try {
    text = write();
  } catch (const json::EncodeError&) {
    return encodingFailedResult();
  }
  return toolResult({textItem(std::move(text))});
}

/// A reply record (or a JSON value) shown to the assistant as pretty, key-sorted JSON text.
template <class T> ToolResult jsonTextResult(const T& record) {
  if constexpr (std::is_same_v<T, json::Object>) {
    return jsonValueTextResult(json::Value(record));
  } else {
    return prettyTextResult([&] { return json::toPrettyText(record); });
  }
}

// ---- Arguments ------------------------------------------------------------------------------

/// The arguments as an object: an empty object when absent or not an object. For handlers that
/// read single keys; the direct-decoding form reports a non-object instead.
const json::Object& argsObject(const ToolArgs& args);

/// The member `key` of the arguments object, or null when there is none.
const json::Value* argValue(const ToolArgs& args, std::string_view key);

/// A JSON number (true and false read as 1 and 0) as an integer, a fraction truncated toward
/// zero and values beyond the range clamped; absent for anything else, digit strings included.
std::optional<std::int64_t> intArg(const json::Value* value);
inline std::optional<std::int64_t> intArg(const ToolArgs& args, std::string_view key) {
  return intArg(argValue(args, key));
}

/// A JSON number (or boolean, as 1 and 0) as a double; absent for anything else.
std::optional<double> doubleArg(const json::Value* value);
inline std::optional<double> doubleArg(const ToolArgs& args, std::string_view key) {
  return doubleArg(argValue(args, key));
}

/// A JSON string; absent for anything else.
std::optional<std::string> stringArg(const json::Value* value);
inline std::optional<std::string> stringArg(const ToolArgs& args, std::string_view key) {
  return stringArg(argValue(args, key));
}

/// `value` with every number that has a whole value, within the 64-bit range, held as an
/// integer: 4.0 and 1e2 become 4 and 100, as a JSON writer prints them. Arguments pass through
/// this before they are decoded as a record, so an integer field accepts 4.0 and refuses 4.5.
json::Value wholeNumbersAsIntegers(const json::Value& value);

/// Decodes the arguments (an empty object when absent) as the params record P. A mismatch
/// throws json::DecodeError naming the key path from "arguments", e.g. "arguments.id: …".
template <class P> P decodeArguments(const ToolArgs& args) {
  const json::Path root("arguments");
  if (!args) {
    return json::decodeAs<P>(json::Value(json::Object()), root);
  }
  return json::decodeAs<P>(wholeNumbersAsIntegers(*args), root);
}

// ---- Schemas --------------------------------------------------------------------------------

/// The shared schema of the `ids` property: an array of photo localIdentifier strings.
const json::Value& idsProperty();

/// Parses a schema literal. A property written as the string "$ids" is replaced by
/// idsProperty(), so schemas list `ids` in its place without repeating the fragment.
/// Throws json::DecodeError for text that is not JSON (a bug the tool table test catches).
json::Value parseSchema(std::string_view text);

// ---- Handler forms --------------------------------------------------------------------------

/// The handler of a tool whose arguments decode straight into P, sent as `method`, answered
/// with R and shown with jsonTextResult.
template <class P, class R, protocol::IPCMethod method>
ToolResult direct(const ToolArgs& args, ipc::Caller& caller) {
  const P params = decodeArguments<P>(args);
  return jsonTextResult(ipc::call<R>(caller, method, params));
}

/// The handler of a tool that reads no arguments and sends `method` without parameters.
template <class R, protocol::IPCMethod method>
ToolResult noParams(const ToolArgs&, ipc::Caller& caller) {
  return jsonTextResult(ipc::call<R>(caller, method));
}

} // namespace velko::server
