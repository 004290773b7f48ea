// The tool table: the 50 tools in listing order, built once on first use from the rows the area
// files append. The listing order interleaves areas, so each row carries its own place in it.
#pragma once

#include "server/Tool.h"

#include <string_view>
#include <vector>

namespace velko::server {

/// Every row the area files append, in the order they append them.
std::vector<ToolRow> collectToolRows();

/// The process-wide table in listing order, built on first use and never changed. The table
/// test checks that the rows' places are 1 to 50, each once.
const std::vector<Tool>& toolTable();

/// The first tool named exactly `name`, or null.
const Tool* findTool(std::string_view name);

} // namespace velko::server
