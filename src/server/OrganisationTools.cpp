// Rows of the catalogue organisation tools: ratings, flags, labels, favourites, hiding, deletion,
// collections, keywords, albums, AI descriptions and geotags. The server validates nothing of
// its own here: ranges, names and "id OR name" resolution are the application's, so each handler
// is one of four shared forms (updated count, list, create, membership) or the annotation writer.
#include "core/PhotoAIAnnotation.h"
#include "protocol/LibraryRecords.h"
#include "server/ToolSupport.h"

#include <string_view>
#include <vector>

namespace velko::server {
namespace {

using protocol::IPCMethod;

// clang-format off
constexpr std::string_view kRateText =
    "Set the star rating (0-5) on one or more photos. velko-local metadata; the grid updates live.";
constexpr std::string_view kRateSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "rating": {"type": "integer", "minimum": 0, "maximum": 5}
  },
  "required": ["ids", "rating"]
})json";

constexpr std::string_view kFlagText =
    R"txt(Flag one or more photos as pick / reject / none (Lightroom-style culling).)txt";
constexpr std::string_view kFlagSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "flag": {"type": "string", "enum": ["pick", "reject", "none"]}
  },
  "required": ["ids", "flag"]
})json";

constexpr std::string_view kLabelText =
    R"txt(Set the color label on one or more photos.)txt";
constexpr std::string_view kLabelSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "color": {"type": "string", "enum": ["none", "red", "yellow", "green", "blue", "purple"]}
  },
  "required": ["ids", "color"]
})json";

constexpr std::string_view kAnnotatePendingText =
    "List photos that still need an AI description (the 'photo map'). "
    "Returns their ids (selection first) and the total remaining. "
    "Use this to drive a describe loop: get a batch, velko_preview_render each to SEE it, velko_annotate_set a description, repeat until remaining is 0. "
    "On-device Vision has usually already written baseline tags; you're adding the natural-language description + richer structure.";
constexpr std::string_view kAnnotatePendingSchema = R"json({
  "type": "object",
  "properties": {"limit": {"type": "integer"}}
})json";

constexpr std::string_view kAnnotateSetText =
    "Write an AI description onto a photo — the natural-language + structured \"map\" a client can search and organize by. "
    "SEE the photo first (velko_preview_render or velko_context); describe what's ACTUALLY there, don't guess. "
    "Fields go under \"annotation\": caption (one grounded sentence — required), longDescription (optional richer detail), keywords (searchable tags — these union with the on-device Vision tags), subjects (main things depicted), scene (e.g. \"beach\", \"portrait\"), setting (\"indoor\"|\"outdoor\"|\"unknown\"), peopleCount, palette (dominant colours), keeperScore (0-1 quality/keeper judgement). "
    "Only include fields you're confident about. "
    "Composes with the on-device Vision baseline (nothing is clobbered). "
    "Metadata only — never modifies the photo's pixels.";
constexpr std::string_view kAnnotateSetSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string", "description": "Photo localIdentifier."},
    "annotation": {
      "type": "object",
      "properties": {
        "caption": {"type": "string", "description": "One grounded sentence describing the photo."},
        "longDescription": {"type": "string"},
        "keywords": {"type": "array", "items": {"type": "string"}},
        "subjects": {"type": "array", "items": {"type": "string"}},
        "scene": {"type": "string"},
        "setting": {"type": "string", "enum": ["indoor", "outdoor", "unknown"]},
        "peopleCount": {"type": "integer", "minimum": 0},
        "palette": {"type": "array", "items": {"type": "string"}},
        "keeperScore": {"type": "number", "minimum": 0, "maximum": 1}
      }
    },
    "model": {"type": "string", "description": "Which model authored this (provenance), e.g. \"claude-opus-4-8\"."}
  },
  "required": ["id", "annotation"]
})json";

constexpr std::string_view kFavoriteText =
    "Set (or clear) the Apple Photos ❤️ Favorite on one or more photos. "
    "Apple Photos libraries only. "
    "The grid updates live.";
constexpr std::string_view kFavoriteSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "favorite": {"type": "boolean"}
  },
  "required": ["ids", "favorite"]
})json";

constexpr std::string_view kHideText =
    "Hide (or unhide) photos — hidden photos leave the main library and live in the Hidden album. "
    "Apple Photos libraries only.";
constexpr std::string_view kHideSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "hidden": {"type": "boolean"}
  },
  "required": ["ids", "hidden"]
})json";

constexpr std::string_view kDeleteText =
    "Move photos to Recently Deleted (recoverable ~30 days). "
    "DESTRUCTIVE — only when the user explicitly asks; macOS shows its own confirmation dialog, and the tool is unavailable unless the user enabled destructive actions (if it's not listed, don't try). "
    "Apple Photos libraries only.";
constexpr std::string_view kDeleteSchema = R"json({
  "type": "object",
  "properties": {"ids": "$ids"},
  "required": ["ids"]
})json";

// Lists take no arguments.
constexpr std::string_view kNoArgumentsSchema = R"json({"type": "object", "properties": {}})json";

// The six add/remove tools share one shape: a group by id or by name, and the photos.
constexpr std::string_view kMembershipSchema = R"json({
  "type": "object",
  "properties": {
    "id": {"type": "string"},
    "name": {"type": "string"},
    "ids": "$ids"
  },
  "required": ["ids"]
})json";

constexpr std::string_view kCollectionListText =
    "List velko catalog collections (the DAM layer beyond Apple albums): id, name, photo count, whether it's a smart collection. "
    "Call before add/remove to get ids (or pass a name).";
constexpr std::string_view kCollectionCreateText =
    "Create a manual velko collection. "
    "Optionally seed it with photo ids. "
    "Returns the new collection (with its id).";
constexpr std::string_view kCollectionCreateSchema = R"json({
  "type": "object",
  "properties": {
    "name": {"type": "string"},
    "ids": {"type": "array", "items": {"type": "string"}, "description": "Optional photos to add on creation."}
  },
  "required": ["name"]
})json";
constexpr std::string_view kCollectionAddText =
    "Add photos to a manual velko collection, referenced by id OR name. "
    "Returns how many were added.";
constexpr std::string_view kCollectionRemoveText =
    R"txt(Remove photos from a manual velko collection, referenced by id OR name.)txt";

constexpr std::string_view kKeywordListText =
    "List the catalog's keywords (hierarchical tags): id, name, photo count, parentID. "
    "Call before assign/remove to get ids (or pass a name).";
constexpr std::string_view kKeywordCreateText =
    "Create a keyword (optionally nested under parentID, and optionally applied to photo ids). "
    "Returns the new keyword.";
constexpr std::string_view kKeywordCreateSchema = R"json({
  "type": "object",
  "properties": {
    "name": {"type": "string"},
    "parentID": {"type": "string", "description": "Optional parent keyword id to nest under."},
    "ids": {"type": "array", "items": {"type": "string"}, "description": "Optional photos to tag on creation."}
  },
  "required": ["name"]
})json";
constexpr std::string_view kKeywordAssignText =
    "Tag photos with a keyword, referenced by id OR name. "
    "This is the real keyword system (searchable, sidebar-visible) — distinct from AI annotations.";
constexpr std::string_view kKeywordRemoveText =
    R"txt(Untag photos from a keyword, referenced by id OR name.)txt";

constexpr std::string_view kAlbumListText =
    "List the user's Apple Photos albums: id, title, photo count. "
    "Apple Photos libraries only. "
    "Call before add/remove (or pass an album name).";
constexpr std::string_view kAlbumCreateText =
    "Create an Apple Photos album, optionally seeded with photo ids. "
    "Returns the new album. "
    "Apple Photos libraries only.";
constexpr std::string_view kAlbumCreateSchema = R"json({
  "type": "object",
  "properties": {
    "name": {"type": "string"},
    "ids": {"type": "array", "items": {"type": "string"}, "description": "Optional photos to add on creation."}
  },
  "required": ["name"]
})json";
constexpr std::string_view kAlbumAddText =
    "Add photos to an Apple Photos album, referenced by id OR name (title). "
    "The photos stay in the library too.";
constexpr std::string_view kAlbumRemoveText =
    "Remove photos from an Apple Photos album (they stay in the library), referenced by id OR name (title).";

constexpr std::string_view kGeotagText =
    "Set (or clear) where photos were taken. "
    "Give {ids} plus ONE of: latitude+longitude (decimal degrees), place (a name/address like \"Villavicencio, Colombia\", geocoded to coordinates), or clear:true to remove the geotag. "
    "Returns the coordinates actually applied so you can confirm a place resolved correctly. "
    "Apple Photos only. "
    "This OVERWRITES the existing location (no undo history) — only when the user asks; the tool is unavailable unless the user enabled saving to Photos.";
constexpr std::string_view kGeotagSchema = R"json({
  "type": "object",
  "properties": {
    "ids": "$ids",
    "latitude": {"type": "number"},
    "longitude": {"type": "number"},
    "place": {"type": "string", "description": "Place name/address to geocode."},
    "clear": {"type": "boolean", "description": "Remove the existing geotag."}
  },
  "required": ["ids"]
})json";
// clang-format on

/// velko_annotate_set: the annotation is read leniently, since the assistant leaves out what it
/// is not sure of; only its caption is required.
ToolResult runAnnotateSet(const ToolArgs& args, ipc::Caller& caller) {
  const json::Value arguments = args ? wholeNumbersAsIntegers(*args) : json::Value(json::Object());
  const protocol::AnnotateSetParams params =
      protocol::decodeAssistantAnnotateSet(arguments, json::Path("arguments"));
  return jsonTextResult(
      ipc::call<protocol::AnnotateSetResult>(caller, IPCMethod::AnnotateSet, params));
}

} // namespace

void addOrganisationTools(std::vector<ToolRow>& table) {
  using namespace protocol;
  // clang-format off
  table.push_back({6, "velko_rate", kRateText, kRateSchema, direct<RateParams, UpdatedResult, IPCMethod::Rate>});
  table.push_back({7, "velko_flag", kFlagText, kFlagSchema, direct<FlagParams, UpdatedResult, IPCMethod::Flag>});
  table.push_back({8, "velko_label", kLabelText, kLabelSchema, direct<LabelParams, UpdatedResult, IPCMethod::Label>});
  table.push_back({14, "velko_annotate_pending", kAnnotatePendingText, kAnnotatePendingSchema, direct<AnnotatePendingParams, AnnotatePendingResult, IPCMethod::AnnotatePending>});
  table.push_back({15, "velko_annotate_set", kAnnotateSetText, kAnnotateSetSchema, runAnnotateSet});
  table.push_back({21, "velko_favorite", kFavoriteText, kFavoriteSchema, direct<FavoriteParams, UpdatedResult, IPCMethod::Favorite>});
  table.push_back({22, "velko_hide", kHideText, kHideSchema, direct<HideParams, UpdatedResult, IPCMethod::Hide>});
  table.push_back({23, "velko_delete", kDeleteText, kDeleteSchema, direct<DeleteParams, UpdatedResult, IPCMethod::Delete>});
  table.push_back({25, "velko_collection_list", kCollectionListText, kNoArgumentsSchema, noParams<CollectionListResult, IPCMethod::CollectionList>});
  table.push_back({26, "velko_collection_create", kCollectionCreateText, kCollectionCreateSchema, direct<GroupCreateParams, CollectionInfo, IPCMethod::CollectionCreate>});
  table.push_back({27, "velko_collection_add", kCollectionAddText, kMembershipSchema, direct<GroupMembershipParams, UpdatedResult, IPCMethod::CollectionAdd>});
  table.push_back({28, "velko_collection_remove", kCollectionRemoveText, kMembershipSchema, direct<GroupMembershipParams, UpdatedResult, IPCMethod::CollectionRemove>});
  table.push_back({29, "velko_keyword_list", kKeywordListText, kNoArgumentsSchema, noParams<KeywordListResult, IPCMethod::KeywordList>});
  table.push_back({30, "velko_keyword_create", kKeywordCreateText, kKeywordCreateSchema, direct<GroupCreateParams, KeywordInfo, IPCMethod::KeywordCreate>});
  table.push_back({31, "velko_keyword_assign", kKeywordAssignText, kMembershipSchema, direct<GroupMembershipParams, UpdatedResult, IPCMethod::KeywordAssign>});
  table.push_back({32, "velko_keyword_remove", kKeywordRemoveText, kMembershipSchema, direct<GroupMembershipParams, UpdatedResult, IPCMethod::KeywordRemove>});
  table.push_back({33, "velko_album_list", kAlbumListText, kNoArgumentsSchema, noParams<AlbumListResult, IPCMethod::AlbumList>});
  table.push_back({34, "velko_album_create", kAlbumCreateText, kAlbumCreateSchema, direct<GroupCreateParams, AlbumInfo, IPCMethod::AlbumCreate>});
  table.push_back({35, "velko_album_add", kAlbumAddText, kMembershipSchema, direct<GroupMembershipParams, UpdatedResult, IPCMethod::AlbumAdd>});
  table.push_back({36, "velko_album_remove", kAlbumRemoveText, kMembershipSchema, direct<GroupMembershipParams, UpdatedResult, IPCMethod::AlbumRemove>});
  table.push_back({48, "velko_geotag", kGeotagText, kGeotagSchema, direct<GeotagParams, GeotagResult, IPCMethod::Geotag>});
  // clang-format on
}

} // namespace velko::server
