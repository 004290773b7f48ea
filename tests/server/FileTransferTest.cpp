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
      {"~/Out", "/Users/u/", "/Users/u/Out"},
      {"/abs/~/x", "/Users/u", "/abs/~/x"},
      {"rel/x", "/Users/u", cwd + "/rel/x"},
      {"~root/Out", "/Users/u", std::string(root->pw_dir) + "/Out"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(expandPath(c.path, c.home), c.expanded);
  }
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
