// The velko-mcp binary as a host runs it: a child process spoken to over pipes.
//   - start-up: spawn, send "initialize", read the reply, close input, reap;
//   - tools/list: one round trip on a running server (the table is built before timing);
//   - velko_ping: one tools/call through the IPC client to the in-process test peer.
// The binary finds its socket under the home of the password database, so the ping benchmark
// runs it under `unshare --mount` with a temporary directory bind-mounted over that home (this
// needs root); without that it reports an error instead of touching the real ~/.velko.
#include "support/TestPeer.h"

#include <benchmark/benchmark.h>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

class ServerProcess {
public:
  explicit ServerProcess(const std::vector<std::string>& argv) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const std::string& a : argv) {
      args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    const int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    toChild_ = in[1];
    fromChild_ = out[0];
    if (rc != 0) {
      throw std::runtime_error("spawn failed: " + std::string(std::strerror(rc)));
    }
  }

  ~ServerProcess() { finish(); }

  void send(std::string_view line) {
    std::string bytes(line);
    bytes += '\n';
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = write(toChild_, bytes.data() + done, bytes.size() - done);
      if (n <= 0) {
        throw std::runtime_error("write to server failed");
      }
      done += static_cast<std::size_t>(n);
    }
  }

  std::string readLine() {
    for (;;) {
      if (const auto nl = buffer_.find('\n'); nl != std::string::npos) {
        std::string line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return line;
      }
      char chunk[65536];
      const ssize_t n = read(fromChild_, chunk, sizeof chunk);
      if (n <= 0) {
        throw std::runtime_error("server closed its output");
      }
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }

  /// Closes the server's input and reaps it; returns its exit status.
  int finish() {
    if (pid_ <= 0) {
      return status_;
    }
    close(toChild_);
    int wstatus = 0;
    waitpid(pid_, &wstatus, 0);
    close(fromChild_);
    pid_ = -1;
    status_ = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    return status_;
  }

private:
  pid_t pid_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
  int status_ = -1;
  std::string buffer_;
};

constexpr const char* kInitialize =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2024-11-05"}})";
constexpr const char* kToolsList = R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})";
constexpr const char* kPingCall =
    R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"velko_ping"}})";
constexpr const char* kPingReply =
    R"({"appVersion":"1.0","buildStamp":"bench","protocolVersion":1,"libraryAuthorized":true,"photoCount":1000})";

void BM_StartupToInitializeReply(benchmark::State& state) {
  for (auto _ : state) {
    ServerProcess server({VELKO_MCP_PATH});
    server.send(kInitialize);
    benchmark::DoNotOptimize(server.readLine());
    if (server.finish() != 0) {
      state.SkipWithError("server exited with a non-zero status");
      break;
    }
  }
}
BENCHMARK(BM_StartupToInitializeReply)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ToolsListRoundTrip(benchmark::State& state) {
  ServerProcess server({VELKO_MCP_PATH});
  server.send(kToolsList); // builds the table
  std::size_t bytes = server.readLine().size();
  for (auto _ : state) {
    server.send(kToolsList);
    bytes = server.readLine().size();
  }
  state.counters["reply_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ToolsListRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);

std::string passwordHome() {
  const passwd* pw = getpwuid(getuid());
  return pw != nullptr && pw->pw_dir != nullptr ? pw->pw_dir : "";
}

void BM_PingThroughTestPeer(benchmark::State& state) {
  const std::string home = passwordHome();
  if (getuid() != 0 || home.empty()) {
    state.SkipWithError("needs root to bind-mount a temporary home");
    return;
  }
  velko::testing::TempDir fakeHome;
  velko::testing::TestPeer peer(fakeHome.file(".velko/ipc.sock"));
  peer.setHandler([](const std::string&) {
    return std::string(R"({"jsonrpc":"2.0","id":1,"result":)") + kPingReply + "}";
  });
  ServerProcess server({"/usr/bin/unshare", "--mount", "--", "/bin/sh", "-c",
                        "mount --bind \"$1\" \"$2\" && exec \"$3\"", "sh", fakeHome.path(), home,
                        VELKO_MCP_PATH});
  server.send(kPingCall);
  const std::string first = server.readLine();
  if (first.find("\"isError\":false") == std::string::npos) {
    state.SkipWithError(("ping failed: " + first).c_str());
    return;
  }
  for (auto _ : state) {
    server.send(kPingCall);
    benchmark::DoNotOptimize(server.readLine());
  }
  state.counters["peer_connections"] = static_cast<double>(peer.connectionCount());
}
BENCHMARK(BM_PingThroughTestPeer)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
