// Writes docs/tools.md to standard output:
//   cmake --build build --target velko_tool_reference
//   build/src/server/velko_tool_reference > docs/tools.md
#include "server/ToolReference.h"

#include <iostream>

int main() {
  std::cout << velko::server::renderToolReference();
  return std::cout.good() ? 0 : 1;
}
