// An in-process stand-in for the application, for tests that drive real sockets. Each accepted
// connection reads one request line, records it, and is answered by the next scripted step; when
// the script is empty the handler answers, and without a handler the peer replies with an error.
// Connections are served one at a time on a background thread.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace velko::testing {

/// A fresh directory under /tmp, removed with everything in it on destruction.
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  /// path() + "/" + relative; nothing is created.
  std::string file(std::string_view relative) const { return path_ + "/" + std::string(relative); }
  /// Writes `content` to path()/relative, creating its parent directories; returns the path.
  std::string write(std::string_view relative, std::string_view content = {}) const;

private:
  std::string path_;
};

/// The whole content of the file at `path`; empty when it cannot be read.
std::string readFile(const std::string& path);
/// Writes `content` to `path`, creating its parent directories.
void writeFile(const std::string& path, std::string_view content);

/// Leaves a socket file at `path` that nobody listens on: binds, then closes without listening
/// and without unlinking (what a force-quit application leaves behind). Parent directories are
/// created. Throws std::system_error on failure.
void leaveDeadSocket(const std::string& path);

/// What the peer does with one connection, after reading its request line unless it is
/// CloseUnread.
struct PeerStep {
  enum class Kind {
    Write,       ///< write `writes` in order, one write() each, then close
    CloseUnread, ///< close before reading the request (nothing is recorded)
    Hang,        ///< write `writes`, then keep the connection open until stopped
  };

  Kind kind = Kind::Write;
  std::vector<std::string> writes;

  /// `line` and a newline, in one write.
  static PeerStep line(std::string_view line) { return {.writes = {std::string(line) + "\n"}}; }
  /// Exactly these bytes, one write per chunk with a short pause between, so the client sees
  /// them in separate reads (lines after the first, to test that they are ignored).
  static PeerStep raw(std::vector<std::string> chunks) { return {.writes = std::move(chunks)}; }
  static PeerStep closeWithoutReply() { return {}; }
  static PeerStep closeUnread() { return {.kind = Kind::CloseUnread}; }
  static PeerStep unterminated(std::size_t bytes) { return raw({std::string(bytes, 'x')}); }
  /// Writes `partialReply` and then neither writes nor closes.
  static PeerStep hang(std::string partialReply) {
    return {.kind = Kind::Hang, .writes = {std::move(partialReply)}};
  }
};

class TestPeer {
public:
  /// Computes the reply line (without its newline) for a request line.
  using Handler = std::function<std::string(const std::string& requestLine)>;

  /// Listens at "ipc.sock" in its own temporary directory, or at `socketPath` (creating its
  /// parent directories, which are left to the caller; the socket file is removed on stop).
  TestPeer();
  explicit TestPeer(std::string socketPath);
  ~TestPeer();
  TestPeer(const TestPeer&) = delete;
  TestPeer& operator=(const TestPeer&) = delete;

  const std::string& socketPath() const { return socketPath_; }

  /// Appends a step to the script; each connection consumes one step.
  void push(PeerStep step);
  /// Answers connections once the script is used up.
  void setHandler(Handler handler);

  /// Every request line received so far, in order, without newlines; connections accepted.
  std::vector<std::string> requests() const;
  std::size_t connectionCount() const;

  /// Stops accepting, ends a hanging connection, joins the thread and removes the socket file.
  /// Safe to call from any thread and more than once.
  void stop();

private:
  void start();
  void serve();
  void answer(int connection);
  /// Waits until `fd` is readable; false once the peer is stopping.
  bool waitReadable(int fd) const;

  std::unique_ptr<TempDir> dir_;
  std::string socketPath_;
  int listener_ = -1;
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
  std::thread thread_;
  std::once_flag stopOnce_;

  mutable std::mutex mutex_;
  std::deque<PeerStep> script_;
  Handler handler_;
  std::vector<std::string> requests_;
  std::size_t connections_ = 0;
};

} // namespace velko::testing
