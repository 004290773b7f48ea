// The exception a call throws, for tests that check more of it than its type.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <type_traits>

namespace velko::testing {

/// The E that `f` throws, seen through `view` (a member such as &E::kind; by default the
/// exception itself); nothing when `f` returns. Anything else it throws propagates.
template <class E, class F, class View = std::identity> auto thrown(F&& f, View view = {}) {
  using Seen = std::optional<std::decay_t<std::invoke_result_t<View, const E&>>>;
  try {
    std::forward<F>(f)();
  } catch (const E& e) {
    return Seen(std::invoke(view, e));
  }
  return Seen();
}

/// The message of the E that `f` throws; "(nothing thrown)" when `f` returns.
template <class E, class F> std::string thrownMessage(F&& f) {
  return thrown<E>(std::forward<F>(f), [](const E& e) { return std::string(e.what()); })
      .value_or("(nothing thrown)");
}

} // namespace velko::testing
