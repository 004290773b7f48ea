#include "core/EditStack.h"

#include "json/OneKey.h"
#include "json/Writer.h"

#include <cmath>
#include <gtest/gtest.h>

namespace velko::core {
namespace {

using K = AdjustmentKind;
using namespace std::chrono_literals;

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

template <class T> std::string decodeError(const char* text, const char* root) {
  try {
    json::decodeAs<T>(json::parse(text), json::Path(root));
  } catch (const json::DecodeError& e) {
    return e.what();
  }
  return "decoded";
}

// ---- JSON forms against literals ----

struct PayloadCase {
  const char* name;
  AdjustmentPayload payload;
  const char* json;
};
const PayloadCase kPayloadCases[] = {
    {"scalar", AdjustmentPayload(std::in_place_type<double>, 0.7), R"({"scalar":{"_0":0.7}})"},
    {"boolean", AdjustmentPayload(std::in_place_type<bool>, true), R"({"boolean":{"_0":true}})"},
    {"curve", Curve{{0, 0}, {0.5, 0.625}, {1, 1}},
     R"({"curve":{"_0":[[0.0,0.0],[0.5,0.625],[1.0,1.0]]}})"},
    {"rect", Rect{0.125, 0.25, 0.5, 0.75}, R"({"rect":{"_0":[[0.125,0.25],[0.5,0.75]]}})"},
    {"pointColors", std::vector<PointColorTarget>{{0.1, 0.2, 0.3, 0.5, -0.5, 0.25, 0.125}},
     R"({"pointColors":{"_0":[{"targetHue":0.1,"targetSat":0.2,"targetLum":0.3,)"
     R"("hue":0.5,"sat":-0.5,"lum":0.25,"range":0.125}]}})"},
    {"string", std::string("teal \"orange\"\\/\u00e9"),
     R"({"string":{"_0":"teal \"orange\"\\/\u00e9"}})"},
};

struct ShapeCase {
  const char* name;
  MaskShape shape;
  const char* json;
};
const ShapeCase kShapeCases[] = {
    {"linear", LinearShape{{0.5, 0.2}, {0.5, 0.8}},
     R"({"linear":{"start":[0.5,0.2],"end":[0.5,0.8]}})"},
    {"radial", RadialShape{{0.5, 0.5}, {0.3, 0.25}, 0.4, true},
     R"({"radial":{"center":[0.5,0.5],"radius":[0.3,0.25],"feather":0.4,"inverted":true}})"},
    {"luminanceRange", LuminanceRangeShape{0.25, 0.75, 0.1},
     R"({"luminanceRange":{"lower":0.25,"upper":0.75,"feather":0.1}})"},
    {"colorRange", ColorRangeShape{0.6, 0.08, 0.05},
     R"({"colorRange":{"hue":0.6,"range":0.08,"feather":0.05}})"},
    {"brush", BrushShape{{BrushStroke{{{0.1, 0.2}, {0.3, 0.4}}, 0.05, true}}, 0.2},
     R"({"brush":{"strokes":[{"points":[[0.1,0.2],[0.3,0.4]],"radius":0.05,"erase":true}],)"
     R"("feather":0.2}})"},
    {"aiSubject", AiSubjectShape{true}, R"({"aiSubject":{"inverted":true}})"},
    {"aiPeople", AiPeopleShape{false}, R"({"aiPeople":{"inverted":false}})"},
};

TEST(AdjustmentPayload, EveryCaseMatchesItsLiteral) {
  for (const PayloadCase& c : kPayloadCases) {
    SCOPED_TRACE(c.name);
    const json::Value literal = json::parse(c.json);
    EXPECT_EQ(json::decodeAs<AdjustmentPayload>(literal), c.payload);
    EXPECT_EQ(json::encode(c.payload), literal);
  }
}

TEST(AdjustmentPayload, RejectsObjectsWithoutExactlyOneKnownKey) {
  auto message = [](const char* text) {
    return decodeError<AdjustmentPayload>(text, "payload");
  };
  EXPECT_EQ(message("{}"), "payload: Invalid number of keys found, expected one.");
  EXPECT_EQ(message(R"({"scalar":{"_0":1},"boolean":{"_0":true}})"), message("{}"));
  EXPECT_EQ(message(R"({"number":{"_0":1}})"), "payload: unknown case \"number\"");
  EXPECT_EQ(message(R"({"scalar":{"_0":"x"}})"),
            "payload.scalar._0: expected a number, found string");
  EXPECT_EQ(message(R"({"rect":{"_0":[1,2,3,4]}})"),
            "payload.rect._0: expected [[x, y], [width, height]]");
}

TEST(AdjustmentPayload, AccessorsAnswerOnlyForTheirOwnCase) {
  AdjustmentPayload p(std::in_place_type<double>, 1.0);
  EXPECT_EQ(scalar(p), 1.0);
  EXPECT_FALSE(boolean(p).has_value());
  EXPECT_NE(p, AdjustmentPayload(std::in_place_type<bool>, true)); // same number, other case
  EXPECT_TRUE((PointColorTarget{0.3, 0.4, 0.5, 0, 0, 0, 0.9}).isIdentity());
  EXPECT_FALSE((PointColorTarget{0, 0, 0, 0, 0, 0.01, 0}).isIdentity());
}

TEST(EditOrigin, EncodesOneKeyAndDecodesEverythingLeniently) {
  EXPECT_EQ(json::toCompact(json::encode(EditOrigin(UserOrigin{}))), R"({"user":{}})");
  EXPECT_EQ(json::toCompact(json::encode(EditOrigin(AiOrigin{"claude-mcp", "s1"}))),
            R"({"ai":{"agent":"claude-mcp","sessionId":"s1"}})");
  EXPECT_EQ(json::toCompact(json::encode(EditOrigin(PresetOrigin{"p9"}))),
            R"({"preset":{"id":"p9"}})");
  EXPECT_EQ(json::toCompact(json::encode(EditOrigin(UnknownOrigin{}))), R"({"unknown":{}})");

  struct Case {
    const char* name;
    const char* json;
    EditOrigin expected;
  } cases[] = {
      {"user with anything inside", R"({"user":7})", UserOrigin{}},
      {"ai", R"({"ai":{"agent":"a","sessionId":"s"}})", AiOrigin{"a", "s"}},
      {"ai missing session", R"({"ai":{"agent":"a"}})", UnknownOrigin{}},
      {"ai with bad agent falls to preset", R"({"ai":{"agent":1},"preset":{"id":"p"}})",
       PresetOrigin{"p"}},
      {"preset id not a string", R"({"preset":{"id":3}})", UnknownOrigin{}},
      {"future case", R"({"plugin":{"name":"x"}})", UnknownOrigin{}},
      {"not an object", R"("user")", UnknownOrigin{}},
      {"user wins over ai", R"({"ai":{"agent":"a","sessionId":"s"},"user":{}})", UserOrigin{}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(json::decodeAs<EditOrigin>(json::parse(c.json)), c.expected);
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
  LocalMask m;
  m.id = kMaskId;
  m.name = "Sky";
  m.shape = LinearShape{{0.5, 0.2}, {0.5, 0.8}};
  m.adjustments = {{K::Exposure, -0.3}, {K::Saturation, 0.2}};
  s.maskList = std::vector<LocalMask>{m};
  return s;
}

TEST(EditStackJson, GoldenLiteralDecodesAndReencodesEqual) {
  const EditStack decoded = decodeText(kGoldenStack);
  EXPECT_EQ(decoded, goldenStack());
  // Key order differs (values are written in kind order), so compare as values.
  EXPECT_EQ(json::encode(goldenStack()), json::parse(kGoldenStack));
  EXPECT_EQ(compact(goldenStack()).find(R"({"values":{"exposure")"), 0u);
}

TEST(EditStackJson, EmptyMaskListIsNotWritten) {
  EditStack s;
  s.maskList = std::vector<LocalMask>{};
  EXPECT_EQ(compact(s), R"({"values":{},"version":0})");
}

TEST(EditStackJson, DecodingSkipsWhatItCannotRead) {
  struct Case {
    const char* name;
    const char* json;
    std::vector<AdjustmentKind> kinds;
    std::int64_t version;
    std::size_t masks;
  } cases[] = {
      {"unknown kind skipped",
       R"({"values":{"exposure":{"kind":"exposure","payload":{"scalar":{"_0":1}},)"
       R"("lastModifiedBy":{"user":{}},"lastModifiedAt":"2024-05-01T10:00:00Z"},)"
       R"("holography":{"kind":"holography","payload":{"scalar":{"_0":1}},)"
       R"("lastModifiedBy":{"user":{}},"lastModifiedAt":"2024-05-01T10:00:00Z"}},"version":2})",
       {K::Exposure},
       2,
       0},
      {"malformed value skipped",
       R"({"values":{"exposure":{"kind":"exposure","payload":{"scalar":{"_0":1},"x":{}},)"
       R"("lastModifiedBy":{"user":{}},"lastModifiedAt":"2024-05-01T10:00:00Z"}}})",
       {},
       0,
       0},
      {"unknown provenance kept as unknown",
       R"({"values":{"tint":{"kind":"tint","payload":{"scalar":{"_0":1}},)"
       R"("lastModifiedBy":{"robot":{}},"lastModifiedAt":"2024-05-01T10:00:00Z"}}})",
       {K::Tint},
       0,
       0},
      {"unreadable masks dropped",
       R"({"masks":[{"id":"nope"},)"
       R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"m","shape":{"hologram":{}},)"
       R"("adjustments":[],"isEnabled":true},)"
       R"({"id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","name":"m","shape":{"aiSubject":)"
       R"({"inverted":false}},"adjustments":["exposure",0.1],"isEnabled":false}]})",
       {},
       0,
       1},
      {"all masks unreadable", R"({"masks":[1,"x",{}]})", {}, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EditStack s = decodeText(c.json);
    std::vector<AdjustmentKind> kinds;
    for (const auto& [k, v] : s.values) {
      kinds.push_back(k);
    }
    EXPECT_EQ(kinds, c.kinds);
    EXPECT_EQ(s.version, c.version);
    EXPECT_EQ(s.masks().size(), c.masks);
    EXPECT_EQ(s.maskList.has_value(), c.masks > 0);
    EXPECT_EQ(compact(s).find("masks") != std::string::npos, c.masks > 0);
  }
  EditStack provenance = decodeText(cases[2].json);
  EXPECT_EQ(provenance.values.at(K::Tint).lastModifiedBy, EditOrigin(UnknownOrigin{}));
}

TEST(EditStackJson, StructuralErrorsFailNamingThePath) {
  EXPECT_EQ(decodeError<EditStack>(R"({"values":[]})", "stack"),
            "stack.values: expected an object, found array");
  EXPECT_EQ(decodeError<EditStack>(R"({"version":"3"})", "stack"),
            "stack.version: expected an integer, found string");
  EXPECT_EQ(decodeError<EditStack>(R"({"masks":{}})", "stack"),
            "stack.masks: expected an array, found object");
}

TEST(LocalMaskJson, EveryShapeMatchesItsLiteral) {
  for (const ShapeCase& c : kShapeCases) {
    SCOPED_TRACE(c.name);
    const json::Value literal = json::parse(c.json);
    EXPECT_EQ(json::decodeAs<MaskShape>(literal), c.shape);
    EXPECT_EQ(json::toCompact(json::encode(c.shape)), json::toCompact(literal));
  }
}

TEST(LocalMaskJson, MaskWithRefinementsMatchesItsLiteral) {
  const char* literal =
      R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"Subject",)"
      R"("shape":{"aiSubject":{"inverted":false}},"adjustments":["exposure",0.3,"saturation",-0.2],)"
      R"("isEnabled":false,"refinementList":[{"id":"00000000-0000-0000-0000-0000000000AB",)"
      R"("shape":{"luminanceRange":{"lower":0.1,"upper":0.9,"feather":0.05}},"mode":"subtract"}]})";
  LocalMask m = json::decodeAs<LocalMask>(json::parse(literal));
  EXPECT_EQ(m.id, kMaskId);
  EXPECT_EQ(m.name, "Subject");
  EXPECT_FALSE(m.isEnabled);
  EXPECT_EQ(m.adjustments, (MaskAdjustments{{K::Exposure, 0.3}, {K::Saturation, -0.2}}));
  ASSERT_EQ(m.refinements().size(), 1u);
  EXPECT_EQ(m.refinements()[0].mode, CompositeMode::Subtract);
  EXPECT_EQ(json::toCompact(json::encode(m)), literal);

  // Odd-length, unknown kinds and non-numbers in the flat array all fail the mask.
  for (const char* bad : {R"(["exposure"])", R"(["exposur",0.1])", R"(["exposure","0.1"])"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(json::decodeAs<MaskAdjustments>(json::parse(bad)), json::DecodeError);
  }
}

TEST(LocalMask, AbsentAndEmptyRefinementsAreEqual) {
  LocalMask a;
  a.id = kMaskId;
  LocalMask b = a;
  b.refinementList = std::vector<MaskComponent>{};
  EXPECT_EQ(a, b);
}

TEST(LocalMask, AiMatteRegionsListMainShapeThenAiComponentsInOrder) {
  const Uuid c1 = Uuid::random(), c2 = Uuid::random(), c3 = Uuid::random();
  LocalMask m;
  m.id = kMaskId;
  m.shape = AiPeopleShape{true};
  m.refinementList = std::vector<MaskComponent>{
      {c1, RadialShape{}, CompositeMode::Intersect},
      {c2, AiSubjectShape{false}, CompositeMode::Subtract},
      {c3, AiPeopleShape{false}, CompositeMode::Add},
  };
  std::vector<MatteRegion> regions = aiMatteRegions(m);
  ASSERT_EQ(regions.size(), 3u);
  EXPECT_EQ(regions[0].id, kMaskId);
  EXPECT_EQ(regions[0].shape, MaskShape(AiPeopleShape{true}));
  EXPECT_EQ(regions[1].id, c2);
  EXPECT_EQ(regions[2].id, c3);

  m.shape = LinearShape{};
  regions = aiMatteRegions(m);
  ASSERT_EQ(regions.size(), 2u);
  EXPECT_EQ(regions[0].id, c2);
  m.refinementList.reset();
  EXPECT_TRUE(aiMatteRegions(m).empty());
}

// ---- Mutators and version arithmetic ----

TEST(EditStack, SetAlwaysAdvancesVersionAndClearOnlyWhenSomethingWasRemoved) {
  EditStack s;
  s.setScalar(K::Exposure, 0.5, UserOrigin{}, at(9));
  s.setScalar(K::Exposure, 0.5, UserOrigin{}, at(9));
  EXPECT_EQ(s.version, 2);
  s.clear(K::Contrast);
  EXPECT_EQ(s.version, 2);
  s.clear(K::Exposure);
  EXPECT_EQ(s.version, 3);
  s.clear(K::Exposure);
  EXPECT_EQ(s.version, 3);
  EXPECT_TRUE(s.isEmpty());

  s.setBoolean(K::Treatment, true, UserOrigin{}, at(9));
  s.setPointColors({{0.1, 0.1, 0.1, 0.2, 0, 0, 0.5}}, AiOrigin{"a", "b"}, at(10));
  EXPECT_EQ(s.version, 5);
  EXPECT_EQ(s.values.at(K::PointColor).kind, K::PointColor);
  EXPECT_EQ(s.values.at(K::PointColor).lastModifiedAt, at(10));
  EXPECT_EQ(s.pointColors().size(), 1u);
  // Readers answer only for the stored case.
  EXPECT_FALSE(s.scalar(K::Treatment).has_value());
  EXPECT_EQ(s.scalar(K::Treatment, 0.25), 0.25);
  EXPECT_EQ(s.boolean(K::FlipVertical, true), true);
}

TEST(EditStack, MaskMutatorsKeepTheListAbsentRatherThanEmpty) {
  EditStack s;
  LocalMask m;
  m.id = kMaskId;
  s.updateMask(m); // not present: nothing happens
  EXPECT_EQ(s.version, 0);
  s.addMask(m);
  EXPECT_EQ(s.version, 1);
  m.name = "Renamed";
  s.updateMask(m);
  EXPECT_EQ(s.version, 2);
  EXPECT_EQ(s.masks().at(0).name, "Renamed");
  s.addMask(m); // a duplicate id: removeMask takes both
  s.removeMask(kMaskId);
  EXPECT_EQ(s.version, 4);
  EXPECT_FALSE(s.maskList.has_value());
  s.removeMask(kMaskId); // still advances
  EXPECT_EQ(s.version, 5);
}

TEST(EditStack, TypedSettersStoreNothingForTheDefault) {
  EditStack s;
  s.setFrameFit(FrameFit::Fill);
  s.setDevelopSource(DevelopSource::Jpeg);
  EXPECT_EQ(s.version, 2);
  EXPECT_EQ(s.frameFit(), FrameFit::Fill);
  EXPECT_EQ(s.developSource(), DevelopSource::Jpeg);
  EXPECT_EQ(s.values.at(K::FrameFitMode).lastModifiedBy, EditOrigin(UserOrigin{}));
  s.setFrameFit(FrameFit::Fit);
  s.setDevelopSource(DevelopSource::Raw);
  EXPECT_EQ(s.version, 4);
  EXPECT_TRUE(s.values.empty());
  s.setFrameFit(FrameFit::Fit); // nothing to clear
  EXPECT_EQ(s.version, 4);
}

TEST(EditStack, EnumerationReadersRoundTheStoredNumber) {
  struct Case {
    double stored;
    FrameFit fit;
    DevelopSource source;
    ColorProfile profile;
  } cases[] = {
      {0.6, FrameFit::Fill, DevelopSource::Jpeg, ColorProfile::Vivid},
      {0.4, FrameFit::Fit, DevelopSource::Raw, ColorProfile::Standard},
      {1.5, FrameFit::Fit, DevelopSource::Raw, ColorProfile::Neutral},
      {4.6, FrameFit::Fit, DevelopSource::Raw, ColorProfile::Monochrome},
      {6.0, FrameFit::Fit, DevelopSource::Raw, ColorProfile::Standard},
      {-3.0, FrameFit::Fit, DevelopSource::Raw, ColorProfile::Standard},
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
}

TEST(EditStack, FrameReaders) {
  EditStack s;
  EXPECT_FALSE(s.hasFrame());
  EXPECT_EQ(s.frameColorValue(), FrameColorRGBA::white);
  EXPECT_TRUE(s.frameInsetLinked());
  EXPECT_TRUE(s.frameInsets().isZero());

  s.setScalar(K::FrameAspect, EditStack::frameAspectMatchSource, UserOrigin{}, at(1));
  s.setString(K::FrameColor, "#000000", UserOrigin{}, at(1));
  s.setScalar(K::FrameInset, 0.05, UserOrigin{}, at(1));
  s.setScalar(K::FrameInsetTop, 0.2, UserOrigin{}, at(1));
  EXPECT_TRUE(s.hasFrame());
  EXPECT_EQ(s.frameColorValue(), FrameColorRGBA::black);
  EXPECT_EQ(s.frameInsets(), (FrameInsets{0.05, 0.05, 0.05, 0.05}));

  s.setBoolean(K::FrameInsetLinked, false, UserOrigin{}, at(1));
  EXPECT_EQ(s.frameInsets(), (FrameInsets{0.2, 0, 0, 0}));
  EXPECT_EQ(s.frameInsets().maxSide(), 0.2);

  s.setString(K::FrameColor, "not a colour", UserOrigin{}, at(1));
  EXPECT_EQ(s.frameColorValue(), FrameColorRGBA::white);
  s.setScalar(K::FrameAspect, 0, UserOrigin{}, at(1));
  EXPECT_FALSE(s.hasFrame());
}

TEST(EditStack, HasGeometryChecksEachGeometricField) {
  struct Case {
    const char* name;
    AdjustmentKind kind;
    AdjustmentPayload payload;
    bool expected;
  } cases[] = {
      {"full-frame crop", K::Crop, kFullFrame, false},
      {"real crop", K::Crop, Rect{0, 0, 1, 0.9}, true},
      {"zero straighten", K::Straighten, 0.0, false},
      {"straighten", K::Straighten, 2.0, true},
      {"lens", K::LensDistortion, 0.1, true},
      {"flip false", K::FlipHorizontal, false, false},
      {"flip", K::FlipVertical, true, true},
      {"frame", K::FrameAspect, 1.5, true},
      {"frame colour alone", K::FrameColor, std::string("#FFFFFF"), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EditStack s;
    s.set(c.kind, c.payload, UserOrigin{}, at(1));
    EXPECT_EQ(s.hasGeometry(), c.expected);
  }
}

TEST(EditStack, ApplyGroupsCopiesWholeGroupsAndAdvancesOnce) {
  EditStack mine;
  mine.setScalar(K::Exposure, 1, UserOrigin{}, at(1));
  mine.setScalar(K::Contrast, 0.2, UserOrigin{}, at(1));
  mine.setRect(K::Crop, {0, 0, 0.5, 0.5}, UserOrigin{}, at(1));
  mine.setScalar(K::CgBalance, 0.3, UserOrigin{}, at(1));
  mine.setScalar(K::DevelopSource, 1, UserOrigin{}, at(1));
  LocalMask m;
  m.id = kMaskId;
  mine.addMask(m);

  EditStack theirs;
  theirs.setScalar(K::Exposure, -1, PresetOrigin{"p"}, at(5));
  theirs.setScalar(K::Clarity, 0.4, PresetOrigin{"p"}, at(5));
  theirs.setScalar(K::CgBalance, -0.5, PresetOrigin{"p"}, at(5));

  const std::int64_t before = mine.version;
  mine.applyGroups(defaultSelection(), theirs);
  EXPECT_EQ(mine.version, before + 1);
  EXPECT_EQ(mine.values.at(K::Exposure), theirs.values.at(K::Exposure));
  EXPECT_FALSE(mine.values.contains(K::Contrast)); // removed: theirs has none
  EXPECT_EQ(mine.scalar(K::Clarity), 0.4);
  EXPECT_TRUE(mine.rect(K::Crop).has_value()); // geometry not selected
  EXPECT_EQ(mine.scalar(K::CgBalance), 0.3);   // in no group: never touched
  EXPECT_EQ(mine.scalar(K::DevelopSource), 1);
  EXPECT_TRUE(mine.hasValues(EditGroup::Masks));

  mine.applyGroups({EditGroup::Masks, EditGroup::Geometry}, theirs);
  EXPECT_EQ(mine.version, before + 2);
  EXPECT_FALSE(mine.maskList.has_value());
  EXPECT_FALSE(mine.hasValues(EditGroup::Geometry));
  EXPECT_TRUE(mine.hasValues(EditGroup::Presence));
  EXPECT_FALSE(mine.hasValues(EditGroup::Curve));
}

TEST(EditStack, GeometryKindsAreTheKindsOfTheFramingGroups) {
  const auto& g = EditStack::geometryKinds();
  for (AdjustmentKind k : allAdjustmentKinds()) {
    const bool framing = groupOf(k) == EditGroup::Geometry || groupOf(k) == EditGroup::Frame;
    EXPECT_EQ(std::count(g.begin(), g.end(), k), framing ? 1 : 0) << rawValue(k);
  }
}

// ---- Frame colours ----

TEST(FrameColorRGBA, ParsesHexForms) {
  struct Case {
    const char* text;
    std::optional<FrameColorRGBA> expected;
  } cases[] = {
      {"#abc", FrameColorRGBA{0xAA / 255.0, 0xBB / 255.0, 0xCC / 255.0, 1}},
      {"ABC", FrameColorRGBA{0xAA / 255.0, 0xBB / 255.0, 0xCC / 255.0, 1}},
      {" \n#FFFFFF80\t ", FrameColorRGBA{1, 1, 1, 128 / 255.0}},
      {"\u00A0#fff\u2028", FrameColorRGBA::white},
      {"+f0000", FrameColorRGBA{15 / 255.0, 0, 0, 1}},
      {"#abcd", std::nullopt},
      {"#12345", std::nullopt},
      {"", std::nullopt},
      {"##abc", std::nullopt},
      {"#ggg", std::nullopt},
      {"#1 2 3 ", std::nullopt},
      {"#f-0000", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(FrameColorRGBA::fromHex(c.text), c.expected);
  }
}

TEST(FrameColorRGBA, FormatsUpperCaseWithAlphaOnlyBelowOne) {
  EXPECT_EQ(FrameColorRGBA::white.hex(), "#FFFFFF");
  EXPECT_EQ((FrameColorRGBA{0, 0, 0, 0.5}).hex(), "#00000080");
  EXPECT_EQ((FrameColorRGBA{-1, 0.5, 0.999, 2}).hex(), "#0080FF");
  for (const char* hex : {"#12AB9F", "#00000000", "#FEDCBA98"}) {
    EXPECT_EQ(FrameColorRGBA::fromHex(hex)->hex(), hex);
  }
}

// ---- Stored format ----

TEST(AdjustmentDataCodec, CanHandleMajorVersionsUpToOne) {
  struct Case {
    const char* id;
    const char* version;
    bool expected;
  } cases[] = {
      {"com.velko.app.editstack", "1.1", true},  {"com.velko.app.editstack", "0.9", true},
      {"com.velko.app.editstack", "1", true},    {"com.velko.app.editstack", ".1.5", true},
      {"com.velko.app.editstack", "2.0", false}, {"com.velko.app.editstack", "10", false},
      {"com.velko.app.editstack", "", false},    {"com.velko.app.editstack", "1a", false},
      {"com.velko.app.EditStack", "1.1", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.id) + " " + c.version);
    EXPECT_EQ(AdjustmentDataCodec::canHandle(c.id, c.version), c.expected);
  }
}

TEST(AdjustmentDataCodec, BytesRoundTripAndGarbageGivesNone) {
  EXPECT_EQ(AdjustmentDataCodec::decode(AdjustmentDataCodec::encode(goldenStack())), goldenStack());
  EXPECT_EQ(AdjustmentDataCodec::encode(goldenStack()), compact(goldenStack()));
  EXPECT_FALSE(AdjustmentDataCodec::decode("not json").has_value());
  EXPECT_FALSE(AdjustmentDataCodec::decode(R"({"version":"x"})").has_value());
}

TEST(HistoryStep, GoldenLiteral) {
  const std::string literal = std::string(R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)") +
                              R"("label":"Auto tone","stack":{"values":{},"version":3},)" +
                              R"("date":"2024-05-01T10:00:00Z"})";
  HistoryStep step = json::decodeAs<HistoryStep>(json::parse(literal));
  EXPECT_EQ(step.id, kMaskId);
  EXPECT_EQ(step.label, "Auto tone");
  EXPECT_EQ(step.stack.version, 3);
  EXPECT_EQ(step.date, at(10));
  EXPECT_EQ(json::toCompact(json::encode(step)), literal);
  EXPECT_THROW(json::decodeAs<HistoryStep>(json::parse(R"({"id":"x","label":"","stack":{},)"
                                                       R"("date":"2024-05-01T10:00:00Z"})")),
               json::DecodeError);
}

} // namespace
} // namespace velko::core
