// Reading and writing the per-photo data that several method families share: the view state,
// the edit stack, the AI annotation and the catalogue metadata. Each function takes the
// connection its caller already holds (inside Catalog::access or Catalog::write).
#pragma once

#include "app/Sqlite.h"
#include "core/EditStack.h"
#include "core/PhotoAIAnnotation.h"
#include "json/Codec.h"
#include "protocol/LibraryRecords.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velko::app {

/// What the user would be looking at: the grid selection, the titled view, the editor.
struct ViewState {
  std::vector<std::string> selection;
  std::optional<std::string> primary;
  std::vector<std::string> shown; ///< the titled view's photos, in display order
  std::optional<std::string> shownTitle;
  bool editorOpen = false;
  std::optional<std::string> editorPhoto;

  static constexpr auto jsonFields() {
    using V = ViewState;
    return std::tuple{json::field("selection", &V::selection), json::field("primary", &V::primary),
                      json::field("shown", &V::shown), json::field("shownTitle", &V::shownTitle),
                      json::field("editorOpen", &V::editorOpen),
                      json::field("editorPhoto", &V::editorPhoto)};
  }
};

ViewState loadViewState(Database& db);
void saveViewState(Database& db, const ViewState& state);

/// The photo's edit stack (empty at version 0 when it has none). The caller checks the id.
core::EditStack loadStack(Database& db, std::string_view id);
/// Stores the stack as the stored format, with its version.
void saveStack(Database& db, std::string_view id, const core::EditStack& stack);

std::optional<core::PhotoAIAnnotation> loadAnnotation(Database& db, std::string_view id);

/// Rating, flag and label numbers, and whether a non-empty stack exists.
std::optional<protocol::PhotoMetadataDTO> loadMetadata(Database& db, std::string_view id);

/// The summary of one photo (not trashed), or nothing.
std::optional<core::PhotoSummary> loadSummary(Database& db, std::string_view id);

/// Only the ids, of `ids`, that name catalogued photos, in order and without repeats.
std::vector<std::string> knownIds(Database& db, const std::vector<std::string>& ids);

/// Now, as Unix seconds.
std::int64_t unixNow();

} // namespace velko::app
