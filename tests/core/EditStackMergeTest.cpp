// Whole-stack operations no method calls yet; the edit-stack fuzzer runs them on every input.
#include "core/EditStackMerge.h"

#include <gtest/gtest.h>

namespace velko::core {
namespace {

using K = AdjustmentKind;

json::Date at(int hour) {
  return json::Date(std::chrono::sys_days(std::chrono::year{2024} / 5 / 1)) +
         std::chrono::hours(hour);
}

TEST(EditStackMerge, LaterValueWinsMasksUniteByIdAndPresetsLeaveGeometry) {
  const Uuid shared = Uuid::random();
  EditStack a, b;
  a.setScalar(K::Exposure, 0.5, UserOrigin{}, at(10));
  b.setScalar(K::Exposure, 0.2, AiOrigin{"agent", "s"}, at(11));
  b.setRect(K::Crop, Rect{0, 0, 0.5, 0.5}, UserOrigin{}, at(1));
  a.addMask({.id = shared, .name = "a-shared", .shape = AiSubjectShape{}});
  b.addMask({.id = shared, .name = "b-shared", .shape = AiSubjectShape{}});
  a.version = 4;
  b.version = 9;

  const EditStack m = merged(a, b);
  EXPECT_EQ(m.values.at(K::Exposure), b.values.at(K::Exposure)); // with its provenance
  EXPECT_TRUE(m.values.contains(K::Crop));
  ASSERT_EQ(m.masks().size(), 1u);
  EXPECT_EQ(m.masks()[0].name, "a-shared");
  EXPECT_EQ(m.version, 10);
  EXPECT_FALSE(sameContent(m, a));
  EditStack again = m;
  again.version = 1;
  EXPECT_TRUE(sameContent(again, m));

  applyPreset(a, presetSubset(b));
  EXPECT_EQ(a.scalar(K::Exposure), 0.2);
  EXPECT_FALSE(a.values.contains(K::Crop));
  EXPECT_EQ(a.version, 5);
}

} // namespace
} // namespace velko::core
