#include "server/Server.h"

#include <exception>
#include <fcntl.h>
#include <iostream>
#include <malloc.h>

int main() {
  // The streams need not stay in step with C stdio, and without that cin reads a multi-megabyte
  // line through its own buffer instead of one getc call per byte.
  std::ios::sync_with_stdio(false);
  // A preview reply passes through a handful of buffers of several megabytes each. By default
  // glibc maps each of them afresh or trims the heap after it is freed, so every call faults in
  // and zeroes those pages again, which costs more than the copying itself. Keeping them in the
  // heap lets the next call reuse them; the process then holds its peak size until it exits.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  // When standard output is a pipe, a megabyte of room lets a preview reply leave in a few
  // writes instead of a hundred 64 KiB handovers to the host. Not a pipe, or not allowed: fine.
  fcntl(1, F_SETPIPE_SZ, 1 << 20);
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
