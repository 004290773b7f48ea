#include "server/Base64.h"

#include <cstdint>

namespace velko::server {

std::string base64Encode(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  std::string out((n + 2) / 3 * 4, '=');
  char* o = out.data();
  std::size_t i = 0;
  for (; i + 3 <= n; i += 3) {
    const std::uint32_t v = (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8) | in[i + 2];
    *o++ = kAlphabet[v >> 18];
    *o++ = kAlphabet[(v >> 12) & 63];
    *o++ = kAlphabet[(v >> 6) & 63];
    *o++ = kAlphabet[v & 63];
  }
  if (i < n) {
    std::uint32_t v = std::uint32_t{in[i]} << 16;
    if (i + 1 < n) {
      v |= std::uint32_t{in[i + 1]} << 8;
    }
    o[0] = kAlphabet[v >> 18];
    o[1] = kAlphabet[(v >> 12) & 63];
    if (i + 1 < n) {
      o[2] = kAlphabet[(v >> 6) & 63];
    }
  }
  return out;
}

} // namespace velko::server
