#include "server/Server.h"

#include "ipc/IPCClient.h"
#include "protocol/IPCEndpoint.h"
#include "server/Dispatcher.h"
#include "server/Transport.h"

#include <istream>
#include <string>

namespace velko::server {

// Start-up announces the socket and nothing else: the tool table is built by the first
// "tools/list" or "tools/call" and the application is not contacted before the first tool call.
int runServer(std::istream& in, std::ostream& out, std::ostream& log, ipc::Caller& caller,
              std::string_view socketPath) {
  Transport transport(out, log);
  transport.logErr("ready (socket: " + std::string(socketPath) + ")");
  Dispatcher dispatcher(caller);
  std::string line;
  while (readLine(in, line)) {
    if (std::optional<json::Value> reply = dispatcher.handleLine(line)) {
      transport.sendMessage(*reply);
    }
  }
  return 0;
}

int runServer(std::istream& in, std::ostream& out, std::ostream& log) {
  ipc::IPCClient client(protocol::IPCEndpoint::serverSocketPath());
  return runServer(in, out, log, client, client.socketPath());
}

} // namespace velko::server
