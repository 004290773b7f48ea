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

// The server's binary test checks the text each of these shows the user.
TEST(IPCClient, FailuresToConnectSayWhy) {
  struct Case {
    const char* name;
    std::function<std::string(const TempDir&)> arrange; ///< returns the path the client uses
    ClientError::Kind kind;
  } cases[] = {
      {"no socket", [](const TempDir& home) { return home.file(".velko/ipc.sock"); },
       ClientError::Kind::AppNotRunning},
      {"only the legacy socket",
       [](const TempDir& home) {
         home.touch("Library/Containers/com.velko.app/Data/ipc.sock");
         return home.file(".velko/ipc.sock");
       },
       ClientError::Kind::StaleTooling},
      {"nobody listening",
       [](const TempDir& home) {
         testing::leaveDeadSocket(home.file(".velko/ipc.sock"));
         return home.file(".velko/ipc.sock");
       },
       ClientError::Kind::AppNotServing},
      // A regular file passes the existence test; a connect to it would fail differently.
      {"path too long for a socket address",
       [](const TempDir& home) {
         return home.touch(std::string(104 - home.path().size() - 1, 's'));
       },
       ClientError::Kind::ConnectionFailed},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir home;
    const std::string path = c.arrange(home);
    IPCClient client(path, IPCEndpoint::legacySocketPath(home.path()));
    ClientError e = clientErrorOf([&] { client.call(IPCMethod::Ping, std::nullopt); });
    EXPECT_EQ(e.kind(), c.kind);
    EXPECT_NE(std::string(e.what()).find(
                  c.kind == ClientError::Kind::ConnectionFailed ? "errno 22" : path.c_str()),
              std::string::npos)
        << e.what();
  }
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
}

} // namespace
} // namespace velko::ipc
