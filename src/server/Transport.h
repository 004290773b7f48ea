// The MCP stdio transport: one JSON-RPC message per line in each direction, diagnostics on a
// separate log stream. Reading strips the line terminator and nothing else; writing sends one
// compact line whole and flushes it, so the host never sees half a message. Standard output
// carries protocol lines only.
#pragma once

#include "json/Value.h"

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace velko::server {

/// Reads the next line of `in` into `line` without its "\n" or "\r\n". A final line without a
/// terminator still counts. Returns false at end of input. Line length is not limited.
bool readLine(std::istream& in, std::string& line);

/// Parses one input line as an MCP message: absent for text that is not JSON or whose top level
/// is not an object. Invalid UTF-8 is repaired with U+FFFD before parsing, as the host's own
/// libraries would do.
std::optional<json::Object> parseMessage(std::string_view line);

/// {"jsonrpc":"2.0","id":id,"result":result}
json::Value resultMessage(const json::Value& id, json::Object result);

/// {"jsonrpc":"2.0","id":id,"error":{"code":code,"message":message}}; never a `data` member.
json::Value errorMessage(const json::Value& id, std::int64_t code, std::string_view message);

/// The writing half, bound to the protocol stream and the log stream. No method throws on
/// account of the message; failed writes to the streams are not handled.
class Transport {
public:
  Transport(std::ostream& out, std::ostream& log) : out_(out), log_(log) {}

  /// "velko-mcp: " + message + "\n" to the log, in a single write.
  void logErr(std::string_view message);

  /// The compact form of `message` and one line feed, written whole and flushed. A message that
  /// cannot be encoded (a non-finite number, a string that is not UTF-8) is dropped with the log
  /// line "FATAL: unencodable outgoing message"; nothing reaches the protocol stream.
  void sendMessage(const json::Value& message);

  void sendResult(const json::Value& id, json::Object result) {
    sendMessage(resultMessage(id, std::move(result)));
  }
  void sendError(const json::Value& id, std::int64_t code, std::string_view message) {
    sendMessage(errorMessage(id, code, message));
  }

private:
  std::ostream& out_;
  std::ostream& log_;
  std::string buffer_; ///< reused between messages: a preview reply runs to megabytes
};

} // namespace velko::server
