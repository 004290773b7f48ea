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

std::string toolCall(int id, std::string_view name, std::string_view arguments = "{}") {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/call","params":{"name":")" + std::string(name) +
         R"(","arguments":)" + std::string(arguments) + "}}";
}

const json::Value& firstText(const json::Value& reply) {
  return reply.at("result").at("content").at(0).at("text");
}

// A host session: lines that are not requests are skipped, notifications get no reply, the last
// line may lack its line feed, and tool calls reach the application over the socket.
TEST(ServerEndToEnd, HostSessionThroughTheSocket) {
  TestPeer peer;
  peer.push(PeerStep::result(
      R"({"appVersion":"3.0","buildStamp":"x1","protocolVersion":1,"libraryAuthorized":true,"photoCount":7})"));
  peer.push(PeerStep::result(R"({"updated":1,"skipped":["zz"]})"));
  peer.push(PeerStep::error(-32000, "unknown photo"));
  peer.push(PeerStep::result(R"({"editorOpen":false,"focusID":"p9","selectionIDs":["p9"]})"));
  peer.push(PeerStep::result(
      R"({"pngBase64":"AAAA","width":384,"height":200,"appliedStackVersion":0,"basedOnOriginal":true})"));
  TempDir home;
  ipc::IPCClient client(peer.socketPath(), home.file("legacy.sock"));

  std::istringstream in(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{}})"
                        "\r\n\nnot json\n"
                        R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
                        "\n" +
                        toolCall(2, "velko_ping") + "\n" +
                        toolCall(3, "velko_rate", R"({"ids":["a","zz"],"rating":5})") + "\n" +
                        toolCall(4, "velko_get", R"({"id":"p0"})") + "\n" +
                        toolCall(5, "velko_context") + "\n" +
                        R"({"jsonrpc":"2.0","id":6,"method":"ping"})");
  std::ostringstream out, log;
  EXPECT_EQ(runServer(in, out, log, client, client.socketPath()), 0);
  EXPECT_EQ(log.str(), "velko-mcp: ready (socket: " + client.socketPath() + ")\n");
  std::vector<json::Value> replies;
  std::istringstream lines(out.str());
  for (std::string line; std::getline(lines, line);) {
    replies.push_back(json::parse(line));
  }

  ASSERT_EQ(replies.size(), 6u);
  EXPECT_EQ(replies[0].at("result").at("protocolVersion"), "2024-11-05");
  EXPECT_EQ(replies[1].at("result").at("isError"), false);
  EXPECT_EQ(firstText(replies[1]), "{\n  \"appVersion\": \"3.0\",\n  \"buildStamp\": \"x1\",\n"
                                   "  \"libraryAuthorized\": true,\n  \"photoCount\": 7,\n"
                                   "  \"protocolVersion\": 1\n}");
  EXPECT_EQ(firstText(replies[2]), "{\n  \"skipped\": [\n    \"zz\"\n  ],\n  \"updated\": 1\n}");
  EXPECT_EQ(replies[3].at("result").at("isError"), true);
  EXPECT_EQ(firstText(replies[3]), "velko error -32000: unknown photo");
  EXPECT_EQ(replies[4].at("result").at("content").at(1).at("data"), "AAAA");
  EXPECT_TRUE(out.str().ends_with("{\"jsonrpc\":\"2.0\",\"id\":6,\"result\":{}}\n"));

  std::vector<std::string> sent;
  for (const std::string& request : peer.requests()) {
    const json::Value r = json::parse(request);
    EXPECT_EQ(r.at("id"), 1);
    sent.push_back(std::string(r.at("method").as_string()) +
                   (r.as_object().contains("params") ? " " + json::toCompact(r.at("params")) : ""));
  }
  EXPECT_EQ(sent, (std::vector<std::string>{"system.ping",
                                            R"(photo.rate {"ids":["a","zz"],"rating":5})",
                                            R"(photo.get {"id":"p0"})", "app.context",
                                            R"(preview.render {"id":"p9","longEdge":384})"}));
}

} // namespace
} // namespace velko::server
