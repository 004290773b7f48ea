// The client against an application that is not there or misbehaves: sockets nobody serves,
// replies at and past the frame limit, bytes that are not JSON or not UTF-8, connections dropped
// mid-reply, a reply that never ends, and a long run of calls that must not leave descriptors or
// memory behind.
#include "ipc/IPCClient.h"
#include "json/Errors.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "protocol/FrameCodec.h"
#include "protocol/IPCEndpoint.h"
#include "protocol/PingResult.h"
#include "support/Sanitizer.h"
#include "support/ServerProcess.h"
#include "support/TestPeer.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace velko::ipc {
namespace {

using protocol::IPCEndpoint;
using protocol::IPCMethod;
using testing::PeerStep;
using testing::TempDir;
using testing::TestPeer;

constexpr const char* kPingResult = R"({"appVersion":"2.1","buildStamp":"b7","protocolVersion":1,)"
                                    R"("libraryAuthorized":true,"photoCount":12})";

/// Matches a call that throws a ClientError of `kind` whose message matches `message`.
auto throwsClientError(ClientError::Kind kind,
                       ::testing::Matcher<const char*> message = ::testing::_) {
  return ::testing::Throws<ClientError>(
      ::testing::AllOf(::testing::Property(&ClientError::kind, kind),
                       ::testing::Property(&ClientError::what, message)));
}

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
  using enum ClientError::Kind;
  const auto socketIn = [](const TempDir& home) { return home.file(".velko/ipc.sock"); };
  struct Case {
    const char* name;
    ClientError::Kind kind;
    std::function<std::string(const TempDir&)> arrange; ///< returns the path the client uses
  } cases[] = {
      {"no socket", AppNotRunning, socketIn},
      {"only the legacy socket", StaleTooling,
       [&](const TempDir& home) {
         home.write("Library/Containers/com.velko.app/Data/ipc.sock");
         return socketIn(home);
       }},
      {"nobody listening", AppNotServing,
       [&](const TempDir& home) {
         testing::leaveDeadSocket(socketIn(home));
         return socketIn(home);
       }},
      // A regular file passes the existence test; a connect to it would fail differently.
      {"path too long for a socket address", ConnectionFailed,
       [](const TempDir& home) {
         return home.write(std::string(104 - home.path().size() - 1, 's'));
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir home;
    const std::string path = c.arrange(home);
    IPCClient client(path, IPCEndpoint::legacySocketPath(home.path()));
    const auto ping = [&] { client.call(IPCMethod::Ping, std::nullopt); };
    const std::string named = c.kind == ConnectionFailed ? "errno 22" : path;
    EXPECT_THAT(ping, throwsClientError(c.kind, ::testing::HasSubstr(named)));
  }
}

TEST(HostileApplication, ReplyOfExactlyTheLimitIsAcceptedAndOneBytePastItIsAFrameError) {
  const std::string head = R"({"jsonrpc":"2.0","id":1,"result":")";
  const std::string tail = R"("})";
  const std::size_t fill =
      static_cast<std::size_t>(protocol::kMaxFrameBytes) - head.size() - tail.size();
  TestPeer peer;
  peer.push(PeerStep::line(head + std::string(fill, 'p') + tail));
  peer.push(PeerStep::unterminated(protocol::kMaxFrameBytes + 1));
  IPCClient client(peer.socketPath());
  const json::Value result = client.call(IPCMethod::PreviewRender, std::nullopt);
  ASSERT_TRUE(result.is_string());
  EXPECT_EQ(result.get_string().size(), fill);
  EXPECT_THAT([&] { client.call(IPCMethod::Ping, std::nullopt); },
              ::testing::Throws<protocol::FrameError>(::testing::Eq(
                  protocol::FrameError::frameTooLarge(protocol::kMaxFrameBytes + 1))));
}

// fuzz_rpc_response decodes any bytes; these go through the socket, to the untyped call (which
// accepts any well-formed result) and to a typed one (which names what is wrong).
TEST(HostileApplication, GarbageAndWrongShapesAreDecodeErrors) {
  struct Case {
    const char* name;
    std::string line;
    bool wellFormed = false;
  } cases[] = {
      {"plain text", "velko says hello"},
      {"empty line", ""},
      {"NUL bytes", std::string("\0\0\0", 3)},
      {"bytes that are not UTF-8", "\xff\xfe\xfd"},
      {"overlong encoding of a slash", "{\"id\":1,\"result\":\"\xc0\xaf\"}"},
      {"lone escaped surrogate", R"({"id":1,"error":{"code":1,"message":"\udc00"}})"},
      {"two objects on one line", R"({"id":1,"result":1}{"id":1,"result":2})"},
      {"top-level array", R"([{"id":1,"result":1}])"},
      {"error code past 64 bits",
       R"({"id":1,"error":{"code":99999999999999999999,"message":"m"}})"},
      {"error without message", R"({"id":1,"error":{"code":-32000}})"},
      {"nesting ten thousand deep", std::string(10000, '[') + std::string(10000, ']')},
      {"result of the wrong type", R"({"result":[]})", true},
      {"member of the wrong type",
       R"({"result":{"appVersion":"2.1","buildStamp":"b7","protocolVersion":"1",)"
       R"("libraryAuthorized":true,"photoCount":12}})",
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TestPeer peer;
    peer.push(PeerStep::line(c.line));
    peer.push(PeerStep::line(c.line));
    IPCClient client(peer.socketPath());
    if (c.wellFormed) {
      EXPECT_NO_THROW(client.call(IPCMethod::Ping, std::nullopt));
    } else {
      EXPECT_THROW(client.call(IPCMethod::Ping, std::nullopt), json::DecodeError);
    }
    EXPECT_THROW(call<protocol::PingResult>(client, IPCMethod::Ping), json::DecodeError);
  }
}

TEST(HostileApplication, PeerThatGoesAwayEndsAsConnectionClosed) {
  TestPeer peer;
  peer.push(PeerStep::closeWithoutReply());
  peer.push(PeerStep::raw({R"({"jsonrpc":"2.0","id":1,"result":{"n":)"}));
  // Most of a large reply, cut off before its end.
  peer.push(PeerStep::raw({R"({"jsonrpc":"2.0","id":1,"result":")" + std::string(3u << 20, 'q')}));
  peer.push(PeerStep::closeUnread());
  IPCClient client(peer.socketPath());
  for (int i = 0; i < 3; ++i) {
    EXPECT_THAT([&] { client.call(IPCMethod::Ping, std::nullopt); },
                throwsClientError(ClientError::Kind::ConnectionClosed));
  }
  // Far more than a socket buffer holds, so the write meets the closed connection: no SIGPIPE.
  json::Value params = json::Object{{"paths", std::string(4u << 20, 'p')}};
  EXPECT_THAT([&] { client.call(IPCMethod::ImportAssets, params); },
              throwsClientError(ClientError::Kind::ConnectionClosed));
}

TEST(HostileApplication, ReplyThatNeverEndsBlocksUntilThePeerGoesAway) {
  // No time-outs: the call waits for as long as the application keeps the connection open.
  TestPeer peer;
  peer.push(PeerStep::hang(R"({"jsonrpc":"2.0","id":1,"result":{"photos":[)"));
  std::thread stopper([&] {
    while (peer.requests().empty()) {
      std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    peer.stop();
  });
  EXPECT_THAT([&] { IPCClient(peer.socketPath()).call(IPCMethod::List, std::nullopt); },
              throwsClientError(ClientError::Kind::ConnectionClosed));
  stopper.join();
}

std::ptrdiff_t openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// `calls` pings against a fresh peer that alternates results and error replies; the peer is
/// stopped (its thread joined, its descriptors closed) before this returns.
void callRepeatedly(int calls) {
  TestPeer peer;
  int answered = 0; // touched only by the peer's thread
  peer.setHandler([&answered](const std::string&) {
    return ++answered % 2 == 0
               ? std::string(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32001,"message":"busy"}})")
               : std::string(R"({"jsonrpc":"2.0","id":1,"result":)") + kPingResult + "}";
  });
  IPCClient client(peer.socketPath());
  int errors = 0;
  for (int i = 0; i < calls; ++i) {
    try {
      client.pingCheckingVersion();
    } catch (const ClientError& e) {
      ASSERT_EQ(e.kind(), ClientError::Kind::Rpc);
      ++errors;
    }
  }
  EXPECT_EQ(errors, calls / 2);
  peer.stop();
}

TEST(HostileApplication, TenThousandCallsLeaveNoDescriptorsOrMemoryBehind) {
  callRepeatedly(2000); // warm-up: allocator pools, the thread stack cache, lazy initialisers
  const std::ptrdiff_t fdsBefore = openDescriptors();
  const long rssBefore = testing::statusKiB(::getpid(), "VmRSS");

  callRepeatedly(10000);
  EXPECT_EQ(openDescriptors(), fdsBefore);
  // Under AddressSanitizer resident memory grows by design; its leak checker covers that build.
  if (!velko::testing::kUnderAddressSanitizer) {
    // A leak of a few hundred bytes a call would show as several MiB; 2 MiB is the slack.
    EXPECT_LE(testing::statusKiB(::getpid(), "VmRSS"), rssBefore + 2048);
  }
}

} // namespace
} // namespace velko::ipc
