// Where the application and its command-line tools meet: one per-user support directory in the
// real home (~/.velko) with the socket, the endpoint description file and the exchange folder.
// Paths are worked out on every call and never cached. The home comes from the password
// database first, so a sandboxed application and an unsandboxed tool agree on it.
#pragma once

#include "json/Codec.h"
#include <cstdint>
#include <string>
#include <string_view>

namespace velko::protocol {

struct IPCEndpoint {
  static constexpr std::string_view kSocketFileName = "ipc.sock";
  static constexpr std::string_view kEndpointFileName = "ipc-endpoint.json";
  static constexpr std::string_view kAssistantSocketFileName = "assistant.sock";
  static constexpr std::string_view kContainerBundleID = "com.velko.app";
  /// The most path bytes that fit in a Unix socket address together with the terminating zero.
  static constexpr std::size_t kSunPathLimit = 103;

  /// The content of the endpoint file; all four members are required.
  struct EndpointInfo {
    std::string socketPath; ///< absolute path of the listening socket
    std::int64_t protocolVersion = 0;
    std::string appVersion;
    std::int32_t pid = 0;

    static constexpr auto jsonFields() {
      return std::tuple{json::field("socketPath", &EndpointInfo::socketPath),
                        json::field("protocolVersion", &EndpointInfo::protocolVersion),
                        json::field("appVersion", &EndpointInfo::appVersion),
                        json::field("pid", &EndpointInfo::pid)};
    }
    friend bool operator==(const EndpointInfo&, const EndpointInfo&) = default;
  };

  /// The real user's home: the password entry of getuid() when it names a home directory,
  /// otherwise $HOME (empty when that is unset too). Read afresh on every call.
  static std::string home();
  /// The choice home() makes, given the password entry's home (null when there is no entry or
  /// no home field) and the environment's.
  static std::string chooseHome(const char* passwordHome, const char* environmentHome);

  // Each path is the home with a suffix appended as is; no slash is added or removed.
  static std::string supportDir() { return supportDir(home()); }
  static std::string supportDir(std::string_view home);
  static std::string clientSocketPath() { return clientSocketPath(home()); }
  static std::string clientSocketPath(std::string_view home);
  /// The socket the application listens on; the same string as clientSocketPath.
  static std::string serverSocketPath() { return serverSocketPath(home()); }
  static std::string serverSocketPath(std::string_view home);
  static std::string assistantSocketPath() { return assistantSocketPath(home()); }
  static std::string assistantSocketPath(std::string_view home);
  /// Where files handed to the application are staged.
  static std::string exchangeDir() { return exchangeDir(home()); }
  static std::string exchangeDir(std::string_view home);
  /// The socket of earlier application versions, inside its sandbox container; its presence
  /// tells the client that these tools are out of date.
  static std::string legacySocketPath() { return legacySocketPath(home()); }
  static std::string legacySocketPath(std::string_view home);
};

} // namespace velko::protocol
