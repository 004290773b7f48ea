// velko_export and velko_import on real files in a temporary folder, with a recording caller for
// the application: the rendered files are made in a stand-in sandbox folder, the user's files sit
// under a temporary home. Moving and staging under ~ are in BinaryTest; refused arguments are in
// ToolHandlersTest.
#include "server/ExportTool.h"
#include "server/FileTransfer.h"
#include "server/ImportTool.h"

#include "ipc/IPCClient.h"
#include "json/Writer.h"
#include "server/RecordingCaller.h"
#include "support/TestPeer.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <pwd.h>
#include <system_error>

namespace velko::server {
namespace {

namespace fs = std::filesystem;
using testing::RecordingCaller;
using velko::testing::readFile;

/// The names in `folder`, sorted; empty when the folder does not exist.
std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    names.push_back(entry.path().filename().string());
  }
  std::ranges::sort(names);
  return names;
}

/// The one text item of a tool result and its error flag.
struct Shown {
  std::string text;
  bool isError;
};

Shown shown(const ToolResult& result) {
  EXPECT_EQ(result.at("content").as_array().size(), 1u);
  return {testing::textAt(result), result.at("isError").as_bool()};
}

class FileTools : public ::testing::Test {
protected:
  /// A rendered file for `id` in the sandbox and the reply that reports it.
  std::string rendered(const std::string& id, const std::string& suggested) {
    const std::string path = tmp.write("sandbox/" + id, "pixels of " + id);
    return json::toCompact(json::Object{
        {"path", path}, {"format", "jpeg"}, {"suggestedFilename", suggested}, {"bytes", 12}});
  }
  Shown exportTo(const json::Object& arguments) {
    return shown(runExport(arguments, caller, tmp.file("home")));
  }

  std::string home() const { return tmp.file("home"); }
  std::string exchange() const { return tmp.file("home/.velko/exchange"); }
  Shown import(const json::Array& paths) {
    return shown(runImport(json::Object{{"paths", paths}}, caller, home(), exchange()));
  }
  const json::Array& staged() const {
    return caller.requests.back().params->at("paths").as_array();
  }

  velko::testing::TempDir tmp;
  RecordingCaller caller;
  const std::string folder = tmp.file("Out");
};

TEST_F(FileTools, ExportNeverOverwritesAndKeepsHostileNamesInTheFolder) {
  tmp.write("Out/IMG_1.jpg", "the user's own file");

  // The same photo twice into a folder that already holds its name; a suggestion that climbs out
  // of the folder, and one with spaces and non-ASCII letters.
  caller.answer(rendered("a", "IMG_1.jpg"))
      .answer(rendered("a2", "IMG_1.jpg"))
      .answer(rendered("b", "../../escape.png"))
      .answer(rendered("c", "Strand am Meer – Tag 1.jpg"));
  EXPECT_FALSE(exportTo({{"ids", json::Array{"a", "a", "b", "c"}}, {"directory", folder}}).isError);
  EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"IMG_1-1.jpg", "IMG_1-2.jpg", "IMG_1.jpg",
                                                       "Strand am Meer – Tag 1.jpg", "escape.png"}));
  EXPECT_EQ(readFile(folder + "/IMG_1.jpg"), "the user's own file");
  EXPECT_EQ(readFile(folder + "/IMG_1-2.jpg"), "pixels of a2");

  // The prefix numbers by position, so the failed second id leaves a gap; the extension is
  // each render's own, "jpg" when it has none.
  caller.answer(rendered("p", "IMG_7.heic"))
      .fail(ipc::ClientError::connectionClosed())
      .answer(rendered("r", "Untitled"));
  const Shown s = exportTo({{"ids", json::Array{"p", "q", "r"}}, {"directory", folder},
                            {"filenamePrefix", "trip"}, {"longEdge", 1024.9}});
  EXPECT_EQ(caller.sent().at(4), R"(export.render {"id":"p","longEdge":1024})");
  EXPECT_FALSE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::Object{
                        {"directory", folder},
                        {"written", json::Array{folder + "/trip-1.heic", folder + "/trip-3.jpg"}},
                        {"failed", json::Array{"q"}}, {"count", 2}}));
}

TEST_F(FileTools, ExportFailuresWriteNothing) {
  // Without ids the destination is not even created.
  Shown s = exportTo({{"ids", json::Array{}}, {"directory", tmp.file("made")}});
  EXPECT_EQ(s.text, "velko_export needs a non-empty ids array");
  EXPECT_FALSE(fs::exists(tmp.file("made")));

  // The destination cannot be created: nothing is sent.
  tmp.write("file.txt");
  s = exportTo({{"ids", json::Array{"a"}}, {"directory", tmp.file("file.txt/sub")}});
  EXPECT_EQ(s.text, "couldn't create " + tmp.file("file.txt/sub") + ": Not a directory");
  EXPECT_TRUE(s.isError);
  EXPECT_TRUE(caller.requests.empty());

  // The rendered file vanished before it could be moved, and a render failed outright.
  caller.answer(rendered("vanished", "IMG_1.jpg")).fail(ipc::ClientError::connectionClosed());
  fs::remove(tmp.file("sandbox/vanished"));
  s = exportTo({{"ids", json::Array{"a", "b"}}, {"directory", folder}});
  EXPECT_TRUE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::Object{{"directory", folder}, {"written", json::Array{}},
                                                {"failed", json::Array{"a", "b"}}, {"count", 0}}));
  EXPECT_EQ(namesIn(folder), std::vector<std::string>{});
}

// The same file twice is staged as two copies; what cannot be copied is listed by name.
TEST_F(FileTools, ImportStagesCopiesAndListsWhatCannotBeCopied) {
  tmp.write("home/ok.heic", "heic");
  fs::create_directories(home() + "/Album");
  caller.answer(R"({"importedIDs":["X/1","X/2"],"failed":["app-side.heic"]})");

  const Shown s = import({home() + "/missing.jpg", home() + "/Album/", "~/ok.heic", "~/ok.heic",
                          "~no-such-velko-user/x.png"});
  EXPECT_FALSE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::parse(
                        R"({"importedIDs":["X/1","X/2"],"count":2,)"
                        R"("failed":["missing.jpg","Album","x.png","app-side.heic"]})")));
  ASSERT_EQ(staged().size(), 2u);
  EXPECT_NE(staged()[0], staged()[1]);
  for (const json::Value& copy : staged()) {
    EXPECT_EQ(readFile(std::string(copy.as_string())), "heic");
  }
  EXPECT_EQ(readFile(home() + "/ok.heic"), "heic");

  // Nothing copied: an error result without count, and nothing sent.
  const Shown none = import({home() + "/missing.jpg"});
  EXPECT_TRUE(none.isError);
  EXPECT_EQ(none.text,
            json::toPretty(json::parse(R"({"importedIDs":[],"failed":["missing.jpg"]})")));
  EXPECT_EQ(caller.requests.size(), 1u);
}

// A failed import request: the error passes up, our staged copies go, the user's files and
// anything else in the exchange folder stay.
TEST_F(FileTools, FailedImportDeletesOnlyTheStagedCopies) {
  tmp.write("home/a.jpg", "a");
  tmp.write("home/b.png", "b");
  tmp.write("home/.velko/exchange/someone-elses.jpg", "c");
  caller.fail(ipc::ClientError::rpc({-32000, "Photos library is read-only"}));

  EXPECT_THROW(import({"~/a.jpg", "~/b.png"}), ipc::ClientError);
  EXPECT_EQ(staged().size(), 2u);
  EXPECT_EQ(namesIn(exchange()), std::vector<std::string>{"someone-elses.jpg"});
  EXPECT_EQ(readFile(home() + "/a.jpg"), "a");
  EXPECT_EQ(readFile(home() + "/b.png"), "b");
}

TEST(FileTransfer, ExpandPath) {
  const std::string cwd = fs::current_path().string();
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

TEST_F(FileTools, CopyRefusesDirectoriesAndExistingTargets) {
  copyFile(tmp.write("a.jpg", "abc"), tmp.file("b.jpg"));
  EXPECT_EQ(readFile(tmp.file("b.jpg")), "abc");
  EXPECT_EQ(readFile(tmp.file("a.jpg")), "abc");

  EXPECT_THROW(copyFile(tmp.file("a.jpg"), tmp.file("b.jpg")), std::system_error);
  fs::create_directories(tmp.file("dir"));
  EXPECT_THROW(copyFile(tmp.file("dir"), tmp.file("c.jpg")), std::system_error);
  EXPECT_FALSE(fs::exists(tmp.file("c.jpg")));
}

} // namespace
} // namespace velko::server
