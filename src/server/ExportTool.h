// velko_export: the application renders each photo to a file inside its sandbox and reports the
// path; this server, running with the user's rights, creates the destination folder, picks a
// free file name and moves the rendered file there.
#pragma once

#include "ipc/Caller.h"
#include "server/Tool.h"

#include <string>

namespace velko::server {

/// The handler of velko_export. `home` is what a leading "~" in `directory` expands to.
/// Argument and folder problems are returned as error results, never thrown; a photo that
/// fails to render or move is listed in `failed` and the export goes on. The result is an
/// error only when nothing was written.
ToolResult runExport(const ToolArgs& args, ipc::Caller& caller, const std::string& home);

} // namespace velko::server
