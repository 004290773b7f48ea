// Rows of the delivery tools: exporting rendered photos to files, committing video edits, and
// making and listing movie projects.
#include "protocol/DeliveryRecords.h"
#include "protocol/IPCEndpoint.h"
#include "server/ExportTool.h"
#include "server/Tool.h"
#include "server/ToolSupport.h"

#include <string_view>
#include <vector>

namespace velko::server {
namespace {

using protocol::IPCMethod;

// clang-format off
constexpr std::string_view kExportText =
    "Export photos (WITH their edits) to real files on disk — the endpoint for \"cull, edit, then hand off the keepers\". "
    "Give {ids, directory}; each photo is rendered and written to that folder. "
    "Optional: format (jpeg | heic | png | tiff16, default jpeg), longEdge (px on the long side; omit for full resolution), quality (0–1, lossy formats), colorSpace (sRGB | displayP3), filenamePrefix (files become prefix-1.jpg, prefix-2.jpg, …; otherwise a per-photo name is used). "
    "Returns the written file paths. "
    "The app renders; this server writes the files, so it works despite the app sandbox.";
constexpr std::string_view kExportSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "directory": {"type": "string", "description": "Destination folder (created if needed; ~ is expanded)."},
    "format": {"type": "string", "enum": ["jpeg", "heic", "png", "tiff16"]},
    "longEdge": {"type": "integer", "description": "Long-edge pixels; omit for full resolution."},
    "quality": {"type": "number", "description": "0–1 for JPEG/HEIC (default 0.9)."},
    "colorSpace": {"type": "string", "enum": ["sRGB", "displayP3"]},
    "filenamePrefix": {"type": "string"}
  },
  "required": ["ids", "directory"]
})json";

constexpr std::string_view kVideoCommitText =
    "Render a VIDEO with its edits and (optionally) trim it, then write it back to Apple Photos — the video equivalent of velko_edit_commit. "
    "Set the color grade first with velko_edit_set on the video's id (the same adjustments as stills apply per frame); this bakes and exports it. "
    "Optional startSeconds / endSeconds trim the clip. "
    "DESTRUCTIVE — only when the user explicitly asks; the write is non-destructive/revertible in Photos, but the tool is unavailable unless the user enabled saving (if it's not listed, don't try). "
    "Non-destructive edits stay live in velko until then.";
constexpr std::string_view kVideoCommitSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "startSeconds": {"type": "number", "description": "Trim start (omit to keep from the beginning)."},
    "endSeconds": {"type": "number", "description": "Trim end (omit to keep to the end)."}
  },
  "required": ["id"]
})json";

constexpr std::string_view kMakeMovieText =
    "Assemble video clips into a movie project and open the timeline editor. "
    "Give {ids} (video clip localIdentifiers, in the order you want them) and an optional name. "
    "Non-video ids are skipped. "
    "Great for \"make a highlight reel from these clips\" — pair with velko_query (videoOnly:true) to find them first. "
    "Returns the movie's id, clip count, and duration. "
    "Non-destructive: a movie references clips; it doesn't change Photos.";
constexpr std::string_view kMakeMovieSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "name": {"type": "string", "description": "Movie name, e.g. 'Summer Reel'."}
  },
  "required": ["ids"]
})json";

constexpr std::string_view kMovieListText =
    R"txt(List the user's movie projects (id, name, clip count, duration).)txt";
constexpr std::string_view kMovieListSchema = R"json({
  "type": "object",
  "properties": {}
})json";
// clang-format on

ToolResult runExportFromHome(const ToolArgs& args, ipc::Caller& caller) {
  return runExport(args, caller, protocol::IPCEndpoint::home());
}

} // namespace

void addDeliveryTools(std::vector<ToolRow>& table) {
  using protocol::CommitResult;
  using protocol::MovieInfo;
  using protocol::MovieListResult;
  using protocol::MovieMakeParams;
  using protocol::VideoCommitParams;
  // clang-format off
  table.push_back({40, "velko_export", kExportText, kExportSchema, runExportFromHome});
  table.push_back({44, "velko_video_commit", kVideoCommitText, kVideoCommitSchema, direct<VideoCommitParams, CommitResult, IPCMethod::VideoCommit>});
  table.push_back({49, "velko_make_movie", kMakeMovieText, kMakeMovieSchema, direct<MovieMakeParams, MovieInfo, IPCMethod::MovieMake>});
  table.push_back({50, "velko_movie_list", kMovieListText, kMovieListSchema, noParams<MovieListResult, IPCMethod::MovieList>});
  // clang-format on
}

} // namespace velko::server
