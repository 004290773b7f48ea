#include "server/FileTransfer.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <pwd.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace velko::server {
namespace {

std::system_error systemError(int errorNumber, const std::string& what) {
  return std::system_error(errorNumber, std::generic_category(), what);
}

class UniqueFd {
public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd& operator=(UniqueFd&&) = delete;

  int get() const { return fd_; }
  /// Closes now and reports the result: close(2) is where some file systems report a failed
  /// write, so a copy is only complete once this succeeds.
  void close(const std::string& what) {
    const int fd = std::exchange(fd_, -1);
    if (::close(fd) != 0 && errno != EINTR) {
      throw systemError(errno, what);
    }
  }

private:
  int fd_;
};

/// Unlinks `path` on destruction unless dismissed: a half-made file never outlives a failure.
class RemoveUnlessKept {
public:
  explicit RemoveUnlessKept(std::string path) : path_(std::move(path)) {}
  ~RemoveUnlessKept() {
    if (!kept_) {
      ::unlink(path_.c_str());
    }
  }
  RemoveUnlessKept(const RemoveUnlessKept&) = delete;
  RemoveUnlessKept& operator=(const RemoveUnlessKept&) = delete;

  void keep() { kept_ = true; }

private:
  std::string path_;
  bool kept_ = false;
};

/// Opens a file to read without blocking on a FIFO or device, and insists on a regular file.
UniqueFd openRegularForReading(const std::string& path, struct stat& st) {
  UniqueFd in(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (in.get() < 0) {
    throw systemError(errno, "couldn't open " + path);
  }
  if (::fstat(in.get(), &st) != 0) {
    throw systemError(errno, "couldn't read " + path);
  }
  if (!S_ISREG(st.st_mode)) {
    throw systemError(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, path + " is not a regular file");
  }
  return in;
}

void copyContents(int in, int out, const std::string& from, const std::string& to) {
  std::vector<char> buffer(1 << 18);
  for (;;) {
    const ssize_t got = ::read(in, buffer.data(), buffer.size());
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN) {
        continue;
      }
      throw systemError(errno, "couldn't read " + from);
    }
    if (got == 0) {
      return;
    }
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = ::write(out, buffer.data() + done, static_cast<size_t>(got - done));
      if (put < 0) {
        if (errno == EINTR) {
          continue;
        }
        throw systemError(errno, "couldn't write " + to);
      }
      done += put;
    }
  }
}

std::optional<std::string> homeOfUser(const std::string& name) {
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  struct passwd entry {};
  struct passwd* found = nullptr;
  while (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr || found->pw_dir == nullptr) {
    return std::nullopt;
  }
  return std::string(found->pw_dir);
}

} // namespace

std::optional<std::string> expandPath(std::string_view path, std::string_view home) {
  std::string expanded;
  if (!path.empty() && path.front() == '~') {
    const auto slash = path.find('/');
    const std::string_view user =
        path.substr(1, slash == std::string_view::npos ? path.npos : slash - 1);
    std::string_view rest =
        slash == std::string_view::npos ? std::string_view() : path.substr(slash);
    if (user.empty()) {
      expanded = home;
    } else {
      std::optional<std::string> userHome = homeOfUser(std::string(user));
      if (!userHome) {
        return std::nullopt;
      }
      expanded = std::move(*userHome);
    }
    if (!expanded.empty() && expanded.back() == '/' && !rest.empty()) {
      rest.remove_prefix(1);
    }
    expanded += rest;
  } else {
    expanded = path;
  }

  if (!expanded.empty() && expanded.front() == '/') {
    return expanded;
  }
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(expanded, ec);
  return ec ? expanded : absolute.string();
}

std::string lastPathComponent(std::string_view path) {
  const auto end = path.find_last_not_of('/');
  if (end == std::string_view::npos) {
    return path.empty() ? std::string() : std::string("/");
  }
  path = path.substr(0, end + 1);
  const auto slash = path.find_last_of('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

void copyFile(const std::string& from, const std::string& to) {
  struct stat st {};
  UniqueFd in = openRegularForReading(from, st);
  UniqueFd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (out.get() < 0) {
    throw systemError(errno, "couldn't create " + to);
  }
  RemoveUnlessKept partial(to);
  copyContents(in.get(), out.get(), from, to);
  out.close("couldn't write " + to);
  partial.keep();
}

} // namespace velko::server
