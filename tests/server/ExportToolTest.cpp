// velko_export on real files: the application's rendered files are made in a stand-in sandbox
// folder, the destination lives under a temporary home, and the handler moves the files.
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
  std::string home() const { return tmp.file("home"); }
  std::string sandbox() const { return tmp.file("sandbox"); }

  /// A rendered file for `id` in the sandbox and the reply that reports it.
  std::string rendered(const std::string& id, const std::string& suggested) {
    const std::string path = writeFile(sandbox() + "/" + id + ".render", "pixels of " + id);
    return json::toCompact(json::Object{
        {"path", path}, {"format", "jpeg"}, {"suggestedFilename", suggested}, {"bytes", 12}});
  }

  Shown run(const char* arguments) {
    return shown(runExport(json::parse(arguments), caller, home()));
  }
  Shown run(const json::Object& arguments) { return shown(runExport(arguments, caller, home())); }

  TempDir tmp;
  RecordingCaller caller;
};

TEST_F(ExportTool, MovesRenderedFilesIntoANewFolderUnderHome) {
  caller.answer(rendered("a", "IMG_0001.jpg")).answer(rendered("b", "IMG_0002.heic"));
  const Shown s = run(R"({"ids":["a",7,"b"],"directory":"~/Out/Keepers/","longEdge":"big",)"
                      R"("quality":5,"format":"png","colorSpace":"displayP3"})");

  const std::string folder = home() + "/Out/Keepers";
  EXPECT_FALSE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::Object{{"directory", folder},
                                                {"written", json::Array{folder + "/IMG_0001.jpg",
                                                                        folder + "/IMG_0002.heic"}},
                                                {"failed", json::Array{}},
                                                {"count", 2}}));
  EXPECT_EQ(
      caller.sent(),
      (std::vector<std::string>{
          R"(export.render {"id":"a","format":"png","quality":5,"colorSpace":"displayP3"})",
          R"(export.render {"id":"b","format":"png","quality":5,"colorSpace":"displayP3"})"}));
  EXPECT_EQ(readFile(folder + "/IMG_0002.heic"), "pixels of b");
  EXPECT_EQ(namesIn(sandbox()), std::vector<std::string>{}); // moved, not copied
}

TEST_F(ExportTool, CollisionsAndPrefixNumbering) {
  const std::string folder = tmp.file("Out");
  writeFile(folder + "/IMG_1.jpg", "the user's own file");

  // The same photo twice into a folder that already holds its name.
  caller.answer(rendered("a", "IMG_1.jpg")).answer(rendered("a2", "IMG_1.jpg"));
  const json::Object twice{{"ids", json::Array{"a", "a"}}, {"directory", folder}};
  EXPECT_FALSE(run(twice).isError);
  EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"IMG_1-1.jpg", "IMG_1-2.jpg", "IMG_1.jpg"}));
  EXPECT_EQ(readFile(folder + "/IMG_1.jpg"), "the user's own file");

  // The prefix numbers by position, so the failed second id leaves a gap; the extension is
  // each render's own, "jpg" when it has none.
  caller.answer(rendered("p", "IMG_7.heic"))
      .fail(ipc::ClientError::connectionClosed())
      .answer(rendered("r", "Untitled"));
  const json::Object prefixed{{"ids", json::Array{"p", "q", "r"}},
                              {"directory", folder},
                              {"filenamePrefix", "trip"},
                              {"longEdge", 1024.9}};
  const Shown s = run(prefixed);
  EXPECT_EQ(caller.sent().at(2), R"(export.render {"id":"p","longEdge":1024})");
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
  const json::Object noIds{{"ids", json::Array{}}, {"directory", tmp.file("made")}};
  Shown s = run(noIds);
  EXPECT_EQ(s.text, "velko_export needs a non-empty ids array");
  EXPECT_FALSE(testing::fileExists(tmp.file("made")));

  // The destination cannot be created: nothing is sent.
  writeFile(tmp.file("file.txt"), "");
  const json::Object blocked{{"ids", json::Array{"a"}}, {"directory", tmp.file("file.txt/sub")}};
  s = run(blocked);
  EXPECT_EQ(s.text, "couldn't create " + tmp.file("file.txt/sub") + ": Not a directory");
  EXPECT_TRUE(s.isError);
  EXPECT_TRUE(caller.requests.empty());

  // The rendered file vanished before it could be moved, and a render failed outright.
  const std::string folder = tmp.file("Out");
  caller
      .answer(json::toCompact(json::Object{{"path", sandbox() + "/vanished.jpg"},
                                           {"format", "jpeg"},
                                           {"suggestedFilename", "IMG_1.jpg"},
                                           {"bytes", 1}}))
      .fail(ipc::ClientError::connectionClosed());
  const json::Object both{{"ids", json::Array{"a", "b"}}, {"directory", folder}};
  s = run(both);
  EXPECT_TRUE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::Object{{"directory", folder},
                                                {"written", json::Array{}},
                                                {"failed", json::Array{"a", "b"}},
                                                {"count", 0}}));
  EXPECT_EQ(namesIn(folder), std::vector<std::string>{});
}

TEST_F(ExportTool, NamesWithSpacesAndNonAsciiAndHostileSuggestions) {
  caller.answer(rendered("a", "Strand am Meer – Tag 1.jpg"))
      .answer(rendered("b", "../../escape.png"));
  const Shown s = run(R"({"ids":["a","b"],"directory":"~/Ferien Sommer/Åre"})");
  const std::string folder = home() + "/Ferien Sommer/Åre";
  EXPECT_FALSE(s.isError);
  EXPECT_EQ(namesIn(folder),
            (std::vector<std::string>{"Strand am Meer – Tag 1.jpg", "escape.png"}));
  EXPECT_NE(s.text.find("Strand am Meer – Tag 1.jpg"), std::string::npos);
}

} // namespace
} // namespace velko::server
