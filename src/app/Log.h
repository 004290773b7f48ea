// Diagnostics: one line at a time on standard error, prefixed "velko-headless: ".
#pragma once

#include <string_view>

namespace velko::app {

/// Writes the line whole, so lines from different threads never interleave.
void logLine(std::string_view line);

} // namespace velko::app
