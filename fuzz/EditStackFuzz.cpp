// Decodes the input as a stored edit stack. Decoding is lenient and must never throw; a stack
// that decodes must encode, and its encoding must decode to the same stack. Every reader and the
// whole-stack operations then run on it, with the stack merged with itself.
#include "core/EditStack.h"
#include "core/EditStackMerge.h"
#include "json/Errors.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

using velko::core::AdjustmentDataCodec;
using velko::core::EditStack;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::optional<EditStack> stack = AdjustmentDataCodec::decode(bytes);
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
  std::string encoded;
  try {
    encoded = AdjustmentDataCodec::encode(*stack);
  } catch (const velko::json::EncodeError&) {
    return 0; // a value the writer refuses (a string that is not UTF-8 cannot come from JSON)
  }
  const std::optional<EditStack> again = AdjustmentDataCodec::decode(encoded);
  if (!again || !(*again == *stack)) {
    std::abort();
  }
  return 0;
}
