// The one stand-in handler for tools whose behaviour is not built yet. Every such tool answers
// "<name> is not available yet" as an error result, so the assistant sees plainly that the tool
// exists but does nothing; nothing is sent to the application.
#pragma once

#include "server/Tool.h"

#include <string_view>

namespace velko::server {

/// FIXME: remove with its last caller once every tool has its real handler.
/// Returns {"content":[{"type":"text","text":"<name> is not available yet"}],"isError":true}.
ToolResult notAvailableYet(std::string_view name);

/// A table row whose handler is `notAvailableYet(name)`; `schema` is parsed here, once.
Tool notAvailableYetTool(std::string_view name, std::string_view description,
                         std::string_view schema);

} // namespace velko::server
