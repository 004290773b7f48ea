#include "core/AdjustmentKind.h"

#include "core/EditStack.h"

#include <gtest/gtest.h>
#include <string>

namespace velko::core {
namespace {

using K = AdjustmentKind;

class EveryKind : public ::testing::TestWithParam<AdjustmentKind> {};

TEST_P(EveryKind, RawValueRoundTripsAndKindSitsInAtMostOneGroup) {
  const AdjustmentKind k = GetParam();
  EXPECT_EQ(parseAdjustmentKind(rawValue(k)), k);
  EXPECT_EQ(json::decodeAs<AdjustmentKind>(json::encode(k)), k);
  int memberships = 0;
  for (EditGroup g : kOrderedEditGroups) {
    for (AdjustmentKind member : kinds(g)) {
      if (member == k) {
        ++memberships;
        EXPECT_EQ(groupOf(k), g);
      }
    }
  }
  EXPECT_EQ(memberships, k == K::DevelopSource || k == K::CgBalance ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(AdjustmentKind, EveryKind, ::testing::ValuesIn(allAdjustmentKinds()),
                         [](const ::testing::TestParamInfo<AdjustmentKind>& info) {
                           return std::string(rawValue(info.param));
                         });

// The tool handlers' test refuses a misspelt kind with its message.
TEST(AdjustmentKind, ParsingIsExactAndCaseSensitive) {
  for (std::string_view raw : {"Exposure", "exposure ", "hslredHue"}) {
    SCOPED_TRACE(raw);
    EXPECT_FALSE(parseAdjustmentKind(raw).has_value());
  }
}

TEST(ColorMixerAndGrade, KindsAreComputedFromTheOrdinal) {
  for (ColorMixerBand b : kAllColorMixerBands) {
    std::string name(displayName(b));
    SCOPED_TRACE(name);
    EXPECT_EQ(rawValue(hueKind(b)), "hsl" + name + "Hue");
    EXPECT_EQ(rawValue(saturationKind(b)), "hsl" + name + "Sat");
    EXPECT_EQ(rawValue(luminanceKind(b)), "hsl" + name + "Lum");
  }
  // Kind names use singular words where the regions' names are plural.
  EXPECT_EQ(rawValue(hueKind(ColorGradeRegion::Shadows)), "cgShadowHue");
  EXPECT_EQ(rawValue(luminanceKind(ColorGradeRegion::Global)), "cgGlobalLum");
}

} // namespace
} // namespace velko::core
