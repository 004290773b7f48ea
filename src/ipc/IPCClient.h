// The socket client that reaches the running application: one connection per call. Each call
// checks that the socket file exists, connects, writes one request frame, reads until one reply
// line has arrived and closes. Every way the application can be unreachable becomes a
// ClientError whose text tells the user what to do. No time-outs: a hung app blocks the call.
#pragma once

#include "ipc/Caller.h"
#include "protocol/PingResult.h"
#include "protocol/Rpc.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace velko::ipc {

/// Why a call did not produce a result. what() is the text shown to the user.
class ClientError : public std::runtime_error {
public:
  enum class Kind {
    AppNotRunning,    ///< no socket file, or connect gave ENOENT
    AppNotServing,    ///< the socket file exists but nobody listens (ECONNREFUSED)
    StaleTooling,     ///< no socket file, but the legacy container socket exists
    ConnectionFailed, ///< socket() or connect() failed otherwise, or the path is too long
    ProtocolMismatch, ///< the ping reported another protocol version
    Rpc,              ///< the application answered with an error object
    ConnectionClosed, ///< a write or read ended before one whole reply line arrived
  };

  static ClientError appNotRunning(std::string socketPath);
  static ClientError appNotServing(std::string socketPath);
  /// `socketPath` is the client's own (missing) socket, not the legacy one that was found.
  static ClientError staleTooling(std::string socketPath);
  static ClientError connectionFailed(std::int32_t errorNumber);
  static ClientError protocolMismatch(std::int64_t server, std::int64_t client);
  static ClientError rpc(protocol::RPCError error);
  static ClientError connectionClosed();

  Kind kind() const { return kind_; }
  /// The socket path of AppNotRunning, AppNotServing and StaleTooling.
  std::optional<std::string> socketPath() const;
  /// The errno of ConnectionFailed.
  std::optional<std::int32_t> errorNumber() const;
  /// The application's and our protocol versions of ProtocolMismatch.
  std::optional<std::int64_t> serverVersion() const;
  std::optional<std::int64_t> clientVersion() const;
  /// The error object of Rpc.
  std::optional<protocol::RPCError> rpcError() const;

private:
  ClientError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}

  Kind kind_;
  std::string socketPath_;
  std::int32_t errorNumber_ = 0;
  std::int64_t serverVersion_ = 0;
  std::int64_t clientVersion_ = 0;
  protocol::RPCError rpcError_;
};

/// system.ping through any Caller. Throws ClientError::protocolMismatch unless the application
/// speaks exactly kIpcProtocolVersion: neither a newer nor an older one is accepted.
protocol::PingResult pingCheckingVersion(Caller& caller);

class IPCClient : public Caller {
public:
  /// A client of the application listening at `socketPath`; the legacy socket probed when that
  /// file is missing is derived from the user's home at call time.
  explicit IPCClient(std::string socketPath);
  /// The same with the legacy socket location given explicitly (tests use a temporary home).
  IPCClient(std::string socketPath, std::string legacySocketPath);

  const std::string& socketPath() const { return socketPath_; }

  /// Sends `method` with request id 1 and returns the reply's `result`. Throws ClientError,
  /// protocol::FrameError (a reply line past the size limit) and json::DecodeError or
  /// json::EncodeError unchanged.
  json::Value call(protocol::IPCMethod method, const std::optional<json::Value>& params) override;

  /// system.ping, requiring the application's protocol version to equal kIpcProtocolVersion.
  protocol::PingResult pingCheckingVersion() { return ipc::pingCheckingVersion(*this); }

  /// True when a file exists at the legacy container socket of the current user's home.
  static bool legacySocketExists();

private:
  bool legacyExists() const;
  /// Connects, writes `frame`, returns the first reply line; the descriptor never outlives it.
  std::string roundTrip(std::string_view frame) const;

  std::string socketPath_;
  std::optional<std::string> legacySocketPath_;
};

} // namespace velko::ipc
