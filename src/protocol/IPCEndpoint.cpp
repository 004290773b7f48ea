#include "protocol/IPCEndpoint.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace velko::protocol {
namespace {

std::string join(std::string_view home, std::string_view suffix) {
  std::string path;
  path.reserve(home.size() + suffix.size());
  path.append(home);
  path.append(suffix);
  return path;
}

} // namespace

std::string IPCEndpoint::chooseHome(const char* passwordHome, const char* environmentHome) {
  if (passwordHome != nullptr && *passwordHome != '\0') {
    return passwordHome;
  }
  return environmentHome != nullptr ? environmentHome : "";
}

std::string IPCEndpoint::home() {
  // getpwuid's entry is static storage; it is copied out before anything else can reuse it.
  const passwd* entry = ::getpwuid(::getuid());
  return chooseHome(entry != nullptr ? entry->pw_dir : nullptr, std::getenv("HOME"));
}

std::string IPCEndpoint::supportDir(std::string_view home) {
  return join(home, "/.velko");
}

std::string IPCEndpoint::clientSocketPath(std::string_view home) {
  return join(home, "/.velko/") + std::string(kSocketFileName);
}

std::string IPCEndpoint::serverSocketPath(std::string_view home) {
  return clientSocketPath(home);
}

std::string IPCEndpoint::assistantSocketPath(std::string_view home) {
  return join(home, "/.velko/") + std::string(kAssistantSocketFileName);
}

std::string IPCEndpoint::exchangeDir(std::string_view home) {
  return join(home, "/.velko/exchange");
}

std::string IPCEndpoint::legacySocketPath(std::string_view home) {
  // The container path of earlier versions, written out rather than built from the bundle id.
  return join(home, "/Library/Containers/com.velko.app/Data/ipc.sock");
}

} // namespace velko::protocol
