#include "server/Dispatcher.h"

#include "core/EditPatch.h"
#include "ipc/IPCClient.h"
#include "json/Errors.h"
#include "json/Writer.h"
#include "protocol/FrameCodec.h"
#include "server/RecordingCaller.h"
#include "server/Server.h"
#include "server/Tool.h"

#include <gtest/gtest.h>
#include <cstring>
#include <iomanip>
#include <random>
#include <sstream>

namespace velko::server {
namespace {

using testing::RecordingCaller;

constexpr const char* kPingReply =
    R"({"appVersion":"2.1","buildStamp":"b7","protocolVersion":1,"libraryAuthorized":true,"photoCount":12})";

std::optional<std::string> reply(Dispatcher& dispatcher, std::string_view line) {
  std::optional<json::Value> out = dispatcher.handleLine(line);
  if (!out) {
    return std::nullopt;
  }
  return json::toCompact(*out);
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
    const json::Value frame = json::parse(json::toCompact(params));
    EXPECT_EQ(frame, params);
  }
  EXPECT_EQ(wrong, 0);
}

TEST(Dispatcher, AnswersEachLineAsTheProtocolSays) {
  struct Case {
    const char* name;
    const char* line;
    std::optional<std::string> expected;
  } cases[] = {
      {"empty line", "", std::nullopt},
      {"not JSON", "{\"jsonrpc\":", std::nullopt},
      {"batch", R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", std::nullopt},
      {"method not a string", R"({"id":1,"method":3})", std::nullopt},
      {"ping", R"({"jsonrpc":"2.0","id":1,"method":"ping"})",
       R"({"jsonrpc":"2.0","id":1,"result":{}})"},
      {"ping without id is answered with null", R"({"jsonrpc":"2.0","method":"ping"})",
       R"({"jsonrpc":"2.0","id":null,"result":{}})"},
      {"object id", R"({"id":{"k":[1]},"method":"ping"})",
       R"({"jsonrpc":"2.0","id":{"k":[1]},"result":{}})"},
      {"initialize ignores the asked version",
       R"({"id":0,"method":"initialize","params":{"protocolVersion":"2099-01-01"}})",
       R"({"jsonrpc":"2.0","id":0,"result":{"protocolVersion":"2024-11-05","capabilities":)"
       R"({"tools":{},"prompts":{}},"serverInfo":{"name":"velko-mcp","version":"0.1.0"}}})"},
      {"initialized notification", R"({"method":"notifications/initialized"})", std::nullopt},
      {"cancelled notification with id", R"({"id":3,"method":"notifications/cancelled"})",
       std::nullopt},
      {"unknown method", R"({"jsonrpc":"2.0","id":5,"method":"foo"})",
       R"({"jsonrpc":"2.0","id":5,"error":{"code":-32601,"message":"method not supported: foo"}})"},
      {"unknown notification", R"({"method":"foo"})", std::nullopt},
      {"tools/call with params not an object", R"({"id":1,"method":"tools/call","params":[1]})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown tool ?"}})"},
      {"tools/call with a fractional name",
       R"({"id":1,"method":"tools/call","params":{"name":7.25}})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown tool 7.25"}})"},
      {"tools/call with an object name",
       R"({"id":1,"method":"tools/call","params":{"name":{"a":[true]}}})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown tool {\"a\":[true]}"}})"},
      {"tools/call of an unknown tool, no id",
       R"({"method":"tools/call","params":{"name":"velko_nope"}})",
       R"({"jsonrpc":"2.0","id":null,"error":{"code":-32602,"message":"unknown tool velko_nope"}})"},
      {"prompts/get with a number name", R"({"id":1,"method":"prompts/get","params":{"name":1}})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown prompt ?"}})"},
      {"prompts/get is case-sensitive",
       R"({"id":1,"method":"prompts/get","params":{"name":"velko_Cull"}})",
       R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"unknown prompt velko_Cull"}})"},
  };
  RecordingCaller caller;
  Dispatcher dispatcher(caller);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(reply(dispatcher, c.line), c.expected);
  }
  EXPECT_TRUE(caller.requests.empty());
}

TEST(Dispatcher, ListsToolsAndPromptsBeforeInitialize) {
  RecordingCaller caller;
  Dispatcher dispatcher(caller);
  std::optional<json::Value> tools =
      dispatcher.handleLine(R"({"id":1,"method":"tools/list","params":{"cursor":"x"}})");
  ASSERT_TRUE(tools);
  const json::Object& result = tools->at("result").as_object();
  EXPECT_EQ(result.size(), 1u); // no nextCursor
  const json::Array& list = result.at("tools").as_array();
  ASSERT_EQ(list.size(), 50u);
  EXPECT_EQ(list.front().at("name"), "velko_ping");
  EXPECT_EQ(list.front().as_object().size(), 3u);
  EXPECT_EQ(json::toCompact(list.front().at("inputSchema")),
            R"({"type":"object","properties":{}})");

  std::optional<json::Value> prompts = dispatcher.handleLine(R"({"id":2,"method":"prompts/list"})");
  ASSERT_TRUE(prompts);
  const json::Array& entries = prompts->at("result").at("prompts").as_array();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].at("name"), "velko_edit");
  EXPECT_EQ(entries[1].at("name"), "velko_cull");
  EXPECT_EQ(entries[2].at("name"), "velko_describe");
}

TEST(Dispatcher, ToolFailuresBecomeErrorResults) {
  struct Case {
    const char* name;
    std::function<void(RecordingCaller&)> script;
    std::string text;
  } cases[] = {
      {"client error shows its own text",
       [](RecordingCaller& c) { c.fail(ipc::ClientError::appNotRunning("/h/.velko/ipc.sock")); },
       "velko is not running (no socket at /h/.velko/ipc.sock). Launch the app and try again."},
      {"application error",
       [](RecordingCaller& c) {
         c.fail(ipc::ClientError::rpc({-32000, "stale"}));
       },
       "velko error -32000: stale"},
      {"reply that does not decode shows the decoder's text",
       [](RecordingCaller& c) { c.answer(R"({"appVersion":"2"})"); },
       "result.buildStamp: missing required key"},
      {"tool error shows the generic sentence",
       [](RecordingCaller& c) { c.fail(ToolError("id is required")); },
       "The operation couldn\u2019t be completed. (velko_mcp.ToolError error 1.)"},
      {"frame too large",
       [](RecordingCaller& c) { c.fail(protocol::FrameError::frameTooLarge(9e6)); },
       "The operation couldn\u2019t be completed. (VelkoProtocol.FrameCodec.FrameError error 0.)"},
      {"edit patch error",
       [](RecordingCaller& c) { c.fail(core::EditPatchError::versionMismatch(3, 4)); },
       "The operation couldn\u2019t be completed. (VelkoCore.EditPatchError error 1.)"},
      {"platform error keeps its text",
       [](RecordingCaller& c) { c.fail(std::runtime_error("No such file or directory")); },
       "No such file or directory"},
      {"something that is no exception", [](RecordingCaller& c) { c.fail(42); },
       "The operation couldn\u2019t be completed."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingCaller caller;
    c.script(caller);
    Dispatcher dispatcher(caller);
    std::optional<std::string> out =
        reply(dispatcher, R"({"id":9,"method":"tools/call","params":{"name":"velko_ping"}})");
    json::Object expected;
    expected.emplace("content", json::Array{json::Object{{"type", "text"}, {"text", c.text}}});
    expected.emplace("isError", true);
    EXPECT_EQ(out, R"({"jsonrpc":"2.0","id":9,"result":)" + json::toCompact(expected) + "}");
  }
}

TEST(Dispatcher, PassesArgumentsAsTheyAre) {
  RecordingCaller caller;
  caller.answer(R"({"updated":0,"skipped":[]})");
  Dispatcher dispatcher(caller);
  std::optional<std::string> out = reply(
      dispatcher,
      R"({"id":"r","method":"tools/call","params":{"name":"velko_rate","arguments":{"ids":[],"rating":9}}})");
  EXPECT_EQ(caller.sent(), std::vector<std::string>{R"(photo.rate {"ids":[],"rating":9})"});
  EXPECT_EQ(out, R"({"jsonrpc":"2.0","id":"r","result":{"content":[{"type":"text","text":)"
                 R"("{\n  \"skipped\": [],\n  \"updated\": 0\n}"}],"isError":false}})");
}

TEST(Dispatcher, TranscriptThroughRunServer) {
  RecordingCaller caller;
  caller.answer(kPingReply);
  std::istringstream in("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"initialize\",\"params\":{}}\r\n"
                        "\n"
                        "not json\n"
                        "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}\n"
                        "{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"tools/"
                        "call\",\"params\":{\"name\":\"velko_ping\"}}\n"
                        "{\"jsonrpc\":\"2.0\",\"id\":4,\"method\":\"ping\"}"); // no final line feed
  std::ostringstream out, log;
  EXPECT_EQ(runServer(in, out, log, caller, "/home/u/.velko/ipc.sock"), 0);
  EXPECT_EQ(log.str(), "velko-mcp: ready (socket: /home/u/.velko/ipc.sock)\n");

  std::vector<json::Value> replies;
  std::istringstream lines(out.str());
  std::string line;
  while (std::getline(lines, line)) {
    replies.push_back(json::parse(line));
  }
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_EQ(replies[0].at("result").at("protocolVersion"), "2024-11-05");
  EXPECT_EQ(replies[1].at("result").at("content").at(0).at("text"),
            "{\n  \"appVersion\": \"2.1\",\n  \"buildStamp\": \"b7\",\n  \"libraryAuthorized\": "
            "true,\n  \"photoCount\": 12,\n  \"protocolVersion\": 1\n}");
  EXPECT_TRUE(out.str().ends_with("{\"jsonrpc\":\"2.0\",\"id\":4,\"result\":{}}\n"));
  EXPECT_EQ(caller.sent(), std::vector<std::string>{"system.ping"});
}

TEST(Dispatcher, UnencodableReplyIsLoggedAndServingGoesOn) {
  RecordingCaller caller;
  // 1e400 parses as infinity, which cannot be echoed back as an id.
  std::istringstream in("{\"id\":1e400,\"method\":\"ping\"}\n"
                        "{\"id\":2,\"method\":\"ping\"}\n");
  std::ostringstream out, log;
  EXPECT_EQ(runServer(in, out, log, caller, "/s"), 0);
  EXPECT_EQ(out.str(), "{\"jsonrpc\":\"2.0\",\"id\":2,\"result\":{}}\n");
  EXPECT_EQ(log.str(),
            "velko-mcp: ready (socket: /s)\nvelko-mcp: FATAL: unencodable outgoing message\n");
}

// Random lines built from protocol fragments must never crash the loop, and every line written
// must be one JSON object with a "jsonrpc" member.
TEST(Dispatcher, SurvivesARandomCorpus) {
  std::vector<std::string> fragments = {" ", "\r", "\"\\u0000\"", "\"\xFF\""};
  std::istringstream words(R"({ } [ ] , : "id" "method" "params" "name" "arguments" "tools/call")"
                           R"( "prompts/get" "ping" "velko_ping" "velko_rate" "velko_cull" null)"
                           R"( true 1 -0.5 1e400 "ids" "rating")");
  for (std::string word; words >> word;) {
    fragments.push_back(word);
  }
  std::mt19937 rng(20261122);
  RecordingCaller caller;
  Dispatcher dispatcher(caller);
  for (int i = 0; i < 4000; ++i) {
    std::string line;
    const int n = static_cast<int>(rng() % 24);
    for (int k = 0; k < n; ++k) {
      line += fragments[rng() % fragments.size()];
    }
    if (i % 3 == 0) {
      line = R"({"id":1,"method":"tools/call","params":{"name":"velko_rate","arguments":)" + line +
             "}}";
    }
    caller.answer(R"({"updated":1,"skipped":[]})");
    std::optional<json::Value> out;
    ASSERT_NO_THROW(out = dispatcher.handleLine(line)) << line;
    if (out) {
      ASSERT_TRUE(out->is_object());
      EXPECT_EQ(out->at("jsonrpc"), "2.0");
    }
  }
}

} // namespace
} // namespace velko::server
