#include "protocol/IPCEndpoint.h"

#include "json/Writer.h"

#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

TEST(IPCEndpoint, HomePrefersThePasswordEntry) {
  struct Case {
    const char* name;
    const char* passwordHome;
    const char* environmentHome;
    const char* expected;
  } cases[] = {
      {"entry wins", "/Users/u", "/container/home", "/Users/u"},
      {"empty entry", "", "/env", "/env"},
      {"nothing at all", nullptr, nullptr, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(IPCEndpoint::chooseHome(c.passwordHome, c.environmentHome), c.expected);
  }
}

TEST(IPCEndpoint, EndpointInfoMatchesGolden) {
  const char* golden =
      R"({"socketPath":"/Users/u/.velko/ipc.sock","protocolVersion":1,"appVersion":"2.3","pid":4242})";
  auto info = json::decodeAs<IPCEndpoint::EndpointInfo>(json::parse(golden));
  EXPECT_EQ(info, (IPCEndpoint::EndpointInfo{"/Users/u/.velko/ipc.sock", 1, "2.3", 4242}));
  EXPECT_EQ(json::toCompact(json::encode(info)), golden);
}

} // namespace
} // namespace velko::protocol
