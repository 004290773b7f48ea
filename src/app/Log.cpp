#include "app/Log.h"

#include <string>
#include <unistd.h>

namespace velko::app {

void logLine(std::string_view line) {
  std::string out = "velko-headless: ";
  out.append(line);
  out.push_back('\n');
  // One write(2) per line: the kernel keeps it whole against other writers.
  std::size_t done = 0;
  while (done < out.size()) {
    const ssize_t n = ::write(STDERR_FILENO, out.data() + done, out.size() - done);
    if (n <= 0) {
      return;
    }
    done += static_cast<std::size_t>(n);
  }
}

} // namespace velko::app
