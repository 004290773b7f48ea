// docs/tools.md, rendered from the tool table and the prompt entries: every tool and prompt with
// its description and its arguments (type, whether required, description).
#pragma once

#include <string>

namespace velko::server {

/// The whole Markdown text of docs/tools.md.
std::string renderToolReference();

} // namespace velko::server
