// File-system work done for the application, which runs sandboxed and cannot reach the user's
// folders: tilde expansion of paths the assistant gives, moving rendered files into place and
// copying the user's files into the exchange folder. Failures throw std::system_error; no
// operation leaves a partly written file under its final name.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velko::server {

/// `path` with a leading tilde expanded and made absolute against the working directory:
/// "~" and "~/rest" use `home`; "~user" and "~user/rest" use that user's home from the password
/// database. Absent when "~user" names no user. Other paths are only made absolute.
std::optional<std::string> expandPath(std::string_view path, std::string_view home);

/// The last component of `path`, ignoring trailing slashes ("/a/b/" gives "b", "/" gives "/").
std::string lastPathComponent(std::string_view path);

/// Copies the regular file `from` to the new file `to` (which must not exist yet). A directory
/// or other non-regular source is refused; a partial copy is removed. Throws std::system_error.
void copyFile(const std::string& from, const std::string& to);

} // namespace velko::server
