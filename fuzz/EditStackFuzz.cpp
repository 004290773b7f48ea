// Decodes the input as a stored edit stack. Decoding is lenient and must never throw; a stack
// that decodes must encode, and its encoding must decode to the same stack.
#include "core/EditStack.h"
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
