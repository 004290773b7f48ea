#include "support/TestPeer.h"

#include "protocol/FrameCodec.h"
#include "protocol/Rpc.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace velko::testing {
namespace {

[[noreturn]] void failSystem(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

int boundSocket(const std::string& path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (path.size() >= sizeof address.sun_path) {
    throw std::system_error(ENAMETOOLONG, std::generic_category(), "test socket path");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    failSystem("socket");
  }
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    ::close(fd);
    throw std::system_error(error, std::generic_category(), "bind " + path);
  }
  return fd;
}

/// Writes all of `bytes`; false when the client has gone.
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

} // namespace

// ---- TempDir ------------------------------------------------------------------------------------

TempDir::TempDir() {
  std::string pattern = "/tmp/velko-test-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    failSystem("mkdtemp");
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(std::string_view relative, std::string_view content) const {
  writeFile(file(relative), content);
  return file(relative);
}

void writeFile(const std::string& path, std::string_view content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary).write(content.data(), std::ssize(content));
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void leaveDeadSocket(const std::string& path) {
  ::close(boundSocket(path));
}

// ---- TestPeer -----------------------------------------------------------------------------------

TestPeer::TestPeer() : dir_(std::make_unique<TempDir>()), socketPath_(dir_->file("ipc.sock")) {
  start();
}

TestPeer::TestPeer(std::string socketPath) : socketPath_(std::move(socketPath)) {
  start();
}

TestPeer::~TestPeer() {
  stop();
}

void TestPeer::start() {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    failSystem("pipe");
  }
  wakeRead_ = pipeFds[0];
  wakeWrite_ = pipeFds[1];
  listener_ = boundSocket(socketPath_);
  if (::listen(listener_, 16) != 0) {
    failSystem("listen");
  }
  thread_ = std::thread([this] { serve(); });
}

void TestPeer::stop() {
  std::call_once(stopOnce_, [this] {
    const char byte = 1;
    (void)!::write(wakeWrite_, &byte, 1);
    if (thread_.joinable()) {
      thread_.join();
    }
    ::close(listener_);
    ::close(wakeRead_);
    ::close(wakeWrite_);
    ::unlink(socketPath_.c_str());
  });
}

void TestPeer::push(PeerStep step) {
  std::lock_guard lock(mutex_);
  script_.push_back(std::move(step));
}

void TestPeer::setHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

std::vector<std::string> TestPeer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t TestPeer::connectionCount() const {
  std::lock_guard lock(mutex_);
  return connections_;
}

bool TestPeer::waitReadable(int fd) const {
  pollfd fds[2] = {{fd, POLLIN, 0}, {wakeRead_, POLLIN, 0}};
  while (::poll(fds, 2, -1) < 0) {
    if (errno != EINTR) {
      return false;
    }
  }
  return fds[1].revents == 0; // without a time-out, poll returns with some event
}

void TestPeer::serve() {
  while (waitReadable(listener_)) {
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      continue;
    }
    {
      std::lock_guard lock(mutex_);
      ++connections_;
    }
    answer(connection);
    ::close(connection);
  }
}

void TestPeer::answer(int connection) {
  {
    std::lock_guard lock(mutex_);
    if (!script_.empty() && script_.front().kind == PeerStep::Kind::CloseUnread) {
      script_.pop_front();
      return;
    }
  }
  // Read the request line first, as the application does.
  protocol::LineScanner scanner;
  std::vector<std::string> lines;
  char chunk[65536];
  while (lines.empty()) {
    if (!waitReadable(connection)) {
      return;
    }
    const ssize_t n = ::read(connection, chunk, sizeof chunk);
    if (n < 1) {
      return;
    }
    lines = scanner.append(std::string_view(chunk, static_cast<std::size_t>(n)));
  }

  PeerStep step;
  Handler handler;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(lines.front());
    if (!script_.empty()) {
      step = std::move(script_.front());
      script_.pop_front();
    } else if (handler_) {
      handler = handler_;
    } else {
      step = PeerStep::line(protocol::rpc::encodeError(protocol::RPCID{std::int64_t{1}},
                                                       protocol::RPCErrorCode::InternalError,
                                                       "test peer: no step scripted"));
    }
  }
  if (handler) {
    // The reply and its line feed in one call, as an application sends a line, without
    // copying a reply of megabytes to append the line feed.
    const std::string reply = handler(lines.front());
    char newline = '\n';
    iovec parts[2] = {{const_cast<char*>(reply.data()), reply.size()}, {&newline, 1}};
    const msghdr message{.msg_iov = parts, .msg_iovlen = 2};
    const ssize_t sent = ::sendmsg(connection, &message, MSG_NOSIGNAL);
    // A short send of a large reply: the rest as it goes.
    if (sent >= 0 && static_cast<std::size_t>(sent) <= reply.size() &&
        writeAll(connection, std::string_view(reply).substr(static_cast<std::size_t>(sent)))) {
      writeAll(connection, "\n");
    }
    return;
  }

  for (std::size_t i = 0; i < step.writes.size(); ++i) {
    // Separate writes of a raw reply reach the client in separate reads.
    if (i > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!writeAll(connection, step.writes[i])) {
      return;
    }
  }
  // A hanging connection stays open until the peer stops (or the client goes away).
  while (step.kind == PeerStep::Kind::Hang && waitReadable(connection) &&
         ::read(connection, chunk, sizeof chunk) > 0) {
  }
}

} // namespace velko::testing
