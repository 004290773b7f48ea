// The socket side of the application (hostile peers, the catalogue lock; many clients at once are
// the load test's), the request path's error codes and the command line.
#include "app/AppFixture.h"
#include "app/Listener.h"
#include "app/Methods.h"
#include "app/Options.h"
#include "json/Value.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace velko::app::testing {
namespace {

class Serving : public AppFixture {
protected:
  void SetUp() override {
    writePhoto(libraryFile("a.jpg"), {});
    open();
    socket_ = root_.path() + "/ipc.sock";
    listener_ = std::make_unique<Listener>(socket_);
    server_ = std::thread(
        [this] { listener_->serve([this](std::string_view f) { return answer(app(), f); }); });
  }
  void TearDown() override {
    listener_->stop();
    server_.join();
  }
  std::string socket_;
  std::unique_ptr<Listener> listener_;
  std::thread server_;
};

TEST_F(Serving, HostilePeersDoNotStopOthers) {
  // A peer that connects and says nothing, one that leaves mid-frame, and one whose frame is
  // past the size limit: each is dropped alone while ordinary requests are answered.
  const int silent = connectUnix(socket_);
  ASSERT_GE(silent, 0);
  const int leaving = connectUnix(socket_);
  ::send(leaving, "{\"jsonrpc\":", 11, MSG_NOSIGNAL);
  ::close(leaving);
  const std::string huge(8 * 1024 * 1024 + 16, ' ');
  EXPECT_EQ(roundTrip(socket_, huge), std::nullopt);
  EXPECT_NE(roundTrip(socket_, "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"system.ping\"}\n")
                ->find("photoCount"),
            std::string::npos);
  ::close(silent);
}

TEST_F(Serving, RefusesASecondServerOnTheSocketOrTheCatalogue) {
  try {
    Listener second(socket_);
    ADD_FAILURE() << "a second listener started";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("already serving"), std::string::npos) << e.what();
  }
  try {
    Catalog second(options_.catalog);
    ADD_FAILURE() << "the catalogue opened twice";
  } catch (const StoreError& e) {
    EXPECT_NE(std::string(e.what()).find("in use by another velko-headless"), std::string::npos);
  }
}

class RequestPath : public AppFixture {};

TEST_F(RequestPath, ErrorCodes) {
  open();
  struct Case {
    const char* name;
    std::string frame;
    std::int64_t code;
    const char* says;
  };
  const auto rpc = [](const char* method, const char* params) {
    return std::string(R"({"jsonrpc":"2.0","id":1,"method":")") + method +
           "\",\"params\":" + params + "}";
  };
  const Case cases[] = {
      {"not JSON", "{oops", -32700, "not JSON"},
      {"not an object", "[1,2]", -32600, "JSON-RPC"},
      {"no method", R"({"jsonrpc":"2.0","id":1})", -32600, "method"},
      {"unknown method", rpc("photo.paint", "{}"), -32601, "photo.paint"},
      {"params of the wrong shape", rpc("photo.get", R"({"id":7})"), -32602, "params.id"},
      {"params missing", R"({"jsonrpc":"2.0","id":1,"method":"photo.get"})", -32602, "params"},
      {"unknown photo", rpc("photo.get", R"({"id":"X/L0/001"})"), -32602,
       "no photo with id X/L0/001"},
      {"rating too high", rpc("photo.rate", R"({"ids":[],"rating":6})"), -32602, "0 to 5"},
      {"unknown flag", rpc("photo.flag", R"({"ids":[],"flag":"maybe"})"), -32602,
       "pick, reject or none"},
      {"unknown colour", rpc("photo.label", R"({"ids":[],"color":"pink"})"), -32602,
       "none, red, yellow, green, blue or purple"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const json::Value reply = json::parse(answer(app(), c.frame));
    ASSERT_TRUE(reply.as_object().contains("error")) << json::toCompact(reply);
    EXPECT_EQ(reply.at("error").at("code").as_int64(), c.code);
    EXPECT_NE(std::string(reply.at("error").at("message").as_string()).find(c.says),
              std::string::npos)
        << reply.at("error").at("message");
  }
}

TEST_F(RequestPath, EveryMethodHasAHandler) {
  for (protocol::IPCMethod m : protocol::allIPCMethods()) {
    EXPECT_NE(MethodTable::all().find(m), nullptr) << protocol::rawValue(m);
  }
}

TEST(CommandLine, ParsesAndRefuses) {
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* says; ///< in the text, or "" for a run
  };
  const Case cases[] = {
      {{"--library", "/p"}, 0, ""},
      {{"--library", "/p", "--allow-delete", "--allow-saving", "--catalog", "/c.db"}, 0, ""},
      {{}, 2, "--library DIR is required"},
      {{"--library"}, 2, "--library needs a path"},
      {{"--library", "/p", "--fast"}, 2, "unknown argument \"--fast\""},
      {{"--help"}, 0, "usage: velko-headless"},
  };
  for (const Case& c : cases) {
    const CommandLine cmd = parseCommandLine(c.args, "/home/u");
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args.back());
    EXPECT_EQ(cmd.exitStatus, c.status);
    EXPECT_NE(cmd.text.find(c.says), std::string::npos) << cmd.text;
    EXPECT_EQ(cmd.run.has_value(), std::string_view(c.says).empty());
  }
  const Options o = *parseCommandLine({"--library", "~/Pictures", "--luts", "/l"}, "/home/u").run;
  EXPECT_EQ(o.library, "/home/u/Pictures");
  EXPECT_EQ(o.catalog, "/home/u/.velko/headless/catalog.sqlite");
  EXPECT_EQ(o.luts, "/l");
  EXPECT_FALSE(o.allowDelete);
}

} // namespace
} // namespace velko::app::testing
