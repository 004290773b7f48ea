// Changing a stack: patches, merges and presets.
#include "core/EditPatch.h"

#include "core/EditStackMerge.h"
#include "json/Writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>

namespace velko::core {
namespace {

using K = AdjustmentKind;
using Action = MaskPatchOp::Action;

const json::Date kNoon =
    json::Date(std::chrono::sys_days(std::chrono::year{2024} / 5 / 1)) + std::chrono::hours(12);
const EditOrigin kAgent = AiOrigin{"claude-mcp", "session-1"};
const Uuid kId = *Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");

EditPatchOp scalarOp(K kind, double v) {
  return {.kind = kind, .scalar = v};
}

MaskPatchOp maskOp(Action action, std::optional<Uuid> id = std::nullopt) {
  return {.action = action, .id = id};
}

std::string bytes(const EditStack& s) {
  return AdjustmentDataCodec::encode(s);
}

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
       {{.action = Action::SetEnabled, .id = kId, .enabled = false}, maskOp(Action::Remove)}},
      {"add without shape", MalformedMaskOp, {}, {maskOp(Action::Add, kId)}},
      {"setAdjustment without kind", MalformedMaskOp, {}, {maskOp(Action::SetAdjustment, kId)}},
      {"setShape without id", MalformedMaskOp, {},
       {{.action = Action::SetShape, .shape = LinearShape{}}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EditStack s;
    s.addMask({.id = kId, .shape = AiSubjectShape{}});
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
                        .id = kId,
                        .shape = RadialShape{{0.5, 0.5}, {0.3, 0.3}, 0.4, false},
                        .name = "Face"};
  const MaskPatchOp anonymous{.action = Action::Add, .shape = AiSubjectShape{}};
  // Zero is stored, not removed.
  const MaskPatchOp zero{
      .action = Action::SetAdjustment, .id = kId, .adjustment = K::Exposure, .value = 0.0};
  EditStack s;
  const std::vector<Uuid> created = s.apply({}, {add, zero, anonymous}, kAgent, kNoon, 0);
  ASSERT_EQ(created.size(), 2u);
  EXPECT_EQ(created[0], kId);
  ASSERT_EQ(s.masks().size(), 2u);
  EXPECT_EQ(s.masks()[0].name, "Face");
  EXPECT_EQ(s.masks()[0].adjustments, (MaskAdjustments{{K::Exposure, 0.0}}));
  EXPECT_EQ(s.masks()[1].id, created[1]);

  const MaskPatchOp tint{
      .action = Action::SetAdjustment, .id = kId, .adjustment = K::Tint, .value = 0.4};
  const MaskPatchOp unset{.action = Action::SetAdjustment, .id = kId, .adjustment = K::Exposure};
  const MaskPatchOp reshape{
      .action = Action::SetShape, .id = kId, .shape = LinearShape{{0, 0}, {1, 1}}};
  const MaskPatchOp disable{.action = Action::SetEnabled, .id = kId, .enabled = false};
  s.apply({}, {tint, unset, reshape, disable}, kAgent, kNoon, 3);
  EXPECT_EQ(s.version, 7);
  const LocalMask& m = s.masks().at(0);
  EXPECT_EQ(m.shape, MaskShape(LinearShape{{0, 0}, {1, 1}}));
  EXPECT_EQ(m.adjustments, (MaskAdjustments{{K::Tint, 0.4}}));
  EXPECT_FALSE(m.isEnabled);

  s.apply({}, {maskOp(Action::Remove, kId), maskOp(Action::Remove, created[1])}, kAgent, kNoon, 7);
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
  a.addMask({.id = kId, .name = "a-shared", .shape = AiSubjectShape{}});
  b.addMask({.id = kId, .name = "b-shared", .shape = AiSubjectShape{}});
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
