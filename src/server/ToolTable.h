// The tool table: the 50 tools in listing order, built once on first use from the rows the area
// files append. The listing order interleaves areas, so it is kept here as one list of names and
// the table is assembled in that order.
#pragma once

#include "server/Tool.h"

#include <array>
#include <string_view>
#include <vector>

namespace velko::server {

/// Every tool name, in the order of "tools/list" and of the name search.
extern const std::array<std::string_view, 50> kToolOrder;

/// Every row the area files append, in the order they append them.
std::vector<Tool> collectToolRows();

/// `rows` arranged in kToolOrder. A listed name without a row is left out, a row whose name is
/// not listed is dropped and only the first row of a name is kept; the table test checks that
/// none of this happens.
std::vector<Tool> orderToolRows(std::vector<Tool> rows);

/// The process-wide table, built on first use and never changed.
const std::vector<Tool>& toolTable();

/// The first tool named exactly `name`, or null.
const Tool* findTool(std::string_view name);

} // namespace velko::server
