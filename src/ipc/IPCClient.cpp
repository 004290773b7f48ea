#include "ipc/IPCClient.h"

#include "protocol/FrameCodec.h"
#include "protocol/IPCEndpoint.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace velko::ipc {
namespace {

// The user-facing texts, word for word.
constexpr std::string_view kNotRunningHead = "velko is not running (no socket at ";
constexpr std::string_view kNotRunningTail = "). Launch the app and try again.";
constexpr std::string_view kNotServingHead = "velko is not accepting connections, though ";
constexpr std::string_view kNotServingTail =
    " exists.\nEither the app is running with no library open yet (its IPC starts only once one "
    "is), or a previous run was force-quit and left the socket file behind. Open a library in "
    "velko and retry.";
constexpr std::string_view kStaleHead =
    "These velko command-line tools are out of date. They look for ";
constexpr std::string_view kStaleTail =
    ", but velko now uses ~/.velko/ \u2014 the app may well be running. Reinstall the tools to "
    "reach it:\n    ./Scripts/install.sh";
constexpr std::string_view kConnectionClosedText = "velko closed the connection mid-request";

constexpr std::size_t kReadChunkBytes = 65'536;
// The errno reported for a socket path too long for the address (EINVAL on every platform).
constexpr std::int32_t kPathTooLongErrno = 22;

std::string concat(std::string_view a, std::string_view b, std::string_view c) {
  std::string text;
  text.reserve(a.size() + b.size() + c.size());
  text.append(a).append(b).append(c);
  return text;
}

bool fileExists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0;
}

/// Owns one descriptor and closes it on every way out of roundTrip.
class Descriptor {
public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { ::close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

private:
  int fd_;
};

ssize_t writeSome(int fd, const char* data, std::size_t size) {
#ifdef MSG_NOSIGNAL
  // A peer that has gone must end the call as ConnectionClosed, not kill us with SIGPIPE.
  return ::send(fd, data, size, MSG_NOSIGNAL);
#else
  return ::write(fd, data, size);
#endif
}

} // namespace

ClientError ClientError::appNotRunning(std::string socketPath) {
  ClientError e(Kind::AppNotRunning, concat(kNotRunningHead, socketPath, kNotRunningTail));
  e.socketPath_ = std::move(socketPath);
  return e;
}

ClientError ClientError::appNotServing(std::string socketPath) {
  ClientError e(Kind::AppNotServing, concat(kNotServingHead, socketPath, kNotServingTail));
  e.socketPath_ = std::move(socketPath);
  return e;
}

ClientError ClientError::staleTooling(std::string socketPath) {
  ClientError e(Kind::StaleTooling, concat(kStaleHead, socketPath, kStaleTail));
  e.socketPath_ = std::move(socketPath);
  return e;
}

ClientError ClientError::connectionFailed(std::int32_t errorNumber) {
  ClientError e(Kind::ConnectionFailed,
                "could not connect to velko (errno " + std::to_string(errorNumber) + ")");
  e.errorNumber_ = errorNumber;
  return e;
}

ClientError ClientError::protocolMismatch(std::int64_t server, std::int64_t client) {
  ClientError e(Kind::ProtocolMismatch, "protocol mismatch: app speaks v" + std::to_string(server) +
                                            ", this tool speaks v" + std::to_string(client) +
                                            " \u2014 update the older side");
  e.serverVersion_ = server;
  e.clientVersion_ = client;
  return e;
}

ClientError ClientError::rpc(protocol::RPCError error) {
  ClientError e(Kind::Rpc, "velko error " + std::to_string(error.code) + ": " + error.message);
  e.rpcError_ = std::move(error);
  return e;
}

ClientError ClientError::connectionClosed() {
  return ClientError(Kind::ConnectionClosed, std::string(kConnectionClosedText));
}

std::optional<std::string> ClientError::socketPath() const {
  if (kind_ == Kind::AppNotRunning || kind_ == Kind::AppNotServing || kind_ == Kind::StaleTooling) {
    return socketPath_;
  }
  return std::nullopt;
}

std::optional<std::int32_t> ClientError::errorNumber() const {
  return kind_ == Kind::ConnectionFailed ? std::optional(errorNumber_) : std::nullopt;
}

std::optional<std::int64_t> ClientError::serverVersion() const {
  return kind_ == Kind::ProtocolMismatch ? std::optional(serverVersion_) : std::nullopt;
}

std::optional<std::int64_t> ClientError::clientVersion() const {
  return kind_ == Kind::ProtocolMismatch ? std::optional(clientVersion_) : std::nullopt;
}

std::optional<protocol::RPCError> ClientError::rpcError() const {
  return kind_ == Kind::Rpc ? std::optional(rpcError_) : std::nullopt;
}

IPCClient::IPCClient(std::string socketPath) : socketPath_(std::move(socketPath)) {}

IPCClient::IPCClient(std::string socketPath, std::string legacySocketPath)
    : socketPath_(std::move(socketPath)), legacySocketPath_(std::move(legacySocketPath)) {}

bool IPCClient::legacySocketExists() {
  return fileExists(protocol::IPCEndpoint::legacySocketPath());
}

bool IPCClient::legacyExists() const {
  return legacySocketPath_ ? fileExists(*legacySocketPath_) : legacySocketExists();
}

json::Value IPCClient::call(protocol::IPCMethod method, const std::optional<json::Value>& params) {
  if (!fileExists(socketPath_)) {
    if (legacyExists()) {
      throw ClientError::staleTooling(socketPath_);
    }
    throw ClientError::appNotRunning(socketPath_);
  }
  // One request per connection, so the id never needs to differ.
  const std::string frame =
      protocol::encodeFrame(protocol::rpc::encodeRequest(std::int64_t{1}, method, params));
  const std::string line = roundTrip(frame);
  auto outcome = protocol::rpc::decodeResponse(line);
  if (auto* error = std::get_if<protocol::RPCError>(&outcome)) {
    throw ClientError::rpc(std::move(*error));
  }
  return std::move(std::get<json::Value>(outcome));
}

protocol::PingResult pingCheckingVersion(Caller& caller) {
  auto ping = ipc::call<protocol::PingResult>(caller, protocol::IPCMethod::Ping);
  // Exact equality only: neither a newer nor an older application is accepted.
  if (ping.protocolVersion != protocol::kIpcProtocolVersion) {
    throw ClientError::protocolMismatch(ping.protocolVersion, protocol::kIpcProtocolVersion);
  }
  return ping;
}

std::string IPCClient::roundTrip(std::string_view frame) const {
  // Close-on-exec from the start: one system call, and no window for a fork to inherit it.
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    throw ClientError::connectionFailed(errno);
  }
  const Descriptor owner(fd);
#ifdef SO_NOSIGPIPE
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif

  sockaddr_un address{};
  if (socketPath_.size() > protocol::IPCEndpoint::kSunPathLimit) {
    throw ClientError::connectionFailed(kPathTooLongErrno);
  }
#ifdef __APPLE__
  address.sun_len = sizeof address;
#endif
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socketPath_.data(), socketPath_.size());
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    if (error == ENOENT) {
      throw ClientError::appNotRunning(socketPath_);
    }
    if (error == ECONNREFUSED) {
      throw ClientError::appNotServing(socketPath_);
    }
    throw ClientError::connectionFailed(error);
  }

  while (!frame.empty()) {
    const ssize_t written = writeSome(fd, frame.data(), frame.size());
    if (written < 1) {
      throw ClientError::connectionClosed();
    }
    frame.remove_prefix(static_cast<std::size_t>(written));
  }

  protocol::LineScanner scanner;
  const auto chunk = std::make_unique_for_overwrite<char[]>(kReadChunkBytes);
  for (;;) {
    const ssize_t got = ::read(fd, chunk.get(), kReadChunkBytes);
    if (got < 1) {
      throw ClientError::connectionClosed();
    }
    std::vector<std::string> frames =
        scanner.append(std::string_view(chunk.get(), static_cast<std::size_t>(got)));
    if (!frames.empty()) {
      // One request per connection: anything after the first line is not ours to read.
      return std::move(frames.front());
    }
  }
}

} // namespace velko::ipc
