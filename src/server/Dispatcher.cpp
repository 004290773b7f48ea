#include "server/Dispatcher.h"

#include "core/EditPatch.h"
#include "ipc/IPCClient.h"
#include "json/Errors.h"
#include "json/Writer.h"
#include "protocol/FrameCodec.h"
#include "server/ErrorText.h"
#include "server/Prompts.h"
#include "server/ToolSupport.h"
#include "server/ToolTable.h"
#include "server/Transport.h"

#include <string>

namespace velko::server {
namespace {

json::Object initializeResult() {
  json::Object capabilities;
  capabilities.emplace("tools", json::Object());
  capabilities.emplace("prompts", json::Object());
  json::Object serverInfo;
  serverInfo.emplace("name", "velko-mcp");
  serverInfo.emplace("version", "0.1.0");
  json::Object result;
  result.emplace("protocolVersion", "2024-11-05");
  result.emplace("capabilities", std::move(capabilities));
  result.emplace("serverInfo", std::move(serverInfo));
  return result;
}

/// The "tools/list" result, built from the table the first time it is asked for.
const json::Object& toolListResult() {
  static const json::Object kResult = [] {
    json::Array tools;
    tools.reserve(toolTable().size());
    for (const Tool& tool : toolTable()) {
      json::Object entry;
      entry.emplace("name", tool.name);
      entry.emplace("description", tool.description);
      entry.emplace("inputSchema", tool.inputSchema);
      tools.emplace_back(std::move(entry));
    }
    json::Object result;
    result.emplace("tools", std::move(tools));
    return result;
  }();
  return kResult;
}

json::Object promptListResult() {
  json::Object result;
  result.emplace("prompts",
                 json::Array{json::Value(promptListEntry()), json::Value(cullPromptListEntry()),
                             json::Value(describePromptListEntry())});
  return result;
}

/// The request's `params` when it is an object, otherwise an empty object.
const json::Object& paramsOf(const json::Object& message) {
  static const json::Object kEmpty;
  const json::Value* params = message.if_contains("params");
  return params != nullptr && params->is_object() ? params->get_object() : kEmpty;
}

/// A `name` value as it appears after "unknown tool ": a string as it is, "?" when absent and
/// anything else in its compact JSON form (numbers in their usual decimal form).
std::string shownName(const json::Value* name) {
  if (name == nullptr) {
    return "?";
  }
  if (const json::String* s = name->if_string()) {
    return std::string(s->data(), s->size());
  }
  try {
    return json::toCompact(*name);
  } catch (const json::EncodeError&) {
    // Only a string can fail to encode, and strings are shown as they are above.
    return "?";
  }
}

} // namespace

std::optional<json::Value> Dispatcher::handle(const json::Value& message) {
  const json::Object* obj = message.if_object();
  if (obj == nullptr) {
    return std::nullopt;
  }
  const json::Value* methodValue = obj->if_contains("method");
  if (methodValue == nullptr || !methodValue->is_string()) {
    return std::nullopt;
  }
  const std::string_view method = methodValue->get_string();
  // Absent and null ids are told apart only for unknown methods; every other reply carries
  // null for a request without an id.
  const json::Value* idValue = obj->if_contains("id");
  const json::Value id = idValue != nullptr ? *idValue : json::Value(nullptr);

  if (method == "initialize") {
    return resultMessage(id, initializeResult());
  }
  if (method == "notifications/initialized" || method == "notifications/cancelled") {
    return std::nullopt;
  }
  if (method == "ping") {
    return resultMessage(id, json::Object());
  }
  if (method == "tools/list") {
    return resultMessage(id, toolListResult());
  }
  if (method == "tools/call") {
    return handleToolCall(id, paramsOf(*obj));
  }
  if (method == "prompts/list") {
    return resultMessage(id, promptListResult());
  }
  if (method == "prompts/get") {
    return handlePromptGet(id, paramsOf(*obj));
  }
  if (idValue == nullptr) {
    return std::nullopt;
  }
  return errorMessage(id, kMethodNotFound, "method not supported: " + std::string(method));
}

std::optional<json::Value> Dispatcher::handleLine(std::string_view line) {
  if (line.empty()) {
    return std::nullopt;
  }
  std::optional<json::Object> message = parseMessage(line);
  if (!message) {
    return std::nullopt;
  }
  return handle(json::Value(std::move(*message)));
}

json::Value Dispatcher::handleToolCall(const json::Value& id, const json::Object& params) {
  const json::Value* name = params.if_contains("name");
  const Tool* tool = nullptr;
  if (name != nullptr && name->is_string()) {
    tool = findTool(name->get_string());
  }
  if (tool == nullptr) {
    return errorMessage(id, kInvalidParams, "unknown tool " + shownName(name));
  }

  ToolArgs args;
  if (const json::Value* arguments = params.if_contains("arguments")) {
    args = *arguments;
  }
  // The one place a tool's failure becomes what the assistant reads, most specific type first.
  std::string failure;
  try {
    return resultMessage(id, tool->invoke(args, caller_));
  } catch (const ipc::ClientError& e) {
    failure = e.what();
  } catch (const json::DecodeError& e) {
    failure = e.what();
  } catch (const json::EncodeError& e) {
    failure = e.what();
  } catch (const protocol::FrameError& e) {
    failure = errorText(e);
  } catch (const core::EditPatchError& e) {
    failure = errorText(e);
  } catch (const ToolError& e) {
    failure = errorText(e);
  } catch (const std::exception& e) {
    failure = errorText(e);
  } catch (...) {
    failure = unknownErrorText();
  }
  return resultMessage(id, textResult(failure, true));
}

json::Value Dispatcher::handlePromptGet(const json::Value& id, const json::Object& params) {
  const json::Value* name = params.if_contains("name");
  if (name != nullptr && name->is_string()) {
    const std::string_view promptName = name->get_string();
    if (std::optional<json::Object> prompt =
            renderPrompt(promptName, params.if_contains("arguments"))) {
      return resultMessage(id, std::move(*prompt));
    }
    return errorMessage(id, kInvalidParams, "unknown prompt " + std::string(promptName));
  }
  return errorMessage(id, kInvalidParams, "unknown prompt ?");
}

} // namespace velko::server
