#include "server/Server.h"

#include <istream>
#include <ostream>
#include <string>

namespace velko::server {

// Replaced by the MCP dispatcher; until then the binary only announces itself and drains input.
int runServer(std::istream& in, std::ostream&, std::ostream& log) {
  log << "velko-mcp: the MCP dispatcher is not built yet\n" << std::flush;
  std::string line;
  while (std::getline(in, line)) {
  }
  return 0;
}

} // namespace velko::server
