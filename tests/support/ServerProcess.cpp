#include "support/ServerProcess.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <pwd.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace velko::testing {
namespace {

void closeFd(int& fd) {
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
}

} // namespace

std::string passwordHome() {
  const passwd* entry = ::getpwuid(::getuid());
  return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "";
}

std::vector<std::string> withPrivateHome(const std::string& fakeHome, const std::string& binary) {
  // unshare makes mounts private to the new namespace by default, so the bind mount is seen by
  // the child alone; both shells exec, so the server keeps the pid that was spawned.
  return {"/usr/bin/unshare", "--mount", "--",
          "/bin/sh", "-c", "mount --bind \"$1\" \"$2\" && exec \"$3\"", "sh",
          fakeHome, passwordHome(), binary};
}

std::string privateHomeUnavailableReason() {
  if (passwordHome().empty()) {
    return "the user has no home in the password database";
  }
  char pattern[] = "/tmp/velko-probe-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    return "cannot create a temporary directory";
  }
  int status = -1;
  try {
    ServerProcess probe(withPrivateHome(pattern, "/bin/true"));
    probe.closeInput();
    status = probe.waitExit(std::chrono::seconds(30)).value_or(-1);
  } catch (const std::exception&) {
  }
  ::rmdir(pattern);
  return status == 0 ? "" : "/usr/bin/unshare --mount with a bind mount over the home failed here";
}

ServerProcess::ServerProcess(const std::vector<std::string>& argv) {
  int pipes[3][2]; // standard input, output and error
  for (auto& pipe : pipes) {
    if (::pipe2(pipe, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe failed"); // leaves the earlier pipes open: a test fails anyway
    }
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int fd = 0; fd < 3; ++fd) {
    posix_spawn_file_actions_adddup2(&actions, pipes[fd][fd == 0 ? 0 : 1], fd);
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  std::vector<char*> args;
  for (const std::string& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  const int rc = ::posix_spawn(&pid_, args[0], &actions, &attributes, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(pipes[0][0]);
  ::close(pipes[1][1]);
  ::close(pipes[2][1]);
  toChild_ = pipes[0][1];
  fromChild_ = pipes[1][0];
  errFromChild_ = pipes[2][0];
  if (rc != 0) {
    pid_ = -1;
    closeFd(toChild_);
    closeFd(fromChild_);
    closeFd(errFromChild_);
    throw std::runtime_error("cannot start " + argv.front() + ": " + std::strerror(rc));
  }
}

ServerProcess::~ServerProcess() {
  closeFd(toChild_);
  if (pid_ > 0 && !status_) {
    ::kill(-pid_, SIGKILL);
    int wstatus = 0;
    ::waitpid(pid_, &wstatus, 0);
  }
  closeFd(fromChild_);
  closeFd(errFromChild_);
}

void ServerProcess::send(std::string_view line) {
  write(std::string(line) + '\n');
}

void ServerProcess::write(std::string_view bytes) {
  // A child that has gone must show up as an error here, not as SIGPIPE killing the caller.
  const auto previous = std::signal(SIGPIPE, SIG_IGN);
  while (!bytes.empty()) {
    const ssize_t n = ::write(toChild_, bytes.data(), bytes.size());
    if (n <= 0) {
      std::signal(SIGPIPE, previous);
      throw std::runtime_error("write to the server failed");
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  std::signal(SIGPIPE, previous);
}

void ServerProcess::closeInput() {
  closeFd(toChild_);
}

std::size_t ServerProcess::readSome(int fd, Clock::time_point deadline, std::string& into,
                                    const char* late, std::size_t most) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd entry{fd, POLLIN, 0};
  if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
    throw std::runtime_error(late);
  }
  // As much as a widened pipe holds, in one read.
  static thread_local char chunk[1 << 20];
  const ssize_t n = ::read(fd, chunk, std::min(most, sizeof chunk));
  into.append(chunk, n > 0 ? static_cast<std::size_t>(n) : 0);
  return n > 0 ? static_cast<std::size_t>(n) : 0;
}

std::string ServerProcess::readLine(std::chrono::milliseconds limit) {
  std::string line;
  readLine(line, limit);
  return line;
}

void ServerProcess::readLine(std::string& line, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  // Only new bytes are searched, so a multi-megabyte line costs one pass.
  for (std::size_t scanned = 0;;) {
    if (const auto nl = buffer_.find('\n', scanned); nl != std::string::npos) {
      line.assign(buffer_, 0, nl);
      buffer_.erase(0, nl + 1);
      return;
    }
    scanned = buffer_.size();
    if (readSome(fromChild_, deadline, buffer_, "no line from the server in time") == 0) {
      throw std::runtime_error("the server closed its output");
    }
  }
}

std::string ServerProcess::readToEnd(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (readSome(fromChild_, deadline, buffer_, "the server did not close its output in time")) {
  }
  return std::exchange(buffer_, {});
}

std::string ServerProcess::readErrorLine(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  const char* late = "no line on the server's standard error in time";
  std::string line;
  while ((line.empty() || line.back() != '\n') && readSome(errFromChild_, deadline, line, late, 1)) {
  }
  return line;
}

std::optional<int> ServerProcess::waitExit(std::chrono::milliseconds limit) {
  if (status_ || pid_ <= 0) {
    return status_;
  }
  const auto deadline = Clock::now() + limit;
  for (;;) {
    int wstatus = 0;
    const pid_t rc = ::waitpid(pid_, &wstatus, WNOHANG);
    if (rc == pid_) {
      status_ = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
      return status_;
    }
    if (rc < 0 || Clock::now() >= deadline) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

int ServerProcess::waitExit() {
  return waitExit(std::chrono::hours(24)).value_or(-1);
}

bool ServerProcess::groupAlive() const {
  return pid_ > 0 && ::kill(-pid_, 0) == 0;
}

long statusKiB(pid_t pid, std::string_view key) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.size() > key.size() && line.compare(0, key.size(), key) == 0 &&
        line[key.size()] == ':') {
      return std::stol(line.substr(key.size() + 1));
    }
  }
  return -1;
}

} // namespace velko::testing
