#include "protocol/IPCMethod.h"

#include <gtest/gtest.h>
#include <set>

namespace velko::protocol {
namespace {

TEST(IPCMethod, CatalogueHasFortySixUniqueNames) {
  constexpr auto all = allIPCMethods();
  EXPECT_EQ(all.size(), 46u);
  EXPECT_EQ(all.front(), IPCMethod::Ping);
  EXPECT_EQ(all.back(), IPCMethod::MovieList);
  std::set<std::string_view> names;
  for (IPCMethod m : all) {
    EXPECT_TRUE(names.insert(rawValue(m)).second) << rawValue(m);
    EXPECT_EQ(ipcMethodFromRaw(rawValue(m)), m) << rawValue(m);
  }
}

TEST(IPCMethod, OddlyPlacedNames) {
  EXPECT_EQ(rawValue(IPCMethod::Selection), "library.selection");
  EXPECT_EQ(rawValue(IPCMethod::ImportAssets), "library.import");
  EXPECT_EQ(rawValue(IPCMethod::Context), "app.context");
  EXPECT_EQ(rawValue(IPCMethod::EditorOpen), "editor.open");
}

TEST(IPCMethod, ParsingIsExact) {
  for (const char* raw : {"Photo.rate", "photo.Rate", "photo.rate ", "photo", "", "rate"}) {
    EXPECT_EQ(ipcMethodFromRaw(raw), std::nullopt) << raw;
  }
}

} // namespace
} // namespace velko::protocol
