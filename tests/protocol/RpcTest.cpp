#include "protocol/Rpc.h"

#include "json/Errors.h"
#include "json/Writer.h"
#include "protocol/LibraryRecords.h"

#include <gtest/gtest.h>

namespace velko::protocol::rpc {
namespace {

TEST(Rpc, DecodesResponseOutcomes) {
  struct Case {
    const char* name;
    const char* line;
    std::optional<UpdatedResult> result;
    std::optional<RPCError> error;
  } cases[] = {
      {"success", R"({"jsonrpc":"2.0","id":1,"result":{"updated":1,"skipped":[]}})",
       UpdatedResult{1, {}}, std::nullopt},
      {"error", R"({"jsonrpc":"2.0","id":1,"error":{"code":-32000,"message":"stale"}})",
       std::nullopt, RPCError{-32000, "stale"}},
      {"error wins over result",
       R"({"id":1,"result":{"updated":1,"skipped":[]},"error":{"code":-32001,"message":"x"}})",
       std::nullopt, RPCError{-32001, "x"}},
      {"neither", R"({"jsonrpc":"2.0","id":1})", std::nullopt,
       RPCError{-32603, "response carried neither result nor error"}},
      {"null result", R"({"jsonrpc":"2.0","id":1,"result":null})", std::nullopt,
       RPCError{-32603, "response carried neither result nor error"}},
      {"other id accepted", R"({"jsonrpc":"2.0","id":"zz","result":{"updated":0,"skipped":["a"]}})",
       UpdatedResult{0, {"a"}}, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Outcome<UpdatedResult> typed = decodeResponse<UpdatedResult>(c.line);
    Outcome<json::Value> untyped = decodeResponse(c.line);
    if (c.result) {
      ASSERT_TRUE(std::holds_alternative<UpdatedResult>(typed));
      EXPECT_EQ(std::get<UpdatedResult>(typed), *c.result);
      ASSERT_TRUE(std::holds_alternative<json::Value>(untyped));
      EXPECT_EQ(std::get<json::Value>(untyped), json::encode(*c.result));
    } else {
      ASSERT_TRUE(std::holds_alternative<RPCError>(typed));
      EXPECT_EQ(std::get<RPCError>(typed), *c.error);
      ASSERT_TRUE(std::holds_alternative<RPCError>(untyped));
      EXPECT_EQ(std::get<RPCError>(untyped), *c.error);
    }
  }
}

TEST(Rpc, IdsDecodeIntegerFirstThenString) {
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse("7")), RPCID(std::int64_t{7}));
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse(R"("7")")), RPCID(std::string("7")));
  EXPECT_EQ(json::decodeAs<RPCID>(json::parse(R"("abc")")), RPCID(std::string("abc")));
  for (const char* bad : {"1.0", "true", "[]"}) {
    SCOPED_TRACE(bad);
    try {
      json::decodeAs<RPCID>(json::parse(bad), json::Path("id"));
      ADD_FAILURE() << "accepted";
    } catch (const json::DecodeError& e) {
      // The string attempt's error is the one reported.
      EXPECT_NE(std::string(e.what()).find("id: expected a string"), std::string::npos) << e.what();
    }
  }
}

TEST(Rpc, EnvelopeMatchesItsLiteralAndUnknownCodesAreRefused) {
  auto envelope = json::decodeAs<RPCEnvelope>(
      json::parse(R"({"jsonrpc":"2.0","method":"edit.set","id":"r1","params":{}})"));
  EXPECT_EQ(envelope, (RPCEnvelope{"2.0", "edit.set", RPCID(std::string("r1"))}));
  EXPECT_EQ(json::toCompact(json::encode(envelope)),
            R"({"jsonrpc":"2.0","method":"edit.set","id":"r1"})");
  EXPECT_THROW(json::decodeAs<RPCEnvelope>(json::parse(R"({"id":1})")), json::DecodeError);
  EXPECT_THROW(json::decodeAs<RPCErrorCode>(json::parse("-32002")), json::DecodeError);
}

TEST(Rpc, ApplicationHalfReadsParamsAndWritesReplies) {
  EXPECT_EQ(
      decodeParams<RateParams>(
          R"({"jsonrpc":"2.0","id":1,"method":"photo.rate","params":{"ids":["a"],"rating":2}})"),
      (RateParams{{"a"}, 2}));
  EXPECT_EQ(decodeParams<RateParams>(R"({"id":1,"method":"system.ping"})"), std::nullopt);
  EXPECT_EQ(decodeParams<RateParams>(R"({"id":1,"method":"x","params":null})"), std::nullopt);
  EXPECT_THROW(decodeParams<RateParams>(R"({"params":{"ids":[]}})"), json::DecodeError);

  EXPECT_EQ(encodeResult(RPCID(std::int64_t{3}), UpdatedResult{1, {}}),
            R"({"jsonrpc":"2.0","id":3,"result":{"updated":1,"skipped":[]}})");
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
