// Decodes the input as an IPC response line, untyped and into typed result records, and writes
// the result again. Text that is not a response may only raise json::DecodeError, and the writer
// may refuse a number it cannot express; anything else escaping is a finding.
#include "FuzzCheck.h"
#include "json/Errors.h"
#include "json/Writer.h"
#include "protocol/EditingRecords.h"
#include "protocol/LibraryRecords.h"
#include "protocol/PingResult.h"
#include "protocol/Rpc.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>

namespace rpc = velko::protocol::rpc;
namespace json = velko::json;

namespace {

template <class R> void decodeTyped(std::string_view line) {
  try {
    rpc::Outcome<R> outcome = rpc::decodeResponse<R>(line);
    if (const R* result = std::get_if<R>(&outcome)) {
      (void)json::toCompact(json::encode(*result));
    }
  } catch (const json::DecodeError&) {
  } catch (const json::EncodeError&) {
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view line = velko::fuzz::asText(data, size);
  try {
    rpc::Outcome<json::Value> outcome = rpc::decodeResponse(line);
    if (const json::Value* result = std::get_if<json::Value>(&outcome)) {
      (void)json::toCompact(*result);
    }
  } catch (const json::DecodeError&) {
  } catch (const json::EncodeError&) { // a number the writer cannot express (1e400)
  }
  decodeTyped<velko::protocol::PingResult>(line);
  decodeTyped<velko::protocol::ListResult>(line);
  decodeTyped<velko::protocol::GetResult>(line);
  decodeTyped<velko::protocol::QueryResult>(line);
  decodeTyped<velko::protocol::EditGetResult>(line);
  decodeTyped<velko::protocol::EditSetResult>(line);
  return 0;
}
