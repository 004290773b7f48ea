// velko_find_similar: visual similarity search by a file on disk, inline image data or a
// library photo, answered with the matches as JSON and thumbnails of the nearest six.
#pragma once

#include "ipc/Caller.h"
#include "server/Tool.h"

namespace velko::server {

/// The handler of velko_find_similar. The query is the first usable of `path` (read from disk
/// and shrunk to 1024 pixels), `image` (sent as given) and `id`. Argument problems, an
/// unreadable path and a missing image library are returned as error results; a failed search
/// request is thrown; a failed thumbnail only leaves that match without a picture.
ToolResult runFindSimilar(const ToolArgs& args, ipc::Caller& caller);

} // namespace velko::server
