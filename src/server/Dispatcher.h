// The MCP request dispatcher: routes one parsed message by its `method` and builds at most one
// reply. It does no I/O and keeps no state between messages, so "initialize" may come any number
// of times and tools may be listed or called before it. Tool failures become results with
// isError true; the only JSON-RPC errors are -32601 (unknown method, only for a message with an
// `id`) and -32602 (unknown tool or prompt).
#pragma once

#include "ipc/Caller.h"
#include "json/Value.h"

#include <optional>
#include <string_view>

namespace velko::server {

inline constexpr std::int64_t kMethodNotFound = -32601;
inline constexpr std::int64_t kInvalidParams = -32602;

class Dispatcher {
public:
  /// Tool handlers reach the application through `caller`, which must outlive the dispatcher.
  explicit Dispatcher(ipc::Caller& caller) : caller_(caller) {}

  /// The reply to one message, or none: a message that is not an object, has no string
  /// `method`, is a notification the server ignores or an unknown method without an `id`.
  std::optional<json::Value> handle(const json::Value& message);

  /// The reply to one input line without its terminator, or none: empty, unparsable and
  /// non-object lines are dropped silently, as are the messages `handle` drops.
  std::optional<json::Value> handleLine(std::string_view line);

private:
  json::Value handleToolCall(const json::Value& id, const json::Object& params);
  json::Value handlePromptGet(const json::Value& id, const json::Object& params);

  ipc::Caller& caller_;
};

} // namespace velko::server
