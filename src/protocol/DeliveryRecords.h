// Parameter and result records of the IPC methods that render previews, commit edits back to the
// photo library, keep named snapshots, render files for export, list lookup tables and build
// movie projects. Plain aggregates with one `jsonFields()` list each; optional members start out
// absent and are left out of the JSON.
#pragma once

#include "json/Codec.h"
#include "json/Date.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velko::protocol {

// ---- Rendering ------------------------------------------------------------------------------

struct PreviewParams {
  std::string id;
  std::optional<std::int64_t> longEdge; ///< pixels on the long side; the application's default

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &PreviewParams::id),
                      json::field("longEdge", &PreviewParams::longEdge)};
  }
  friend bool operator==(const PreviewParams&, const PreviewParams&) = default;
};

struct PreviewResult {
  std::string pngBase64; ///< the rendered image, base64 PNG
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::int64_t appliedStackVersion = 0; ///< the stack version the image shows
  bool basedOnOriginal = false;         ///< true when the image shows the unedited original

  static constexpr auto jsonFields() {
    using P = PreviewResult;
    return std::tuple{json::field("pngBase64", &P::pngBase64), json::field("width", &P::width),
                      json::field("height", &P::height),
                      json::field("appliedStackVersion", &P::appliedStackVersion),
                      json::field("basedOnOriginal", &P::basedOnOriginal)};
  }
  friend bool operator==(const PreviewResult&, const PreviewResult&) = default;
};

// ---- Committing to the photo library --------------------------------------------------------

struct CommitParams {
  std::string id;

  static constexpr auto jsonFields() { return std::tuple{json::field("id", &CommitParams::id)}; }
  friend bool operator==(const CommitParams&, const CommitParams&) = default;
};

/// Trims the clip to [startSeconds, endSeconds] when given; each bound is optional on its own.
struct VideoCommitParams {
  std::string id;
  std::optional<double> startSeconds;
  std::optional<double> endSeconds;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &VideoCommitParams::id),
                      json::field("startSeconds", &VideoCommitParams::startSeconds),
                      json::field("endSeconds", &VideoCommitParams::endSeconds)};
  }
  friend bool operator==(const VideoCommitParams&, const VideoCommitParams&) = default;
};

/// The answer to both edit.commit and video.commit.
struct CommitResult {
  bool committed = false;
  std::int64_t version = 0;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("committed", &CommitResult::committed),
                      json::field("version", &CommitResult::version)};
  }
  friend bool operator==(const CommitResult&, const CommitResult&) = default;
};

// ---- Snapshots ------------------------------------------------------------------------------

struct SnapshotListParams {
  std::string id;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &SnapshotListParams::id)};
  }
  friend bool operator==(const SnapshotListParams&, const SnapshotListParams&) = default;
};

/// One named copy of an edit stack; also the answer to snapshot.save.
struct SnapshotInfo {
  std::string name;
  json::Date createdAt{};

  static constexpr auto jsonFields() {
    return std::tuple{json::field("name", &SnapshotInfo::name),
                      json::field("createdAt", &SnapshotInfo::createdAt)};
  }
  friend bool operator==(const SnapshotInfo&, const SnapshotInfo&) = default;
};

struct SnapshotListResult {
  std::vector<SnapshotInfo> snapshots;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("snapshots", &SnapshotListResult::snapshots)};
  }
  friend bool operator==(const SnapshotListResult&, const SnapshotListResult&) = default;
};

/// A photo and one of its snapshots by name: save under that name, or restore it.
struct SnapshotRefParams {
  std::string id;
  std::string name;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &SnapshotRefParams::id),
                      json::field("name", &SnapshotRefParams::name)};
  }
  friend bool operator==(const SnapshotRefParams&, const SnapshotRefParams&) = default;
};

// ---- Export ---------------------------------------------------------------------------------

/// Absent settings take the application's defaults (jpeg, full resolution, quality 0.9).
struct ExportRenderParams {
  std::string id;
  std::optional<std::string> format;    ///< "jpeg", "heic", "png", "tiff16"
  std::optional<std::int64_t> longEdge; ///< pixels on the long side
  std::optional<double> quality;        ///< 0 to 1, lossy formats only
  std::optional<std::string> colorSpace;

  static constexpr auto jsonFields() {
    using P = ExportRenderParams;
    return std::tuple{json::field("id", &P::id), json::field("format", &P::format),
                      json::field("longEdge", &P::longEdge), json::field("quality", &P::quality),
                      json::field("colorSpace", &P::colorSpace)};
  }
  friend bool operator==(const ExportRenderParams&, const ExportRenderParams&) = default;
};

/// The application renders into a folder it can write; the server moves the file to the user's.
struct ExportRenderResult {
  std::string path; ///< where the application wrote the rendered file
  std::string format;
  std::string suggestedFilename;
  std::int64_t bytes = 0; ///< file size

  static constexpr auto jsonFields() {
    using R = ExportRenderResult;
    return std::tuple{json::field("path", &R::path), json::field("format", &R::format),
                      json::field("suggestedFilename", &R::suggestedFilename),
                      json::field("bytes", &R::bytes)};
  }
  friend bool operator==(const ExportRenderResult&, const ExportRenderResult&) = default;
};

// ---- Looks ----------------------------------------------------------------------------------

struct LUTInfo {
  std::string id;
  std::string name;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &LUTInfo::id), json::field("name", &LUTInfo::name)};
  }
  friend bool operator==(const LUTInfo&, const LUTInfo&) = default;
};

struct LUTListResult {
  std::vector<LUTInfo> luts;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("luts", &LUTListResult::luts)};
  }
  friend bool operator==(const LUTListResult&, const LUTListResult&) = default;
};

// ---- Movies ---------------------------------------------------------------------------------

struct MovieMakeParams {
  std::vector<std::string> ids; ///< video clips in timeline order
  std::optional<std::string> name;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &MovieMakeParams::ids),
                      json::field("name", &MovieMakeParams::name)};
  }
  friend bool operator==(const MovieMakeParams&, const MovieMakeParams&) = default;
};

/// A movie project; also the answer to movie.make.
struct MovieInfo {
  std::string id;
  std::string name;
  std::int64_t clipCount = 0;
  double durationSeconds = 0;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &MovieInfo::id), json::field("name", &MovieInfo::name),
                      json::field("clipCount", &MovieInfo::clipCount),
                      json::field("durationSeconds", &MovieInfo::durationSeconds)};
  }
  friend bool operator==(const MovieInfo&, const MovieInfo&) = default;
};

struct MovieListResult {
  std::vector<MovieInfo> movies;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("movies", &MovieListResult::movies)};
  }
  friend bool operator==(const MovieListResult&, const MovieListResult&) = default;
};

} // namespace velko::protocol
