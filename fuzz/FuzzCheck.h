// What the fuzz targets share: the input as text, a check that reports what broke with the text
// it concerns and aborts (so libFuzzer keeps the input), and the stored edit stack's round trip.
#pragma once

#include "core/EditStack.h"
#include "json/Errors.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace velko::fuzz {

inline std::string_view asText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

[[noreturn]] inline void fail(std::string_view what, std::string_view text = {}) {
  std::fprintf(stderr, "fuzz: %.*s\n%.*s\n", static_cast<int>(what.size()), what.data(),
               static_cast<int>(std::min<std::size_t>(text.size(), 4000)), text.data());
  std::abort();
}

inline void check(bool holds, std::string_view what, std::string_view text = {}) {
  if (!holds) {
    fail(what, text);
  }
}

/// A stack's stored bytes must decode to the same stack. A value the writer refuses (a number it
/// cannot express) is refused on the way out, which is not a finding.
inline void checkStoredRoundTrip(const core::EditStack& stack) {
  std::string bytes;
  try {
    bytes = core::AdjustmentDataCodec::encode(stack);
  } catch (const json::EncodeError&) {
    return;
  }
  const std::optional<core::EditStack> again = core::AdjustmentDataCodec::decode(bytes);
  check(again && *again == stack, "the stored stack does not decode to itself", bytes);
}

} // namespace velko::fuzz
