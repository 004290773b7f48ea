#include "core/AdjustmentKind.h"

#include "core/EditStack.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

namespace velko::core {
namespace {

// ---- Every kind on its own line ----

class EveryKind : public ::testing::TestWithParam<AdjustmentKind> {};

TEST_P(EveryKind, RawValueParsesBackToTheSameKind) {
  const AdjustmentKind k = GetParam();
  EXPECT_EQ(parseAdjustmentKind(rawValue(k)), k);
  EXPECT_EQ(json::decodeAs<AdjustmentKind>(json::encode(k)), k);
}

TEST_P(EveryKind, BelongsToAtMostTheGroupItsRowNames) {
  const AdjustmentKind k = GetParam();
  int memberships = 0;
  for (EditGroup g : kOrderedEditGroups) {
    for (AdjustmentKind member : kinds(g)) {
      if (member == k) {
        ++memberships;
        EXPECT_EQ(groupOf(k), g);
      }
    }
  }
  const bool ungrouped = k == AdjustmentKind::DevelopSource || k == AdjustmentKind::CgBalance;
  EXPECT_EQ(memberships, ungrouped ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(AdjustmentKind, EveryKind, ::testing::ValuesIn(allAdjustmentKinds()),
                         [](const ::testing::TestParamInfo<AdjustmentKind>& info) {
                           return std::string(rawValue(info.param));
                         });

// ---- The table as a whole ----

TEST(AdjustmentKind, NamesAreUniqueAndInTableOrder) {
  // Spot checks across the table, including the generated colour rows and their oddities.
  struct Case {
    std::size_t ordinal;
    std::string_view raw;
  } cases[] = {
      {0, "treatment"},     {1, "colorProfile"},    {2, "developSource"},  {13, "wbRedGain"},
      {17, "luminanceNR"},  {21, "toneCurve"},      {25, "rotation"},      {26, "hslRedHue"},
      {29, "hslOrangeHue"}, {46, "hslPurpleLum"},   {49, "hslMagentaLum"}, {50, "cgShadowHue"},
      {53, "cgMidHue"},     {56, "cgHighlightHue"}, {60, "cgGlobalSat"},   {61, "cgGlobalLum"},
      {62, "cgBalance"},    {69, "toneCurveRed"},   {75, "crop"},          {82, "pointColor"},
      {83, "lut"},          {85, "frameAspect"},    {87, "frameColor"},    {93, "frameInsetRight"},
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
  for (std::string_view raw : {"Exposure", "cgShadowsHue", "exposure ", "", "hslredHue",
                               "cgShadowhue", "shadow", "masks"}) {
    SCOPED_TRACE(raw);
    EXPECT_FALSE(parseAdjustmentKind(raw).has_value());
  }
  EXPECT_EQ(parseAdjustmentKind("exposure"), AdjustmentKind::Exposure);
  try {
    json::decodeAs<AdjustmentKind>(json::Value("exposur"), json::Path("op"));
    FAIL() << "decoded an unknown kind";
  } catch (const json::DecodeError& e) {
    EXPECT_STREQ(e.what(), "op: unknown kind \"exposur\"");
  }
}

TEST(AdjustmentKind, PayloadTypesAndRangesFollowTheTable) {
  using K = AdjustmentKind;
  EXPECT_EQ(payloadType(K::Treatment), PayloadType::Boolean);
  EXPECT_EQ(payloadType(K::ToneCurveGreen), PayloadType::Curve);
  EXPECT_EQ(payloadType(K::Crop), PayloadType::Rect);
  EXPECT_EQ(payloadType(K::PointColor), PayloadType::PointColors);
  EXPECT_EQ(payloadType(K::Lut), PayloadType::String);
  EXPECT_EQ(payloadType(K::FrameColor), PayloadType::String);
  EXPECT_EQ(payloadType(K::FrameInsetLinked), PayloadType::Boolean);
  EXPECT_EQ(payloadType(K::HslAquaSat), PayloadType::Scalar);
  int scalars = 0;
  for (AdjustmentKind k : allAdjustmentKinds()) {
    scalars += payloadType(k) == PayloadType::Scalar;
  }
  EXPECT_EQ(scalars, 94 - 4 /*bool*/ - 4 /*curve*/ - 1 /*rect*/ - 1 /*points*/ - 2 /*string*/);

  // Ranges: a bound, a typical range, and the white-balance gains.
  EXPECT_EQ(row(K::Exposure).range.kind, RangeKind::Bounds);
  EXPECT_EQ(row(K::Contrast).range.kind, RangeKind::Typical);
  for (K k : {K::WbRedGain, K::WbBlueGain}) {
    EXPECT_EQ(row(k).range.lower, EditStack::whiteBalanceGainRange.lower);
    EXPECT_EQ(row(k).range.upper, EditStack::whiteBalanceGainRange.upper);
  }
}

TEST(ColorMixerBand, KindsAreComputedFromTheBandOrdinal) {
  EXPECT_EQ(ordinal(luminanceKind(ColorMixerBand::Purple)), 46u);
  EXPECT_EQ(luminanceKind(ColorMixerBand::Purple), AdjustmentKind::HslPurpleLum);
  for (ColorMixerBand b : kAllColorMixerBands) {
    std::string name(displayName(b));
    SCOPED_TRACE(name);
    EXPECT_EQ(rawValue(hueKind(b)), "hsl" + name + "Hue");
    EXPECT_EQ(rawValue(saturationKind(b)), "hsl" + name + "Sat");
    EXPECT_EQ(rawValue(luminanceKind(b)), "hsl" + name + "Lum");
    name[0] = static_cast<char>(name[0] - 'A' + 'a');
    EXPECT_EQ(json::enumName(b), name);
  }
  EXPECT_EQ(centerHueDegrees(ColorMixerBand::Aqua), 180);
  EXPECT_EQ(centerHueDegrees(ColorMixerBand::Purple), 280);
  EXPECT_EQ(centerHueDegrees(ColorMixerBand::Magenta), 320);
}

TEST(ColorGradeRegion, KindNamesUseSingularWordsAndRawValuesPlural) {
  struct Case {
    ColorGradeRegion region;
    std::string_view raw, display, hue, sat, lum;
  } cases[] = {
      {ColorGradeRegion::Shadows, "shadows", "Shadows", "cgShadowHue", "cgShadowSat",
       "cgShadowLum"},
      {ColorGradeRegion::Midtones, "midtones", "Midtones", "cgMidHue", "cgMidSat", "cgMidLum"},
      {ColorGradeRegion::Highlights, "highlights", "Highlights", "cgHighlightHue", "cgHighlightSat",
       "cgHighlightLum"},
      {ColorGradeRegion::Global, "global", "Global", "cgGlobalHue", "cgGlobalSat", "cgGlobalLum"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.raw);
    EXPECT_EQ(json::enumName(c.region), c.raw);
    EXPECT_EQ(displayName(c.region), c.display);
    EXPECT_EQ(rawValue(hueKind(c.region)), c.hue);
    EXPECT_EQ(rawValue(saturationKind(c.region)), c.sat);
    EXPECT_EQ(rawValue(luminanceKind(c.region)), c.lum);
  }
  EXPECT_EQ(ordinal(saturationKind(ColorGradeRegion::Global)), 60u);
}

TEST(ColorProfile, TraitsAndRawValues) {
  EXPECT_EQ(displayName(ColorProfile::Portrait), "Portrait");
  EXPECT_EQ(traits(ColorProfile::Vivid).saturation, 1.25);
  EXPECT_EQ(traits(ColorProfile::Neutral).contrast, 0.92);
  EXPECT_EQ(traits(ColorProfile::Portrait).warmth, 0.06);
  EXPECT_EQ(traits(ColorProfile::Monochrome).saturation, 0.0);
  for (ColorProfile p : kAllColorProfiles) {
    SCOPED_TRACE(displayName(p));
    EXPECT_EQ(isIdentity(p), p == ColorProfile::Standard);
    EXPECT_EQ(isMonochrome(p), p == ColorProfile::Monochrome);
    EXPECT_EQ(traits(p).warmth != 0, p == ColorProfile::Portrait);
  }
  EXPECT_EQ(json::enumFromValue<ColorProfile>(5), ColorProfile::Monochrome);
  EXPECT_FALSE(json::enumFromValue<ColorProfile>(6).has_value());
  EXPECT_FALSE(json::enumFromValue<ColorProfile>(-1).has_value());
  EXPECT_EQ(json::encode(ColorProfile::Landscape), json::Value(4));
}

TEST(DevelopSourceAndFrameFit, RawValues) {
  EXPECT_EQ(displayName(DevelopSource::Raw), "RAW");
  EXPECT_EQ(displayName(DevelopSource::Jpeg), "JPEG");
  EXPECT_EQ(json::enumFromValue<DevelopSource>(1), DevelopSource::Jpeg);
  EXPECT_FALSE(json::enumFromValue<DevelopSource>(2).has_value());
  EXPECT_EQ(json::enumFromValue<FrameFit>(1), FrameFit::Fill);
  EXPECT_FALSE(json::enumFromValue<FrameFit>(2).has_value());
  EXPECT_THROW(json::decodeAs<DevelopSource>(json::Value(2)), json::DecodeError);
}

TEST(EditGroup, NamesKindsAndDefaultSelection) {
  struct Case {
    EditGroup group;
    std::string_view raw, display;
    std::size_t count;
  } cases[] = {
      {EditGroup::Light, "light", "Light", 6},
      {EditGroup::Curve, "curve", "Curve & Levels", 7},
      {EditGroup::Color, "color", "Color & White Balance", 8},
      {EditGroup::ColorMixer, "colorMixer", "Color Mixer (HSL)", 24},
      {EditGroup::ColorGrade, "colorGrade", "Color Grading", 12},
      {EditGroup::PointColor, "pointColor", "Point Color", 1},
      {EditGroup::Detail, "detail", "Detail", 6},
      {EditGroup::Presence, "presence", "Presence", 3},
      {EditGroup::Effects, "effects", "Effects", 6},
      {EditGroup::Lut, "lut", "LUT", 2},
      {EditGroup::Geometry, "geometry", "Crop & Geometry", 8},
      {EditGroup::Frame, "frame", "Frame / Matte", 9},
      {EditGroup::Masks, "masks", "Masks", 0},
  };
  ASSERT_EQ(std::size(cases), kOrderedEditGroups.size());
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.raw);
    EXPECT_EQ(kOrderedEditGroups[i], c.group);
    EXPECT_EQ(json::enumName(c.group), c.raw);
    EXPECT_EQ(json::enumFromName<EditGroup>(c.raw), c.group);
    EXPECT_EQ(displayName(c.group), c.display);
    EXPECT_EQ(kinds(c.group).size(), c.count);
  }
  const std::vector<AdjustmentKind>& color = kinds(EditGroup::Color);
  EXPECT_NE(std::find(color.begin(), color.end(), AdjustmentKind::WbRedGain), color.end());
  EXPECT_NE(std::find(color.begin(), color.end(), AdjustmentKind::Treatment), color.end());

  const std::vector<EditGroup>& selection = defaultSelection();
  EXPECT_EQ(selection.size(), 11u);
  EXPECT_EQ(std::count(selection.begin(), selection.end(), EditGroup::Geometry), 0);
  EXPECT_EQ(std::count(selection.begin(), selection.end(), EditGroup::Masks), 0);
  EXPECT_EQ(std::count(selection.begin(), selection.end(), EditGroup::Frame), 1);
}

} // namespace
} // namespace velko::core
