// The library folder and its scan: every supported still and video under the folder gets a
// catalogue row with a stable id. Rows are matched to files by path first, then by content
// fingerprint, so an id survives renames and moves; a file that vanishes keeps its row (and the
// user's ratings and edits) as missing, and gets it back when it reappears.
#pragma once

#include "app/Catalog.h"
#include "app/Options.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace velko::app {

struct ScanReport {
  std::int64_t added = 0;     ///< files catalogued for the first time
  std::int64_t changed = 0;   ///< files read again because their size or time changed
  std::int64_t moved = 0;     ///< rows matched to a new path by fingerprint
  std::int64_t missing = 0;   ///< rows whose file is gone
  std::int64_t unchanged = 0; ///< files skipped because nothing changed
  std::int64_t failed = 0;    ///< files that could not be read (logged, never fatal)
  double seconds = 0;
};

/// What a scan learns about one file.
struct MediaFacts {
  bool isVideo = false;
  std::string format; ///< "JPEG", "HEIC", "PNG", "TIFF", "WebP", "MP4", "MOV", "M4V"
  std::int64_t width = 0;  ///< after EXIF orientation
  std::int64_t height = 0;
  int orientation = 1;
  double durationSeconds = 0;
  std::optional<std::int64_t> captureTime; ///< Unix seconds, from EXIF (local time read as UTC)
  std::optional<double> latitude;
  std::optional<double> longitude;
  std::optional<std::string> cameraMake, cameraModel, lens;
  std::optional<std::int64_t> iso;
  std::optional<double> shutterSeconds, aperture, focalLengthMM;
};

/// The format label of a supported file name ("JPEG" for x.jpg), or nothing.
std::optional<std::string> formatOfName(const std::string& name);
/// Reads the header, EXIF and size of a still (libvips) or a video (ffprobe).
/// Throws std::runtime_error naming the file when it cannot be decoded.
MediaFacts readMedia(const std::string& path);

class Library {
public:
  Library(const Options& options, Catalog& catalog);
  ~Library();

  /// Starts the background work: the first scan, rescans every few seconds so new files
  /// appear without a restart, and feature prints for stills that have none.
  void start();
  /// Stops the background work and waits for it.
  void stop();

  /// One scan of the whole folder; safe to call while the background work runs.
  ScanReport scan();
  /// Whether the library folder can be read now.
  bool readable() const;
  /// Catalogues a file just moved into the library and returns its id.
  /// Throws std::runtime_error when the file cannot be decoded.
  std::string addFile(const std::string& absolutePath);
  /// Makes feature prints for up to `limit` stills that have none; returns how many were made.
  std::int64_t makePrints(std::int64_t limit);

  const std::string& root() const { return options_.library; }

private:
  void run();
  /// Tries prints for up to `limit` stills without one after row `cursor`, moving the cursor
  /// on; returns how many were tried and adds the ones made to `made`.
  std::int64_t printBatch(std::int64_t limit, std::int64_t& cursor, std::int64_t& made);

  const Options& options_;
  Catalog& catalog_;
  std::mutex scanMutex_; ///< one scan at a time
  std::mutex wakeMutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::atomic<bool> cancel_{false}; ///< makes a running scan return early on stop()
  std::thread thread_;
  std::mutex noteMutex_;            ///< guards what follows
  std::unordered_map<std::string, std::pair<std::int64_t, std::int64_t>> badFiles_; ///< size, mtime
  std::unordered_set<std::int64_t> printFailed_; ///< rows whose print failed this run
  std::unordered_set<std::string> unreadableFolders_; ///< logged once each
  bool printFailureLogged_ = false;
  bool unreadableLogged_ = false;
};

} // namespace velko::app
