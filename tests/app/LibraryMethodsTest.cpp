#include "app/AppFixture.h"

namespace velko::app::testing {
namespace {

class LibraryMethods : public AppFixture {};

TEST_F(LibraryMethods, PingAnswersOnAnEmptyLibrary) {
  open();
  json::Value r = call("system.ping");
  EXPECT_EQ(r.at("protocolVersion").as_int64(), 1);
  EXPECT_EQ(r.at("photoCount").as_int64(), 0);
}

} // namespace
} // namespace velko::app::testing
