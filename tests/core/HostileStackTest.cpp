// Edit stacks as a hostile or corrupted store could hand them over: inputs found by the edit-stack
// and patch fuzzers (fuzz/), kept here so they run in every build.
#include "core/EditPatch.h"
#include "core/EditStack.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <stdexcept>

namespace velko::core {
namespace {

constexpr std::int64_t kTop = std::numeric_limits<std::int64_t>::max();

// A stored stack may already carry the largest version: every change is refused, and the stack is
// left exactly as it was, rather than wrapping to a negative version no stale-edit check orders.
TEST(HostileStack, ChangesAtTheLargestVersionAreRefusedUntouched) {
  const std::optional<EditStack> stored = AdjustmentDataCodec::decode(
      R"({"values":{},"version":9223372036854775807,"masks":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)"
      R"("name":"Sky","shape":{"linear":{"start":[0.5,0.2],"end":[0.5,0.8]}},)"
      R"("adjustments":["exposure",-0.3],"isEnabled":true}]})");
  ASSERT_TRUE(stored);
  ASSERT_EQ(stored->version, kTop);
  // The application changes stacks through patches only.
  EditStack s = *stored;
  EXPECT_THROW(applyAtomically(s, {EditPatchOp{.kind = AdjustmentKind::Tint, .scalar = 2.0}}, {},
                               UserOrigin{}, json::Date{}, kTop),
               std::overflow_error);
  EXPECT_EQ(s, *stored);
}

} // namespace
} // namespace velko::core
