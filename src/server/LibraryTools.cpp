// Rows of the library and selection tools: reading the library and what the user is looking at,
// and steering what the application shows. None of them changes catalogue data.
#include "ipc/IPCClient.h"
#include "json/Writer.h"
#include "protocol/DeliveryRecords.h"
#include "protocol/LibraryRecords.h"
#include "protocol/PingResult.h"
#include "protocol/Rpc.h"
#include "server/ToolSupport.h"

#include <string_view>
#include <vector>

namespace velko::server {
namespace {

using protocol::IPCMethod;

// The preview velko_context attaches: small enough to keep the reply light, large enough to
// judge colour and exposure. velko_preview_render defaults to 512.
constexpr std::int64_t kContextPreviewLongEdge = 384;

constexpr std::string_view kNoFocusNotice =
    "No photo is in focus — nothing selected and the editor is closed. Ask the user to select or "
    "open a photo, or use velko_list.";

// clang-format off
constexpr std::string_view kPingText =
    "Check that the velko app is running and reachable; returns photo count, app version, and protocol version. "
    "Call this first.";
constexpr std::string_view kPingSchema = R"json({"type": "object", "properties": {}})json";

constexpr std::string_view kListText =
    "Page through the photo library, newest first. "
    "Returns photo summaries (id, dimensions, dates, GPS, favorite/hidden, video/live-photo flags). "
    "Pass nextCursor back as cursor for the next page.";
constexpr std::string_view kListSchema = R"json({
  "type": "object",
  "properties": {
    "limit": {"type": "integer", "description": "Max photos per page (default 100, max 500)."},
    "cursor": {"type": "integer", "description": "Offset cursor from the previous page's nextCursor."}
  }
})json";

constexpr std::string_view kContextText =
    "START HERE for anything about the user's current photo. "
    "Whenever the user says 'the photo I'm editing', 'this photo', 'what I'm looking at', 'make it warmer', etc. — call this FIRST instead of asking which photo. "
    "Returns: whether the develop editor is open and on which photo, the grid selection, the focused photo's id + metadata + current edit stack (with version), AND a preview image of the focused photo so you can SEE what you're working with. "
    "Use focusId for follow-up edit calls, and the stack version as expectedVersion.";
constexpr std::string_view kContextSchema = R"json({"type": "object", "properties": {}})json";

constexpr std::string_view kSelectionText =
    "Just the raw grid selection (ids + primary). "
    "Prefer velko_context, which also tells you what's open in the editor and includes a preview image. "
    "Use this only when you need the bare id list.";
constexpr std::string_view kSelectionSchema = R"json({"type": "object", "properties": {}})json";

constexpr std::string_view kGetText =
    "Full record for one photo: summary plus velko metadata (rating 0-5, flag, color label, whether it has an edit stack).";
constexpr std::string_view kGetSchema = R"json({
  "type": "object",
  "properties": {"id": {"type": "string"}},
  "required": ["id"]
})json";

constexpr std::string_view kQueryText =
    "Find photos in the library by attributes — date range, location (latitude/longitude + radiusMeters), minimum rating, flag, edited-only, video-only, favorites, and free-text over the AI description (caption/keywords/scene/OCR). "
    "All filters are optional and AND-combined. "
    "This is the RIGHT tool for \"what did I shoot yesterday\", \"photos near the beach\", \"my 4-star picks\", \"photos of a dog\" — use it instead of paging velko_list or shelling out. "
    "Set show:true (with a short title like \"Photos from yesterday\") to DISPLAY the matches in the grid — the filtered grid is what the user sees, so prefer that over listing ids in prose. "
    "Dates are ISO-8601 (e.g. 2026-07-12T00:00:00Z). "
    "Returns matching ids (newest first), the total count, and a few sample summaries. "
    "Non-destructive — only changes what's displayed.";
constexpr std::string_view kQuerySchema = R"json({
  "type": "object",
  "properties": {
    "dateFrom": {"type": "string", "description": "ISO-8601 inclusive lower bound on capture date."},
    "dateTo": {"type": "string", "description": "ISO-8601 inclusive upper bound on capture date."},
    "latitude": {"type": "number"},
    "longitude": {"type": "number"},
    "radiusMeters": {"type": "number", "description": "Match within this many meters of (latitude, longitude). Default 500."},
    "minRating": {"type": "integer", "minimum": 1, "maximum": 5},
    "flag": {"type": "string", "enum": ["pick", "reject"]},
    "editedOnly": {"type": "boolean", "description": "Only photos with a velko edit stack."},
    "videoOnly": {"type": "boolean", "description": "true = only videos, false = only stills."},
    "favoritesOnly": {"type": "boolean"},
    "text": {"type": "string", "description": "Free-text tokens (AND-matched) over filename + AI description."},
    "limit": {"type": "integer", "description": "Max ids returned (default 500)."},
    "show": {"type": "boolean", "description": "Also display the matches in the grid as a titled view."},
    "title": {"type": "string", "description": "Sidebar label when show is true, e.g. 'Photos from yesterday'."}
  }
})json";

constexpr std::string_view kShowText =
    "Display an arbitrary, ordered set of photos in the grid as a titled view (it appears as a \"Claude\" source in the sidebar with a clear button). "
    "Use this to SHOW the user the result of your own reasoning — e.g. after you culled or ranked a set of ids yourself. "
    "For attribute-based sets (date, place, rating, content) prefer velko_query with show:true. "
    "Ids the library doesn't know are dropped. "
    "Non-destructive.";
constexpr std::string_view kShowSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "title": {"type": "string", "description": "Sidebar label, e.g. 'Sharp shots from the hike'."}
  },
  "required": ["ids"]
})json";

constexpr std::string_view kSelectText =
    "Set the grid's selection (and the focused/primary photo). "
    "The grid highlights them live and the inspector opens on the primary. "
    "Pair with velko_show (or velko_query show:true) to first display a set, then spotlight specific photos. "
    "Selecting also makes those photos \"this\"/\"these\" for the user's follow-up requests. "
    "Non-destructive.";
constexpr std::string_view kSelectSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "primary": {"type": "string", "description": "The focused id; defaults to the first."}
  },
  "required": ["ids"]
})json";

constexpr std::string_view kOpenText =
    "Open a photo in velko's Develop editor (the full-window edit surface) so you can take it through a COMPLETE edit — not just patch its stack from the grid. "
    "Pass {\"id\": \"<localIdentifier>\"}. "
    "After it opens, velko_edit_get / velko_edit_set / velko_preview_render / velko_edit_commit act on the live editor, and velko_context reports editorOpen=true on this photo. "
    "Pass {\"open\": false} to close the editor and return to the grid (edits already applied stay in the stack; saving to Photos is the separate velko_edit_commit step). "
    "Use this when the user asks to \"edit\", \"open\", or \"work on\" a photo.";
constexpr std::string_view kOpenSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string", "description": "Photo to open in Develop (required to open)."},
    "open": {"type": "boolean", "description": "true (default) opens the editor on id; false closes it."}
  }
})json";

constexpr std::string_view kExifText =
    "Read a photo's capture metadata: camera make/model, lens, ISO, shutter, aperture, focal length, dimensions, capture date, original filename. "
    "Use it to reason about how a shot was taken.";
constexpr std::string_view kExifSchema = R"json({
  "type": "object",
  "properties": {"id": {"type": "string"}},
  "required": ["id"]
})json";
// clang-format on

ToolResult runPing(const ToolArgs&, ipc::Caller& caller) {
  return jsonTextResult(ipc::pingCheckingVersion(caller));
}

ToolResult runContext(const ToolArgs&, ipc::Caller& caller) {
  const auto context = ipc::call<protocol::ContextResult>(caller, IPCMethod::Context);
  std::vector<ContentItem> content;
  try {
    content.push_back(textItem(json::toPretty(json::encode(context))));
  } catch (const json::EncodeError&) {
    // The preview or the notice still tells the assistant something; the text is left out.
  }
  if (context.focusID) {
    protocol::PreviewParams params;
    params.id = *context.focusID;
    params.longEdge = kContextPreviewLongEdge;
    std::optional<protocol::PreviewResult> preview;
    try {
      preview = ipc::call<protocol::PreviewResult>(caller, IPCMethod::PreviewRender, params);
    } catch (const std::exception&) {
      // A photo that cannot be rendered right now still has its context worth returning.
    }
    if (preview) {
      content.push_back(pngItem(std::move(preview->pngBase64)));
    }
  } else {
    content.push_back(textItem(std::string(kNoFocusNotice)));
  }
  return toolResult(std::move(content));
}

} // namespace

void addLibraryTools(std::vector<ToolRow>& table) {
  using namespace protocol;
  // clang-format off
  table.push_back({1, "velko_ping", kPingText, kPingSchema, runPing});
  table.push_back({2, "velko_list", kListText, kListSchema, direct<ListParams, ListResult, IPCMethod::List>});
  table.push_back({3, "velko_context", kContextText, kContextSchema, runContext});
  table.push_back({4, "velko_selection", kSelectionText, kSelectionSchema, noParams<SelectionResult, IPCMethod::Selection>});
  table.push_back({5, "velko_get", kGetText, kGetSchema, direct<GetParams, GetResult, IPCMethod::Get>});
  table.push_back({17, "velko_query", kQueryText, kQuerySchema, direct<QueryParams, QueryResult, IPCMethod::Query>});
  table.push_back({18, "velko_show", kShowText, kShowSchema, direct<ShowParams, ShowResult, IPCMethod::Show>});
  table.push_back({19, "velko_select", kSelectText, kSelectSchema, direct<SelectParams, SelectResult, IPCMethod::Select>});
  table.push_back({20, "velko_open", kOpenText, kOpenSchema, direct<OpenEditorParams, OpenEditorResult, IPCMethod::EditorOpen>});
  table.push_back({41, "velko_exif", kExifText, kExifSchema, direct<GetParams, core::PhotoInfo, IPCMethod::Exif>});
  // clang-format on
}

} // namespace velko::server
