// One entry of the tool table: the MCP name, the description the assistant reads, the input
// schema sent verbatim by "tools/list", and the handler. Each area file appends its rows, each
// with its place in the listing, with an `add…Tools` function; the table is built once, in
// listing order, on first use.
#pragma once

#include "ipc/Caller.h"
#include "json/Value.h"

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace velko::server {

/// A handler's complaint about its arguments. The assistant does not see this text: the
/// dispatcher shows the platform's generic sentence for it (see ErrorText.h).
class ToolError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// The call's `arguments`, absent when the request had no such key.
using ToolArgs = std::optional<json::Value>;

/// An MCP tool result: {"content":[…],"isError":bool}.
using ToolResult = json::Object;

using ToolHandler = std::function<ToolResult(const ToolArgs& args, ipc::Caller& caller)>;

struct Tool {
  std::string_view name;
  std::string_view description;
  json::Value inputSchema;
  ToolHandler invoke;
};

/// A tool as an area file writes it: its place in the listing (1 is first), and the tool with
/// its schema as JSON text, parsed when the table is built.
struct ToolRow {
  int listed;
  std::string_view name;
  std::string_view description;
  std::string_view schema;
  ToolHandler invoke;
};

// clang-format off
void addLibraryTools(std::vector<ToolRow>& table);        // ping, list, context, selection, get, query, show, select, open, exif
void addOrganisationTools(std::vector<ToolRow>& table);   // ratings, flags, labels, groups, annotations, geotags
void addEditingTools(std::vector<ToolRow>& table);        // edit get/set/reset/commit, masks, previews, snapshots, crop, LUTs, point colour
void addDeliveryTools(std::vector<ToolRow>& table);       // export, video commit, movies
void addContentTools(std::vector<ToolRow>& table);        // visual similarity search, file import
// clang-format on

} // namespace velko::server
