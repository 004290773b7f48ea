#include "server/ToolTable.h"

#include "server/ToolSupport.h"

#include <algorithm>

namespace velko::server {

std::vector<ToolRow> collectToolRows() {
  std::vector<ToolRow> rows;
  addLibraryTools(rows);
  addOrganisationTools(rows);
  addEditingTools(rows);
  addDeliveryTools(rows);
  addContentTools(rows);
  return rows;
}

const std::vector<Tool>& toolTable() {
  static const std::vector<Tool> kTable = [] {
    std::vector<ToolRow> rows = collectToolRows();
    std::stable_sort(rows.begin(), rows.end(),
                     [](const ToolRow& a, const ToolRow& b) { return a.listed < b.listed; });
    std::vector<Tool> table;
    table.reserve(rows.size());
    for (ToolRow& row : rows) {
      table.push_back(
          Tool{row.name, row.description, parseSchema(row.schema), std::move(row.invoke)});
    }
    return table;
  }();
  return kTable;
}

const Tool* findTool(std::string_view name) {
  const std::vector<Tool>& table = toolTable();
  auto tool =
      std::find_if(table.begin(), table.end(), [&](const Tool& t) { return t.name == name; });
  return tool == table.end() ? nullptr : &*tool;
}

} // namespace velko::server
