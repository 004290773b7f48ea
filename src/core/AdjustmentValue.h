// One stored field of an edit stack: a kind, its typed payload and its provenance (who changed
// it, and when). Payloads and provenances are tagged unions written as one-key objects; the
// payload's case value sits under "_0": {"scalar": {"_0": 0.7}}.
#pragma once

#include "core/AdjustmentKind.h"
#include "core/Geometry.h"
#include "json/Date.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace velko::core {

/// A targeted colour shift: the colour picked and how far to move colours near it.
struct PointColorTarget {
  double targetHue = 0; ///< picked colour, 0 to 1
  double targetSat = 0;
  double targetLum = 0;
  double hue = 0; ///< shift applied, -1 to 1
  double sat = 0;
  double lum = 0;
  double range = 0; ///< 0 to 1, how wide a band of similar colours is affected

  /// True when the shift is exactly zero, whatever the target and range.
  bool isIdentity() const { return hue == 0 && sat == 0 && lum == 0; }

  static constexpr auto jsonFields() {
    using P = PointColorTarget;
    return std::tuple{json::field("targetHue", &P::targetHue),
                      json::field("targetSat", &P::targetSat),
                      json::field("targetLum", &P::targetLum),
                      json::field("hue", &P::hue),
                      json::field("sat", &P::sat),
                      json::field("lum", &P::lum),
                      json::field("range", &P::range)};
  }
  friend bool operator==(const PointColorTarget&, const PointColorTarget&) = default;
};

using AdjustmentPayload =
    std::variant<double, bool, Curve, Rect, std::vector<PointColorTarget>, std::string>;
inline constexpr std::array<std::string_view, 6> kPayloadCases = {
    "scalar", "boolean", "curve", "rect", "pointColors", "string"};
static_assert(kPayloadCases.size() == std::variant_size_v<AdjustmentPayload>);

// Read accessors: the value when the payload is of that case, else absent.
std::optional<double> scalar(const AdjustmentPayload& p);
std::optional<bool> boolean(const AdjustmentPayload& p);
std::optional<Curve> curve(const AdjustmentPayload& p);
std::optional<Rect> rect(const AdjustmentPayload& p);
std::optional<std::vector<PointColorTarget>> pointColors(const AdjustmentPayload& p);
std::optional<std::string> string(const AdjustmentPayload& p);

/// Provenance: an AI agent in a session, a preset, the user, or not known.
struct AiOrigin {
  std::string agent;
  std::string sessionId;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("agent", &AiOrigin::agent),
                      json::field("sessionId", &AiOrigin::sessionId)};
  }
  friend bool operator==(const AiOrigin&, const AiOrigin&) = default;
};
struct PresetOrigin {
  std::string id;
  static constexpr auto jsonFields() { return std::tuple{json::field("id", &PresetOrigin::id)}; }
  friend bool operator==(const PresetOrigin&, const PresetOrigin&) = default;
};
struct UserOrigin {
  static constexpr auto jsonFields() { return std::tuple{}; }
  friend bool operator==(const UserOrigin&, const UserOrigin&) = default;
};
struct UnknownOrigin {
  static constexpr auto jsonFields() { return std::tuple{}; }
  friend bool operator==(const UnknownOrigin&, const UnknownOrigin&) = default;
};

using EditOrigin = std::variant<UserOrigin, AiOrigin, PresetOrigin, UnknownOrigin>;
inline constexpr std::array<std::string_view, 4> kEditOriginCases = {"user", "ai", "preset",
                                                                     "unknown"};
static_assert(kEditOriginCases.size() == std::variant_size_v<EditOrigin>);

struct AdjustmentValue {
  AdjustmentKind kind{};
  AdjustmentPayload payload;
  EditOrigin lastModifiedBy;
  json::Date lastModifiedAt{};

  static constexpr auto jsonFields() {
    using A = AdjustmentValue;
    return std::tuple{json::field("kind", &A::kind), json::field("payload", &A::payload),
                      json::field("lastModifiedBy", &A::lastModifiedBy),
                      json::field("lastModifiedAt", &A::lastModifiedAt)};
  }
  friend bool operator==(const AdjustmentValue&, const AdjustmentValue&) = default;
};

} // namespace velko::core

namespace velko::json {

template <> struct Codec<core::AdjustmentPayload> {
  static Value encode(const core::AdjustmentPayload& p);
  /// Strict: zero or several keys fail with kInvalidNumberOfKeys, an unknown case fails.
  static void decode(const Value& v, core::AdjustmentPayload& out, const Path& path);
};

template <> struct Codec<core::EditOrigin> {
  static Value encode(const core::EditOrigin& o);
  /// Never fails: whatever is not a readable user, ai or preset case is unknown.
  static void decode(const Value& v, core::EditOrigin& out, const Path& path);
};

} // namespace velko::json
