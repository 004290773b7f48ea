#include "ipc/IPCClient.h"

#include "json/Writer.h"
#include "protocol/FrameCodec.h"
#include "protocol/IPCEndpoint.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>

namespace velko::ipc {
namespace {

using protocol::IPCEndpoint;
using protocol::IPCMethod;
using testing::PeerStep;
using testing::TempDir;
using testing::TestPeer;

constexpr const char* kPingResult =
    R"({"appVersion":"2.1","buildStamp":"b7","protocolVersion":1,"libraryAuthorized":true,"photoCount":12})";

ClientError clientErrorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const ClientError& e) {
    return e;
  }
  ADD_FAILURE() << "no ClientError thrown";
  return ClientError::connectionClosed();
}

/// A client for `home`'s socket that probes `home`'s legacy location, never the real one.
IPCClient clientInHome(const TempDir& home) {
  return IPCClient(IPCEndpoint::clientSocketPath(home.path()),
                   IPCEndpoint::legacySocketPath(home.path()));
}

TEST(IPCClient, CallSendsOneFramedRequestAndReturnsTheResult) {
  TestPeer peer;
  peer.push(PeerStep::result(R"({"updated":1,"skipped":[]})"));
  peer.push(PeerStep::result(kPingResult));
  IPCClient client(peer.socketPath());

  json::Value params = json::parse(R"({"ids":["X/L0/001"],"rating":4})");
  EXPECT_EQ(json::toCompact(client.call(IPCMethod::Rate, params)), R"({"updated":1,"skipped":[]})");
  protocol::PingResult ping = client.pingCheckingVersion();
  EXPECT_EQ(ping, (protocol::PingResult{"2.1", "b7", 1, true, 12}));

  // Each call has its own connection, and the id is always 1.
  EXPECT_EQ(peer.connectionCount(), 2u);
  EXPECT_EQ(
      peer.requests(),
      (std::vector<std::string>{
          R"({"jsonrpc":"2.0","id":1,"method":"photo.rate","params":{"ids":["X/L0/001"],"rating":4}})",
          R"({"jsonrpc":"2.0","id":1,"method":"system.ping"})"}));
}

TEST(IPCClient, ReplyFramingEdgeCases) {
  struct Case {
    const char* name;
    PeerStep step;
  } cases[] = {
      {"split over several reads",
       PeerStep::raw({R"({"jsonrpc":"2.0","id":1,"res)", R"(ult":{"n":)", "7}}\n"})},
      {"lines after the first ignored",
       PeerStep::raw(
           {"{\"id\":1,\"result\":{\"n\":7}}\n{\"id\":1,\"result\":{\"n\":8}}\n", "junk"})},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    TestPeer peer;
    peer.push(std::move(c.step));
    EXPECT_EQ(json::toCompact(IPCClient(peer.socketPath()).call(IPCMethod::Context, std::nullopt)),
              R"({"n":7})");
  }
}

TEST(IPCClient, MissingSocketMeansNotRunningOrStaleTools) {
  TempDir home;
  const std::string path = home.path() + "/.velko/ipc.sock";
  ClientError e = clientErrorOf([&] { clientInHome(home).call(IPCMethod::Ping, std::nullopt); });
  EXPECT_EQ(e.kind(), ClientError::Kind::AppNotRunning);
  EXPECT_EQ(e.socketPath(), path);
  EXPECT_EQ(std::string(e.what()),
            "velko is not running (no socket at " + path + "). Launch the app and try again.");

  home.touch("Library/Containers/com.velko.app/Data/ipc.sock");
  e = clientErrorOf([&] { clientInHome(home).call(IPCMethod::Ping, std::nullopt); });
  // The text names the ~/.velko socket that was missing, not the legacy one that was found.
  EXPECT_EQ(e.kind(), ClientError::Kind::StaleTooling);
  EXPECT_EQ(std::string(e.what()),
            "These velko command-line tools are out of date. They look for " + path +
                ", but velko now uses ~/.velko/ \u2014 the app may well be running. Reinstall the "
                "tools to reach it:\n    ./Scripts/install.sh");
}

TEST(IPCClient, SocketFileWithoutListenerMeansTheAppIsNotServing) {
  TempDir home;
  const std::string path = home.file(".velko/ipc.sock");
  testing::leaveDeadSocket(path);
  ClientError e = clientErrorOf([&] { clientInHome(home).call(IPCMethod::Ping, std::nullopt); });
  EXPECT_EQ(e.kind(), ClientError::Kind::AppNotServing);
  EXPECT_EQ(std::string(e.what()),
            "velko is not accepting connections, though " + path +
                " exists.\nEither the app is running with no library open yet (its IPC starts "
                "only once one is), or a previous run was force-quit and left the socket file "
                "behind. Open a library in velko and retry.");
}

TEST(IPCClient, OverlongPathFailsWithoutConnecting) {
  TempDir dir;
  // A regular file passes the existence test; a connect to it would fail differently.
  std::string relative(104 - dir.path().size() - 1, 's');
  const std::string path = dir.touch(relative);
  ASSERT_EQ(path.size(), 104u);
  ClientError e = clientErrorOf([&] { IPCClient(path).call(IPCMethod::Ping, std::nullopt); });
  EXPECT_EQ(e.kind(), ClientError::Kind::ConnectionFailed);
  EXPECT_EQ(e.errorNumber(), 22);
  EXPECT_STREQ(e.what(), "could not connect to velko (errno 22)");
}

TEST(IPCClient, PeerThatGoesAwayEndsAsConnectionClosed) {
  TestPeer peer;
  peer.push(PeerStep::closeWithoutReply());
  peer.push(PeerStep::closeUnread());
  IPCClient client(peer.socketPath());
  ClientError e = clientErrorOf([&] { client.call(IPCMethod::Ping, std::nullopt); });
  EXPECT_EQ(e.kind(), ClientError::Kind::ConnectionClosed);
  EXPECT_STREQ(e.what(), "velko closed the connection mid-request");
  // Far more than a socket buffer holds, so the write meets the closed connection: no SIGPIPE.
  json::Value params = json::Object{{"paths", std::string(4u << 20, 'p')}};
  EXPECT_EQ(clientErrorOf([&] { client.call(IPCMethod::ImportAssets, params); }).kind(),
            ClientError::Kind::ConnectionClosed);
}

TEST(IPCClient, PingRequiresTheSameProtocolVersion) {
  TestPeer peer;
  peer.push(PeerStep::result(
      R"({"appVersion":"3.0","buildStamp":"b","protocolVersion":2,"libraryAuthorized":false,"photoCount":0})"));
  IPCClient client(peer.socketPath());
  ClientError e = clientErrorOf([&] { client.pingCheckingVersion(); });
  EXPECT_EQ(e.kind(), ClientError::Kind::ProtocolMismatch);
  EXPECT_EQ(e.serverVersion(), 2);
  EXPECT_EQ(e.clientVersion(), 1);
  EXPECT_STREQ(
      e.what(),
      "protocol mismatch: app speaks v2, this tool speaks v1 \u2014 update the older side");
}

} // namespace
} // namespace velko::ipc
