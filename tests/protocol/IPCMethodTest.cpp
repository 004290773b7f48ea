#include "protocol/IPCMethod.h"

#include <gtest/gtest.h>
#include <set>

namespace velko::protocol {
namespace {

TEST(IPCMethod, NamesAreUniqueAndParseExactly) {
  constexpr auto all = allIPCMethods();
  std::set<std::string_view> names;
  for (IPCMethod m : all) {
    EXPECT_TRUE(names.insert(rawValue(m)).second) << rawValue(m);
    EXPECT_EQ(ipcMethodFromRaw(rawValue(m)), m) << rawValue(m);
  }
  for (const char* raw : {"Photo.rate", "photo.rate ", "photo", ""}) {
    EXPECT_EQ(ipcMethodFromRaw(raw), std::nullopt) << raw;
  }
}

} // namespace
} // namespace velko::protocol
