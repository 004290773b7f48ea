#include "core/EditStack.h"

#include "json/OneKey.h"
#include "json/Writer.h"

#include <algorithm>
#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace velko::core {
namespace {

using K = AdjustmentKind;

json::Date at(int hour, int minute = 0) {
  return json::Date(std::chrono::sys_days(std::chrono::year{2024} / 5 / 1)) +
         std::chrono::hours(hour) + std::chrono::minutes(minute);
}

const Uuid kMaskId = *Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");

std::string compact(const EditStack& s) {
  return json::toCompact(json::encode(s));
}

EditStack decodeText(std::string_view text) {
  return json::decodeAs<EditStack>(json::parse(text));
}

// ---- Kinds ----

class EveryKind : public ::testing::TestWithParam<AdjustmentKind> {};

TEST_P(EveryKind, RawValueRoundTripsAndKindSitsInAtMostOneGroup) {
  const AdjustmentKind k = GetParam();
  EXPECT_EQ(parseAdjustmentKind(rawValue(k)), k);
  EXPECT_EQ(json::decodeAs<AdjustmentKind>(json::encode(k)), k);
  std::ptrdiff_t memberships = 0;
  for (EditGroup g : kOrderedEditGroups) {
    const std::ptrdiff_t inGroup = std::ranges::count(kinds(g), k);
    memberships += inGroup;
    EXPECT_TRUE(inGroup == 0 || groupOf(k) == g) << displayName(g);
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

// ---- JSON forms against literals ----

template <class T> void expectLiteral(const char* name, const T& value, const char* literal) {
  SCOPED_TRACE(name);
  EXPECT_EQ(json::decodeAs<T>(json::parse(literal)), value);
  EXPECT_EQ(json::toCompact(json::encode(value)), literal);
}

// A literal form per payload case and mask shape (the golden stack and the mask below hold the
// rest), both ways: a wrong key or case name would lose the value when the stored stack is read
// back.
TEST(EditStackJson, EveryPayloadAndShapeMatchesItsLiteral) {
  expectLiteral("boolean", AdjustmentPayload(std::in_place_type<bool>, true),
                R"({"boolean":{"_0":true}})");
  expectLiteral<AdjustmentPayload>("curve", Curve{{0, 0}, {0.5, 0.625}, {1, 1}},
                                   R"({"curve":{"_0":[[0,0],[0.5,0.625],[1,1]]}})");
  expectLiteral<AdjustmentPayload>(
      "pointColors", std::vector<PointColorTarget>{{0.1, 0.2, 0.3, 0.5, -0.5, 0.25, 0.125}},
      R"({"pointColors":{"_0":[{"targetHue":0.1,"targetSat":0.2,"targetLum":0.3,)"
      R"("hue":0.5,"sat":-0.5,"lum":0.25,"range":0.125}]}})");
  expectLiteral<AdjustmentPayload>("string", std::string("teal \"orange\"\\/\u00e9"),
                                   R"({"string":{"_0":"teal \"orange\"\\/é"}})");
  expectLiteral<MaskShape>(
      "radial", RadialShape{{0.5, 0.5}, {0.3, 0.25}, 0.4, true},
      R"({"radial":{"center":[0.5,0.5],"radius":[0.3,0.25],"feather":0.4,"inverted":true}})");
  expectLiteral<MaskShape>("colorRange", ColorRangeShape{0.6, 0.08, 0.05},
                           R"({"colorRange":{"hue":0.6,"range":0.08,"feather":0.05}})");
  expectLiteral<MaskShape>(
      "brush", BrushShape{{BrushStroke{{{0.1, 0.2}, {0.3, 0.4}}, 0.05, true}}, 0.2},
      R"({"brush":{"strokes":[{"points":[[0.1,0.2],[0.3,0.4]],"radius":0.05,"erase":true}],)"
      R"("feather":0.2}})");
  expectLiteral<MaskShape>("aiPeople", AiPeopleShape{false}, R"({"aiPeople":{"inverted":false}})");
}

TEST(AdjustmentPayload, RejectsObjectsWithoutExactlyOneKnownKey) {
  auto decoding = [](const char* text) {
    return [text] {
      json::decodeAs<AdjustmentPayload>(json::parse(text), json::Path("payload"));
    };
  };
  const auto failsWith = [](const char* message) {
    return ::testing::ThrowsMessage<json::DecodeError>(message);
  };
  EXPECT_THAT(decoding("{}"), failsWith("payload: Invalid number of keys found, expected one."));
  EXPECT_THAT(decoding(R"({"number":{"_0":1}})"), failsWith("payload: unknown case \"number\""));
  EXPECT_THAT(decoding(R"({"rect":{"_0":[1,2,3,4]}})"),
              failsWith("payload.rect._0: expected [[x, y], [width, height]]"));
}

// The known cases are written as one key (the golden stack holds the user and the assistant);
// anything else reads as some origin, never fails.
TEST(EditOrigin, EncodesOneKeyAndDecodesEverythingLeniently) {
  struct Case {
    const char* name;
    const char* json;
    EditOrigin expected;
    bool written = false; ///< `json` is also what the encoder writes
  } cases[] = {
      {"preset", R"({"preset":{"id":"p9"}})", PresetOrigin{"p9"}, true},
      {"unknown", R"({"unknown":{}})", UnknownOrigin{}, true},
      {"ai missing session", R"({"ai":{"agent":"a"}})", UnknownOrigin{}},
      {"future case", R"({"plugin":{"name":"x"}})", UnknownOrigin{}},
      {"user wins over ai", R"({"ai":{"agent":"a","sessionId":"s"},"user":{}})", UserOrigin{}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(json::decodeAs<EditOrigin>(json::parse(c.json)), c.expected);
    if (c.written) {
      EXPECT_EQ(json::toCompact(json::encode(c.expected)), c.json);
    }
  }
}

constexpr const char* kGoldenStack =
    R"({"values":{)"
    R"("exposure":{"kind":"exposure","payload":{"scalar":{"_0":0.5}},)"
    R"("lastModifiedBy":{"ai":{"agent":"claude-mcp","sessionId":"s1"}},)"
    R"("lastModifiedAt":"2024-05-01T10:00:00Z"},)"
    R"("crop":{"kind":"crop","payload":{"rect":{"_0":[[0.1,0.2],[0.5,0.25]]}},)"
    R"("lastModifiedBy":{"user":{}},"lastModifiedAt":"2024-05-01T11:30:00Z"}},)"
    R"("version":7,)"
    R"("masks":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"Sky",)"
    R"("shape":{"linear":{"start":[0.5,0.2],"end":[0.5,0.8]}},)"
    R"("adjustments":["exposure",-0.3,"saturation",0.2],"isEnabled":true}]})";

EditStack goldenStack() {
  EditStack s;
  s.values[K::Exposure] = {K::Exposure, 0.5, AiOrigin{"claude-mcp", "s1"}, at(10)};
  s.values[K::Crop] = {K::Crop, Rect{0.1, 0.2, 0.5, 0.25}, UserOrigin{}, at(11, 30)};
  s.version = 7;
  s.maskList = std::vector<LocalMask>{{.id = kMaskId,
                                       .name = "Sky",
                                       .shape = LinearShape{{0.5, 0.2}, {0.5, 0.8}},
                                       .adjustments = {{K::Exposure, -0.3}, {K::Saturation, 0.2}}}};
  return s;
}

TEST(EditStackJson, GoldenLiteralDecodesAndReencodesEqual) {
  EXPECT_EQ(decodeText(kGoldenStack), goldenStack());
  // Key order differs (values are written in kind order), so compare as values.
  EXPECT_EQ(json::encode(goldenStack()), json::parse(kGoldenStack));
  // The stored bytes are the compact form.
  EXPECT_EQ(AdjustmentDataCodec::encode(goldenStack()), compact(goldenStack()));
  EXPECT_FALSE(AdjustmentDataCodec::decode("not json").has_value());
  EXPECT_FALSE(AdjustmentDataCodec::decode(R"({"version":"x"})").has_value());
  // An empty mask list is not written.
  EditStack s;
  s.maskList = std::vector<LocalMask>{};
  EXPECT_EQ(compact(s), R"({"values":{},"version":0})");
}

// A stack from a newer build, or a damaged one, loads minus what this build cannot read.
TEST(EditStackJson, DecodingSkipsWhatItCannotRead) {
  const EditStack s = decodeText(
      R"({"values":{"holography":{"kind":"holography","payload":{"scalar":{"_0":1}},)"
      R"("lastModifiedBy":{"user":{}},"lastModifiedAt":"2024-05-01T10:00:00Z"},)"
      R"("exposure":{"kind":"exposure","payload":{"scalar":{"_0":1},"x":{}},)"
      R"("lastModifiedBy":{"user":{}},"lastModifiedAt":"2024-05-01T10:00:00Z"},)"
      R"("tint":{"kind":"tint","payload":{"scalar":{"_0":1}},)"
      R"("lastModifiedBy":{"robot":{}},"lastModifiedAt":"2024-05-01T10:00:00Z"}},"version":2,)"
      R"("masks":[{"id":"nope"},)"
      R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"m","shape":{"hologram":{}},)"
      R"("adjustments":[],"isEnabled":true},)"
      R"({"id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","name":"m","shape":{"aiSubject":)"
      R"({"inverted":false}},"adjustments":["exposure",0.1],"isEnabled":false}]})");
  ASSERT_EQ(s.values.size(), 1u); // the unknown kind and the malformed value are skipped
  EXPECT_EQ(s.values.at(K::Tint).lastModifiedBy, EditOrigin(UnknownOrigin{}));
  EXPECT_EQ(s.version, 2);
  ASSERT_EQ(s.masks().size(), 1u);
  EXPECT_EQ(s.masks()[0].id, kMaskId);
  // With every mask unreadable the list is absent, and not written back.
  const EditStack none = decodeText(R"({"masks":[1,"x",{}]})");
  EXPECT_FALSE(none.maskList.has_value());
  EXPECT_EQ(compact(none), R"({"values":{},"version":0})");
}

TEST(LocalMaskJson, MaskWithRefinementsMatchesItsLiteral) {
  const char* literal =
      R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"Subject",)"
      R"("shape":{"aiSubject":{"inverted":false}},"adjustments":["exposure",0.3,"saturation",)"
      R"(-0.2],"isEnabled":false,"refinementList":[{"id":"00000000-0000-0000-0000-0000000000AB",)"
      R"("shape":{"luminanceRange":{"lower":0.1,"upper":0.9,"feather":0.05}},"mode":"subtract"}]})";
  LocalMask m = json::decodeAs<LocalMask>(json::parse(literal));
  EXPECT_FALSE(m.isEnabled);
  EXPECT_EQ(m.adjustments, (MaskAdjustments{{K::Exposure, 0.3}, {K::Saturation, -0.2}}));
  ASSERT_EQ(m.refinements().size(), 1u);
  EXPECT_EQ(m.refinements()[0].mode, CompositeMode::Subtract);
  EXPECT_EQ(json::toCompact(json::encode(m)), literal);

  // Odd-length and unknown kinds in the flat array fail the mask.
  for (const char* bad : {R"(["exposure"])", R"(["exposur",0.1])"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(json::decodeAs<MaskAdjustments>(json::parse(bad)), json::DecodeError);
  }
}

TEST(LocalMask, AiMatteRegionsAreTheAiShapesAmongShapeAndRefinements) {
  const Uuid subject = Uuid::random();
  LocalMask m{.id = kMaskId,
              .shape = AiPeopleShape{true},
              .refinementList = std::vector<MaskComponent>{
                  {Uuid::random(), RadialShape{}, CompositeMode::Intersect},
                  {subject, AiSubjectShape{false}, CompositeMode::Subtract},
              }};
  EXPECT_EQ(aiMatteRegions(m).size(), 2u);
  m.shape = LinearShape{};
  ASSERT_EQ(aiMatteRegions(m).size(), 1u);
  EXPECT_EQ(aiMatteRegions(m)[0].id, subject);
}

// ---- Mutators and version arithmetic ----

TEST(EditStack, ReadersRoundStoredNumbersAndFallBackOnWhatTheyCannotRead) {
  struct Case {
    double stored;
    FrameFit fit;
    DevelopSource source;
    ColorProfile profile;
  } cases[] = {
      {0.6, FrameFit::Fill, DevelopSource::Jpeg, ColorProfile::Vivid},
      {4.6, FrameFit::Fit, DevelopSource::Raw, ColorProfile::Monochrome},
      {NAN, FrameFit::Fit, DevelopSource::Raw, ColorProfile::Standard},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.stored);
    EditStack s;
    s.setScalar(K::FrameFitMode, c.stored, UserOrigin{}, at(1));
    s.setScalar(K::DevelopSource, c.stored, UserOrigin{}, at(1));
    s.setScalar(K::ColorProfile, c.stored, UserOrigin{}, at(1));
    EXPECT_EQ(s.frameFit(), c.fit);
    EXPECT_EQ(s.developSource(), c.source);
    EXPECT_EQ(s.colorProfile(), c.profile);
  }
  EditStack s;
  s.setString(K::ColorProfile, "vivid", UserOrigin{}, at(1));
  EXPECT_EQ(s.colorProfile(), ColorProfile::Standard);
  // A frame needs an aspect; a colour that does not parse falls back to white.
  s.setString(K::FrameColor, "not a colour", UserOrigin{}, at(1));
  EXPECT_EQ(s.frameColorValue(), FrameColorRGBA::white);
  EXPECT_FALSE(s.hasFrame());
  s.setScalar(K::FrameAspect, EditStack::frameAspectMatchSource, UserOrigin{}, at(1));
  EXPECT_TRUE(s.hasFrame());
  s.setScalar(K::FrameAspect, 0, UserOrigin{}, at(1));
  EXPECT_FALSE(s.hasFrame());
}

// ---- Frame colours ----

TEST(FrameColorRGBA, ParsesHexForms) {
  struct Case {
    const char* text;
    std::optional<FrameColorRGBA> expected;
  } cases[] = {
      {"#abc", FrameColorRGBA{0xAA / 255.0, 0xBB / 255.0, 0xCC / 255.0, 1}},
      {" \n#FFFFFF80\t ", FrameColorRGBA{1, 1, 1, 128 / 255.0}},
      {"+f0000", FrameColorRGBA{15 / 255.0, 0, 0, 1}},
      {"#abcd", std::nullopt},
      {"#f-0000", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(FrameColorRGBA::fromHex(c.text), c.expected);
  }
}

} // namespace
} // namespace velko::core
