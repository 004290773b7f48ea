// The error a method handler throws: an IPC error code and a message a person can act on.
// The request loop turns it into the reply's error object; nothing else becomes -32602 or -32000.
#pragma once

#include "protocol/Rpc.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace velko::app {

class MethodError : public std::runtime_error {
public:
  MethodError(protocol::RPCErrorCode code, const std::string& message)
      : std::runtime_error(message), code_(code) {}
  protocol::RPCErrorCode code() const { return code_; }

  static MethodError invalidParams(const std::string& message) {
    return {protocol::RPCErrorCode::InvalidParams, message};
  }
  static MethodError noPhoto(std::string_view id) {
    return invalidParams("no photo with id " + std::string(id));
  }
  static MethodError internal(const std::string& message) {
    return {protocol::RPCErrorCode::InternalError, message};
  }

private:
  protocol::RPCErrorCode code_;
};

} // namespace velko::app
