#include "protocol/Rpc.h"

#include "json/Errors.h"
#include "json/Writer.h"
#include <utility>

namespace velko::json {

Value Codec<protocol::RPCID>::encode(const protocol::RPCID& id) {
  if (const std::int64_t* n = std::get_if<std::int64_t>(&id)) {
    return Value(*n);
  }
  return Value(std::string_view(std::get<std::string>(id)));
}

void Codec<protocol::RPCID>::decode(const Value& v, protocol::RPCID& out, const Path& path) {
  std::int64_t number = 0;
  try {
    Codec<std::int64_t>::decode(v, number, path);
    out = number;
    return;
  } catch (const DecodeError&) {
    // Not an integer: the string reading decides, and its error is the one reported.
  }
  std::string text;
  Codec<std::string>::decode(v, text, path);
  out = std::move(text);
}

} // namespace velko::json

namespace velko::protocol::rpc {
namespace {

constexpr std::string_view kVersionMember = R"({"jsonrpc":"2.0")";

/// Appends `,"id":<id>` when there is an id.
void writeId(const std::optional<RPCID>& id, std::string& out) {
  if (id) {
    out += R"(,"id":)";
    json::writeCompact(json::encode(*id), out);
  }
}

} // namespace

namespace detail {

json::Object parseObject(std::string_view line, boost::json::storage_ptr storage) {
  json::Value v = json::parse(line, std::move(storage));
  if (!v.is_object()) {
    json::failExpected(v, "an object", json::Path());
  }
  return std::move(v.get_object());
}

RPCError neitherResultNorError() {
  return RPCError{static_cast<std::int64_t>(RPCErrorCode::InternalError),
                  std::string(kNeitherResultNorError)};
}

} // namespace detail

std::string encodeRequest(const RPCID& id, IPCMethod method,
                          const std::optional<json::Value>& params) {
  // Written member by member so that a large params value is serialised straight into the line.
  std::string out(kVersionMember);
  writeId(id, out);
  out += R"(,"method":)";
  json::writeCompact(json::Value(rawValue(method)), out);
  if (params) {
    out += R"(,"params":)";
    json::writeCompact(*params, out);
  }
  out += '}';
  return out;
}

Outcome<json::Value> decodeResponse(std::string_view line) {
  // A reply is decoded into records and dropped, so its value lives in one arena; except a
  // large one, which is mostly one payload string that its handler moves on whole (a value
  // moves without copying only between values of the same storage).
  constexpr std::size_t kLargeReply = 1 << 20;
  json::Object box = detail::parseObject(
      line, line.size() < kLargeReply ? json::transientStorage() : boost::json::storage_ptr());
  if (const json::Value* e = box.if_contains("error"); e != nullptr && !e->is_null()) {
    return json::decodeAs<RPCError>(*e, json::Path().key("error"));
  }
  if (json::Value* r = box.if_contains("result"); r != nullptr && !r->is_null()) {
    return std::move(*r);
  }
  return detail::neitherResultNorError();
}

std::string encodeResult(const std::optional<RPCID>& id, const json::Value& result) {
  try {
    std::string out(kVersionMember);
    writeId(id, out);
    out += R"(,"result":)";
    json::writeCompact(result, out);
    out += '}';
    return out;
  } catch (const json::EncodeError&) {
    return encodeError(id, RPCErrorCode::InternalError, kResultEncodingFailed);
  }
}

std::string encodeError(const std::optional<RPCID>& id, RPCErrorCode code,
                        std::string_view message) {
  try {
    std::string out(kVersionMember);
    writeId(id, out);
    out += R"(,"error":)";
    json::writeCompact(
        json::encode(RPCError{static_cast<std::int64_t>(code), std::string(message)}), out);
    out += '}';
    return out;
  } catch (const json::EncodeError&) {
    return std::string(kEncodingFailedReply);
  }
}

} // namespace velko::protocol::rpc
