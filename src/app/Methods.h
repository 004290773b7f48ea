// The application's half of the IPC protocol: one handler per method, and the function that
// answers one request frame with one reply frame.
#pragma once

#include "app/App.h"
#include "json/Codec.h"
#include "protocol/IPCMethod.h"
#include "protocol/Rpc.h"

#include <array>
#include <string>
#include <string_view>
#include <type_traits>

namespace velko::app {

/// A handler takes the request's `params` (null when absent) and returns the result value.
using Handler = json::Value (*)(App&, const json::Value& params);

template <class F> struct ParamsOf;
template <class R, class P> struct ParamsOf<R (*)(App&, const P&)> {
  using type = P;
};

class MethodTable {
public:
  /// Registers F, either `R f(App&, const P&)` (params decoded as P, key paths under "params")
  /// or `R f(App&)` for a method that takes no params (any sent are ignored).
  template <protocol::IPCMethod M, auto F> void add() {
    handlers_[index(M)] = [](App& app, const json::Value& params) -> json::Value {
      if constexpr (std::is_invocable_v<decltype(F), App&>) {
        return json::encode(F(app));
      } else {
        using P = typename ParamsOf<decltype(F)>::type;
        return json::encode(F(app, json::decodeAs<P>(params, json::Path("params"))));
      }
    };
  }

  Handler find(protocol::IPCMethod m) const { return handlers_[index(m)]; }

  /// Every method's handler, as registered by the families below.
  static const MethodTable& all();

private:
  static constexpr std::size_t index(protocol::IPCMethod m) { return static_cast<std::size_t>(m); }
  std::array<Handler, protocol::allIPCMethods().size()> handlers_{};
};

// Each family registers its own methods.
void addLibraryMethods(MethodTable& table);  // ping, list, selection, view state, get, query
void addOrganiseMethods(MethodTable& table); // ratings, flags, groups, annotations, geotag
void addEditingMethods(MethodTable& table);  // edit stack, snapshots, preview, commit, export
void addContentMethods(MethodTable& table);  // import, delete, similarity, looks, movies

/// Answers one request frame (without its newline) with one reply (without its newline).
/// Never throws.
std::string answer(App& app, std::string_view frame);

} // namespace velko::app
