// Reading UTF-8 one code point at a time, strictly: the one decoder for every text that needs
// code points or validity (the JSON writer, the repair of MCP lines, case-insensitive names).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace velko::json {

/// A code point and the bytes it took.
struct CodePoint {
  char32_t value = 0;
  std::size_t length = 0; ///< 0 when the text does not start with a valid sequence
};

/// The code point at the start of `s`. Length 0 for an empty text, a stray continuation byte,
/// an overlong form, a surrogate, a value past U+10FFFF or a sequence cut short.
inline CodePoint decodeUtf8(std::string_view s) {
  if (s.empty()) {
    return {};
  }
  const auto c = static_cast<unsigned char>(s[0]);
  if (c < 0x80) {
    return {c, 1};
  }
  std::size_t len = 0;
  std::uint32_t cp = 0;
  std::uint32_t min = 0;
  if (c >= 0xC2 && c <= 0xDF) {
    len = 2, cp = c & 0x1F, min = 0x80;
  } else if (c >= 0xE0 && c <= 0xEF) {
    len = 3, cp = c & 0x0F, min = 0x800;
  } else if (c >= 0xF0 && c <= 0xF4) {
    len = 4, cp = c & 0x07, min = 0x10000;
  } else {
    return {};
  }
  if (len > s.size()) {
    return {};
  }
  for (std::size_t i = 1; i < len; ++i) {
    const auto b = static_cast<unsigned char>(s[i]);
    if ((b & 0xC0) != 0x80) {
      return {};
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    return {};
  }
  return {static_cast<char32_t>(cp), len};
}

} // namespace velko::json
