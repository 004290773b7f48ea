// velko_import: the application cannot read the user's folders, so each file is copied into the
// exchange folder it can read, under a fresh UUID prefix, and the application imports the
// copies into the photo library.
#pragma once

#include "ipc/Caller.h"
#include "server/Tool.h"

#include <string>

namespace velko::server {

/// The handler of velko_import. `home` is what a leading "~" in a path expands to;
/// `exchangeDir` is the staging folder (created when missing). Files that cannot be copied are
/// listed by file name in `failed`. When the import request itself fails, the staged copies are
/// deleted and the error is rethrown; the user's files are never touched.
ToolResult runImport(const ToolArgs& args, ipc::Caller& caller, const std::string& home,
                     const std::string& exchangeDir);

} // namespace velko::server
