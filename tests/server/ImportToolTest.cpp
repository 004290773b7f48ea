// velko_import on real files: the user's files sit under a temporary home, staging goes to a
// temporary exchange folder, and the application is a recording caller. Staging copies under
// fresh names is in BinaryTest; refused arguments are in ToolHandlersTest.
#include "server/ImportTool.h"

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

class ImportTool : public ::testing::Test {
protected:
  std::string home() const { return tmp.file("home"); }
  std::string exchange() const { return tmp.file("home/.velko/exchange"); }

  Shown run(const json::Array& paths) {
    return shown(runImport(json::Object{{"paths", paths}}, caller, home(), exchange()));
  }
  std::size_t stagedCount() const {
    return caller.requests.at(0).params->at("paths").as_array().size();
  }

  TempDir tmp;
  RecordingCaller caller;
};

TEST_F(ImportTool, FilesThatCannotBeCopiedAreListedByName) {
  writeFile(home() + "/ok.heic", "heic");
  std::filesystem::create_directories(home() + "/Album");
  caller.answer(R"({"importedIDs":["X/1"],"failed":["app-side.heic"]})");

  const Shown s = run({home() + "/missing.jpg", home() + "/Album/", "~/ok.heic",
                       "~no-such-velko-user/x.png"});
  EXPECT_FALSE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::parse(
                        R"({"importedIDs":["X/1"],"count":1,)"
                        R"("failed":["missing.jpg","Album","x.png","app-side.heic"]})")));
  EXPECT_EQ(stagedCount(), 1u);

  // Nothing copied: an error result without count, and nothing sent.
  const Shown none = run({home() + "/missing.jpg"});
  EXPECT_TRUE(none.isError);
  EXPECT_EQ(none.text,
            json::toPretty(json::parse(R"({"importedIDs":[],"failed":["missing.jpg"]})")));
  EXPECT_EQ(caller.requests.size(), 1u);
}

// A failed import request: the error passes up, our staged copies go, the user's files and
// anything else in the exchange folder stay.
TEST_F(ImportTool, FailedImportDeletesOnlyTheStagedCopies) {
  writeFile(home() + "/a.jpg", "a");
  writeFile(home() + "/b.png", "b");
  writeFile(exchange() + "/someone-elses.jpg", "c");
  caller.fail(ipc::ClientError::rpc({-32000, "Photos library is read-only"}));

  EXPECT_THROW(run({"~/a.jpg", "~/b.png"}), ipc::ClientError);
  EXPECT_EQ(stagedCount(), 2u);
  EXPECT_EQ(namesIn(exchange()), std::vector<std::string>{"someone-elses.jpg"});
  EXPECT_EQ(readFile(home() + "/a.jpg"), "a");
  EXPECT_EQ(readFile(home() + "/b.png"), "b");
}

} // namespace
} // namespace velko::server
