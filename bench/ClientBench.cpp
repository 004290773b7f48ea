// One IPCClient round trip with a small reply, beside the bare socket calls it is built on
// (connect, write the same request, read the reply, close) against the same in-process peer.
// The difference is the client's own cost: existence test, encoding, framing and decoding.
#include "ipc/IPCClient.h"
#include "support/TestPeer.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace velko;

constexpr const char* kReply = R"({"jsonrpc":"2.0","id":1,"result":{"updated":1,"skipped":[]}})";
constexpr const char* kRequest =
    R"({"jsonrpc":"2.0","id":1,"method":"photo.rate","params":{"ids":["X/L0/001"],"rating":4}})"
    "\n";

// One peer for the whole run; its destructor removes its directory at exit.
testing::TestPeer& peer() {
  static testing::TestPeer p;
  static const bool answering = [] {
    p.setHandler([](const std::string&) { return std::string(kReply); });
    return true;
  }();
  (void)answering;
  return p;
}

void BM_ClientRoundTrip(benchmark::State& state) {
  ipc::IPCClient client(peer().socketPath());
  const json::Value params = json::parse(R"({"ids":["X/L0/001"],"rating":4})");
  for (auto _ : state) {
    benchmark::DoNotOptimize(client.call(protocol::IPCMethod::Rate, params));
  }
}
BENCHMARK(BM_ClientRoundTrip)->Unit(benchmark::kMicrosecond);

void BM_BareSocketRoundTrip(benchmark::State& state) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, peer().socketPath().c_str());
  const std::size_t requestBytes = std::strlen(kRequest);
  char buffer[65536];
  for (auto _ : state) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::write(fd, kRequest, requestBytes) != static_cast<ssize_t>(requestBytes)) {
      state.SkipWithError("bare round trip failed");
      ::close(fd);
      break;
    }
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 1 || std::memchr(buffer, '\n', static_cast<std::size_t>(n)) != nullptr) {
        break;
      }
    }
    ::close(fd);
  }
}
BENCHMARK(BM_BareSocketRoundTrip)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
