// End-to-end figures for the built velko-mcp binary, each printed beside its floor: the same work
// done without the server in between, measured in the same run.
//
//   velko_e2e_bench [path/to/velko-mcp]
//
// The application is the tests' peer (tests/support) in this process, answering from replies
// prepared in advance. For the IPC rows the server runs in a private mount namespace with a
// temporary home bind-mounted over the password database's home (needs root), so it finds the
// peer at ~/.velko/ipc.sock and the real ~/.velko is never touched. The floor of an IPC row
// replays the exact request bytes the server sent, straight to the peer: connect, write, read the
// reply line, close (the peer copies the prepared reply once per request, in both). Start-up and
// the stdio rows use /bin/cat as their floor: spawn it, or move a line of the same size through
// its pipes.
#include "support/ServerProcess.h"
#include "support/TestPeer.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using velko::testing::ServerProcess;

double microsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double median(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return samples.empty() ? 0 : samples[samples.size() / 2];
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  return address;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 1) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

/// Reads until a line feed into `buffer`; false when the peer closed first.
bool readLine(int fd, std::string& buffer) {
  static thread_local char chunk[1 << 20];
  buffer.clear();
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) {
      return false;
    }
    buffer.append(chunk, static_cast<std::size_t>(n));
    if (std::memchr(chunk, '\n', static_cast<std::size_t>(n)) != nullptr) {
      return true;
    }
  }
}

/// Reply lines by method, for the test peer: each request is answered with the line prepared for
/// its method, or with nothing when there is none.
class Replies {
public:
  void set(const std::string& method, std::string line) {
    std::lock_guard lock(mutex_);
    lines_[method] = std::move(line);
  }

  std::string operator()(const std::string& request) const {
    static constexpr std::string_view key = R"("method":")";
    const auto at = request.find(key);
    const auto start = at == std::string::npos ? request.size() : at + key.size();
    std::lock_guard lock(mutex_);
    const auto it = lines_.find(request.substr(start, request.find('"', start) - start));
    return it == lines_.end() ? std::string() : it->second;
  }

private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> lines_;
};

/// A library.list result of `photos` photos with every field a camera file gives, as
/// velko-headless writes it.
std::string listResultJson(int photos) {
  std::string out = R"({"photos":[)";
  for (int i = 0; i < photos; ++i) {
    char photo[768];
    std::snprintf(photo, sizeof photo,
                  R"(%s{"id":"%08X-1C2D-4E5F-8A9B-%012d/L0/001","pixelWidth":6000,)"
                  R"("pixelHeight":4000,"creationDate":"2026-05-%02dT08:%02d:00Z",)"
                  R"("modificationDate":"2026-06-01T10:00:00Z","formatLabel":"%s",)"
                  R"("latitude":%.6f,"longitude":%.6f,"isFavorite":%s,"isHidden":false,)"
                  R"("durationSeconds":0,"playbackStyle":1,"sourceType":1,)"
                  R"("representsBurst":false,"canEditContent":true,"canEditProperties":true,)"
                  R"("canDelete":true,"hasAdjustments":%s})",
                  i == 0 ? "" : ",", 0x3A7F0000 + i, i, 1 + i % 28, i % 60,
                  i % 7 == 0 ? "HEIC" : "JPEG", 48.856613 + 0.001 * i, 2.352222 - 0.0007 * i,
                  i % 5 == 0 ? "true" : "false", i % 3 == 0 ? "true" : "false");
    out += photo;
  }
  return out + R"(],"nextCursor":)" + std::to_string(photos) + "}";
}

/// One IPC exchange as the server makes it, without the server.
void directRoundTrip(const std::string& socketPath, const std::string& request,
                     std::string& buffer) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(socketPath);
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      !writeAll(fd, request) || !readLine(fd, buffer)) {
    ::close(fd);
    throw std::runtime_error("direct round trip failed");
  }
  ::close(fd);
}

std::string base64Text(std::size_t size) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::mt19937 random(42);
  std::string text(size, 'A');
  for (char& c : text) {
    c = kAlphabet[random() % 64];
  }
  return text;
}

std::string rpcResult(const std::string& resultJson) {
  return R"({"jsonrpc":"2.0","id":1,"result":)" + resultJson + "}";
}

std::string toolCall(std::string_view name, std::string_view arguments) {
  return R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":")" + std::string(name) +
         R"(","arguments":)" + std::string(arguments) + "}}";
}

struct Row {
  std::string what;
  std::string server;
  std::string cpu; ///< the server's own CPU time per call
  std::string floor;
  std::string ratio;
  std::string target;
};

std::string fixed(double value, int decimals, const char* unit) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f %s", decimals, value, unit);
  return text;
}

std::string timeText(double micros) {
  if (micros >= 10000) {
    return fixed(micros / 1000, 1, "ms");
  }
  if (micros >= 1000) {
    return fixed(micros / 1000, 2, "ms");
  }
  return fixed(micros, micros >= 100 ? 0 : 1, "µs");
}

std::string ratioText(double server, double floor) {
  return fixed(server / floor, 2, "×");
}

/// Median over `rounds` of `once()`, in microseconds, after `warm` unmeasured calls.
double measure(int rounds, int warm, const std::function<void()>& once) {
  for (int i = 0; i < warm; ++i) {
    once();
  }
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(rounds));
  for (int i = 0; i < rounds; ++i) {
    const auto start = Clock::now();
    once();
    samples.push_back(microsSince(start));
  }
  return median(std::move(samples));
}

/// CPU time the process has used so far, in microseconds (its one thread's schedstat).
double cpuMicros(pid_t pid) {
  std::ifstream schedstat("/proc/" + std::to_string(pid) + "/schedstat");
  double nanos = 0;
  schedstat >> nanos;
  return nanos / 1000;
}

/// What a pipe holds by default on Linux.
constexpr std::size_t kPipeCapacity = 64 << 10;

/// A line of `size` bytes in and out of /bin/cat: the cost of the host's pipes alone.
double catEcho(std::size_t size, int rounds) {
  ServerProcess cat({"/bin/cat"});
  std::string reply;
  const std::string line = std::string(size > 0 ? size - 1 : 0, 'x');
  return measure(rounds, 3, [&] {
    if (size <= kPipeCapacity) {
      cat.send(line);
      cat.readLine(reply);
      return;
    }
    // A line longer than a pipe holds fills cat's output while it is still being written, so
    // it is written from another thread while this one reads.
    std::thread writer([&] { cat.send(line); });
    cat.readLine(reply);
    writer.join();
  });
}

} // namespace

int main(int argc, char** argv) {
  const std::string binary = argc > 1 ? argv[1] : VELKO_MCP_PATH;
  std::vector<Row> rows;
  std::string notes;

  // Start-up: spawn, "initialize", first reply. The floor spawns cat and echoes the same line.
  const std::string initialize =
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2024-11-05"}})";
  auto startOnce = [&](const std::vector<std::string>& argv) {
    ServerProcess process(argv);
    process.send(initialize);
    process.readLine();
    process.closeInput();
    process.waitExit();
  };
  std::vector<double> startServer, startFloor;
  for (int i = 0; i < 3; ++i) {
    startOnce({binary});
    startOnce({"/bin/cat"});
  }
  for (int i = 0; i < 60; ++i) {
    auto start = Clock::now();
    ServerProcess server({binary});
    server.send(initialize);
    server.readLine();
    startServer.push_back(microsSince(start));
    server.closeInput();
    server.waitExit();
    start = Clock::now();
    ServerProcess cat({"/bin/cat"});
    cat.send(initialize);
    cat.readLine();
    startFloor.push_back(microsSince(start));
    cat.closeInput();
    cat.waitExit();
  }
  rows.push_back({"start-up to the initialize reply", timeText(median(startServer)), "",
                  timeText(median(startFloor)) + " (spawn cat)",
                  ratioText(median(startServer), median(startFloor)), "< 5 ms"});

  const std::string reason = velko::testing::privateHomeUnavailableReason();
  if (!reason.empty()) {
    std::fprintf(stderr, "velko_e2e_bench: only start-up measured: %s\n", reason.c_str());
  }

  velko::testing::TempDir home;
  std::string reply;
  auto replies = std::make_shared<Replies>();
  std::unique_ptr<velko::testing::TestPeer> app;
  std::unique_ptr<ServerProcess> server;
  long rssAfterInitialize = -1;
  if (reason.empty()) {
    app = std::make_unique<velko::testing::TestPeer>(home.file(".velko/ipc.sock"));
    app->setHandler([replies](const std::string& request) { return (*replies)(request); });
    replies->set("system.ping", rpcResult(R"({"appVersion":"1.0","buildStamp":"bench",)"
                                          R"("protocolVersion":1,"libraryAuthorized":true,)"
                                          R"("photoCount":1000})"));
    server = std::make_unique<ServerProcess>(velko::testing::withPrivateHome(home.path(), binary));
    server->readErrorLine();
    server->send(initialize);
    server->readLine(reply);
    rssAfterInitialize = server->statusKiB("VmRSS");
  } else {
    server = std::make_unique<ServerProcess>(std::vector<std::string>{binary});
    server->send(initialize);
    server->readLine(reply);
    rssAfterInitialize = server->statusKiB("VmRSS");
  }

  // The median time of a call and the server's mean CPU time per call.
  struct Timing {
    double median;
    double cpu;
  };
  auto onProcess = [&](ServerProcess& process, int rounds, int warm,
                       const std::function<void()>& once) {
    for (int i = 0; i < warm; ++i) {
      once();
    }
    const double cpuBefore = cpuMicros(process.pid());
    const double median = measure(rounds, 0, once);
    return Timing{median, (cpuMicros(process.pid()) - cpuBefore) / rounds};
  };
  auto onServer = [&](int rounds, int warm, const std::function<void()>& once) {
    return onProcess(*server, rounds, warm, once);
  };
  // The same calls through the comparison server, when there is one: what, velko-mcp, Node.
  std::vector<std::tuple<std::string, Timing, std::string>> comparisons;

  // stdio rows: the floor moves a line as long as the reply through cat.
  const std::string toolsList = R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})";
  server->send(toolsList);
  const std::size_t toolsListBytes = server->readLine().size() + 1;
  const Timing toolsServer = onServer(300, 10, [&] {
    server->send(toolsList);
    server->readLine(reply);
  });
  const double toolsFloor = catEcho(toolsListBytes, 300);
  rows.push_back({"tools/list (" + std::to_string(toolsListBytes / 1024) + " KiB reply)",
                  timeText(toolsServer.median), timeText(toolsServer.cpu),
                  timeText(toolsFloor) + " (cat echo)", ratioText(toolsServer.median, toolsFloor),
                  ""});

  const std::string mcpPing = R"({"jsonrpc":"2.0","id":3,"method":"ping"})";
  const Timing pingServer = onServer(2000, 50, [&] {
    server->send(mcpPing);
    server->readLine(reply);
  });
  const double pingFloor = catEcho(mcpPing.size() + 1, 2000);
  rows.push_back({"MCP ping", timeText(pingServer.median), timeText(pingServer.cpu),
                  timeText(pingFloor) + " (cat echo)", ratioText(pingServer.median, pingFloor),
                  ""});

  if (app) {
    std::string buffer;
    const std::string velkoPing = toolCall("velko_ping", "{}");
    server->send(velkoPing);
    const std::string first = server->readLine();
    if (first.find(R"("isError":false)") == std::string::npos) {
      std::fprintf(stderr, "velko_e2e_bench: velko_ping failed: %s\n", first.c_str());
      return 1;
    }
    const std::string pingRequest = app->requests().back() + "\n";
    const Timing ipcServer = onServer(2000, 50, [&] {
      server->send(velkoPing);
      server->readLine(reply);
    });
    const double ipcFloor =
        measure(2000, 50, [&] { directRoundTrip(app->socketPath(), pingRequest, buffer); });
    rows.push_back({"velko_ping (median of 2000 sequential calls)", timeText(ipcServer.median),
                    timeText(ipcServer.cpu), timeText(ipcFloor),
                    ratioText(ipcServer.median, ipcFloor), "< 1.5× floor"});

    replies->set("library.list", rpcResult(listResultJson(100)));
    const std::string velkoList = toolCall("velko_list", R"({"limit":100})");
    server->send(velkoList);
    if (const std::string first = server->readLine();
        first.find(R"("isError":false)") == std::string::npos) {
      std::fprintf(stderr, "velko_e2e_bench: velko_list failed: %.300s\n", first.c_str());
      return 1;
    }
    const std::string listRequest = app->requests().back() + "\n";
    const Timing listServer = onServer(1000, 30, [&] {
      server->send(velkoList);
      server->readLine(reply);
    });
    const double listFloor =
        measure(1000, 30, [&] { directRoundTrip(app->socketPath(), listRequest, buffer); });
    rows.push_back(
        {"velko_list, 100 photos (" + std::to_string(buffer.size() / 1024) + " KiB reply)",
         timeText(listServer.median), timeText(listServer.cpu), timeText(listFloor),
         ratioText(listServer.median, listFloor), "< 3× floor"});

    comparisons.emplace_back(velkoPing, ipcServer, "velko_ping");
    comparisons.emplace_back(velkoList, listServer, "velko_list, 100 photos");

    struct Size {
      std::size_t bytes;
      const char* label;
      int rounds;
    };
    for (const Size& size :
         {Size{100000, "100 KB", 200}, Size{1u << 20, "1 MiB", 60}, Size{6u << 20, "6 MiB", 30}}) {
      replies->set("preview.render",
                   rpcResult(R"({"pngBase64":")" + base64Text(size.bytes) +
                             R"(","width":1024,"height":683,"appliedStackVersion":3,)"
                             R"("basedOnOriginal":true})"));
      const std::string call = toolCall("velko_preview_render", R"({"id":"A/L0/001"})");
      server->send(call);
      const std::string firstReply = server->readLine();
      if (firstReply.find(R"("isError":false)") == std::string::npos) {
        std::fprintf(stderr, "velko_e2e_bench: velko_preview_render failed: %.300s\n",
                     firstReply.c_str());
        return 1;
      }
      const std::string request = app->requests().back() + "\n";
      const Timing previewServer = onServer(size.rounds, 3, [&] {
        server->send(call);
        server->readLine(reply);
      });
      const double previewFloor =
          measure(size.rounds, 3, [&] { directRoundTrip(app->socketPath(), request, buffer); });
      rows.push_back({std::string("velko_preview_render, ") + size.label + " of base64",
                      timeText(previewServer.median), timeText(previewServer.cpu),
                      timeText(previewFloor), ratioText(previewServer.median, previewFloor),
                      size.bytes == (6u << 20) ? "< 2× floor" : ""});
      if (size.bytes == (6u << 20)) {
        comparisons.emplace_back(call, previewServer, "velko_preview_render, 6 MiB");
        // What the server's result line costs on its way to the host, which the floor does not
        // pay: the same number of bytes through cat's pipes is two such hops.
        const double twoHops = catEcho(reply.size() + 1, size.rounds);
        rows.push_back({"the same 6 MiB line through cat and back (two pipe hops)",
                        timeText(twoHops), "", "", "", ""});
      }
    }

    // The comparison server: the same tools written plainly with Node and the official SDK
    // (bench/node-reference-server.mjs), started like velko-mcp over the same application.
    const char* script = std::getenv("VELKO_NODE_REFERENCE");
    const char* nodeBinary = std::getenv("VELKO_NODE");
    if (script != nullptr && nodeBinary != nullptr) {
      std::vector<std::string> argv = velko::testing::withPrivateHome(home.path(), nodeBinary);
      argv[5] = R"(mount --bind "$1" "$2" && exec "$3" "$4")";
      argv.emplace_back(script);
      ServerProcess node(argv);
      node.send(initialize);
      node.readLine(reply);
      node.send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
      std::string table = "| Call | velko-mcp | Node and the official SDK | velko-mcp / Node |\n"
                          "|---|---|---|---|\n";
      for (const auto& [call, ours, label] : comparisons) {
        node.send(call);
        node.readLine(reply);
        if (reply.find(R"("isError":true)") != std::string::npos ||
            reply.find(R"("error":)") != std::string::npos) {
          table += "| " + label + " | failed: " + reply.substr(0, 200) + " |\n";
          continue;
        }
        const int rounds = label.find("preview") != std::string::npos ? 30 : 300;
        // clang before 16 cannot capture a structured binding in a lambda.
        const std::string& request = call;
        const Timing theirs = onProcess(node, rounds, 10, [&] {
          node.send(request);
          node.readLine(reply);
        });
        table += "| " + label + " | " + timeText(ours.median) + " | " + timeText(theirs.median) +
                 " | " + fixed(ours.median / theirs.median, 3, "") + " |\n";
      }
      notes += "\nThe same calls through a comparison server written with Node and the official "
               "SDK, in this run:\n\n" +
               table;
    }
  } else {
    notes += "IPC rows skipped: " + reason + "\n";
  }

  const long peak = server->statusKiB("VmHWM");
  rows.push_back({"resident after initialize (VmRSS)", fixed(rssAfterInitialize / 1024.0, 1, "MiB"),
                  "", "", "", "< 8 MiB"});
  rows.push_back(
      {"resident at peak (VmHWM)", fixed(peak / 1024.0, 1, "MiB"), "", "", "", "< 40 MiB"});

  // Exit after end of input, against cat's.
  std::vector<double> exitServer, exitFloor;
  {
    auto start = Clock::now();
    server->closeInput();
    server->waitExit();
    exitServer.push_back(microsSince(start));
  }
  for (int i = 0; i < 30; ++i) {
    ServerProcess fresh({binary});
    fresh.send(initialize);
    fresh.readLine();
    auto start = Clock::now();
    fresh.closeInput();
    fresh.waitExit();
    exitServer.push_back(microsSince(start));
    ServerProcess cat({"/bin/cat"});
    cat.send(initialize);
    cat.readLine();
    start = Clock::now();
    cat.closeInput();
    cat.waitExit();
    exitFloor.push_back(microsSince(start));
  }
  rows.push_back({"exit after end of input", timeText(median(exitServer)), "",
                  timeText(median(exitFloor)) + " (cat)",
                  ratioText(median(exitServer), median(exitFloor)), ""});

  std::printf("| Measure | velko-mcp | its CPU | Floor | Ratio | Target |\n"
              "|---|---|---|---|---|---|\n");
  for (const Row& row : rows) {
    std::printf("| %s | %s | %s | %s | %s | %s |\n", row.what.c_str(), row.server.c_str(),
                row.cpu.c_str(), row.floor.c_str(), row.ratio.c_str(), row.target.c_str());
  }
  if (!notes.empty()) {
    std::printf("\n%s", notes.c_str());
  }
  return 0;
}
