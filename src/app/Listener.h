// The IPC endpoint: a Unix-domain stream socket on which every connection carries one request
// frame and one reply frame. Connections are served on threads of their own, so a slow render
// never keeps another connection waiting.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace velko::app {

class Listener {
public:
  using Answer = std::function<std::string(std::string_view frame)>;

  /// Listens at `path` (mode 0600). A socket there that accepts a connection belongs to a running
  /// application: throws std::runtime_error saying so. A stale one is replaced.
  explicit Listener(std::string path);
  /// Stops listening and removes the socket file.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Serves connections until stop(), then waits for the requests in flight to be answered.
  void serve(const Answer& answer);
  /// Makes serve() return; safe from any thread.
  void stop();

  const std::string& path() const { return path_; }

  /// The most connections served at once; more wait in the listen backlog.
  static constexpr int kMaxConnections = 64;
  /// A peer that sends nothing, or reads nothing, for this long is dropped.
  static constexpr int kPeerTimeoutSeconds = 30;

private:
  void serveConnection(int fd, const Answer& answer);

  std::string path_;
  int listenFd_ = -1;
  int wakeFds_[2] = {-1, -1};
  std::mutex mutex_;
  std::condition_variable idle_;
  int active_ = 0;
};

} // namespace velko::app
