#include "server/Server.h"

#include <iostream>

int main() {
  // The streams need not stay in step with C stdio, and without that cin reads a multi-megabyte
  // line through its own buffer instead of one getc call per byte.
  std::ios::sync_with_stdio(false);
  return velko::server::runServer(std::cin, std::cout, std::cerr);
}
