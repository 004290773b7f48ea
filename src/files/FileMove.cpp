#include "files/FileMove.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/stat.h>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace velko::files {
namespace {

constexpr int kMaxNames = 10'000;
constexpr std::string_view kTemporaryPrefix = ".velko-move-";

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

/// rename(2) that never replaces: renameat2 with RENAME_NOREPLACE, or link and unlink on file
/// systems without it. Returns 0 or the errno.
int renameNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return 0;
  }
  if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP) {
    return errno;
  }
  if (::link(from.c_str(), to.c_str()) != 0) {
    return errno;
  }
  ::unlink(from.c_str());
  return 0;
}

std::string parentOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

void syncFolder(const std::string& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

/// Copies `from` to a new temporary file in `dir` with the same mode and times, synced to disk.
std::string copyToTemporary(const std::string& from, const std::string& dir) {
  const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    fail(errno, "cannot read " + from);
  }
  std::string temp = dir + "/" + std::string(kTemporaryPrefix) + "XXXXXX";
  const int out = ::mkostemp(temp.data(), O_CLOEXEC);
  if (out < 0) {
    const int e = errno;
    ::close(in);
    fail(e, "cannot create a file in " + dir);
  }
  auto abandon = [&](int e, const std::string& what) {
    ::close(in);
    ::close(out);
    ::unlink(temp.c_str());
    fail(e, what);
  };
  struct stat st {};
  if (::fstat(in, &st) != 0) {
    abandon(errno, "cannot read " + from);
  }
  std::vector<char> buffer(1 << 20);
  for (;;) {
    const ssize_t n = ::read(in, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR)
        continue;
      abandon(errno, "cannot read " + from);
    }
    if (n == 0)
      break;
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = ::write(out, buffer.data() + done, static_cast<std::size_t>(n - done));
      if (w < 0) {
        if (errno == EINTR)
          continue;
        abandon(errno, "cannot write " + temp);
      }
      done += w;
    }
  }
  ::fchmod(out, st.st_mode & 07777);
  const timespec times[2] = {st.st_atim, st.st_mtim};
  ::futimens(out, times);
  if (::fsync(out) != 0) {
    abandon(errno, "cannot sync " + temp);
  }
  ::close(in);
  if (::close(out) != 0) {
    const int e = errno;
    ::unlink(temp.c_str());
    fail(e, "cannot write " + temp);
  }
  return temp;
}

} // namespace

std::string moveToFreeName(const std::string& from, int count,
                           const std::function<std::string(int)>& candidate) {
  // Only regular files move: never a folder, and never the target of a link.
  struct stat st {};
  if (::lstat(from.c_str(), &st) != 0) {
    fail(errno, "cannot find " + from);
  }
  if (!S_ISREG(st.st_mode)) {
    fail(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, from + " is not a regular file");
  }
  int i = 0;
  for (; i < count; ++i) {
    const std::string to = candidate(i);
    const int e = renameNoReplace(from, to);
    if (e == 0) {
      return to;
    }
    if (e == EXDEV) {
      break;
    }
    if (e != EEXIST) {
      fail(e, "cannot move " + from + " to " + to);
    }
  }
  if (i == count) {
    fail(EEXIST, "no free name for " + from + " at " + candidate(0));
  }
  // Another file system: copy beside the destination, then claim a name with the synced copy.
  const std::string dir = parentOf(candidate(i));
  const std::string temp = copyToTemporary(from, dir);
  for (; i < count; ++i) {
    const std::string to = candidate(i);
    const int e = renameNoReplace(temp, to);
    if (e == EEXIST) {
      continue;
    }
    if (e != 0) {
      ::unlink(temp.c_str());
      fail(e, "cannot move " + from + " to " + to);
    }
    syncFolder(dir);
    if (::unlink(from.c_str()) != 0) {
      // The source stays; its copy goes, so the file is in exactly one place.
      const int u = errno;
      ::unlink(to.c_str());
      fail(u, "cannot remove " + from + " after copying it");
    }
    return to;
  }
  ::unlink(temp.c_str());
  fail(EEXIST, "no free name for " + from + " at " + candidate(0));
}

void moveFile(const std::string& from, const std::string& to) {
  moveToFreeName(from, 1, [&](int) { return to; });
}

std::string moveIntoFolder(const std::string& from, const std::string& dir,
                           const std::string& name) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) {
    fail(ec.value(), "cannot create the folder " + dir);
  }
  const auto dot = name.find_last_of('.');
  const bool hasExtension = dot != std::string::npos && dot > 0;
  const std::string stem = hasExtension ? name.substr(0, dot) : name;
  const std::string extension = hasExtension ? name.substr(dot) : "";
  return moveToFreeName(from, kMaxNames, [&](int i) {
    return dir + "/" + (i == 0 ? name : stem + "-" + std::to_string(i + 1) + extension);
  });
}

int removeInterruptedCopies(const std::string& dir) {
  int removed = 0;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    std::error_code fileEc;
    if (it->is_regular_file(fileEc) &&
        it->path().filename().string().starts_with(kTemporaryPrefix) &&
        ::unlink(it->path().c_str()) == 0) {
      ++removed;
    }
  }
  return removed;
}

} // namespace velko::files
