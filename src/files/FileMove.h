// Moving the user's files (exports into their folder, photos into the trash, imports into the
// library) so that none is ever lost or overwritten: a rename that refuses to replace, and
// across file systems a copy that is synced and renamed into place before the source goes.
#pragma once

#include <functional>
#include <string>

namespace velko::files {

/// Moves the regular file `from` (not a folder, not a link) to `to`, which must not exist. Never replaces a file. Across file
/// systems it copies to a temporary name beside `to`, syncs it, renames it into place and only
/// then unlinks `from`; any failure leaves `from` where it was and no file at `to`.
/// Throws std::system_error (EEXIST when `to` exists).
void moveFile(const std::string& from, const std::string& to);

/// Moves `from` into the folder `dir` (created when missing) as `name`, or, when that is taken,
/// as name-2.ext, name-3.ext, …; the free name is claimed by the move itself, so two movers
/// never pick the same one. Returns the path the file now has. Throws std::system_error.
std::string moveIntoFolder(const std::string& from, const std::string& dir,
                           const std::string& name);

/// Moves `from` to the first of `candidate(0)`, `candidate(1)`, … `candidate(count - 1)` that is
/// free, all in one folder; the name is claimed by the move itself (never by a check before it),
/// so two movers never pick the same one and nothing is replaced. Returns the path the file now
/// has. Throws std::system_error (EEXIST when every name is taken).
std::string moveToFreeName(const std::string& from, int count,
                           const std::function<std::string(int)>& candidate);

/// Removes the temporary copies that moves cut off by a crash left under `dir` (recursively).
/// Such a copy is never the only one: the source goes only after its copy has a real name.
/// Returns how many were removed; a missing `dir` is no error.
int removeInterruptedCopies(const std::string& dir);

} // namespace velko::files
