// The built velko-mcp binary as a host runs it: spoken to over pipes, in a private mount
// namespace whose home (the password database's) is a temporary directory, so the sockets and
// folders it finds under ~ are the test's and the real ~/.velko is never touched.
#include "json/Value.h"
#include "support/ServerProcess.h"
#include "support/TestPeer.h"

#include <boost/json/serialize.hpp>
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

constexpr std::string_view kInitialize =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2024-11-05"}})";

std::string toolCall(int id, std::string_view name, std::string_view arguments = "{}") {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/call","params":{"name":")" + std::string(name) + R"(","arguments":)" +
         std::string(arguments) + "}}";
}

std::string reply(std::string_view resultJson) {
  return R"({"jsonrpc":"2.0","id":1,"result":)" + std::string(resultJson) + "}";
}

/// One JSON object written compactly: it parses as an object and has no whitespace outside its
/// strings (so no pretty printing and no carriage return).
::testing::AssertionResult isProtocolLine(const std::string& line) {
  json::Value value;
  try {
    value = json::parse(line);
  } catch (const std::exception& e) {
    return ::testing::AssertionFailure() << "not JSON (" << e.what() << "): " << line;
  }
  if (!value.is_object()) {
    return ::testing::AssertionFailure() << "not an object: " << line;
  }
  bool inString = false;
  bool escaped = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (escaped) {
      escaped = false;
    } else if (inString) {
      escaped = c == '\\';
      inString = c != '"';
    } else if (c == '"') {
      inString = true;
    } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      return ::testing::AssertionFailure()
             << "whitespace outside strings at byte " << i << ": " << line.substr(0, 200);
    }
  }
  return ::testing::AssertionSuccess();
}

/// Splits what the server wrote into lines, checking each is a protocol line ending in a line
/// feed.
std::vector<json::Value> protocolLines(const std::string& output) {
  std::vector<json::Value> lines;
  EXPECT_TRUE(output.empty() || output.back() == '\n') << "output does not end in a line feed";
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) {
    EXPECT_TRUE(isProtocolLine(line));
    lines.push_back(json::parse(line));
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

  std::unique_ptr<ServerProcess> start() {
    return std::make_unique<ServerProcess>(
        velko::testing::withPrivateHome(fakeHome.path(), VELKO_MCP_PATH));
  }

  /// Sends `lines`, ends the input and returns the replies once the server has exited with 0.
  std::vector<json::Value> session(const std::vector<std::string>& lines) {
    auto server = start();
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

TEST_F(BinaryTest, AnnouncesTheSocketUnderThePasswordHomeAndServesAHostSession) {
  auto server = start();
  EXPECT_EQ(server->readErrorLine(), "velko-mcp: ready (socket: " + home + "/.velko/ipc.sock)\n");
  server->send(kInitialize);
  server->send("");
  server->send("not json");
  server->send(R"([{"jsonrpc":"2.0","id":2,"method":"ping"}])");
  server->send(R"({"jsonrpc":"2.0","id":3,"method":"tools/list"})");
  server->send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
  server->send(R"({"jsonrpc":"2.0","id":"p","method":"ping"})");
  server->send(R"({"jsonrpc":"2.0","id":5,"method":"prompts/list"})");
  server->closeInput();
  const std::vector<json::Value> replies = protocolLines(server->readToEnd());
  EXPECT_EQ(server->waitExit(60s), 0);
  // Nothing else reached standard error.
  EXPECT_EQ(server->readErrorLine(), "");

  ASSERT_EQ(replies.size(), 4u);
  EXPECT_EQ(replies[0].at("result").at("serverInfo").at("name"), "velko-mcp");
  EXPECT_EQ(replies[1].at("id"), 3);
  EXPECT_EQ(replies[1].at("result").at("tools").as_array().size(), 50u);
  EXPECT_EQ(boost::json::serialize(replies[2]), R"({"jsonrpc":"2.0","id":"p","result":{}})");
  EXPECT_EQ(replies[3].at("result").at("prompts").as_array().size(), 3u);
}

TEST_F(BinaryTest, VelkoPingExplainsAnUnreachableApplication) {
  struct Case {
    const char* name;
    std::function<void(const TempDir&)> arrange;
    std::string text;
  };
  const std::string socket = home + "/.velko/ipc.sock";
  const std::vector<Case> cases = {
      {"nothing under the home", [](const TempDir&) {},
       "velko is not running (no socket at " + socket + "). Launch the app and try again."},
      {"only the legacy container socket",
       [](const TempDir& dir) { dir.touch("Library/Containers/com.velko.app/Data/ipc.sock"); },
       "These velko command-line tools are out of date. They look for " + socket +
           ", but velko now uses ~/.velko/ \u2014 the app may well be running. Reinstall the "
           "tools to reach it:\n    ./Scripts/install.sh"},
      {"a socket file nobody listens on",
       [](const TempDir& dir) { velko::testing::leaveDeadSocket(dir.file(".velko/ipc.sock")); },
       "velko is not accepting connections, though " + socket +
           " exists.\nEither the app is running with no library open yet (its IPC starts only "
           "once one is), or a previous run was force-quit and left the socket file behind. Open "
           "a library in velko and retry."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir caseHome;
    c.arrange(caseHome);
    auto server = std::make_unique<ServerProcess>(
        velko::testing::withPrivateHome(caseHome.path(), VELKO_MCP_PATH));
    server->send(toolCall(4, "velko_ping"));
    server->closeInput();
    const std::vector<json::Value> replies = protocolLines(server->readToEnd());
    EXPECT_EQ(server->waitExit(60s), 0);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].at("id"), 4);
    EXPECT_EQ(replies[0].at("result").at("isError"), true);
    EXPECT_EQ(firstText(replies[0]), c.text);
  }
}

TEST_F(BinaryTest, ExportMovesRenderedFilesIntoAFolderUnderTheHome) {
  // The application renders into its own folder and reports the path as the server sees it.
  TestPeer peer(fakeHome.file(".velko/ipc.sock"));
  int renders = 0;
  peer.setHandler([&](const std::string& request) {
    const json::Value params = json::parse(request).at("params");
    const std::string name = "render-" + std::to_string(++renders) + ".heic";
    writeFile(fakeHome.file("render/" + name),
              "pixels of " + std::string(params.at("id").as_string()));
    return reply(R"({"path":")" + home + "/render/" + name +
                 R"(","format":"heic","suggestedFilename":"IMG_0001.HEIC","bytes":10})");
  });
  const std::vector<json::Value> replies =
      session({toolCall(6, "velko_export", R"({"ids":["a","b"],"directory":"~/Out/Keepers"})")});
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].at("result").at("isError"), false) << firstText(replies[0]);
  const json::Value summary = json::parse(firstText(replies[0]));
  const std::string folder = home + "/Out/Keepers";
  EXPECT_EQ(summary.at("directory"), json::Value(folder));
  EXPECT_EQ(summary.at("written"), json::parse(R"([")" + folder + R"(/IMG_0001.HEIC",")" + folder +
                                               R"(/IMG_0001-1.HEIC"])"));
  EXPECT_EQ(summary.at("count"), 2);
  EXPECT_EQ(readFile(fakeHome.file("Out/Keepers/IMG_0001.HEIC")), "pixels of a");
  EXPECT_EQ(readFile(fakeHome.file("Out/Keepers/IMG_0001-1.HEIC")), "pixels of b");
  EXPECT_FALSE(fs::exists(fakeHome.file("render/render-1.heic")));
}

TEST_F(BinaryTest, ImportStagesCopiesInTheExchangeFolder) {
  TestPeer peer(fakeHome.file(".velko/ipc.sock"));
  writeFile(fakeHome.file("Pictures/IMG_1.JPG"), "jpeg bytes");
  peer.setHandler(
      [](const std::string&) { return reply(R"({"importedIDs":["NEW-1/L0/001"],"failed":[]})"); });
  const std::vector<json::Value> replies = session({toolCall(
      7, "velko_import", R"({"paths":["~/Pictures/IMG_1.JPG","~/Pictures/missing.jpg"]})")});
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].at("result").at("isError"), false) << firstText(replies[0]);
  EXPECT_EQ(json::parse(firstText(replies[0])),
            json::parse(R"({"importedIDs":["NEW-1/L0/001"],"failed":["missing.jpg"],"count":1})"));

  ASSERT_EQ(peer.requests().size(), 1u);
  const json::Value request = json::parse(peer.requests()[0]);
  EXPECT_EQ(request.at("method"), "library.import");
  const json::Array& staged = request.at("params").at("paths").as_array();
  ASSERT_EQ(staged.size(), 1u);
  const std::string stagedPath(staged[0].as_string());
  const std::string exchange = home + "/.velko/exchange/";
  ASSERT_EQ(stagedPath.rfind(exchange, 0), 0u) << stagedPath;
  const std::string stagedName = stagedPath.substr(exchange.size());
  EXPECT_EQ(stagedName.size(), 36u + 1u + 9u) << stagedName; // UUID-IMG_1.JPG
  EXPECT_EQ(readFile(fakeHome.file(".velko/exchange/" + stagedName)), "jpeg bytes");
  EXPECT_EQ(readFile(fakeHome.file("Pictures/IMG_1.JPG")), "jpeg bytes");
}

TEST_F(BinaryTest, HandlesAPartialLastLineThenExits) {
  auto server = start();
  server->write(R"({"jsonrpc":"2.0","id":9,"method":"ping"})");
  server->closeInput();
  EXPECT_EQ(server->readToEnd(), "{\"jsonrpc\":\"2.0\",\"id\":9,\"result\":{}}\n");
  EXPECT_EQ(server->waitExit(60s), 0);
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
