// The lifecycle of velko-headless: parse the command line, open the catalogue, listen on the
// socket, write the endpoint file, serve until SIGINT or SIGTERM, then clean up and exit 0.
#pragma once

#include <string>
#include <vector>

namespace velko::app {

/// Runs the program with the arguments after its name; returns the exit status.
int runApplication(const std::vector<std::string>& args);

} // namespace velko::app
