// Parameter and result records of the IPC methods that read the library, drive the grid,
// selection and editor, and change catalogue metadata. Each is a plain aggregate whose
// `jsonFields()` list gives its wire keys in order; optional members start out absent and are
// left out of the JSON, so a parameter record can be built from its required fields alone.
// Flags and labels travel as strings in requests but come back as integers in
// PhotoMetadataDTO; the application owns the mapping between the two.
#pragma once

#include "core/EditStack.h"
#include "core/PhotoAIAnnotation.h"
#include "core/PhotoInfo.h"
#include "core/PhotoSummary.h"
#include "json/Codec.h"
#include "json/Date.h"
#include "json/Path.h"
#include "json/Value.h"
#include "protocol/PingResult.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velko::protocol {

// ---- Library paging -------------------------------------------------------------------------

struct ListParams {
  std::optional<std::int64_t> limit;  ///< page size
  std::optional<std::int64_t> cursor; ///< offset: the previous page's nextCursor

  static constexpr auto jsonFields() {
    return std::tuple{json::field("limit", &ListParams::limit),
                      json::field("cursor", &ListParams::cursor)};
  }
  friend bool operator==(const ListParams&, const ListParams&) = default;
};

struct ListResult {
  std::vector<core::PhotoSummary> photos; ///< newest first
  std::optional<std::int64_t> nextCursor; ///< absent on the last page

  static constexpr auto jsonFields() {
    return std::tuple{json::field("photos", &ListResult::photos),
                      json::field("nextCursor", &ListResult::nextCursor)};
  }
  friend bool operator==(const ListResult&, const ListResult&) = default;
};

// ---- One photo ------------------------------------------------------------------------------

/// Also the parameters of photo.exif, which answers with a core::PhotoInfo.
struct GetParams {
  std::string id;

  static constexpr auto jsonFields() { return std::tuple{json::field("id", &GetParams::id)}; }
  friend bool operator==(const GetParams&, const GetParams&) = default;
};

/// The application's own catalogue data for a photo.
struct PhotoMetadataDTO {
  std::int64_t rating = 0;     ///< stars, 0 to 5
  std::int64_t flag = 0;       ///< pick/reject state as the application numbers it
  std::int64_t colorLabel = 0; ///< colour label as the application numbers it
  bool hasEditStack = false;

  static constexpr auto jsonFields() {
    using M = PhotoMetadataDTO;
    return std::tuple{json::field("rating", &M::rating), json::field("flag", &M::flag),
                      json::field("colorLabel", &M::colorLabel),
                      json::field("hasEditStack", &M::hasEditStack)};
  }
  friend bool operator==(const PhotoMetadataDTO&, const PhotoMetadataDTO&) = default;
};

struct GetResult {
  core::PhotoSummary photo;
  std::optional<PhotoMetadataDTO> metadata;
  std::optional<core::PhotoAIAnnotation> annotation;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("photo", &GetResult::photo),
                      json::field("metadata", &GetResult::metadata),
                      json::field("annotation", &GetResult::annotation)};
  }
  friend bool operator==(const GetResult&, const GetResult&) = default;
};

// ---- Selection and context ------------------------------------------------------------------

struct SelectionResult {
  std::vector<std::string> ids; ///< the grid selection
  std::optional<std::string> primary;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &SelectionResult::ids),
                      json::field("primary", &SelectionResult::primary)};
  }
  friend bool operator==(const SelectionResult&, const SelectionResult&) = default;
};

/// What the user is looking at now. The photo in focus is the one open in the editor, else the
/// primary selection; the application decides and reports it as `focusID`.
struct ContextResult {
  bool editorOpen = false;
  std::optional<std::string> editorPhotoID; ///< the photo open in the editor
  std::optional<std::string> focusID;
  std::vector<std::string> selectionIDs;
  std::optional<std::string> primarySelectionID;
  std::optional<core::PhotoSummary> focus;
  std::optional<PhotoMetadataDTO> focusMetadata;
  std::optional<core::EditStack> focusStack;
  std::optional<core::PhotoAIAnnotation> focusAnnotation;

  static constexpr auto jsonFields() {
    using C = ContextResult;
    return std::tuple{json::field("editorOpen", &C::editorOpen),
                      json::field("editorPhotoID", &C::editorPhotoID),
                      json::field("focusID", &C::focusID),
                      json::field("selectionIDs", &C::selectionIDs),
                      json::field("primarySelectionID", &C::primarySelectionID),
                      json::field("focus", &C::focus),
                      json::field("focusMetadata", &C::focusMetadata),
                      json::field("focusStack", &C::focusStack),
                      json::field("focusAnnotation", &C::focusAnnotation)};
  }
  friend bool operator==(const ContextResult&, const ContextResult&) = default;
};

// ---- Changes to many photos -----------------------------------------------------------------

struct RateParams {
  std::vector<std::string> ids;
  std::int64_t rating = 0; ///< 0 to 5; the application checks the range

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &RateParams::ids),
                      json::field("rating", &RateParams::rating)};
  }
  friend bool operator==(const RateParams&, const RateParams&) = default;
};

struct FlagParams {
  std::vector<std::string> ids;
  std::string flag; ///< "pick", "reject" or "none"; the application checks the name

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &FlagParams::ids), json::field("flag", &FlagParams::flag)};
  }
  friend bool operator==(const FlagParams&, const FlagParams&) = default;
};

struct LabelParams {
  std::vector<std::string> ids;
  std::string color; ///< the label colour name

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &LabelParams::ids),
                      json::field("color", &LabelParams::color)};
  }
  friend bool operator==(const LabelParams&, const LabelParams&) = default;
};

/// The photo library's own favourite mark.
struct FavoriteParams {
  std::vector<std::string> ids;
  bool favorite = false;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &FavoriteParams::ids),
                      json::field("favorite", &FavoriteParams::favorite)};
  }
  friend bool operator==(const FavoriteParams&, const FavoriteParams&) = default;
};

struct HideParams {
  std::vector<std::string> ids;
  bool hidden = false;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &HideParams::ids),
                      json::field("hidden", &HideParams::hidden)};
  }
  friend bool operator==(const HideParams&, const HideParams&) = default;
};

struct DeleteParams {
  std::vector<std::string> ids;

  static constexpr auto jsonFields() { return std::tuple{json::field("ids", &DeleteParams::ids)}; }
  friend bool operator==(const DeleteParams&, const DeleteParams&) = default;
};

/// The answer to every change above and to every group-membership change.
struct UpdatedResult {
  std::int64_t updated = 0;         ///< how many photos were changed
  std::vector<std::string> skipped; ///< ids that were not changed

  static constexpr auto jsonFields() {
    return std::tuple{json::field("updated", &UpdatedResult::updated),
                      json::field("skipped", &UpdatedResult::skipped)};
  }
  friend bool operator==(const UpdatedResult&, const UpdatedResult&) = default;
};

// ---- Finding and showing photos -------------------------------------------------------------

/// Every filter is optional; the given ones are combined with AND.
struct QueryParams {
  std::optional<json::Date> dateFrom; ///< inclusive
  std::optional<json::Date> dateTo;   ///< inclusive
  std::optional<double> latitude;
  std::optional<double> longitude;
  std::optional<double> radiusMeters; ///< with both coordinates, a location filter
  std::optional<std::int64_t> minRating;
  std::optional<std::string> flag;
  std::optional<bool> editedOnly;
  std::optional<bool> videoOnly; ///< true: only videos; false: only stills
  std::optional<bool> favoritesOnly;
  std::optional<std::string> text; ///< free text matched against the AI annotations
  std::optional<std::int64_t> limit;
  std::optional<bool> show;         ///< also display the matches in the grid as a titled view
  std::optional<std::string> title; ///< the title of that view

  static constexpr auto jsonFields() {
    using Q = QueryParams;
    return std::tuple{json::field("dateFrom", &Q::dateFrom),
                      json::field("dateTo", &Q::dateTo),
                      json::field("latitude", &Q::latitude),
                      json::field("longitude", &Q::longitude),
                      json::field("radiusMeters", &Q::radiusMeters),
                      json::field("minRating", &Q::minRating),
                      json::field("flag", &Q::flag),
                      json::field("editedOnly", &Q::editedOnly),
                      json::field("videoOnly", &Q::videoOnly),
                      json::field("favoritesOnly", &Q::favoritesOnly),
                      json::field("text", &Q::text),
                      json::field("limit", &Q::limit),
                      json::field("show", &Q::show),
                      json::field("title", &Q::title)};
  }
  friend bool operator==(const QueryParams&, const QueryParams&) = default;
};

struct QueryResult {
  std::vector<std::string> ids; ///< every match
  std::int64_t count = 0;
  std::vector<core::PhotoSummary> sample; ///< summaries of some of the matches
  bool shown = false;                     ///< whether the matches were displayed

  static constexpr auto jsonFields() {
    return std::tuple{
        json::field("ids", &QueryResult::ids), json::field("count", &QueryResult::count),
        json::field("sample", &QueryResult::sample), json::field("shown", &QueryResult::shown)};
  }
  friend bool operator==(const QueryResult&, const QueryResult&) = default;
};

struct ShowParams {
  std::vector<std::string> ids; ///< in display order
  std::optional<std::string> title;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &ShowParams::ids),
                      json::field("title", &ShowParams::title)};
  }
  friend bool operator==(const ShowParams&, const ShowParams&) = default;
};

struct ShowResult {
  std::int64_t shown = 0; ///< how many photos are displayed
  std::string title;      ///< the title used

  static constexpr auto jsonFields() {
    return std::tuple{json::field("shown", &ShowResult::shown),
                      json::field("title", &ShowResult::title)};
  }
  friend bool operator==(const ShowResult&, const ShowResult&) = default;
};

struct SelectParams {
  std::vector<std::string> ids;
  std::optional<std::string> primary; ///< the application defaults it to the first id

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &SelectParams::ids),
                      json::field("primary", &SelectParams::primary)};
  }
  friend bool operator==(const SelectParams&, const SelectParams&) = default;
};

struct SelectResult {
  std::int64_t selected = 0;
  std::optional<std::string> primary;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("selected", &SelectResult::selected),
                      json::field("primary", &SelectResult::primary)};
  }
  friend bool operator==(const SelectResult&, const SelectResult&) = default;
};

struct OpenEditorParams {
  std::optional<std::string> id; ///< the photo to open
  std::optional<bool> open;      ///< open or close the editor; the application defaults to open

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &OpenEditorParams::id),
                      json::field("open", &OpenEditorParams::open)};
  }
  friend bool operator==(const OpenEditorParams&, const OpenEditorParams&) = default;
};

struct OpenEditorResult {
  bool open = false; ///< whether the editor is open now
  std::optional<std::string> photoID;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("open", &OpenEditorResult::open),
                      json::field("photoID", &OpenEditorResult::photoID)};
  }
  friend bool operator==(const OpenEditorResult&, const OpenEditorResult&) = default;
};

// ---- Groups: collections, keywords and albums -----------------------------------------------

/// Creates a collection, keyword or album (an album's name comes back as its title).
struct GroupCreateParams {
  std::string name;
  std::optional<std::string> parentID;         ///< nest under this group
  std::optional<std::vector<std::string>> ids; ///< photos to put in at once

  static constexpr auto jsonFields() {
    return std::tuple{json::field("name", &GroupCreateParams::name),
                      json::field("parentID", &GroupCreateParams::parentID),
                      json::field("ids", &GroupCreateParams::ids)};
  }
  friend bool operator==(const GroupCreateParams&, const GroupCreateParams&) = default;
};

/// Adds photos to or removes them from a group given by id, or by name when no id is given.
struct GroupMembershipParams {
  std::optional<std::string> id;
  std::optional<std::string> name;
  std::vector<std::string> ids;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &GroupMembershipParams::id),
                      json::field("name", &GroupMembershipParams::name),
                      json::field("ids", &GroupMembershipParams::ids)};
  }
  friend bool operator==(const GroupMembershipParams&, const GroupMembershipParams&) = default;
};

struct CollectionInfo {
  std::string id;
  std::string name;
  std::int64_t count = 0; ///< photos
  bool isSmart = false;   ///< defined in the application by a query
  std::optional<std::string> parentID;

  static constexpr auto jsonFields() {
    using C = CollectionInfo;
    return std::tuple{json::field("id", &C::id), json::field("name", &C::name),
                      json::field("count", &C::count), json::field("isSmart", &C::isSmart),
                      json::field("parentID", &C::parentID)};
  }
  friend bool operator==(const CollectionInfo&, const CollectionInfo&) = default;
};

struct CollectionListResult {
  std::vector<CollectionInfo> collections;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("collections", &CollectionListResult::collections)};
  }
  friend bool operator==(const CollectionListResult&, const CollectionListResult&) = default;
};

/// Keywords are hierarchical.
struct KeywordInfo {
  std::string id;
  std::string name;
  std::int64_t count = 0;
  std::optional<std::string> parentID;

  static constexpr auto jsonFields() {
    using K = KeywordInfo;
    return std::tuple{json::field("id", &K::id), json::field("name", &K::name),
                      json::field("count", &K::count), json::field("parentID", &K::parentID)};
  }
  friend bool operator==(const KeywordInfo&, const KeywordInfo&) = default;
};

struct KeywordListResult {
  std::vector<KeywordInfo> keywords;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("keywords", &KeywordListResult::keywords)};
  }
  friend bool operator==(const KeywordListResult&, const KeywordListResult&) = default;
};

/// Albums belong to the photo library, so they have a `title` where the catalogue's groups have
/// a `name`, and no parent.
struct AlbumInfo {
  std::string id;
  std::string title;
  std::int64_t count = 0;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &AlbumInfo::id), json::field("title", &AlbumInfo::title),
                      json::field("count", &AlbumInfo::count)};
  }
  friend bool operator==(const AlbumInfo&, const AlbumInfo&) = default;
};

struct AlbumListResult {
  std::vector<AlbumInfo> albums;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("albums", &AlbumListResult::albums)};
  }
  friend bool operator==(const AlbumListResult&, const AlbumListResult&) = default;
};

// ---- AI annotations -------------------------------------------------------------------------

struct AnnotatePendingParams {
  std::optional<std::int64_t> limit;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("limit", &AnnotatePendingParams::limit)};
  }
  friend bool operator==(const AnnotatePendingParams&, const AnnotatePendingParams&) = default;
};

struct AnnotatePendingResult {
  std::vector<std::string> ids; ///< photos still without an AI description, selection first
  std::int64_t remaining = 0;   ///< the total still to do

  static constexpr auto jsonFields() {
    return std::tuple{json::field("ids", &AnnotatePendingResult::ids),
                      json::field("remaining", &AnnotatePendingResult::remaining)};
  }
  friend bool operator==(const AnnotatePendingResult&, const AnnotatePendingResult&) = default;
};

/// The record codec is strict about the annotation; arguments written by the assistant go
/// through decodeAssistantAnnotateSet instead.
struct AnnotateSetParams {
  std::string id;
  core::PhotoAIAnnotation annotation;
  std::optional<std::string> model; ///< the model that wrote it

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &AnnotateSetParams::id),
                      json::field("annotation", &AnnotateSetParams::annotation),
                      json::field("model", &AnnotateSetParams::model)};
  }
  friend bool operator==(const AnnotateSetParams&, const AnnotateSetParams&) = default;
};

struct AnnotateSetResult {
  core::PhotoAIAnnotation annotation; ///< as stored

  static constexpr auto jsonFields() {
    return std::tuple{json::field("annotation", &AnnotateSetResult::annotation)};
  }
  friend bool operator==(const AnnotateSetResult&, const AnnotateSetResult&) = default;
};

/// The velko_annotate_set arguments as AnnotateSetParams, with the annotation read by
/// core::decodeAssistantAnnotation (an omitted longDescription, keyword, subject or palette list
/// reads as empty; caption stays required). Throws json::DecodeError naming the key path.
AnnotateSetParams decodeAssistantAnnotateSet(const json::Value& arguments, const json::Path& path);

// ---- Similarity search ----------------------------------------------------------------------

/// Give either an image or a library photo as the query.
struct SimilarFindParams {
  std::optional<std::string> imageBase64; ///< base64 PNG or JPEG
  std::optional<std::string> id;
  std::optional<std::int64_t> limit;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("imageBase64", &SimilarFindParams::imageBase64),
                      json::field("id", &SimilarFindParams::id),
                      json::field("limit", &SimilarFindParams::limit)};
  }
  friend bool operator==(const SimilarFindParams&, const SimilarFindParams&) = default;
};

struct SimilarMatch {
  std::string id;
  double distance = 0; ///< visual distance from the query; smaller is nearer

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &SimilarMatch::id),
                      json::field("distance", &SimilarMatch::distance)};
  }
  friend bool operator==(const SimilarMatch&, const SimilarMatch&) = default;
};

struct SimilarFindResult {
  std::vector<SimilarMatch> matches; ///< nearest first
  /// How many photos have a visual feature print. Prints are made during the application's
  /// description pass, so 0 means that pass has not run and nothing can match.
  std::int64_t indexed = 0;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("matches", &SimilarFindResult::matches),
                      json::field("indexed", &SimilarFindResult::indexed)};
  }
  friend bool operator==(const SimilarFindResult&, const SimilarFindResult&) = default;
};

// ---- Location -------------------------------------------------------------------------------

/// One of three forms: both coordinates, a place to geocode, or clear. The application checks
/// which was given.
struct GeotagParams {
  std::vector<std::string> ids;
  std::optional<double> latitude;
  std::optional<double> longitude;
  std::optional<std::string> place; ///< a name or address to geocode
  std::optional<bool> clear;        ///< remove the location

  static constexpr auto jsonFields() {
    return std::tuple{
        json::field("ids", &GeotagParams::ids), json::field("latitude", &GeotagParams::latitude),
        json::field("longitude", &GeotagParams::longitude),
        json::field("place", &GeotagParams::place), json::field("clear", &GeotagParams::clear)};
  }
  friend bool operator==(const GeotagParams&, const GeotagParams&) = default;
};

struct GeotagResult {
  std::int64_t updated = 0;
  std::vector<std::string> skipped;
  std::optional<double> latitude; ///< the coordinates actually applied
  std::optional<double> longitude;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("updated", &GeotagResult::updated),
                      json::field("skipped", &GeotagResult::skipped),
                      json::field("latitude", &GeotagResult::latitude),
                      json::field("longitude", &GeotagResult::longitude)};
  }
  friend bool operator==(const GeotagResult&, const GeotagResult&) = default;
};

// ---- Import ---------------------------------------------------------------------------------

struct ImportParams {
  std::vector<std::string> paths; ///< files staged in the exchange folder

  static constexpr auto jsonFields() {
    return std::tuple{json::field("paths", &ImportParams::paths)};
  }
  friend bool operator==(const ImportParams&, const ImportParams&) = default;
};

struct ImportResult {
  std::vector<std::string> importedIDs; ///< the new assets
  std::vector<std::string> failed;      ///< paths that could not be imported

  static constexpr auto jsonFields() {
    return std::tuple{json::field("importedIDs", &ImportResult::importedIDs),
                      json::field("failed", &ImportResult::failed)};
  }
  friend bool operator==(const ImportResult&, const ImportResult&) = default;
};

} // namespace velko::protocol
