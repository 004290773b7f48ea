// A 128-bit universally unique identifier, as masks and history steps carry them. The wire form
// is the 36-character hyphenated text in upper case; input is accepted in either case.
#pragma once

#include "json/Codec.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velko::core {

class Uuid {
public:
  /// The nil UUID (all zero).
  constexpr Uuid() = default;
  constexpr explicit Uuid(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

  /// A fresh random (version 4) UUID.
  static Uuid random();
  /// Absent unless `text` is 8-4-4-4-12 hexadecimal digits (either case).
  static std::optional<Uuid> parse(std::string_view text);

  /// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  std::string str() const;
  const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }

  friend bool operator==(const Uuid&, const Uuid&) = default;
  friend auto operator<=>(const Uuid&, const Uuid&) = default;

private:
  std::array<std::uint8_t, 16> bytes_{};
};

} // namespace velko::core

namespace velko::json {

template <> struct Codec<core::Uuid> {
  static Value encode(const core::Uuid& id);
  static void decode(const Value& v, core::Uuid& out, const Path& path);
};

} // namespace velko::json
