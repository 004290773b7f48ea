#include "ipc/IPCClient.h"

#include "json/Writer.h"
#include "protocol/IPCEndpoint.h"
#include "support/TestPeer.h"

#include <functional>
#include <gtest/gtest.h>

namespace velko::ipc {
namespace {

using protocol::IPCEndpoint;
using protocol::IPCMethod;
using testing::PeerStep;
using testing::TempDir;
using testing::TestPeer;

// The server's binary test sends requests through the client and reads their results, the
// largest in many reads.
TEST(IPCClient, LinesAfterTheFirstAreIgnored) {
  TestPeer peer;
  peer.push(PeerStep::raw(
      {R"({"id":1,"res)", "ult\":{\"n\":7}}\n{\"id\":1,\"result\":{\"n\":8}}\n", "junk"}));
  EXPECT_EQ(json::toCompact(IPCClient(peer.socketPath()).call(IPCMethod::Context, std::nullopt)),
            R"({"n":7})");
}

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
         home.write("Library/Containers/com.velko.app/Data/ipc.sock");
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
         return home.write(std::string(104 - home.path().size() - 1, 's'));
       },
       ClientError::Kind::ConnectionFailed},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir home;
    const std::string path = c.arrange(home);
    IPCClient client(path, IPCEndpoint::legacySocketPath(home.path()));
    try {
      client.call(IPCMethod::Ping, std::nullopt);
      ADD_FAILURE() << "connected";
    } catch (const ClientError& e) {
      EXPECT_EQ(e.kind(), c.kind);
      EXPECT_NE(std::string(e.what()).find(
                    c.kind == ClientError::Kind::ConnectionFailed ? "errno 22" : path.c_str()),
                std::string::npos)
          << e.what();
    }
  }
}

} // namespace
} // namespace velko::ipc
