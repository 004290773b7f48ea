#include "core/EditPatch.h"

#include "json/Writer.h"

#include <gtest/gtest.h>

namespace velko::core {
namespace {

using K = AdjustmentKind;
using Action = MaskPatchOp::Action;

const json::Date kNoon =
    json::Date(std::chrono::sys_days(std::chrono::year{2024} / 5 / 1)) + std::chrono::hours(12);
const EditOrigin kAgent = AiOrigin{"claude-mcp", "session-1"};
const Uuid kId = *Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const Uuid kOther = *Uuid::parse("0F0F0F0F-0000-4000-8000-000000000001");

EditPatchOp scalarOp(K kind, double v) {
  EditPatchOp op;
  op.kind = kind;
  op.scalar = v;
  return op;
}

EditPatchOp removeOp(K kind) {
  EditPatchOp op;
  op.kind = kind;
  op.remove = true;
  return op;
}

MaskPatchOp maskOp(Action action, std::optional<Uuid> id = std::nullopt) {
  MaskPatchOp op;
  op.action = action;
  op.id = id;
  return op;
}

std::string bytes(const EditStack& s) {
  return AdjustmentDataCodec::encode(s);
}

/// A stack at version 8 with one value and one mask.
EditStack startingStack() {
  EditStack s;
  s.setScalar(K::Exposure, 0.1, UserOrigin{}, kNoon);
  LocalMask m;
  m.id = kId;
  m.shape = RadialShape{{0.5, 0.5}, {0.3, 0.3}, 0.4, false};
  s.addMask(m);
  s.version = 8;
  return s;
}

EditPatchError::Kind errorKind(EditStack& s, const std::vector<EditPatchOp>& ops,
                               const std::vector<MaskPatchOp>& maskOps,
                               std::optional<std::int64_t> expected) {
  try {
    s.apply(ops, maskOps, kAgent, kNoon, expected);
  } catch (const EditPatchError& e) {
    return e.kind();
  }
  ADD_FAILURE() << "apply succeeded";
  return EditPatchError::Kind::MalformedOp;
}

// ---- JSON forms ----

// The tools' tests pin the plain forms; these are the ones with a shape of their own.
TEST(EditPatchOpJson, LiteralsDecodeAndEncodeExactly) {
  struct Case {
    const char* json;
    EditPatchOp op;
  } cases[] = {
      {R"({"kind":"toneCurve","curve":[[0,0],[0.5,0.6],[1,1]]})",
       {.kind = K::ToneCurve, .curve = Curve{{0, 0}, {0.5, 0.6}, {1, 1}}}},
      {R"({"kind":"crop","rect":[[0.1,0.2],[0.5,0.6]]})",
       {.kind = K::Crop, .rect = Rect{0.1, 0.2, 0.5, 0.6}}},
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
  EXPECT_THROW(json::decodeAs<EditPatchOp>(json::parse(R"({"scalar":1})")), json::DecodeError);
  // null counts as absent
  EXPECT_EQ(json::decodeAs<EditPatchOp>(json::parse(R"({"kind":"tint","scalar":1,"remove":null})")),
            scalarOp(K::Tint, 1));
  for (const char* bad :
       {R"({"action":"delete"})", R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"})"}) {
    EXPECT_THROW(json::decodeAs<MaskPatchOp>(json::parse(bad)), json::DecodeError) << bad;
  }
}

// ---- Phases and atomicity ----

TEST(EditPatch, StaleVersionsAndMalformedOperationsChangeNothing) {
  const EditPatchOp noValue{.kind = K::Contrast};
  const EditPatchOp removeFalse{.kind = K::Contrast, .remove = false};
  const EditPatchOp twoValues{.kind = K::Contrast, .scalar = 1, .string = "x"};
  EXPECT_EQ(valueCount({.kind = K::Contrast, .scalar = 1, .remove = false}), 1);

  struct Case {
    const char* name;
    std::vector<EditPatchOp> ops;
    std::vector<MaskPatchOp> maskOps;
    EditPatchError::Kind kind;
    std::optional<std::int64_t> expected = std::nullopt;
  } cases[] = {
      {"stale version",
       {scalarOp(K::Contrast, 0.3)},
       {maskOp(Action::Remove, kId)},
       EditPatchError::Kind::VersionMismatch,
       7},
      {"no value", {scalarOp(K::Exposure, 0.5), noValue}, {}, EditPatchError::Kind::MalformedOp},
      {"remove false alone",
       {scalarOp(K::Exposure, 0.5), removeFalse},
       {},
       EditPatchError::Kind::MalformedOp},
      {"value and remove",
       {{.kind = K::Contrast, .scalar = 1, .remove = true}},
       {},
       EditPatchError::Kind::MalformedOp},
      {"two values", {twoValues}, {}, EditPatchError::Kind::MalformedOp},
      {"remove without id after valid ops",
       {scalarOp(K::Exposure, 0.5)},
       {maskOp(Action::SetEnabled, kId), maskOp(Action::Remove)},
       EditPatchError::Kind::MalformedMaskOp},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EditStack s = startingStack();
    const std::string before = bytes(s);
    EXPECT_EQ(errorKind(s, c.ops, c.maskOps, c.expected), c.kind);
    EXPECT_EQ(bytes(s), before);
  }

  EditStack s = startingStack();
  try {
    s.apply({}, {}, kAgent, kNoon, 7);
    ADD_FAILURE() << "applied at a stale version";
  } catch (const EditPatchError& e) {
    EXPECT_EQ(e.expected(), 7);
    EXPECT_EQ(e.actual(), 8);
  }
}

TEST(EditPatch, VersionArithmetic) {
  EditStack s = startingStack();
  EXPECT_TRUE(s.apply({}, {}, kAgent, kNoon, 8).empty());
  EXPECT_EQ(s.version, 8);

  // Two ops on one kind: the later wins and each counts.
  s.apply({scalarOp(K::Exposure, 1), scalarOp(K::Exposure, 2)}, {}, kAgent, kNoon, 8);
  EXPECT_EQ(s.version, 10);
  EXPECT_EQ(s.scalar(K::Exposure), 2);

  // Removing something absent is fine and free; removing something present counts.
  s.apply({removeOp(K::Clarity)}, {}, kAgent, kNoon, 10);
  EXPECT_EQ(s.version, 10);
  s.apply({removeOp(K::Exposure)}, {}, kAgent, kNoon, std::nullopt);
  EXPECT_EQ(s.version, 11);
  EXPECT_FALSE(s.values.contains(K::Exposure));

  // Each mask operation counts once.
  MaskPatchOp add = maskOp(Action::Add);
  add.shape = AiSubjectShape{};
  s.apply({}, {add, maskOp(Action::Remove, kId)}, kAgent, kNoon, 11);
  EXPECT_EQ(s.version, 13);
}

TEST(EditPatch, StoresValuesUnchangedWithOneProvenance) {
  EditStack s;
  EditPatchOp wrongCase;
  wrongCase.kind = K::Exposure;
  wrongCase.string = "bright";
  const json::Date later = kNoon + std::chrono::hours(1);
  s.apply({scalarOp(K::Exposure, 12), scalarOp(K::WbRedGain, -40), wrongCase,
           scalarOp(K::Straighten, 90)},
          {}, kAgent, later, std::nullopt);
  EXPECT_EQ(s.scalar(K::WbRedGain), -40);
  EXPECT_EQ(s.string(K::Exposure), "bright"); // the later op, in a case the kind rarely has
  EXPECT_EQ(s.scalar(K::Straighten), 90);
  for (const auto& [kind, value] : s.values) {
    EXPECT_EQ(value.lastModifiedBy, kAgent);
    EXPECT_EQ(value.lastModifiedAt, later);
    EXPECT_EQ(value.kind, kind);
  }
}

// ---- Mask operations ----

TEST(MaskPatch, ValidateNamesTheActionAndIgnoresUnusedFields) {
  struct Case {
    const char* name;
    MaskPatchOp op;
    bool valid;
  } cases[] = {
      {"add without shape", maskOp(Action::Add, kId), false},
      {"setShape without shape", maskOp(Action::SetShape, kId), false},
      {"setAdjustment without kind", maskOp(Action::SetAdjustment, kId), false},
      {"setEnabled without flag", maskOp(Action::SetEnabled, kId), false},
      {"remove without id", maskOp(Action::Remove), false},
      {"remove with a shape", {.action = Action::Remove, .id = kId, .shape = LinearShape{}}, true},
      {"setAdjustment without value",
       {.action = Action::SetAdjustment, .id = kId, .adjustment = K::Exposure},
       true},
      {"setShape without id", {.action = Action::SetShape, .shape = LinearShape{}}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.valid) {
      EXPECT_NO_THROW(c.op.validate());
      continue;
    }
    try {
      c.op.validate();
      ADD_FAILURE() << "validated";
    } catch (const EditPatchError& e) {
      EXPECT_EQ(e.kind(), EditPatchError::Kind::MalformedMaskOp);
      EXPECT_EQ(e.action(), c.op.action);
    }
  }
}

// Adds with and without an id, tunes, reshapes, disables and removes, in the order given.
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
  const std::vector<Uuid> created =
      s.apply({}, {add, zero, anonymous, anonymous}, kAgent, kNoon, 0);
  ASSERT_EQ(created.size(), 3u);
  EXPECT_EQ(created[0], kId);
  EXPECT_NE(created[1], created[2]);
  ASSERT_EQ(s.masks().size(), 3u);
  EXPECT_EQ(s.masks()[0].name, "Face");
  EXPECT_EQ(s.masks()[0].adjustments, (MaskAdjustments{{K::Exposure, 0.0}}));
  EXPECT_EQ(s.masks()[1].name, "Mask");
  EXPECT_EQ(s.masks()[2].id, created[2]);
  EXPECT_EQ(s.version, 4);

  const MaskPatchOp tint{
      .action = Action::SetAdjustment, .id = kId, .adjustment = K::Tint, .value = 0.4};
  const MaskPatchOp unset{.action = Action::SetAdjustment, .id = kId, .adjustment = K::Exposure};
  const MaskPatchOp reshape{
      .action = Action::SetShape, .id = kId, .shape = LinearShape{{0, 0}, {1, 1}}};
  const MaskPatchOp disable{.action = Action::SetEnabled, .id = kId, .enabled = false};
  s.apply({}, {tint, unset, reshape, disable}, kAgent, kNoon, 4);
  EXPECT_EQ(s.version, 8);
  const LocalMask& m = s.masks().at(0);
  EXPECT_EQ(m.shape, MaskShape(LinearShape{{0, 0}, {1, 1}}));
  EXPECT_EQ(m.adjustments, (MaskAdjustments{{K::Tint, 0.4}}));
  EXPECT_FALSE(m.isEnabled);

  s.apply({},
          {maskOp(Action::Remove, kId), maskOp(Action::Remove, created[1]),
           maskOp(Action::Remove, created[2])},
          kAgent, kNoon, 8);
  EXPECT_FALSE(s.maskList.has_value());
  EXPECT_EQ(bytes(s).find("masks"), std::string::npos);
  EXPECT_THROW(s.apply({}, {maskOp(Action::Remove, kOther)}, kAgent, kNoon, std::nullopt),
               EditPatchError);
}

} // namespace
} // namespace velko::core
