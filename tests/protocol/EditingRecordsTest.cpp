#include "protocol/DeliveryRecords.h"
#include "protocol/EditingRecords.h"

#include "Golden.h"

#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

using testing::expectGolden;

// The stacks and patch operations inside these records have their own tests in tests/core.
TEST(EditingRecords, SetParamsAndResult) {
  EditSetParams p{"A", {}};
  p.maskOps = std::vector<core::MaskPatchOp>{};
  p.expectedVersion = 12;
  p.agent = "claude-mcp";
  p.sessionId = "s1";
  p.preview = true;
  p.previewLongEdge = 512;
  expectGolden("params",
               R"({"id":"A","ops":[],"maskOps":[],"expectedVersion":12,"agent":"claude-mcp",)"
               R"("sessionId":"s1","preview":true,"previewLongEdge":512})",
               p);
  core::EditStack stack;
  stack.version = 4;
  expectGolden("result",
               R"({"newVersion":4,"stack":{"values":{},"version":4},"preview":{"pngBase64":"iVBO",)"
               R"("width":2,"height":1,"appliedStackVersion":4,"basedOnOriginal":false}})",
               EditSetResult{4, stack, PreviewResult{"iVBO", 2, 1, 4, false}});
  EXPECT_EQ(json::decodeAs<EditSetResult>(
                json::parse(R"({"newVersion":4,"stack":{"values":{},"version":4},"preview":null})")),
            (EditSetResult{4, stack, std::nullopt}));
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
