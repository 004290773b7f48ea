// velko_export on real files: the application's rendered files are made in a stand-in sandbox
// folder and the handler moves them into the destination. Moving into a new folder under ~ is in
// BinaryTest; these are the names it must never overwrite and the failures that write nothing.
#include "server/ExportTool.h"

#include "ipc/IPCClient.h"
#include "json/Writer.h"
#include "server/FileHelpers.h"
#include "server/RecordingCaller.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>

namespace velko::server {
namespace {

using testing::namesIn;
using testing::readFile;
using testing::RecordingCaller;
using testing::Shown;
using testing::shown;
using testing::writeFile;
using velko::testing::TempDir;

class ExportTool : public ::testing::Test {
protected:
  /// A rendered file for `id` in the sandbox and the reply that reports it.
  std::string rendered(const std::string& id, const std::string& suggested) {
    const std::string path = writeFile(tmp.file("sandbox/" + id), "pixels of " + id);
    return json::toCompact(json::Object{
        {"path", path}, {"format", "jpeg"}, {"suggestedFilename", suggested}, {"bytes", 12}});
  }

  Shown run(const json::Object& arguments) {
    return shown(runExport(arguments, caller, tmp.file("home")));
  }

  TempDir tmp;
  RecordingCaller caller;
  const std::string folder = tmp.file("Out");
};

TEST_F(ExportTool, NeverOverwritesAndKeepsHostileNamesInTheFolder) {
  writeFile(folder + "/IMG_1.jpg", "the user's own file");

  // The same photo twice into a folder that already holds its name; a suggestion that climbs out
  // of the folder, and one with spaces and non-ASCII letters.
  caller.answer(rendered("a", "IMG_1.jpg"))
      .answer(rendered("a2", "IMG_1.jpg"))
      .answer(rendered("b", "../../escape.png"))
      .answer(rendered("c", "Strand am Meer – Tag 1.jpg"));
  EXPECT_FALSE(run({{"ids", json::Array{"a", "a", "b", "c"}}, {"directory", folder}}).isError);
  EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"IMG_1-1.jpg", "IMG_1-2.jpg", "IMG_1.jpg",
                                                       "Strand am Meer – Tag 1.jpg", "escape.png"}));
  EXPECT_EQ(readFile(folder + "/IMG_1.jpg"), "the user's own file");
  EXPECT_EQ(readFile(folder + "/IMG_1-2.jpg"), "pixels of a2");

  // The prefix numbers by position, so the failed second id leaves a gap; the extension is
  // each render's own, "jpg" when it has none.
  caller.answer(rendered("p", "IMG_7.heic"))
      .fail(ipc::ClientError::connectionClosed())
      .answer(rendered("r", "Untitled"));
  const Shown s = run({{"ids", json::Array{"p", "q", "r"}},
                       {"directory", folder},
                       {"filenamePrefix", "trip"},
                       {"longEdge", 1024.9}});
  EXPECT_EQ(caller.sent().at(4), R"(export.render {"id":"p","longEdge":1024})");
  EXPECT_FALSE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::Object{
                        {"directory", folder},
                        {"written", json::Array{folder + "/trip-1.heic", folder + "/trip-3.jpg"}},
                        {"failed", json::Array{"q"}},
                        {"count", 2}}));
}

// Refused arguments are in ToolHandlersTest.
TEST_F(ExportTool, FailuresThatWriteNothing) {
  // Without ids the destination is not even created.
  Shown s = run({{"ids", json::Array{}}, {"directory", tmp.file("made")}});
  EXPECT_EQ(s.text, "velko_export needs a non-empty ids array");
  EXPECT_FALSE(testing::fileExists(tmp.file("made")));

  // The destination cannot be created: nothing is sent.
  writeFile(tmp.file("file.txt"), "");
  s = run({{"ids", json::Array{"a"}}, {"directory", tmp.file("file.txt/sub")}});
  EXPECT_EQ(s.text, "couldn't create " + tmp.file("file.txt/sub") + ": Not a directory");
  EXPECT_TRUE(s.isError);
  EXPECT_TRUE(caller.requests.empty());

  // The rendered file vanished before it could be moved, and a render failed outright.
  caller
      .answer(json::toCompact(json::Object{{"path", tmp.file("sandbox/vanished.jpg")},
                                           {"format", "jpeg"},
                                           {"suggestedFilename", "IMG_1.jpg"},
                                           {"bytes", 1}}))
      .fail(ipc::ClientError::connectionClosed());
  s = run({{"ids", json::Array{"a", "b"}}, {"directory", folder}});
  EXPECT_TRUE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::Object{{"directory", folder},
                                                {"written", json::Array{}},
                                                {"failed", json::Array{"a", "b"}},
                                                {"count", 0}}));
  EXPECT_EQ(namesIn(folder), std::vector<std::string>{});
}

} // namespace
} // namespace velko::server
