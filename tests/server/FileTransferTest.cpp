#include "server/FileTransfer.h"

#include "server/FileHelpers.h"
#include "support/TestPeer.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <system_error>

namespace velko::server {
namespace {

using testing::fileExists;
using testing::namesIn;
using testing::readFile;
using testing::writeFile;
using velko::testing::TempDir;

TEST(FileTransfer, ExpandPath) {
  const std::string cwd = std::filesystem::current_path().string();
  const passwd* root = ::getpwuid(0);
  ASSERT_NE(root, nullptr);
  struct Case {
    const char* path;
    const char* home;
    std::optional<std::string> expanded;
  } cases[] = {
      {"~", "/Users/u", "/Users/u"},
      {"~/Out", "/Users/u", "/Users/u/Out"},
      {"~/Out", "/Users/u/", "/Users/u/Out"},
      {"~/", "/Users/u", "/Users/u/"},
      {"/abs/~/x", "/Users/u", "/abs/~/x"},
      {"rel/x", "/Users/u", cwd + "/rel/x"},
      {"~root/Out", "/Users/u", std::string(root->pw_dir) + "/Out"},
      {"~no-such-velko-user/Out", "/Users/u", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(expandPath(c.path, c.home), c.expanded);
  }
}

TEST(FileTransfer, MoveRefusesWhatIsNotARegularFile) {
  TempDir tmp;
  std::filesystem::create_directories(tmp.file("dir/inner"));
  EXPECT_THROW(moveFile(tmp.file("dir"), tmp.file("moved")), std::system_error);
  EXPECT_THROW(moveFile(tmp.file("missing"), tmp.file("moved")), std::system_error);
  EXPECT_TRUE(fileExists(tmp.file("dir/inner")));
  EXPECT_FALSE(fileExists(tmp.file("moved")));
}

TEST(FileTransfer, MoveAcrossFileSystemsCopiesThenRemoves) {
  TempDir tmp;
  struct stat shm {
  }, here{};
  if (::stat("/dev/shm", &shm) != 0 || ::stat(tmp.path().c_str(), &here) != 0 ||
      shm.st_dev == here.st_dev) {
    GTEST_SKIP() << "no second file system at /dev/shm";
  }
  const std::string from =
      "/dev/shm/" + std::filesystem::path(tmp.path()).filename().string() + "-render";
  writeFile(from, std::string(1 << 20, 'x') + "end");
  ::chmod(from.c_str(), 0640);

  moveFile(from, tmp.file("IMG.jpg"));
  EXPECT_FALSE(fileExists(from));
  EXPECT_EQ(readFile(tmp.file("IMG.jpg")), std::string(1 << 20, 'x') + "end");
  EXPECT_EQ(namesIn(tmp.path()), std::vector<std::string>{"IMG.jpg"}); // no temporary left
  struct stat moved {};
  ASSERT_EQ(::stat(tmp.file("IMG.jpg").c_str(), &moved), 0);
  EXPECT_EQ(moved.st_mode & 0777, 0640u);

  // A destination folder that is missing fails the move and keeps the only copy.
  writeFile(from, "keep me");
  EXPECT_THROW(moveFile(from, tmp.file("missing/IMG.jpg")), std::system_error);
  EXPECT_EQ(readFile(from), "keep me");
  std::filesystem::remove(from);
}

TEST(FileTransfer, CopyRefusesDirectoriesAndExistingTargets) {
  TempDir tmp;
  writeFile(tmp.file("a.jpg"), "abc");
  copyFile(tmp.file("a.jpg"), tmp.file("b.jpg"));
  EXPECT_EQ(readFile(tmp.file("b.jpg")), "abc");
  EXPECT_EQ(readFile(tmp.file("a.jpg")), "abc");

  EXPECT_THROW(copyFile(tmp.file("a.jpg"), tmp.file("b.jpg")), std::system_error);
  std::filesystem::create_directories(tmp.file("dir"));
  EXPECT_THROW(copyFile(tmp.file("dir"), tmp.file("c.jpg")), std::system_error);
  EXPECT_FALSE(fileExists(tmp.file("c.jpg")));
}

} // namespace
} // namespace velko::server
