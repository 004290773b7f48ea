// The seam between tool handlers and the application: one request out, one result back.
// Handlers depend on Caller, not on the socket client, so tests can record calls with a fake.
#pragma once

#include "json/Codec.h"
#include "json/Value.h"
#include "protocol/IPCMethod.h"

#include <optional>

namespace velko::ipc {

class Caller {
public:
  virtual ~Caller();

  /// Sends `method` (without a `params` member when `params` is absent) and returns the reply's
  /// `result` value. Throws ClientError for connection failures and error replies; frame and
  /// decode errors pass up unchanged.
  virtual json::Value call(protocol::IPCMethod method, const std::optional<json::Value>& params) = 0;
};

/// A typed call: encodes `params`, decodes the result as R (decode errors name "result.…").
template <class R, class P> R call(Caller& caller, protocol::IPCMethod method, const P& params) {
  json::Value result = caller.call(method, json::encode(params));
  return json::decodeAs<R>(result, json::Path("result"));
}

/// A typed call of a method that takes no parameters.
template <class R> R call(Caller& caller, protocol::IPCMethod method) {
  json::Value result = caller.call(method, std::nullopt);
  return json::decodeAs<R>(result, json::Path("result"));
}

} // namespace velko::ipc
