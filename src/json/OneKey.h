// Tagged unions on the wire: an object with exactly one key naming the case, whose value holds
// the case's data. A union is a std::variant plus an array of case names aligned with its
// alternatives; encodeOneKey and decodeOneKey map between the two through Codec<Alternative>.
// In the labelled style the case value sits one level deeper, under the key "_0", as the peer
// writes unlabelled associated values: {"scalar": {"_0": 0.7}}.
#pragma once

#include "json/Codec.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace velko::json {

/// The fixed text for an object that does not have exactly one key.
inline constexpr std::string_view kInvalidNumberOfKeys =
    "Invalid number of keys found, expected one.";

/// The key under which a labelled case keeps its value.
inline constexpr std::string_view kUnlabelledKey = "_0";

enum class CaseStyle {
  Plain,    ///< {"case": <value>}
  Labelled, ///< {"case": {"_0": <value>}}
};

/// The only member of `v`. Throws DecodeError for a non-object, and kInvalidNumberOfKeys for an
/// object with zero or several members.
const boost::json::key_value_pair& onlyMember(const Value& v, const Path& path);

template <class Variant, std::size_t N>
Value encodeOneKey(const Variant& v, const std::array<std::string_view, N>& names,
                   CaseStyle style = CaseStyle::Plain) {
  static_assert(N == std::variant_size_v<Variant>);
  Value inner = std::visit([](const auto& alt) { return json::encode(alt); }, v);
  Object obj;
  if (style == CaseStyle::Labelled) {
    Object wrapper;
    wrapper.emplace(kUnlabelledKey, std::move(inner));
    obj.emplace(names[v.index()], std::move(wrapper));
  } else {
    obj.emplace(names[v.index()], std::move(inner));
  }
  return obj;
}

namespace detail {

template <class Variant, std::size_t... I>
void decodeAlternative(std::size_t index, const Value& v, Variant& out, const Path& path,
                       std::index_sequence<I...>) {
  // Exactly one of the folded branches matches `index`.
  (void)((index == I
              ? (out.template emplace<I>(),
                 Codec<std::variant_alternative_t<I, Variant>>::decode(v, std::get<I>(out), path),
                 true)
              : false) ||
         ...);
}

} // namespace detail

/// Decodes the case named by the object's only key; an unknown case name fails.
template <class Variant, std::size_t N>
void decodeOneKey(const Value& v, Variant& out, const std::array<std::string_view, N>& names,
                  const Path& path, CaseStyle style = CaseStyle::Plain) {
  static_assert(N == std::variant_size_v<Variant>);
  const auto& member = onlyMember(v, path);
  const std::string_view key(member.key());
  std::size_t index = N;
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i] == key) {
      index = i;
      break;
    }
  }
  if (index == N) {
    path.fail("unknown case \"" + std::string(key) + "\"");
  }
  const Path casePath = path.key(names[index]);
  const Value* inner = &member.value();
  if (style == CaseStyle::Labelled) {
    const Object* wrapper = inner->if_object();
    if (wrapper == nullptr) {
      failExpected(*inner, "an object", casePath);
    }
    inner = wrapper->if_contains(kUnlabelledKey);
    if (inner == nullptr) {
      casePath.key(kUnlabelledKey).fail("missing required key");
    }
    detail::decodeAlternative(index, *inner, out, casePath.key(kUnlabelledKey),
                              std::make_index_sequence<N>{});
    return;
  }
  detail::decodeAlternative(index, *inner, out, casePath, std::make_index_sequence<N>{});
}

} // namespace velko::json
