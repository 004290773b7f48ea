#include "app/Listener.h"

#include "app/Log.h"
#include "protocol/FrameCodec.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace velko::app {
namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.size() >= sizeof(a.sun_path)) {
    throw std::runtime_error("the socket path " + path + " is too long for a Unix socket");
  }
  std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
  return a;
}

bool someoneListens(const sockaddr_un& a) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return false;
  }
  const bool live = ::connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
  ::close(fd);
  return live;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

} // namespace

Listener::Listener(std::string path) : path_(std::move(path)) {
  const sockaddr_un a = addressOf(path_);
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0) {
    if (someoneListens(a)) {
      throw std::runtime_error("another application is already serving on " + path_ +
                               "; quit it before starting velko-headless");
    }
    ::unlink(path_.c_str()); // stale: its owner is gone
  }
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) {
    throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
  }
  // Created with mode 0600 from the start, so no other user can ever connect.
  const mode_t old = ::umask(0177);
  const int rc = ::bind(listenFd_, reinterpret_cast<const sockaddr*>(&a), sizeof a);
  const int bindErrno = errno;
  ::umask(old);
  if (rc != 0 || ::listen(listenFd_, 128) != 0) {
    const int err = rc != 0 ? bindErrno : errno;
    ::close(listenFd_);
    throw std::runtime_error("cannot listen on " + path_ + ": " + std::strerror(err));
  }
  if (::pipe2(wakeFds_, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  }
}

Listener::~Listener() {
  ::close(listenFd_);
  ::unlink(path_.c_str());
  ::close(wakeFds_[0]);
  ::close(wakeFds_[1]);
}

void Listener::stop() {
  const char byte = 1;
  [[maybe_unused]] const ssize_t n = ::write(wakeFds_[1], &byte, 1);
}

void Listener::serve(const Answer& answer) {
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      idle_.wait(lock, [&] { return active_ < kMaxConnections; });
    }
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
    }
    if (fds[1].revents != 0) {
      break;
    }
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno != EINTR && errno != EAGAIN && errno != ECONNABORTED) {
        logLine(std::string("accept: ") + std::strerror(errno));
        // Out of descriptors or memory: wait for a connection to finish rather than spin.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      continue;
    }
    timeval timeout{kPeerTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    {
      std::lock_guard lock(mutex_);
      ++active_;
    }
    try {
      std::thread([this, fd, &answer] {
        serveConnection(fd, answer);
        std::lock_guard lock(mutex_);
        --active_;
        idle_.notify_all();
      }).detach();
    } catch (const std::system_error& e) {
      logLine(std::string("cannot start a connection thread: ") + e.what());
      ::close(fd);
      std::lock_guard lock(mutex_);
      --active_;
    }
  }
  // Finish what is in flight; new connections are no longer accepted.
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [&] { return active_ == 0; });
}

void Listener::serveConnection(int fd, const Answer& answer) {
  protocol::LineScanner scanner;
  std::string frame;
  bool complete = false;
  char buffer[65536];
  try {
    while (!complete) {
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        break; // the peer closed, failed or stayed silent too long
      }
      auto frames = scanner.append(std::string_view(buffer, static_cast<std::size_t>(n)));
      if (!frames.empty()) {
        frame = std::move(frames.front());
        complete = true;
      } else if (scanner.bufferedBytes() > static_cast<std::size_t>(protocol::kMaxFrameBytes)) {
        throw protocol::FrameError::frameTooLarge(
            static_cast<std::int64_t>(scanner.bufferedBytes()));
      }
    }
  } catch (const protocol::FrameError& e) {
    logLine(std::string("dropped a connection: ") + e.what());
  }
  if (complete) {
    std::string reply = answer(frame);
    reply.push_back('\n');
    if (!writeAll(fd, reply)) {
      logLine("a peer left before its reply was sent");
    }
  }
  ::close(fd);
}

} // namespace velko::app
