#include "core/AdjustmentKind.h"

#include "core/EditStack.h"

#include <gtest/gtest.h>
#include <set>
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

TEST(AdjustmentKind, NamesAreUniqueAndInTableOrder) {
  // Ends of the table and of the generated colour rows, whose names are irregular.
  struct Case {
    std::size_t ordinal;
    std::string_view raw;
  } cases[] = {
      {0, "treatment"}, {26, "hslRedHue"}, {49, "hslMagentaLum"}, {50, "cgShadowHue"},
      {53, "cgMidHue"}, {62, "cgBalance"}, {83, "lut"},           {93, "frameInsetRight"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.raw);
    EXPECT_EQ(rawValue(adjustmentKindAt(c.ordinal)), c.raw);
  }
  std::set<std::string_view> names;
  for (AdjustmentKind k : allAdjustmentKinds()) {
    EXPECT_TRUE(names.insert(rawValue(k)).second) << rawValue(k);
  }
  EXPECT_EQ(names.size(), 94u);
}

TEST(AdjustmentKind, ParsingIsExactAndCaseSensitive) {
  for (std::string_view raw : {"Exposure", "cgShadowsHue", "exposure ", "", "hslredHue"}) {
    SCOPED_TRACE(raw);
    EXPECT_FALSE(parseAdjustmentKind(raw).has_value());
  }
  try {
    json::decodeAs<AdjustmentKind>(json::Value("exposur"), json::Path("op"));
    FAIL() << "decoded an unknown kind";
  } catch (const json::DecodeError& e) {
    EXPECT_STREQ(e.what(), "op: unknown kind \"exposur\"");
  }
}

TEST(AdjustmentKind, PayloadTypesAndRangesFollowTheTable) {
  int scalars = 0;
  for (AdjustmentKind k : allAdjustmentKinds()) {
    scalars += payloadType(k) == PayloadType::Scalar;
  }
  EXPECT_EQ(scalars, 94 - 4 /*bool*/ - 4 /*curve*/ - 1 /*rect*/ - 1 /*points*/ - 2 /*string*/);
  EXPECT_EQ(payloadType(K::FrameColor), PayloadType::String);
  EXPECT_EQ(payloadType(K::ToneCurveGreen), PayloadType::Curve);
  EXPECT_EQ(row(K::Exposure).range.kind, RangeKind::Bounds);
  EXPECT_EQ(row(K::Contrast).range.kind, RangeKind::Typical);
  EXPECT_EQ(row(K::WbBlueGain).range.upper, EditStack::whiteBalanceGainRange.upper);
}

TEST(ColorMixerAndGrade, KindsAreComputedFromTheOrdinal) {
  for (ColorMixerBand b : kAllColorMixerBands) {
    std::string name(displayName(b));
    SCOPED_TRACE(name);
    EXPECT_EQ(rawValue(hueKind(b)), "hsl" + name + "Hue");
    EXPECT_EQ(rawValue(saturationKind(b)), "hsl" + name + "Sat");
    EXPECT_EQ(rawValue(luminanceKind(b)), "hsl" + name + "Lum");
    name[0] = static_cast<char>(name[0] - 'A' + 'a');
    EXPECT_EQ(json::enumName(b), name);
  }
  EXPECT_EQ(centerHueDegrees(ColorMixerBand::Magenta), 320);

  // Kind names use singular words, raw values plural.
  EXPECT_EQ(json::enumName(ColorGradeRegion::Shadows), "shadows");
  EXPECT_EQ(displayName(ColorGradeRegion::Midtones), "Midtones");
  EXPECT_EQ(rawValue(hueKind(ColorGradeRegion::Shadows)), "cgShadowHue");
  EXPECT_EQ(rawValue(saturationKind(ColorGradeRegion::Midtones)), "cgMidSat");
  EXPECT_EQ(rawValue(luminanceKind(ColorGradeRegion::Highlights)), "cgHighlightLum");
  EXPECT_EQ(rawValue(luminanceKind(ColorGradeRegion::Global)), "cgGlobalLum");
}

TEST(ColorProfile, TraitsAndRawValues) {
  for (ColorProfile p : kAllColorProfiles) {
    SCOPED_TRACE(displayName(p));
    EXPECT_EQ(isIdentity(p), p == ColorProfile::Standard);
    EXPECT_EQ(isMonochrome(p), p == ColorProfile::Monochrome);
    EXPECT_EQ(traits(p).warmth != 0, p == ColorProfile::Portrait);
  }
  EXPECT_EQ(displayName(ColorProfile::Portrait), "Portrait");
  EXPECT_EQ(json::enumFromValue<ColorProfile>(5), ColorProfile::Monochrome);
  EXPECT_FALSE(json::enumFromValue<ColorProfile>(6).has_value());
  EXPECT_EQ(json::encode(ColorProfile::Landscape), json::Value(4));
  EXPECT_EQ(displayName(DevelopSource::Jpeg), "JPEG");
  EXPECT_EQ(json::enumFromValue<FrameFit>(1), FrameFit::Fill);
  EXPECT_THROW(json::decodeAs<DevelopSource>(json::Value(2)), json::DecodeError);
}

TEST(EditGroup, NamesAndDefaultSelection) {
  struct Case {
    EditGroup group;
    std::string_view raw, display;
  } cases[] = {
      {EditGroup::Light, "light", "Light"},
      {EditGroup::Curve, "curve", "Curve & Levels"},
      {EditGroup::Color, "color", "Color & White Balance"},
      {EditGroup::ColorMixer, "colorMixer", "Color Mixer (HSL)"},
      {EditGroup::ColorGrade, "colorGrade", "Color Grading"},
      {EditGroup::PointColor, "pointColor", "Point Color"},
      {EditGroup::Detail, "detail", "Detail"},
      {EditGroup::Presence, "presence", "Presence"},
      {EditGroup::Effects, "effects", "Effects"},
      {EditGroup::Lut, "lut", "LUT"},
      {EditGroup::Geometry, "geometry", "Crop & Geometry"},
      {EditGroup::Frame, "frame", "Frame / Matte"},
      {EditGroup::Masks, "masks", "Masks"},
  };
  ASSERT_EQ(std::size(cases), kOrderedEditGroups.size());
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.raw);
    EXPECT_EQ(kOrderedEditGroups[i], c.group);
    EXPECT_EQ(json::enumFromName<EditGroup>(c.raw), c.group);
    EXPECT_EQ(displayName(c.group), c.display);
  }
  EXPECT_EQ(groupOf(K::Treatment), EditGroup::Color);
  EXPECT_TRUE(kinds(EditGroup::Masks).empty());

  const std::vector<EditGroup>& selection = defaultSelection();
  EXPECT_EQ(selection.size(), 11u);
  EXPECT_EQ(std::count(selection.begin(), selection.end(), EditGroup::Geometry), 0);
  EXPECT_EQ(std::count(selection.begin(), selection.end(), EditGroup::Masks), 0);
}

} // namespace
} // namespace velko::core
