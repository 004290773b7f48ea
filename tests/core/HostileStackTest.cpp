// Edit stacks as a hostile or corrupted store could hand them over: inputs found by the edit-stack
// and patch fuzzers (fuzz/), kept here so they run in every build.
#include "core/EditPatch.h"
#include "core/EditStack.h"
#include "core/EditStackMerge.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <string>

namespace velko::core {
namespace {

constexpr std::int64_t kTop = std::numeric_limits<std::int64_t>::max();

// FIXME: every mutator advances `version` with ++version, which overflows (undefined behaviour;
// the sanitizer build aborts, a release build wraps to a negative version that no stale-edit check
// can order) when a stored stack already carries the largest version. Enable once the edit model
// decides what happens there (refuse the change, or keep the version at the top).
TEST(HostileStack, DISABLED_VersionAtTheTopOfItsRangeNeverGoesBackwards) {
  const std::optional<EditStack> stored = AdjustmentDataCodec::decode(
      R"({"values":{},"version":9223372036854775807,"masks":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)"
      R"("name":"Sky","shape":{"linear":{"start":[0.5,0.2],"end":[0.5,0.8]}},)"
      R"("adjustments":["exposure",-0.3],"isEnabled":true}]})");
  ASSERT_TRUE(stored);
  ASSERT_EQ(stored->version, kTop);
  const json::Date at{std::chrono::seconds(1'714'552'200)};
  const struct {
    const char* name;
    std::function<void(EditStack&)> change;
  } changes[] = {
      {"setScalar",
       [&](EditStack& s) {
         s.setScalar(AdjustmentKind::Exposure, 1, UserOrigin{}, at);
       }},
      {"applyPreset",
       [&](EditStack& s) {
         applyPreset(s, presetSubset(s));
       }},
      {"merged",
       [&](EditStack& s) {
         s = merged(s, s);
       }},
      {"patch",
       [&](EditStack& s) {
         applyAtomically(s, {EditPatchOp{.kind = AdjustmentKind::Tint, .scalar = 2.0}}, {},
                         UserOrigin{}, at, kTop);
       }},
  };
  for (const auto& c : changes) {
    SCOPED_TRACE(c.name);
    EditStack s = *stored;
    try {
      c.change(s);
    } catch (const std::exception&) {
      continue; // refusing the change is one acceptable answer
    }
    EXPECT_GE(s.version, kTop);
  }
}

} // namespace
} // namespace velko::core
