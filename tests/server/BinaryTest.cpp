// The built velko-mcp binary as a host runs it: spoken to over pipes, in a private mount
// namespace whose home (the password database's) is a temporary directory, so the sockets and
// folders it finds under ~ are the test's and the real ~/.velko is never touched.
#include "json/Value.h"
#include "json/Writer.h"
#include "support/ServerProcess.h"
#include "support/TestPeer.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace velko::server {
namespace {

using namespace std::chrono_literals;
using velko::testing::ServerProcess;
using velko::testing::TempDir;
using velko::testing::TestPeer;
namespace fs = std::filesystem;

std::string toolCall(int id, std::string_view name, std::string_view arguments = "{}") {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/call","params":{"name":")" + std::string(name) + R"(","arguments":)" +
         std::string(arguments) + "}}";
}

std::string reply(std::string_view resultJson) {
  return R"({"jsonrpc":"2.0","id":1,"result":)" + std::string(resultJson) + "}";
}

/// Splits what the server wrote into lines, each ending in a line feed.
std::vector<json::Value> protocolLines(const std::string& output) {
  std::vector<json::Value> lines;
  EXPECT_TRUE(output.empty() || output.back() == '\n') << "output does not end in a line feed";
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) {
    // One JSON object, written compactly: no pretty printing and no carriage return.
    const json::Value value = json::parse(line);
    EXPECT_TRUE(value.is_object()) << line;
    EXPECT_EQ(json::toCompact(value), line);
    lines.push_back(value);
  }
  return lines;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& path, std::string_view bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

class BinaryTest : public ::testing::Test {
protected:
  void SetUp() override {
    static const std::string reason = velko::testing::privateHomeUnavailableReason();
    if (!reason.empty()) {
      GTEST_SKIP() << reason;
    }
  }

  /// The home as the server sees it; the files are in fakeHome.
  const std::string home = velko::testing::passwordHome();
  TempDir fakeHome;

  std::unique_ptr<ServerProcess> start(const TempDir* in = nullptr) {
    return std::make_unique<ServerProcess>(
        velko::testing::withPrivateHome((in ? *in : fakeHome).path(), VELKO_MCP_PATH));
  }

  /// Sends `lines`, ends the input and returns the replies once the server has exited with 0.
  std::vector<json::Value> session(const std::vector<std::string>& lines,
                                   const TempDir* in = nullptr) {
    auto server = start(in);
    for (const std::string& line : lines) {
      server->send(line);
    }
    server->closeInput();
    const std::string output = server->readToEnd();
    EXPECT_EQ(server->waitExit(60s), 0);
    return protocolLines(output);
  }

  /// The text of a tools/call reply's first content item.
  static std::string firstText(const json::Value& reply) {
    return std::string(reply.at("result").at("content").at(0).at("text").as_string());
  }
};

TEST_F(BinaryTest, AnnouncesTheSocketUnderThePasswordHomeAndServesAHostSessionToTheEnd) {
  auto server = start();
  EXPECT_EQ(server->readErrorLine(), "velko-mcp: ready (socket: " + home + "/.velko/ipc.sock)\n");
  server->send(
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2024-11-05"}})");
  server->send("");
  server->send("not json");
  server->send(R"([{"jsonrpc":"2.0","id":2,"method":"ping"}])");
  server->send(R"({"jsonrpc":"2.0","id":3,"method":"tools/list"})");
  server->send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
  server->send(R"({"jsonrpc":"2.0","id":"p","method":"ping"})");
  server->send(R"({"jsonrpc":"2.0","id":5,"method":"prompts/list"})");
  server->write(R"({"jsonrpc":"2.0","id":9,"method":"ping"})"); // no final line feed
  server->closeInput();
  const std::vector<json::Value> replies = protocolLines(server->readToEnd());
  EXPECT_EQ(server->waitExit(60s), 0);
  // Nothing else reached standard error.
  EXPECT_EQ(server->readErrorLine(), "");

  ASSERT_EQ(replies.size(), 5u);
  EXPECT_EQ(replies[0].at("result").at("serverInfo").at("name"), "velko-mcp");
  EXPECT_EQ(replies[1].at("id"), 3);
  EXPECT_EQ(replies[1].at("result").at("tools").as_array().size(), 50u);
  EXPECT_EQ(json::toCompact(replies[2]), R"({"jsonrpc":"2.0","id":"p","result":{}})");
  EXPECT_EQ(replies[3].at("result").at("prompts").as_array().size(), 3u);
  EXPECT_EQ(replies[4].at("id"), 9);
}

// The texts themselves are the IPC client's (tests/ipc); here the socket is found under the home.
TEST_F(BinaryTest, VelkoPingExplainsAnUnreachableApplication) {
  struct Case {
    const char* name;
    std::function<void(const TempDir&)> arrange;
    const char* start;
  } cases[] = {
      {"nothing under the home", [](const TempDir&) {}, "velko is not running (no socket at "},
      {"only the legacy container socket",
       [](const TempDir& dir) { dir.touch("Library/Containers/com.velko.app/Data/ipc.sock"); },
       "These velko command-line tools are out of date. They look for "},
      {"a socket file nobody listens on",
       [](const TempDir& dir) { velko::testing::leaveDeadSocket(dir.file(".velko/ipc.sock")); },
       "velko is not accepting connections, though "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir caseHome;
    c.arrange(caseHome);
    const std::vector<json::Value> replies = session({toolCall(4, "velko_ping")}, &caseHome);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].at("result").at("isError"), true);
    EXPECT_EQ(firstText(replies[0]).rfind(std::string(c.start) + home + "/.velko/ipc.sock", 0), 0u)
        << firstText(replies[0]);
  }
}

// Paths under ~ are the password home's: export moves the application's renders there, import
// stages copies in its exchange folder.
TEST_F(BinaryTest, ExportAndImportWorkOnFilesUnderTheHome) {
  TestPeer peer(fakeHome.file(".velko/ipc.sock"));
  int renders = 0;
  peer.setHandler([&](const std::string& request) {
    const json::Value r = json::parse(request);
    if (r.at("method") == "library.import") {
      return reply(R"({"importedIDs":["NEW-1/L0/001"],"failed":[]})");
    }
    const std::string name = "render-" + std::to_string(++renders) + ".heic";
    writeFile(fakeHome.file("render/" + name),
              "pixels of " + std::string(r.at("params").at("id").as_string()));
    return reply(R"({"path":")" + home + "/render/" + name +
                 R"(","format":"heic","suggestedFilename":"IMG_0001.HEIC","bytes":10})");
  });
  writeFile(fakeHome.file("Pictures/IMG_1.JPG"), "jpeg bytes");
  const std::vector<json::Value> replies =
      session({toolCall(6, "velko_export", R"({"ids":["a","b"],"directory":"~/Out/Keepers"})"),
               toolCall(7, "velko_import", R"({"paths":["~/Pictures/IMG_1.JPG"]})")});
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0].at("result").at("isError"), false) << firstText(replies[0]);
  const std::string folder = home + "/Out/Keepers";
  EXPECT_EQ(json::parse(firstText(replies[0])).at("written"),
            json::parse(R"([")" + folder + R"(/IMG_0001.HEIC",")" + folder +
                        R"(/IMG_0001-1.HEIC"])"));
  EXPECT_EQ(readFile(fakeHome.file("Out/Keepers/IMG_0001.HEIC")), "pixels of a");
  EXPECT_EQ(readFile(fakeHome.file("Out/Keepers/IMG_0001-1.HEIC")), "pixels of b");
  EXPECT_FALSE(fs::exists(fakeHome.file("render/render-1.heic")));

  EXPECT_EQ(replies[1].at("result").at("isError"), false) << firstText(replies[1]);
  const json::Value import = json::parse(peer.requests().back());
  const std::string stagedPath(import.at("params").at("paths").at(0).as_string());
  const std::string exchange = home + "/.velko/exchange/";
  ASSERT_EQ(stagedPath.rfind(exchange, 0), 0u) << stagedPath;
  EXPECT_EQ(readFile(fakeHome.file(".velko/exchange/" + stagedPath.substr(exchange.size()))),
            "jpeg bytes");
}

TEST_F(BinaryTest, ExitsWithZeroWhenInputEndsAtOnce) {
  auto server = start();
  server->closeInput();
  // A generous bound: this catches a server that waits for more input, not a slow one.
  EXPECT_EQ(server->waitExit(60s), 0);
  EXPECT_EQ(server->readToEnd(), "");
  EXPECT_FALSE(server->groupAlive()) << "a process of the server's group outlived it";
}

} // namespace
} // namespace velko::server
