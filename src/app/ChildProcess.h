// Running a helper program (ffmpeg, ffprobe) as a child process: an argument vector through
// posix_spawnp, never a shell, with its output and error text captured for the caller.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace velko::app {

struct ProcessResult {
  int exitStatus = 0; ///< the exit status, or 128 + the signal that ended the child
  std::string output; ///< standard output
  std::string errors; ///< standard error, its last 64 KiB at most
};

/// The program could not be started because it is not installed (not found on PATH).
class ProgramNotFound : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// Runs argv[0] (looked up on PATH) with these arguments, standard input from /dev/null, and
/// waits for it. Throws ProgramNotFound when it is not on PATH, std::runtime_error when it
/// cannot be started; a failing exit status is returned, not thrown.
ProcessResult runProcess(const std::vector<std::string>& argv);

} // namespace velko::app
