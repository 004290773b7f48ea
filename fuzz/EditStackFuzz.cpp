// Decodes the input as a stored edit stack. Decoding is lenient and must never throw; a stack
// that decodes must encode, and its encoding must decode to the same stack. Every reader and the
// whole-stack operations then run on it, with the stack merged with itself.
#include "FuzzCheck.h"
#include "core/EditStack.h"
#include "core/EditStackMerge.h"

#include <cstddef>
#include <cstdint>
#include <optional>

using velko::core::EditStack;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::optional<EditStack> stack =
      velko::core::AdjustmentDataCodec::decode(velko::fuzz::asText(data, size));
  if (!stack) {
    return 0;
  }
  (void)stack->colorProfile();
  (void)stack->developSource();
  (void)stack->frameFit();
  (void)stack->frameColorValue().hex();
  (void)stack->hasFrame();
  (void)stack->frameInsets().maxSide();
  (void)stack->hasGeometry();
  (void)stack->pointColors();
  for (int g = 0; g <= static_cast<int>(velko::core::EditGroup::Masks); ++g) {
    (void)stack->hasValues(static_cast<velko::core::EditGroup>(g));
  }
  EditStack copy = *stack;
  velko::core::applyPreset(copy, velko::core::presetSubset(*stack));
  (void)velko::core::sameContent(velko::core::merged(*stack, copy), *stack);
  velko::fuzz::checkStoredRoundTrip(*stack);
  return 0;
}
