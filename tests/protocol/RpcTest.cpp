#include "protocol/Rpc.h"

#include "json/Errors.h"
#include "json/Writer.h"
#include "protocol/LibraryRecords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velko::protocol::rpc {
namespace {

// The client's tests and the server's binary test read plain results and errors; these are the
// replies that are neither.
TEST(Rpc, DecodesResponseOutcomes) {
  struct Case {
    const char* name;
    const char* line;
    Outcome<json::Value> outcome;
  } cases[] = {
      {"error wins over result",
       R"({"id":1,"result":{"updated":1,"skipped":[]},"error":{"code":-32001,"message":"x"}})",
       RPCError{-32001, "x"}},
      {"neither", R"({"jsonrpc":"2.0","id":1})",
       RPCError{-32603, "response carried neither result nor error"}},
      {"other id accepted", R"({"jsonrpc":"2.0","id":"zz","result":[]})",
       json::Value(json::Array{})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(decodeResponse(c.line), c.outcome);
  }
  // Only the response fuzzer reads typed results.
  EXPECT_EQ(std::get<UpdatedResult>(decodeResponse<UpdatedResult>(
                R"({"id":1,"result":{"updated":1,"skipped":["a"]}})")),
            (UpdatedResult{1, {"a"}}));
}

TEST(Rpc, IdsDecodeIntegerFirstThenString) {
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse("7")), RPCID(std::int64_t{7}));
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse(R"("7")")), RPCID(std::string("7")));
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse(R"("abc")")), RPCID(std::string("abc")));
  // The string attempt's error is the one reported.
  EXPECT_THAT([] { json::decodeAs<RPCID>(json::parse("1.0"), json::Path("id")); },
              ::testing::ThrowsMessage<json::DecodeError>(
                  ::testing::HasSubstr("id: expected a string")));
}

TEST(Rpc, ApplicationHalfReadsParamsAndWritesReplies) {
  EXPECT_EQ(
      decodeParams<RateParams>(
          R"({"jsonrpc":"2.0","id":1,"method":"photo.rate","params":{"ids":["a"],"rating":2}})"),
      (RateParams{{"a"}, 2}));
  EXPECT_EQ(decodeParams<RateParams>(R"({"id":1,"method":"x","params":null})"), std::nullopt);
  // The application's tests read its replies to numbered requests.
  EXPECT_EQ(encodeResult(std::nullopt, json::Value(true)), R"({"jsonrpc":"2.0","result":true})");
  EXPECT_EQ(encodeError(RPCID(std::string("q")), RPCErrorCode::MethodNotFound, "no such method"),
            R"({"jsonrpc":"2.0","id":"q","error":{"code":-32601,"message":"no such method"}})");
}

TEST(Rpc, ReplyEncodersFallBackInsteadOfFailing) {
  // A non-finite number cannot be written as JSON.
  json::Value nan(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(
      encodeResult(RPCID(std::int64_t{1}), nan),
      R"({"jsonrpc":"2.0","id":1,"error":{"code":-32603,"message":"result encoding failed"}})");
  // Neither can a message that is not UTF-8; the fallback writes the id as null.
  EXPECT_EQ(encodeError(RPCID(std::int64_t{1}), RPCErrorCode::InternalError, "bad \xff byte"),
            R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"encoding failed"}})");
}

} // namespace
} // namespace velko::protocol::rpc
