#include "app/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace velko::app {
namespace {

constexpr std::size_t kMaxErrorText = 64 * 1024;

struct Pipe {
  int read = -1, write = -1;
  Pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
    }
    read = fds[0];
    write = fds[1];
  }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  void closeRead() {
    if (read >= 0)
      ::close(read);
    read = -1;
  }
  void closeWrite() {
    if (write >= 0)
      ::close(write);
    write = -1;
  }
};

struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
  }
};

} // namespace

ProcessResult runProcess(const std::vector<std::string>& argv) {
  if (argv.empty()) {
    throw std::invalid_argument("runProcess needs a program");
  }
  Pipe out, err;
  SpawnSetup setup;
  posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&setup.actions, out.write, 1);
  posix_spawn_file_actions_adddup2(&setup.actions, err.write, 2);
  // The server ignores SIGPIPE and may block signals in worker threads; the child starts clean.
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigmask(&setup.attr, &none);
  posix_spawnattr_setsigdefault(&setup.attr, &defaults);
  posix_spawnattr_setflags(&setup.attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);

  pid_t pid = 0;
  const int rc = posix_spawnp(&pid, args[0], &setup.actions, &setup.attr, args.data(), environ);
  if (rc == ENOENT) {
    throw ProgramNotFound(argv[0] + " is not installed (not found on PATH)");
  }
  if (rc != 0) {
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  }
  out.closeWrite();
  err.closeWrite();

  ProcessResult result;
  // Both streams are read together so that a child filling one pipe never blocks.
  pollfd fds[2] = {{out.read, POLLIN, 0}, {err.read, POLLIN, 0}};
  int open = 2;
  char buffer[16 * 1024];
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR)
        continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0)
        continue;
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0) {
        fds[i].fd = -1;
        --open;
        continue;
      }
      std::string& text = i == 0 ? result.output : result.errors;
      text.append(buffer, static_cast<std::size_t>(n));
      if (i == 1 && text.size() > 2 * kMaxErrorText) {
        text.erase(0, text.size() - kMaxErrorText);
      }
    }
  }
  if (result.errors.size() > kMaxErrorText) {
    result.errors.erase(0, result.errors.size() - kMaxErrorText);
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      throw std::runtime_error("lost the child " + argv[0] + ": " + std::strerror(errno));
    }
  }
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

} // namespace velko::app
