// Edit stacks: the kinds, the stored JSON forms, and changing a stack with patches, merges and
// presets.
#include "core/EditPatch.h"
#include "core/EditStack.h"
#include "core/EditStackMerge.h"
#include "json/OneKey.h"
#include "json/Writer.h"

#include <algorithm>
#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>

namespace velko::core {
namespace {

using K = AdjustmentKind;
using Action = MaskPatchOp::Action;

json::Date at(int hour, int minute = 0) {
  return json::Date(std::chrono::sys_days(std::chrono::year{2024} / 5 / 1)) +
         std::chrono::hours(hour) + std::chrono::minutes(minute);
}

const json::Date kNoon = at(12);
const EditOrigin kAgent = AiOrigin{"claude-mcp", "session-1"};
const Uuid kMaskId = *Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");

EditPatchOp scalarOp(K kind, double v) {
  return {.kind = kind, .scalar = v};
}

MaskPatchOp maskOp(Action action, std::optional<Uuid> id = std::nullopt) {
  return {.action = action, .id = id};
}

std::string bytes(const EditStack& s) {
  return AdjustmentDataCodec::encode(s);
}

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

// Parsing is exact and case-sensitive (the tool handlers' test refuses a misspelt kind with its
// message); the colour mixer's and the grade's kinds are computed from the band's ordinal.
TEST(AdjustmentKind, NamesAreExactAndBandKindsComputed) {
  for (std::string_view raw : {"Exposure", "exposure ", "hslredHue"}) {
    EXPECT_FALSE(parseAdjustmentKind(raw).has_value()) << raw;
  }
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
  for (const auto& [text, message] : {
           std::pair{"{}", "payload: Invalid number of keys found, expected one."},
           std::pair{R"({"number":{"_0":1}})", "payload: unknown case \"number\""},
           std::pair{R"({"rect":{"_0":[1,2,3,4]}})",
                     "payload.rect._0: expected [[x, y], [width, height]]"}}) {
    const json::Value value = json::parse(text);
    EXPECT_THAT([&] { json::decodeAs<AdjustmentPayload>(value, json::Path("payload")); },
                ::testing::ThrowsMessage<json::DecodeError>(message));
  }
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

// ---- Patches, merges and presets ----

// The tools' tests pin the plain forms and the crop; these are the lists the server never decodes.
TEST(EditPatchOpJson, LiteralsDecodeAndEncodeExactly) {
  struct Case {
    const char* json;
    EditPatchOp op;
  } cases[] = {
      {R"({"kind":"toneCurve","curve":[[0,0],[0.5,0.6],[1,1]]})",
       {.kind = K::ToneCurve, .curve = Curve{{0, 0}, {0.5, 0.6}, {1, 1}}}},
      {R"({"kind":"pointColor","pointColors":[{"targetHue":0.1,"targetSat":0.2,"targetLum":0.3,)"
       R"("hue":0.4,"sat":0.5,"lum":0.6,"range":0.7}]})",
       {.kind = K::PointColor,
        .pointColors = std::vector<PointColorTarget>{{0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7}}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(json::decodeAs<EditPatchOp>(json::parse(c.json)), c.op);
    EXPECT_EQ(json::toCompact(json::encode(c.op)), c.json);
  }
}

// The application's editing test refuses a stale version, an op without a value and a missing
// mask; these are the other malformed forms, each after a valid op. A mask op's error names its
// action.
TEST(EditPatch, MalformedOperationsChangeNothing) {
  using enum EditPatchError::Kind;
  struct Case {
    const char* name;
    EditPatchError::Kind kind;
    std::vector<EditPatchOp> ops;
    std::vector<MaskPatchOp> maskOps;
  } cases[] = {
      {"remove false alone", MalformedOp,
       {scalarOp(K::Exposure, 0.5), {.kind = K::Contrast, .remove = false}}},
      {"two values", MalformedOp,
       {scalarOp(K::Exposure, 0.5), {.kind = K::Contrast, .scalar = 1, .string = "x"}}},
      {"remove without id", MalformedMaskOp, {scalarOp(K::Exposure, 0.5)},
       {{.action = Action::SetEnabled, .id = kMaskId, .enabled = false}, maskOp(Action::Remove)}},
      {"add without shape", MalformedMaskOp, {}, {maskOp(Action::Add, kMaskId)}},
      {"setAdjustment without kind", MalformedMaskOp, {}, {maskOp(Action::SetAdjustment, kMaskId)}},
      {"setShape without id", MalformedMaskOp, {},
       {{.action = Action::SetShape, .shape = LinearShape{}}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EditStack s;
    s.addMask({.id = kMaskId, .shape = AiSubjectShape{}});
    const std::string before = bytes(s);
    const auto apply = [&] { s.apply(c.ops, c.maskOps, kAgent, kNoon, std::nullopt); };
    using ::testing::Property;
    // A malformed mask op also names its action.
    const ::testing::Matcher<const EditPatchError&> action =
        c.maskOps.empty()
            ? ::testing::Matcher<const EditPatchError&>(::testing::_)
            : Property(&EditPatchError::action, ::testing::Optional(c.maskOps.back().action));
    EXPECT_THAT(apply, ::testing::Throws<EditPatchError>(
                           ::testing::AllOf(Property(&EditPatchError::kind, c.kind), action)));
    EXPECT_EQ(bytes(s), before);
  }
}

// The version orders edits for the stale-edit check: every change advances it, and only a
// change does.
TEST(EditPatch, VersionCountsEachChangeAndValuesAreStoredUnclamped) {
  EditStack s;
  EXPECT_TRUE(s.apply({}, {}, kAgent, kNoon, 0).empty());
  EXPECT_EQ(s.version, 0);

  // Ops on one kind: the last wins and each counts, even one that sets the value it finds;
  // out-of-range numbers are kept.
  s.apply({scalarOp(K::Exposure, 1), scalarOp(K::Exposure, 12), scalarOp(K::Exposure, 12),
           scalarOp(K::WbRedGain, -40)},
          {}, kAgent, kNoon, 0);
  EXPECT_EQ(s.version, 4);
  EXPECT_EQ(s.scalar(K::Exposure), 12);
  EXPECT_EQ(s.scalar(K::WbRedGain), -40);

  // Removing something absent is fine and free; removing something present counts.
  s.apply({{.kind = K::Clarity, .remove = true}}, {}, kAgent, kNoon, 4);
  EXPECT_EQ(s.version, 4);
  s.apply({{.kind = K::Exposure, .remove = true}}, {}, kAgent, kNoon, std::nullopt);
  EXPECT_EQ(s.version, 5);
  EXPECT_FALSE(s.values.contains(K::Exposure));
}

// Adds with and without an id, tunes, reshapes, disables and removes, in the order given, each
// operation counting once.
TEST(MaskPatch, OperationsActOnTheNamedMaskInListOrder) {
  const MaskPatchOp add{.action = Action::Add,
                        .id = kMaskId,
                        .shape = RadialShape{{0.5, 0.5}, {0.3, 0.3}, 0.4, false},
                        .name = "Face"};
  const MaskPatchOp anonymous{.action = Action::Add, .shape = AiSubjectShape{}};
  // Zero is stored, not removed.
  const MaskPatchOp zero{
      .action = Action::SetAdjustment, .id = kMaskId, .adjustment = K::Exposure, .value = 0.0};
  EditStack s;
  const std::vector<Uuid> created = s.apply({}, {add, zero, anonymous}, kAgent, kNoon, 0);
  ASSERT_EQ(created.size(), 2u);
  EXPECT_EQ(created[0], kMaskId);
  ASSERT_EQ(s.masks().size(), 2u);
  EXPECT_EQ(s.masks()[0].name, "Face");
  EXPECT_EQ(s.masks()[0].adjustments, (MaskAdjustments{{K::Exposure, 0.0}}));
  EXPECT_EQ(s.masks()[1].id, created[1]);

  const MaskPatchOp tint{
      .action = Action::SetAdjustment, .id = kMaskId, .adjustment = K::Tint, .value = 0.4};
  const MaskPatchOp unset{.action = Action::SetAdjustment, .id = kMaskId, .adjustment = K::Exposure};
  const MaskPatchOp reshape{
      .action = Action::SetShape, .id = kMaskId, .shape = LinearShape{{0, 0}, {1, 1}}};
  const MaskPatchOp disable{.action = Action::SetEnabled, .id = kMaskId, .enabled = false};
  s.apply({}, {tint, unset, reshape, disable}, kAgent, kNoon, 3);
  EXPECT_EQ(s.version, 7);
  const LocalMask& m = s.masks().at(0);
  EXPECT_EQ(m.shape, MaskShape(LinearShape{{0, 0}, {1, 1}}));
  EXPECT_EQ(m.adjustments, (MaskAdjustments{{K::Tint, 0.4}}));
  EXPECT_FALSE(m.isEnabled);

  s.apply({}, {maskOp(Action::Remove, kMaskId), maskOp(Action::Remove, created[1])}, kAgent, kNoon, 7);
  EXPECT_FALSE(s.maskList.has_value());
  EXPECT_EQ(bytes(s).find("masks"), std::string::npos);
}

// A stored stack may already carry the largest version (the edit-stack fuzzer found one): every
// change is refused, and the stack is left exactly as it was, rather than wrapping to a negative
// version no stale-edit check orders.
TEST(EditPatch, ChangesAtTheLargestVersionAreRefusedUntouched) {
  const std::optional<EditStack> stored = AdjustmentDataCodec::decode(
      R"({"values":{},"version":9223372036854775807,"masks":[)"
      R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"Sky",)"
      R"("shape":{"linear":{"start":[0.5,0.2],"end":[0.5,0.8]}},"adjustments":["exposure",-0.3],)"
      R"("isEnabled":true}]})");
  ASSERT_TRUE(stored);
  constexpr std::int64_t kTop = std::numeric_limits<std::int64_t>::max();
  ASSERT_EQ(stored->version, kTop);
  EditStack s = *stored;
  EXPECT_THROW(applyAtomically(s, {scalarOp(K::Tint, 2)}, {}, UserOrigin{}, kNoon, kTop),
               std::overflow_error);
  EXPECT_EQ(s, *stored);
}

// Whole-stack operations no method calls yet; the edit-stack fuzzer runs them on every input.
TEST(EditStackMerge, LaterValueWinsMasksUniteByIdAndPresetsLeaveGeometry) {
  EditStack a, b;
  a.setScalar(K::Exposure, 0.5, UserOrigin{}, kNoon);
  b.setScalar(K::Exposure, 0.2, kAgent, kNoon + std::chrono::hours(1));
  b.setRect(K::Crop, Rect{0, 0, 0.5, 0.5}, UserOrigin{}, kNoon - std::chrono::hours(9));
  a.addMask({.id = kMaskId, .name = "a-shared", .shape = AiSubjectShape{}});
  b.addMask({.id = kMaskId, .name = "b-shared", .shape = AiSubjectShape{}});
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
