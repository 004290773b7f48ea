// The built velko-mcp binary run the way a host runs it: a child process with its standard input,
// output and error on pipes. For runs that must reach a socket under the user's home, the child
// can be started (withPrivateHome) in a private mount namespace with a temporary directory
// bind-mounted over the home of the password database, so the real ~/.velko is never touched.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace velko::testing {

/// The home directory of the password-database entry of the real user id; empty without one.
std::string passwordHome();

/// An argv that runs `binary` in a new mount namespace with `fakeHome` bind-mounted over
/// passwordHome(). Needs the right to unshare and mount (root, in practice).
std::vector<std::string> withPrivateHome(const std::string& fakeHome, const std::string& binary);

/// Empty when withPrivateHome() works here; otherwise why not, for a skip message.
std::string privateHomeUnavailableReason();

/// A line of /proc/<pid>/status such as "VmRSS", in kibibytes; -1 when it cannot be read.
long statusKiB(pid_t pid, std::string_view key);

class ServerProcess {
public:
  /// Starts argv[0] (an absolute path) with argv, in a process group of its own. Throws
  /// std::runtime_error when it cannot be started.
  explicit ServerProcess(const std::vector<std::string>& argv);
  /// Kills the process group if it is still running and reaps the child.
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  pid_t pid() const { return pid_; }

  /// Writes `line` and a line feed to the child's standard input.
  void send(std::string_view line);
  /// Writes exactly `bytes`.
  void write(std::string_view bytes);
  /// Closes the child's standard input: end of input.
  void closeInput();

  /// The next line of standard output without its line feed. Throws std::runtime_error at end
  /// of output or when nothing arrives within `limit` (a generous bound against hangs).
  std::string readLine(std::chrono::milliseconds limit = std::chrono::seconds(30));
  /// The same into `line`, whose capacity is kept from call to call.
  void readLine(std::string& line, std::chrono::milliseconds limit = std::chrono::seconds(30));
  /// Everything the child writes to standard output until it closes it; the same bound.
  std::string readToEnd(std::chrono::milliseconds limit = std::chrono::seconds(30));
  /// The next line of standard error, line feed included, read a byte at a time so that
  /// nothing after it is consumed.
  std::string readErrorLine(std::chrono::milliseconds limit = std::chrono::seconds(30));

  /// Waits for the child to exit; its exit status, -1 after a signal, or nothing if it is still
  /// running after `limit`.
  std::optional<int> waitExit(std::chrono::milliseconds limit);
  /// Waits for a day at most; the exit status or -1.
  int waitExit();

  /// True while any process of the child's group is alive (a reaped child's own group included).
  bool groupAlive() const;

  long statusKiB(std::string_view key) const { return velko::testing::statusKiB(pid_, key); }

private:
  using Clock = std::chrono::steady_clock;
  /// Appends at most `most` bytes read from `fd` to `into`; how many, 0 at end of file. Throws
  /// std::runtime_error(late) when nothing is readable before `deadline`.
  static std::size_t readSome(int fd, Clock::time_point deadline, std::string& into,
                              const char* late, std::size_t most = SIZE_MAX);

  pid_t pid_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
  int errFromChild_ = -1;
  std::optional<int> status_;
  std::string buffer_;
};

} // namespace velko::testing
