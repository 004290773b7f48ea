// Decodes the input as {"stack": <edit stack>, "ops": [...], "maskOps": [...],
// "expectedVersion": n} and applies the patch atomically. A refused patch must leave the stack
// as it was; an applied one must still encode and decode to itself.
#include "FuzzCheck.h"
#include "core/EditPatch.h"
#include "core/EditStack.h"
#include "json/Codec.h"
#include "json/Errors.h"
#include "json/Value.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace core = velko::core;
namespace json = velko::json;

namespace {

struct PatchInput {
  std::optional<core::EditStack> stack;
  std::vector<core::EditPatchOp> ops;
  std::optional<std::vector<core::MaskPatchOp>> maskOps;
  std::optional<std::int64_t> expectedVersion;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("stack", &PatchInput::stack),
                      json::field("ops", &PatchInput::ops),
                      json::field("maskOps", &PatchInput::maskOps),
                      json::field("expectedVersion", &PatchInput::expectedVersion)};
  }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PatchInput input;
  try {
    input = json::decodeAs<PatchInput>(json::parse(velko::fuzz::asText(data, size)));
  } catch (const json::DecodeError&) {
    return 0;
  }
  core::EditStack stack = input.stack.value_or(core::EditStack{});
  const core::EditStack before = stack;
  const core::EditOrigin origin = core::AiOrigin{"claude-mcp", "fuzz"};
  const json::Date at{std::chrono::seconds(1'714'552'200)};
  try {
    core::applyAtomically(stack, input.ops,
                          input.maskOps.value_or(std::vector<core::MaskPatchOp>{}), origin, at,
                          input.expectedVersion);
  } catch (const core::EditPatchError&) {
    velko::fuzz::check(stack == before, "a refused patch changed the stack");
    return 0;
  }
  velko::fuzz::checkStoredRoundTrip(stack);
  return 0;
}
