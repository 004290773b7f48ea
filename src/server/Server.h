// The server's loop: reads MCP lines from `in`, writes protocol lines to `out` and diagnostics to
// `log`, and returns the process exit status when `in` ends.
#pragma once

#include <iosfwd>

namespace velko::server {

int runServer(std::istream& in, std::ostream& out, std::ostream& log);

} // namespace velko::server
