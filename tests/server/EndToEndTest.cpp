// The whole server in-process: runServer with a real IPC client against the test peer on a
// temporary socket.
#include "ipc/IPCClient.h"
#include "json/Writer.h"
#include "server/Server.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>
#include <sstream>

namespace velko::server {
namespace {

using velko::testing::PeerStep;
using velko::testing::TempDir;
using velko::testing::TestPeer;

std::vector<json::Value> serve(ipc::IPCClient& client, const std::string& input) {
  std::istringstream in(input);
  std::ostringstream out, log;
  EXPECT_EQ(runServer(in, out, log, client, client.socketPath()), 0);
  EXPECT_EQ(log.str(), "velko-mcp: ready (socket: " + client.socketPath() + ")\n");
  std::vector<json::Value> replies;
  std::istringstream lines(out.str());
  for (std::string line; std::getline(lines, line);) {
    replies.push_back(json::parse(line));
  }
  return replies;
}

std::string toolCall(int id, std::string_view name, std::string_view arguments = "") {
  std::string line = R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
                     R"(,"method":"tools/call","params":{"name":")" + std::string(name) + '"';
  if (!arguments.empty()) {
    line += R"(,"arguments":)" + std::string(arguments);
  }
  return line + "}}\n";
}

const json::Value& firstText(const json::Value& reply) {
  return reply.at("result").at("content").at(0).at("text");
}

TEST(ServerEndToEnd, PingAndRateThroughTheSocket) {
  TestPeer peer;
  peer.push(PeerStep::result(
      R"({"appVersion":"3.0","buildStamp":"x1","protocolVersion":1,"libraryAuthorized":true,"photoCount":7})"));
  peer.push(PeerStep::result(R"({"updated":1,"skipped":["zz"]})"));
  TempDir home;
  ipc::IPCClient client(peer.socketPath(), home.file("legacy.sock"));

  const std::vector<json::Value> replies =
      serve(client, R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{}})"
                    "\n" +
                        toolCall(2, "velko_ping") +
                        toolCall(3, "velko_rate", R"({"ids":["a","zz"],"rating":5})"));
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_EQ(replies[1].at("id"), 2);
  EXPECT_EQ(replies[1].at("result").at("isError"), false);
  EXPECT_EQ(firstText(replies[1]), "{\n  \"appVersion\": \"3.0\",\n  \"buildStamp\": \"x1\",\n"
                                   "  \"libraryAuthorized\": true,\n  \"photoCount\": 7,\n"
                                   "  \"protocolVersion\": 1\n}");
  EXPECT_EQ(firstText(replies[2]), "{\n  \"skipped\": [\n    \"zz\"\n  ],\n  \"updated\": 1\n}");

  const std::vector<std::string> requests = peer.requests();
  ASSERT_EQ(requests.size(), 2u);
  const json::Value ping = json::parse(requests[0]);
  EXPECT_EQ(ping.at("method"), "system.ping");
  EXPECT_EQ(ping.at("id"), 1);
  EXPECT_FALSE(ping.as_object().contains("params"));
  const json::Value rate = json::parse(requests[1]);
  EXPECT_EQ(rate.at("method"), "photo.rate");
  EXPECT_EQ(json::toCompact(rate.at("params")), R"({"ids":["a","zz"],"rating":5})");
}

TEST(ServerEndToEnd, FailuresReachTheAssistantAsErrorResults) {
  TempDir home;
  const std::string socket = home.file(".velko/ipc.sock");
  ipc::IPCClient client(socket, home.file("legacy.sock"));
  const std::vector<json::Value> replies = serve(client, toolCall(4, "velko_ping"));
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].at("id"), 4);
  EXPECT_EQ(replies[0].at("result").at("isError"), true);
  EXPECT_EQ(firstText(replies[0]), json::Value("velko is not running (no socket at " + socket +
                                               "). Launch the app and try again."));
}

TEST(ServerEndToEnd, ApplicationErrorsAndContextPreview) {
  TestPeer peer;
  peer.push(PeerStep::error(-32000, "unknown photo"));
  peer.push(PeerStep::result(R"({"editorOpen":false,"focusID":"p9","selectionIDs":["p9"]})"));
  peer.push(PeerStep::result(
      R"({"pngBase64":"AAAA","width":384,"height":200,"appliedStackVersion":0,"basedOnOriginal":true})"));
  TempDir home;
  ipc::IPCClient client(peer.socketPath(), home.file("legacy.sock"));
  const std::vector<json::Value> replies =
      serve(client, toolCall(1, "velko_get", R"({"id":"p0"})") + toolCall(2, "velko_context"));
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0].at("result").at("isError"), true);
  EXPECT_EQ(firstText(replies[0]), "velko error -32000: unknown photo");
  const json::Array& content = replies[1].at("result").at("content").as_array();
  ASSERT_EQ(content.size(), 2u);
  EXPECT_EQ(content[1].at("data"), "AAAA");
  const std::vector<std::string> requests = peer.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(json::toCompact(json::parse(requests[2]).at("params")),
            R"({"id":"p9","longEdge":384})");
}

} // namespace
} // namespace velko::server
