#include "server/Server.h"

#include <exception>
#include <iostream>

int main() {
  // The streams need not stay in step with C stdio, and without that cin reads a multi-megabyte
  // line through its own buffer instead of one getc call per byte.
  std::ios::sync_with_stdio(false);
  try {
    return velko::server::runServer(std::cin, std::cout, std::cerr);
  } catch (const std::exception& e) {
    // Tool failures never get here; only a broken start-up or an exhausted machine does.
    std::cerr << "velko-mcp: " << e.what() << std::endl;
  } catch (...) {
    std::cerr << "velko-mcp: stopped by an unknown error" << std::endl;
  }
  return 1;
}
