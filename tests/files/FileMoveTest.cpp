#include "files/FileMove.h"
#include "support/TestPeer.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <system_error>

namespace velko::files {
namespace {

namespace fs = std::filesystem;
using velko::testing::readFile;

bool secondFileSystemAtShm(const std::string& here) {
  struct stat a{}, b{};
  return ::stat("/dev/shm", &a) == 0 && ::stat(here.c_str(), &b) == 0 && a.st_dev != b.st_dev;
}

// The same guarantees on one file system (a rename) and across two (a synced copy).
TEST(FileMove, TakesAFreeNameAndNeverReplacesOnOneOrAcrossFileSystems) {
  velko::testing::TempDir here;
  const std::string dir = here.path() + "/to";
  fs::create_directories(dir);
  std::ofstream(dir + "/x.jpg") << "taken";
  for (const std::string& from :
       {here.path() + "/x.jpg", "/dev/shm/" + fs::path(here.path()).filename().string() + ".jpg"}) {
    if (from.starts_with("/dev/shm") && !secondFileSystemAtShm(here.path())) {
      continue; // no second file system here
    }
    SCOPED_TRACE(from);
    std::ofstream(from) << "moved";
    ::chmod(from.c_str(), 0640);
    EXPECT_THROW(moveFile(from, dir + "/x.jpg"), std::system_error);
    EXPECT_THROW(moveFile(from, here.path() + "/missing/x.jpg"), std::system_error);
    EXPECT_EQ(readFile(from), "moved");
    const std::string placed = moveIntoFolder(from, dir, "x.jpg");
    EXPECT_EQ(placed, dir + "/x-2.jpg");
    EXPECT_FALSE(fs::exists(from));
    EXPECT_EQ(readFile(placed), "moved");
    EXPECT_EQ(readFile(dir + "/x.jpg"), "taken");
    EXPECT_EQ(fs::status(placed).permissions(), fs::perms(0640));
    fs::remove(placed);
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), 1); // no temporary copies left
}

TEST(FileMove, MovesOnlyRegularFiles) {
  velko::testing::TempDir here;
  fs::create_directories(here.path() + "/dir/inner");
  std::ofstream(here.path() + "/target") << "t";
  fs::create_symlink(here.path() + "/target", here.path() + "/link");
  for (const char* name : {"dir", "link", "missing"}) {
    SCOPED_TRACE(name);
    EXPECT_THROW(moveFile(here.path() + "/" + name, here.path() + "/moved"), std::system_error);
    EXPECT_FALSE(fs::exists(here.path() + "/moved"));
  }
  EXPECT_TRUE(fs::exists(here.path() + "/dir/inner"));
}

// A dangling link holds its name like any file.
TEST(FileMove, FreeNamesSkipWhatExistsEvenDanglingLinks) {
  velko::testing::TempDir here;
  std::ofstream(here.path() + "/a.jpg") << "a";
  fs::create_symlink(here.path() + "/gone", here.path() + "/b.jpg");
  std::ofstream(here.path() + "/src") << "s";
  const std::string placed = moveToFreeName(here.path() + "/src", 5, [&](int i) {
    return here.path() + "/" + std::string(1, static_cast<char>('a' + i)) + ".jpg";
  });
  EXPECT_EQ(placed, here.path() + "/c.jpg");
  std::ofstream(here.path() + "/src") << "s";
  EXPECT_THROW(moveToFreeName(here.path() + "/src", 2,
                              [&](int i) { return here.path() + (i == 0 ? "/a.jpg" : "/b.jpg"); }),
               std::system_error);
  EXPECT_TRUE(fs::exists(here.path() + "/src"));
}

} // namespace
} // namespace velko::files
