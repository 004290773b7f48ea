// The command line of velko-headless and the folders it derives from the user's home.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velko::app {

struct Options {
  std::string library;     ///< the photo folder, absolute
  std::string catalog;     ///< the SQLite file
  std::string luts;        ///< the folder of .cube looks
  bool allowSaving = false; ///< photo.geotag and video.commit
  bool allowDelete = false; ///< photo.delete
};

/// What the command line asks for: run with options, or print a text and exit with a status.
struct CommandLine {
  std::optional<Options> run;
  std::string text;
  int exitStatus = 0;
};

/// Parses the arguments after the program name. `home` is the real user's home; relative paths
/// are made absolute against the current directory.
CommandLine parseCommandLine(const std::vector<std::string>& args, const std::string& home);

/// Where velko-headless keeps its own files: ~/.velko/headless and the folders inside it.
struct Folders {
  std::string home;
  std::string support;    ///< ~/.velko (the socket, the endpoint file, the exchange folder)
  std::string headless;   ///< ~/.velko/headless
  std::string trash;      ///< deleted files
  std::string renditions; ///< committed edits and videos
  std::string exports;    ///< export.render output
  std::string exchange;   ///< files staged for import

  static Folders forHome(const std::string& home);
  /// Creates every folder (mode 0700) that is missing. Throws std::runtime_error.
  void create() const;
};

extern const char* const kUsage;
extern const char* const kVersion;

} // namespace velko::app
