#include "core/EditStackMerge.h"

#include <gtest/gtest.h>

namespace velko::core {
namespace {

using K = AdjustmentKind;

json::Date at(int hour) {
  return json::Date(std::chrono::sys_days(std::chrono::year{2024} / 5 / 1)) +
         std::chrono::hours(hour);
}

LocalMask maskNamed(const std::string& name, Uuid id = Uuid::random()) {
  LocalMask m;
  m.id = id;
  m.name = name;
  m.shape = AiSubjectShape{};
  return m;
}

TEST(EditStackMerge, LaterValueWinsAndTiesKeepTheFirstStack) {
  struct Case {
    const char* name;
    int bHour;
    double expected;
  } cases[] = {{"b later", 11, 0.2}, {"same instant", 10, 0.5}, {"b earlier", 9, 0.5}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EditStack a, b;
    a.setScalar(K::Exposure, 0.5, UserOrigin{}, at(10));
    b.setScalar(K::Exposure, 0.2, AiOrigin{"agent", "s"}, at(c.bHour));
    const EditStack m = merged(a, b);
    EXPECT_EQ(m.scalar(K::Exposure), c.expected);
    // Provenance travels with the value that won.
    EXPECT_EQ(m.values.at(K::Exposure), (c.expected == 0.2 ? b : a).values.at(K::Exposure));
  }
}

TEST(EditStackMerge, UnionOfValuesMasksByIdAndVersionPastBoth) {
  const Uuid shared = Uuid::random();
  EditStack a, b;
  a.setScalar(K::Contrast, 0.1, UserOrigin{}, at(1));
  b.setScalar(K::Clarity, 0.3, UserOrigin{}, at(1));
  a.addMask(maskNamed("a-first"));
  a.addMask(maskNamed("a-shared", shared));
  b.addMask(maskNamed("b-shared", shared));
  b.addMask(maskNamed("b-only"));
  a.version = 4;
  b.version = 9;
  const EditStack before = a;

  const EditStack m = merged(a, b);
  EXPECT_EQ(m.scalar(K::Contrast), 0.1);
  EXPECT_EQ(m.scalar(K::Clarity), 0.3);
  ASSERT_EQ(m.masks().size(), 3u);
  EXPECT_EQ(m.masks()[0].name, "a-first");
  EXPECT_EQ(m.masks()[1].name, "a-shared"); // a's copy whatever b holds
  EXPECT_EQ(m.masks()[2].name, "b-only");
  EXPECT_EQ(m.version, 10);
  EXPECT_EQ(merged(b, a).version, 10);
  EXPECT_EQ(a, before); // inputs untouched

  EXPECT_FALSE(merged(EditStack{}, EditStack{}).maskList.has_value());
}

TEST(EditStackMerge, SameContentIgnoresVersionsOnly) {
  EditStack a, b;
  a.setScalar(K::Exposure, 0.5, UserOrigin{}, at(1));
  b.setScalar(K::Exposure, 0.5, UserOrigin{}, at(1));
  a.version = 3;
  b.version = 7;
  EXPECT_TRUE(sameContent(a, b));
  EXPECT_NE(a, b);

  b.maskList = std::vector<LocalMask>{};
  EXPECT_TRUE(sameContent(a, b)); // absent equals empty

  EditStack c = b;
  c.values.at(K::Exposure).lastModifiedAt = at(2);
  EXPECT_FALSE(sameContent(a, c)); // provenance is content

  const LocalMask m1 = maskNamed("1"), m2 = maskNamed("2");
  EditStack e = a, f = a;
  e.addMask(m1);
  e.addMask(m2);
  f.addMask(m2);
  f.addMask(m1);
  EXPECT_FALSE(sameContent(e, f)); // order matters
}

} // namespace
} // namespace velko::core
