// Decodes the input as {"stack": <edit stack>, "ops": [...], "maskOps": [...],
// "expectedVersion": n} and applies the patch atomically. A refused patch must leave the stack
// as it was; an applied one must still encode and decode to itself.
#include "core/EditPatch.h"
#include "core/EditStack.h"
#include "json/Codec.h"
#include "json/Errors.h"
#include "json/Value.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>
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
    input = json::decodeAs<PatchInput>(
        json::parse(std::string_view(reinterpret_cast<const char*>(data), size)));
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
    if (!(stack == before)) {
      std::abort(); // a refused patch changed the stack
    }
    return 0;
  }
  try {
    const std::optional<core::EditStack> again =
        core::AdjustmentDataCodec::decode(core::AdjustmentDataCodec::encode(stack));
    if (!again || !(*again == stack)) {
      std::abort();
    }
  } catch (const json::EncodeError&) {
    // Values are stored as given; one the writer cannot express is refused on the way out.
  }
  return 0;
}
