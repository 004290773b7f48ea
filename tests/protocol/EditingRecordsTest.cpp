#include "protocol/DeliveryRecords.h"
#include "protocol/EditingRecords.h"

#include "Golden.h"

#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

using core::AdjustmentKind;
using testing::decodeError;
using testing::expectGolden;

const core::Uuid kMaskId = *core::Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");

core::EditStack sampleStack() {
  core::EditStack s;
  const json::Date at =
      json::Date(std::chrono::sys_days(std::chrono::year{2024} / 5 / 1)) + std::chrono::hours(10);
  s.setScalar(AdjustmentKind::Exposure, 0.5, core::AiOrigin{"claude-mcp", "s1"}, at);
  s.version = 3;
  return s;
}

constexpr const char* kSampleStack =
    R"({"values":{"exposure":{"kind":"exposure","payload":{"scalar":{"_0":0.5}},)"
    R"("lastModifiedBy":{"ai":{"agent":"claude-mcp","sessionId":"s1"}},)"
    R"("lastModifiedAt":"2024-05-01T10:00:00Z"}},"version":3})";

TEST(EditingRecords, GetResult) {
  expectGolden("get result", std::string(R"({"stack":)") + kSampleStack + R"(,"version":3})",
               EditGetResult{sampleStack(), 3});
}

TEST(EditingRecords, SetParams) {
  EditSetParams p{"A", {}};
  core::EditPatchOp exposure;
  exposure.kind = AdjustmentKind::Exposure;
  exposure.scalar = 0.7;
  core::EditPatchOp clarity;
  clarity.kind = AdjustmentKind::Clarity;
  clarity.remove = true;
  p.ops = {exposure, clarity};
  core::MaskPatchOp add;
  add.action = core::MaskPatchOp::Action::Add;
  add.id = kMaskId;
  add.shape = core::RadialShape{{0.5, 0.5}, {0.3, 0.3}, 0.4, false};
  core::MaskPatchOp tune;
  tune.action = core::MaskPatchOp::Action::SetAdjustment;
  tune.id = kMaskId;
  tune.adjustment = AdjustmentKind::Exposure;
  tune.value = 0.3;
  p.maskOps = {{add, tune}};
  p.expectedVersion = 12;
  p.agent = "claude-mcp";
  p.sessionId = "s1";
  p.preview = true;
  p.previewLongEdge = 512;
  expectGolden(
      "full",
      R"({"id":"A","ops":[{"kind":"exposure","scalar":0.7},{"kind":"clarity","remove":true}],)"
      R"("maskOps":[{"action":"add","id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)"
      R"("shape":{"radial":{"center":[0.5,0.5],"radius":[0.3,0.3],"feather":0.4,)"
      R"("inverted":false}}},{"action":"setAdjustment",)"
      R"("id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","adjustment":"exposure",)"
      R"("value":0.3}],"expectedVersion":12,"agent":"claude-mcp","sessionId":"s1",)"
      R"("preview":true,"previewLongEdge":512})",
      p);

  // An unknown kind inside an op names its path.
  EXPECT_EQ(decodeError<EditSetParams>(
                R"({"id":"A","ops":[{"kind":"exposure","scalar":1},{"kind":"glow"}]})", "params"),
            "params.ops[1].kind: unknown kind \"glow\"");
}

TEST(EditingRecords, SetResultWithAndWithoutPreview) {
  expectGolden("preview",
               std::string(R"({"newVersion":4,"stack":)") + kSampleStack +
                   R"(,"preview":{"pngBase64":"iVBO","width":2,"height":1,)"
                   R"("appliedStackVersion":4,"basedOnOriginal":false}})",
               EditSetResult{4, sampleStack(), PreviewResult{"iVBO", 2, 1, 4, false}});
  const auto withNull = json::decodeAs<EditSetResult>(json::parse(
      std::string(R"({"newVersion":4,"stack":)") + kSampleStack + R"(,"preview":null})"));
  EXPECT_FALSE(withNull.preview.has_value());
}

TEST(EditingRecords, StackInsideAResultDecodesLeniently) {
  // A value of a kind this build does not know is skipped, not fatal to the reply.
  const auto r = json::decodeAs<EditGetResult>(json::parse(
      R"({"stack":{"values":{"glow":{"kind":"glow","payload":{"scalar":{"_0":1}},)"
      R"("lastModifiedBy":{"user":{}},"lastModifiedAt":"2024-05-01T10:00:00Z"}},"version":2},)"
      R"("version":2})"));
  EXPECT_TRUE(r.stack.values.empty());
  EXPECT_EQ(r.stack.version, 2);
}

TEST(DeliveryRecords, OptionalMembersAcceptNullRequiredOnesDoNot) {
  expectGolden("video, both ends", R"({"id":"V","startSeconds":1.5,"endSeconds":12.25})",
               VideoCommitParams{"V", 1.5, 12.25});
  EXPECT_EQ(json::decodeAs<VideoCommitParams>(
                json::parse(R"({"id":"V","startSeconds":null,"endSeconds":3})")),
            (VideoCommitParams{"V", std::nullopt, 3.0}));
  EXPECT_THROW(json::decodeAs<ExportRenderResult>(json::parse(
                   R"({"path":"/p","format":"jpeg","suggestedFilename":null,"bytes":1})")),
               json::DecodeError);
}

} // namespace
} // namespace velko::protocol
