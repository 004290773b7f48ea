// The reply to system.ping: who is answering and whether it speaks our protocol version.
#pragma once

#include "json/Codec.h"
#include <cstdint>
#include <string>

namespace velko::protocol {

struct PingResult {
  std::string appVersion;
  std::string buildStamp;           ///< a build identifier of the application
  std::int64_t protocolVersion = 0; ///< compared with kIpcProtocolVersion
  bool libraryAuthorized = false;   ///< whether the app may read the photo library
  std::int64_t photoCount = 0;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("appVersion", &PingResult::appVersion),
                      json::field("buildStamp", &PingResult::buildStamp),
                      json::field("protocolVersion", &PingResult::protocolVersion),
                      json::field("libraryAuthorized", &PingResult::libraryAuthorized),
                      json::field("photoCount", &PingResult::photoCount)};
  }
  friend bool operator==(const PingResult&, const PingResult&) = default;
};

} // namespace velko::protocol
