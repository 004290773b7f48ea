// The three MCP workflow prompts: fixed user messages that start a guided edit, cull or
// describe session. Entries and texts are built afresh on every request; nothing is cached.
#pragma once

#include "json/Value.h"

#include <optional>
#include <string>
#include <string_view>

namespace velko::server {

/// The "prompts/list" entries of velko_edit, velko_cull and velko_describe.
json::Object promptListEntry();
json::Object cullPromptListEntry();
json::Object describePromptListEntry();

/// The user message of velko_cull; `scope` is empty when not given.
std::string cullWorkflowText(std::string_view scope);
/// The user message of velko_edit; `look` is empty when not given.
std::string editWorkflowText(std::string_view look);
/// The user message of velko_describe, which takes no argument.
std::string_view describeWorkflowText();

/// The "prompts/get" result {"description":…,"messages":[…]} for `name` with the request's
/// `arguments` (null when absent); absent for a name that is no prompt. A wrong type for the
/// arguments or their string values reads as empty.
std::optional<json::Object> renderPrompt(std::string_view name, const json::Value* arguments);

} // namespace velko::server
