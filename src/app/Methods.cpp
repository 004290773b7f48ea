#include "app/Methods.h"

#include "app/Log.h"
#include "app/MethodError.h"
#include "app/Sqlite.h"
#include "core/EditPatch.h"
#include "json/Errors.h"
#include "json/Value.h"

namespace velko::app {

using protocol::RPCErrorCode;
namespace rpc = protocol::rpc;

const MethodTable& MethodTable::all() {
  static const MethodTable table = [] {
    MethodTable t;
    addLibraryMethods(t);
    addOrganiseMethods(t);
    addEditingMethods(t);
    addContentMethods(t);
    return t;
  }();
  return table;
}

std::string answer(App& app, std::string_view frame) {
  json::Value message;
  try {
    message = json::parse(frame);
  } catch (const json::DecodeError& e) {
    return rpc::encodeError(std::nullopt, RPCErrorCode::ParseError,
                            std::string("the request is not JSON: ") + e.what());
  }
  protocol::RPCEnvelope envelope;
  try {
    if (!message.is_object()) {
      throw json::DecodeError("expected a JSON object");
    }
    envelope = json::decodeAs<protocol::RPCEnvelope>(message);
  } catch (const json::DecodeError& e) {
    return rpc::encodeError(std::nullopt, RPCErrorCode::InvalidRequest,
                            std::string("not a JSON-RPC request: ") + e.what());
  }
  const auto& id = envelope.id;
  const auto method = protocol::ipcMethodFromRaw(envelope.method);
  const Handler handler = method ? MethodTable::all().find(*method) : nullptr;
  if (!handler) {
    return rpc::encodeError(id, RPCErrorCode::MethodNotFound,
                            "unknown method \"" + envelope.method + "\"");
  }
  static const json::Value kNull;
  const json::Value* params = message.as_object().if_contains("params");
  try {
    return rpc::encodeResult(id, handler(app, params ? *params : kNull));
  } catch (const json::DecodeError& e) {
    return rpc::encodeError(id, RPCErrorCode::InvalidParams, e.what());
  } catch (const MethodError& e) {
    return rpc::encodeError(id, e.code(), e.what());
  } catch (const core::EditPatchError& e) {
    const bool conflict = e.kind() == core::EditPatchError::Kind::VersionMismatch;
    return rpc::encodeError(id, conflict ? RPCErrorCode::VersionConflict : RPCErrorCode::InvalidParams,
                            e.what());
  } catch (const StoreError& e) {
    logLine(std::string("catalogue error in ") + envelope.method + ": " + e.what());
    return rpc::encodeError(id, RPCErrorCode::StoreUnavailable,
                            std::string("the catalogue cannot be used: ") + e.what());
  } catch (const std::exception& e) {
    logLine(std::string(envelope.method) + " failed: " + e.what());
    return rpc::encodeError(id, RPCErrorCode::InternalError, e.what());
  }
}

} // namespace velko::app
