// The JSON-RPC 2.0 dialect of the IPC protocol: one compact JSON object per frame.
// The client half builds requests and reads responses; the application half reads parameters
// and builds replies that never fail to encode. Responses are parsed once and their `result`
// value is moved out, so a multi-megabyte preview reply is not copied on the way.
#pragma once

#include "protocol/IPCMethod.h"

#include "json/Codec.h"
#include "json/Errors.h"
#include "json/Value.h"
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace velko::protocol {

/// The version of the whole IPC protocol; the application reports its own in PingResult.
inline constexpr std::int64_t kIpcProtocolVersion = 1;

/// A request id: a bare JSON integer or a bare JSON string. Decoding tries the integer first;
/// 1.0, true and null are rejected.
using RPCID = std::variant<std::int64_t, std::string>;

/// The error object of a response, as received (codes are not mapped back to RPCErrorCode).
struct RPCError {
  std::int64_t code = 0;
  std::string message;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("code", &RPCError::code),
                      json::field("message", &RPCError::message)};
  }
  friend bool operator==(const RPCError&, const RPCError&) = default;
};

enum class RPCErrorCode : std::int64_t {
  ParseError = -32700,
  InvalidRequest = -32600,
  MethodNotFound = -32601,
  InvalidParams = -32602,
  InternalError = -32603,   ///< also the code of the errors this layer makes itself
  VersionConflict = -32000, ///< an edit's expectedVersion no longer matches the stack
  StoreUnavailable = -32001,
};

/// What an endpoint reads of a request before it knows the parameter type.
struct RPCEnvelope {
  std::optional<std::string> jsonrpc;
  std::string method;
  std::optional<RPCID> id;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("jsonrpc", &RPCEnvelope::jsonrpc),
                      json::field("method", &RPCEnvelope::method),
                      json::field("id", &RPCEnvelope::id)};
  }
  friend bool operator==(const RPCEnvelope&, const RPCEnvelope&) = default;
};

} // namespace velko::protocol

namespace velko::json {

template <> struct Codec<protocol::RPCID> {
  static Value encode(const protocol::RPCID& id);
  static void decode(const Value& v, protocol::RPCID& out, const Path& path);
};

template <> struct EnumValues<protocol::RPCErrorCode> {
  using C = protocol::RPCErrorCode;
  static constexpr std::array<C, 7> table = {
      C::ParseError,    C::InvalidRequest,  C::MethodNotFound,  C::InvalidParams,
      C::InternalError, C::VersionConflict, C::StoreUnavailable};
};

} // namespace velko::json

namespace velko::protocol::rpc {

/// The result of a response line: the `result` value, or the error object it carried.
template <class R> using Outcome = std::variant<R, RPCError>;

// ---- Client half ------------------------------------------------------------------------------

/// `{"jsonrpc":"2.0","id":…,"method":"…","params":…}` on one line, without a newline; the
/// `params` key is left out when `params` is absent. Throws json::EncodeError.
std::string encodeRequest(const RPCID& id, IPCMethod method,
                          const std::optional<json::Value>& params);

/// The same with a parameter record.
template <json::Record P>
std::string encodeRequest(const RPCID& id, IPCMethod method, const P& params) {
  return encodeRequest(id, method, std::optional<json::Value>(json::encode(params)));
}

/// Reads a response line. A present `error` wins over `result`; a line with neither (or a null
/// `result`) gives RPCError{-32603, "response carried neither result nor error"}. The id is not
/// checked. Throws json::DecodeError for text that is not JSON or members of the wrong shape.
Outcome<json::Value> decodeResponse(std::string_view line);

/// The same, with `result` decoded as R (decode errors name "result.…").
template <class R> Outcome<R> decodeResponse(std::string_view line);

// ---- Application half -------------------------------------------------------------------------

/// The `params` of a request line as P; absent when the key is missing or null.
/// Throws json::DecodeError.
template <class P> std::optional<P> decodeParams(std::string_view line);

/// `{"jsonrpc":"2.0","id":…,"result":…}`, the id left out when absent. Never throws: a result
/// that cannot be written becomes an InternalError reply "result encoding failed".
std::string encodeResult(const std::optional<RPCID>& id, const json::Value& result);

template <class R> std::string encodeResult(const std::optional<RPCID>& id, const R& result);

/// `{"jsonrpc":"2.0","id":…,"error":{"code":…,"message":…}}`, the id left out when absent.
/// Never throws: if it cannot be written (a message that is not UTF-8) the reply is
/// {"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"encoding failed"}}.
std::string encodeError(const std::optional<RPCID>& id, RPCErrorCode code,
                        std::string_view message);

inline constexpr std::string_view kNeitherResultNorError =
    "response carried neither result nor error";
inline constexpr std::string_view kResultEncodingFailed = "result encoding failed";
inline constexpr std::string_view kEncodingFailedReply =
    R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"encoding failed"}})";

// ---- Template definitions ---------------------------------------------------------------------

namespace detail {
/// Parses a whole line that must be a JSON object, its memory from `storage` (json::parse).
json::Object parseObject(std::string_view line, boost::json::storage_ptr storage = {});
RPCError neitherResultNorError();
} // namespace detail

template <class R> Outcome<R> decodeResponse(std::string_view line) {
  json::Object box = detail::parseObject(line, json::transientStorage());
  const json::Path root;
  // Both members are decoded before either is looked at, so a malformed one is reported even
  // when the other is fine.
  std::optional<RPCError> error;
  if (const json::Value* e = box.if_contains("error")) {
    json::decode(*e, error, root.key("error"));
  }
  std::optional<R> result;
  if (const json::Value* r = box.if_contains("result")) {
    json::decode(*r, result, root.key("result"));
  }
  if (error) {
    return std::move(*error);
  }
  if (result) {
    return std::move(*result);
  }
  return detail::neitherResultNorError();
}

template <class P> std::optional<P> decodeParams(std::string_view line) {
  json::Object box = detail::parseObject(line, json::transientStorage());
  std::optional<P> params;
  if (const json::Value* p = box.if_contains("params")) {
    json::decode(*p, params, json::Path().key("params"));
  }
  return params;
}

template <class R> std::string encodeResult(const std::optional<RPCID>& id, const R& result) {
  json::Value encoded;
  try {
    encoded = json::encode(result);
  } catch (const json::EncodeError&) {
    return encodeError(id, RPCErrorCode::InternalError, kResultEncodingFailed);
  }
  return encodeResult(id, encoded);
}

} // namespace velko::protocol::rpc
