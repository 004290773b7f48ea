// Rows of the content tools that handle the user's own files: visual similarity search and
// importing files into the photo library.
#include "protocol/IPCEndpoint.h"
#include "server/FindSimilarTool.h"
#include "server/ImportTool.h"
#include "server/Tool.h"
#include "server/ToolSupport.h"

#include <string_view>
#include <vector>

namespace velko::server {
namespace {

// clang-format off
constexpr std::string_view kFindSimilarText =
    "Find catalog photos that LOOK LIKE a given image — visual similarity (composition, colour, subject), not keyword match. "
    "Give it ONE of: \"path\" (a file on disk — best for an image the user shared/attached; save it and pass the path), \"image\" (base64 PNG/JPEG), or \"id\" (an existing catalog photo, i.e. \"more like this one\"). "
    "Returns the closest matches, nearest first, WITH thumbnail images so you can show the user immediately, plus their ids for follow-up (rate/flag/collect). "
    "Matching uses on-device Vision feature prints from the description pass; if \"indexed\" is 0 the pass hasn't run yet — tell the user to let descriptions finish. "
    "Everything stays on-device.";
constexpr std::string_view kFindSimilarSchema = R"json({
  "type": "object",
  "properties": {
    "path": {"type": "string", "description": "Path to a query image file on disk (png/jpeg/heic)."},
    "image": {"type": "string", "description": "Query image as base64 (png/jpeg), if you can't use a path."},
    "id": {"type": "string", "description": "A catalog photo localIdentifier — find more that look like it."},
    "limit": {"type": "integer", "minimum": 1, "maximum": 50, "description": "Max matches (default 12)."}
  }
})json";

constexpr std::string_view kImportText =
    "Import image files from disk into the Apple Photos library. "
    "Give {paths: [...]} (absolute or ~-relative). "
    "This server stages each file where the app can read it, then imports; returns the new photo ids. "
    "Apple Photos libraries only.";
constexpr std::string_view kImportSchema = R"json({
  "type": "object",
  "properties": {
    "paths": {"type": "array", "items": {"type": "string"}}
  },
  "required": ["paths"]
})json";
// clang-format on

ToolResult runImportFromHome(const ToolArgs& args, ipc::Caller& caller) {
  return runImport(args, caller, protocol::IPCEndpoint::home(),
                   protocol::IPCEndpoint::exchangeDir());
}

} // namespace

void addContentTools(std::vector<ToolRow>& table) {
  // clang-format off
  table.push_back({16, "velko_find_similar", kFindSimilarText, kFindSimilarSchema, runFindSimilar});
  table.push_back({43, "velko_import", kImportText, kImportSchema, runImportFromHome});
  // clang-format on
}

} // namespace velko::server
