#include "server/ToolTable.h"

#include <algorithm>

namespace velko::server {

// clang-format off
const std::array<std::string_view, 50> kToolOrder = {
    "velko_ping",
    "velko_list",
    "velko_context",
    "velko_selection",
    "velko_get",
    "velko_rate",
    "velko_flag",
    "velko_label",
    "velko_edit_get",
    "velko_edit_set",
    "velko_mask",
    "velko_edit_commit",
    "velko_preview_render",
    "velko_annotate_pending",
    "velko_annotate_set",
    "velko_find_similar",
    "velko_query",
    "velko_show",
    "velko_select",
    "velko_open",
    "velko_favorite",
    "velko_hide",
    "velko_delete",
    "velko_edit_reset",
    "velko_collection_list",
    "velko_collection_create",
    "velko_collection_add",
    "velko_collection_remove",
    "velko_keyword_list",
    "velko_keyword_create",
    "velko_keyword_assign",
    "velko_keyword_remove",
    "velko_album_list",
    "velko_album_create",
    "velko_album_add",
    "velko_album_remove",
    "velko_snapshot_list",
    "velko_snapshot_save",
    "velko_snapshot_restore",
    "velko_export",
    "velko_exif",
    "velko_crop",
    "velko_import",
    "velko_video_commit",
    "velko_lut_list",
    "velko_lut",
    "velko_point_color",
    "velko_geotag",
    "velko_make_movie",
    "velko_movie_list",
};
// clang-format on

std::vector<Tool> collectToolRows() {
  std::vector<Tool> rows;
  rows.reserve(kToolOrder.size());
  addLibraryTools(rows);
  addOrganisationTools(rows);
  addEditingTools(rows);
  addDeliveryTools(rows);
  addContentTools(rows);
  return rows;
}

std::vector<Tool> orderToolRows(std::vector<Tool> rows) {
  std::vector<Tool> table;
  table.reserve(kToolOrder.size());
  for (std::string_view name : kToolOrder) {
    auto row =
        std::find_if(rows.begin(), rows.end(), [&](const Tool& t) { return t.name == name; });
    if (row != rows.end()) {
      table.push_back(std::move(*row));
    }
  }
  return table;
}

const std::vector<Tool>& toolTable() {
  static const std::vector<Tool> kTable = orderToolRows(collectToolRows());
  return kTable;
}

const Tool* findTool(std::string_view name) {
  const std::vector<Tool>& table = toolTable();
  auto tool =
      std::find_if(table.begin(), table.end(), [&](const Tool& t) { return t.name == name; });
  return tool == table.end() ? nullptr : &*tool;
}

} // namespace velko::server
