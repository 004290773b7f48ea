// The built velko-mcp binary as a host runs it: spoken to over pipes, in a private mount
// namespace whose home (the password database's) is a temporary directory, so the sockets and
// folders it finds under ~ are the test's and the real ~/.velko is never touched. The
// application is the test peer on the socket under that home.
#include "json/Value.h"
#include "json/Writer.h"
#include "support/ServerProcess.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>
#include <sstream>

namespace velko::server {
namespace {

using namespace std::chrono_literals;
using velko::testing::PeerStep;
using velko::testing::ServerProcess;
using velko::testing::TempDir;
using velko::testing::TestPeer;

std::string toolCall(int id, std::string_view name, std::string_view arguments = "{}") {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/call","params":{"name":")" + std::string(name) + R"(","arguments":)" +
         std::string(arguments) + "}}";
}

std::string reply(std::string_view resultJson) {
  return R"({"jsonrpc":"2.0","id":1,"result":)" + std::string(resultJson) + "}";
}

/// The text of a tools/call reply's first content item.
std::string firstText(const json::Value& reply) {
  return std::string(reply.at("result").at("content").at(0).at("text").as_string());
}

// A host session: tools and prompts are listed before initialize, lines that are not requests
// are skipped, notifications get no reply, the last line may lack its line feed, and tool calls
// reach the application at the socket under the password home, one request (id 1) per connection.
// At the end of its input the server exits with 0 and leaves no process behind.
TEST(BinaryTest, ServesAHostSessionThroughTheSocketUnderThePasswordHome) {
  if (const std::string reason = velko::testing::privateHomeUnavailableReason(); !reason.empty()) {
    GTEST_SKIP() << reason;
  }
  const std::string home = velko::testing::passwordHome(); // as the server sees it
  TempDir fakeHome;                                          // where its files are
  TestPeer peer(fakeHome.file(".velko/ipc.sock"));
  peer.push(PeerStep::line(reply(R"({"appVersion":"3.0","buildStamp":"x1","protocolVersion":1,)"
                                 R"("libraryAuthorized":true,"photoCount":7})")));
  peer.push(PeerStep::line(
      R"({"jsonrpc":"2.0","id":1,"error":{"code":-32000,"message":"unknown photo"}})"));
  // A preview within a few hundred bytes of the 8 MiB frame limit.
  const std::string png((8u << 20) - 256, 'A');
  peer.push(PeerStep::line(reply(R"({"pngBase64":")" + png +
                                 R"(","width":1024,"height":2000,"appliedStackVersion":3,)"
                                 R"("basedOnOriginal":true})")));
  ServerProcess server(velko::testing::withPrivateHome(fakeHome.path(), VELKO_MCP_PATH));
  EXPECT_EQ(server.readErrorLine(), "velko-mcp: ready (socket: " + home + "/.velko/ipc.sock)\n");
  for (const std::string& line : {
           std::string(R"({"jsonrpc":"2.0","id":3,"method":"tools/list","params":{"cursor":"x"}})"),
           std::string(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{}})") + "\r",
           std::string(),
           std::string("not json"),
           std::string(R"([{"jsonrpc":"2.0","id":2,"method":"ping"}])"),
           std::string(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"),
           std::string(R"({"jsonrpc":"2.0","id":"p","method":"ping"})"),
           std::string(R"({"jsonrpc":"2.0","id":5,"method":"prompts/list"})"),
           toolCall(6, "velko_ping"),
           toolCall(7, "velko_get", R"({"id":"p0"})"),
           toolCall(8, "velko_preview_render", R"({"id":"p9"})"),
       }) {
    server.send(line);
  }
  server.write(R"({"jsonrpc":"2.0","id":9,"method":"ping"})"); // no final line feed
  server.closeInput();
  // What the server wrote: lines, each ending in a line feed and holding one JSON object written
  // compactly (no pretty printing and no carriage return).
  const std::string output = server.readToEnd();
  EXPECT_TRUE(output.empty() || output.back() == '\n') << "output does not end in a line feed";
  std::vector<json::Value> replies;
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) {
    replies.push_back(json::parse(line));
    EXPECT_TRUE(replies.back().is_object()) << line;
    EXPECT_EQ(json::toCompact(replies.back()), line);
  }
  // A generous bound: this catches a server that waits for more input, not a slow one.
  EXPECT_EQ(server.waitExit(60s), 0);
  EXPECT_FALSE(server.groupAlive()) << "a process of the server's group outlived it";
  EXPECT_EQ(server.readErrorLine(), ""); // nothing else reached standard error

  ASSERT_EQ(replies.size(), 8u);
  const json::Object& tools = replies[0].at("result").as_object();
  EXPECT_EQ(tools.size(), 1u); // no nextCursor
  EXPECT_EQ(tools.at("tools").as_array().size(), 50u);
  EXPECT_EQ(replies[1].at("result").at("serverInfo").at("name"), "velko-mcp");
  EXPECT_EQ(json::toCompact(replies[2]), R"({"jsonrpc":"2.0","id":"p","result":{}})");
  EXPECT_EQ(replies[3].at("result").at("prompts").as_array().size(), 3u);
  EXPECT_EQ(firstText(replies[4]), "{\n  \"appVersion\": \"3.0\",\n  \"buildStamp\": \"x1\",\n"
                                   "  \"libraryAuthorized\": true,\n  \"photoCount\": 7,\n"
                                   "  \"protocolVersion\": 1\n}");
  EXPECT_EQ(replies[5].at("result").at("isError"), true);
  EXPECT_EQ(firstText(replies[5]), "velko error -32000: unknown photo");
  EXPECT_TRUE(replies[6].at("result").at("content").at(0).at("data").as_string() == png);
  // Under the official TypeScript SDK's 10 MiB limit for a line of standard output.
  EXPECT_LT(json::toCompact(replies[6]).size(), 10u << 20);
  EXPECT_EQ(replies[7].at("id"), 9);

  const std::string head = R"({"jsonrpc":"2.0","id":1,"method":)";
  EXPECT_EQ(peer.requests(),
            (std::vector<std::string>{head + R"("system.ping"})",
                                      head + R"("photo.get","params":{"id":"p0"}})",
                                      head + R"("preview.render","params":{"id":"p9"}})"}));
}

} // namespace
} // namespace velko::server
