// The server's loop: reads MCP lines from `in`, writes protocol lines to `out` and diagnostics to
// `log`, and returns the process exit status when `in` ends.
#pragma once

#include <iosfwd>
#include <string_view>

namespace velko::ipc {
class Caller;
}

namespace velko::server {

/// Talks to the application through an IPC client on the user's ~/.velko/ipc.sock.
int runServer(std::istream& in, std::ostream& out, std::ostream& log);

/// The same loop with the application reached through `caller`; `socketPath` is only announced
/// in the start-up line "ready (socket: <socketPath>)".
int runServer(std::istream& in, std::ostream& out, std::ostream& log, ipc::Caller& caller,
              std::string_view socketPath);

} // namespace velko::server
