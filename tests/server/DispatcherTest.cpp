#include "server/Dispatcher.h"

#include "json/Writer.h"
#include "server/RecordingCaller.h"
#include "server/Tool.h"
#include "server/Transport.h"

#include <gtest/gtest.h>
#include <cstring>
#include <iomanip>
#include <random>
#include <sstream>

namespace velko::server {
namespace {

using testing::RecordingCaller;

std::optional<std::string> reply(Dispatcher& dispatcher, std::string_view line) {
  const std::optional<json::Value> out = dispatcher.handleLine(line);
  return out ? std::optional(json::toCompact(*out)) : std::nullopt;
}

// Numbers in tool arguments reach the application exactly as sent: the shortest text that
// reads back as the same double must be read back as that double, never one unit off.
TEST(Dispatcher, DoublesInToolArgumentsReachTheRequestBitForBit) {
  std::mt19937_64 random(17);
  std::uniform_real_distribution<double> latitude(-90, 90), longitude(-180, 180), radius(1, 2e7);
  RecordingCaller caller;
  Dispatcher dispatcher(caller);
  int wrong = 0;
  for (int i = 0; i < 10'000 / 3 + 1; ++i) {
    const double sent[3] = {latitude(random), longitude(random), radius(random)};
    char line[256];
    std::snprintf(line, sizeof line,
                  R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"velko_query",)"
                  R"("arguments":{"latitude":%.17g,"longitude":%.17g,"radiusMeters":%.17g}}})",
                  sent[0], sent[1], sent[2]);
    caller.answer(R"({"ids":[],"count":0,"sample":[]})");
    ASSERT_TRUE(dispatcher.handleLine(line));
    const json::Value& params = *caller.requests.back().params;
    const char* keys[3] = {"latitude", "longitude", "radiusMeters"};
    for (int k = 0; k < 3; ++k) {
      const double got = params.at(keys[k]).to_number<double>();
      if (std::memcmp(&got, &sent[k], sizeof got) != 0 && ++wrong <= 5) {
        ADD_FAILURE() << std::setprecision(17) << keys[k] << " sent " << sent[k] << ", got " << got;
      }
    }
    // And the frame written to the application carries the same numbers.
    EXPECT_EQ(json::parse(json::toCompact(params)), params);
  }
  EXPECT_EQ(wrong, 0);
}

// Lines that are not requests and the common exchanges are in the binary's host session
// (BinaryTest); these are the corners.
TEST(Dispatcher, AnswersEachLineAsTheProtocolSays) {
  struct Case {
    const char* name;
    const char* line;
    std::optional<std::string> expected;
  } cases[] = {
      {"method not a string", R"({"id":1,"method":3})", std::nullopt},
      {"ping without id is answered with null", R"({"jsonrpc":"2.0","method":"ping"})",
       R"({"jsonrpc":"2.0","id":null,"result":{}})"},
      {"object id", R"({"id":{"k":[1]},"method":"ping"})",
       R"({"jsonrpc":"2.0","id":{"k":[1]},"result":{}})"},
      {"initialize ignores the asked version",
       R"({"id":0,"method":"initialize","params":{"protocolVersion":"2099-01-01"}})",
       R"({"jsonrpc":"2.0","id":0,"result":{"protocolVersion":"2024-11-05","capabilities":)"
       R"({"tools":{},"prompts":{}},"serverInfo":{"name":"velko-mcp","version":"0.1.0"}}})"},
      {"cancelled notification with id", R"({"id":3,"method":"notifications/cancelled"})",
       std::nullopt},
      {"unknown method", R"({"jsonrpc":"2.0","id":5,"method":"foo"})",
       R"({"jsonrpc":"2.0","id":5,"error":{"code":-32601,"message":"method not supported: foo"}})"},
      {"unknown notification", R"({"method":"foo"})", std::nullopt},
      {"tools/call with params not an object", R"({"id":1,"method":"tools/call","params":[1]})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown tool ?"}})"},
      {"tools/call with an object name",
       R"({"id":1,"method":"tools/call","params":{"name":{"a":[true]}}})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown tool {\"a\":[true]}"}})"},
      {"prompts/get with a number name", R"({"id":1,"method":"prompts/get","params":{"name":1}})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown prompt ?"}})"},
  };
  RecordingCaller caller;
  Dispatcher dispatcher(caller);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(reply(dispatcher, c.line), c.expected);
  }
  EXPECT_TRUE(caller.requests.empty());
}

TEST(Dispatcher, ToolFailuresBecomeErrorResults) {
  struct Case {
    const char* name;
    std::function<void(RecordingCaller&)> script;
    std::string text;
  } cases[] = {
      {"reply that does not decode shows the decoder's text",
       [](RecordingCaller& c) { c.answer(R"({"appVersion":"2"})"); },
       "result.buildStamp: missing required key"},
      {"tool error shows the generic sentence",
       [](RecordingCaller& c) { c.fail(ToolError("id is required")); },
       "The operation couldn\u2019t be completed. (velko_mcp.ToolError error 1.)"},
      {"platform error keeps its text",
       [](RecordingCaller& c) { c.fail(std::runtime_error("No such file or directory")); },
       "No such file or directory"},
      {"something that is no exception", [](RecordingCaller& c) { c.fail(42); },
       "The operation couldn\u2019t be completed."},
      {"application of another protocol version",
       [](RecordingCaller& c) {
         c.answer(R"({"appVersion":"2","buildStamp":"b","protocolVersion":2,)"
                  R"("libraryAuthorized":true,"photoCount":1})");
       },
       "protocol mismatch: app speaks v2, this tool speaks v1 \u2014 update the older side"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingCaller caller;
    c.script(caller);
    Dispatcher dispatcher(caller);
    EXPECT_EQ(reply(dispatcher,
                    R"({"id":9,"method":"tools/call","params":{"name":"velko_ping"}})"),
              R"({"jsonrpc":"2.0","id":9,"result":{"content":[{"type":"text","text":")" +
                  c.text + R"("}],"isError":true}})");
  }
}

TEST(Transport, ReadLineStripsOnlyTheTerminator) {
  const std::string big(3'000'000, 'x');
  struct Case {
    const char* name;
    std::string input;
    std::vector<std::string> lines;
  } cases[] = {
      {"carriage return plus line feed", "a\r\nb\r\n", {"a", "b"}},
      {"final line without terminator", "a\nb", {"a", "b"}},
      {"empty lines are delivered", "\n\r\nx\n", {"", "", "x"}},
      {"inner carriage return kept", "a\rb\n", {"a\rb"}},
      {"only the last carriage return goes", "a\r\r\n", {"a\r"}},
      {"lone carriage return at end of input kept", "a\r", {"a\r"}},
      {"no length limit", big + "\r\n" + big, {big, big}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::istringstream in(c.input);
    std::vector<std::string> lines;
    for (std::string line; readLine(in, line);) {
      lines.push_back(line);
    }
    EXPECT_EQ(lines, c.lines);
  }
}

TEST(Transport, ParseMessageKeepsOnlyObjects) {
  EXPECT_TRUE(parseMessage(" {} "));
  const std::string deep = "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}";
  EXPECT_TRUE(parseMessage(deep));
  for (const char* line : {"[{\"id\":1}]", "5", "null", "{", "   ", "{\"a\":1}x"}) {
    SCOPED_TRACE(line);
    EXPECT_FALSE(parseMessage(line));
  }
  // Invalid UTF-8 is repaired, not refused.
  std::optional<json::Object> m = parseMessage("{\"method\":\"a\xFFz\"}");
  ASSERT_TRUE(m);
  EXPECT_EQ(m->at("method"), "a\xEF\xBF\xBDz");
}

TEST(Transport, UnencodableMessageIsLoggedAndDropped) {
  std::ostringstream out, log;
  Transport transport(out, log);
  json::Object result;
  result.emplace("value", json::Value("\xC3\x28")); // invalid UTF-8
  transport.sendResult(json::Value(1), result);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(log.str(), "velko-mcp: FATAL: unencodable outgoing message\n");
  transport.sendResult(json::Value(2), json::Object());
  EXPECT_EQ(out.str(), "{\"jsonrpc\":\"2.0\",\"id\":2,\"result\":{}}\n");
}

} // namespace
} // namespace velko::server
