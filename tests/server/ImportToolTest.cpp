// velko_import on real files: the user's files sit under a temporary home, staging goes to a
// temporary exchange folder, and the application is a recording caller. Refused arguments are in
// ToolHandlersTest.
#include "server/ImportTool.h"

#include "ipc/IPCClient.h"
#include "json/Writer.h"
#include "server/FileHelpers.h"
#include "server/RecordingCaller.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>
#include <regex>

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

  Shown run(const json::Value& arguments) {
    return shown(runImport(arguments, caller, home(), exchange()));
  }

  /// The staged paths of the n-th request.
  std::vector<std::string> staged(std::size_t n) const {
    std::vector<std::string> paths;
    for (const json::Value& p : caller.requests.at(n).params->at("paths").as_array()) {
      paths.emplace_back(p.as_string());
    }
    return paths;
  }

  TempDir tmp;
  RecordingCaller caller;
};

TEST_F(ImportTool, StagesCopiesUnderFreshNames) {
  writeFile(home() + "/a.jpg", "jpeg bytes");
  caller.answer(R"({"importedIDs":["X/L0/001"],"failed":[]})")
      .answer(R"({"importedIDs":["X/L0/002"],"failed":[]})");

  const Shown s = run(json::parse(R"({"paths":["~/a.jpg",5]})"));
  EXPECT_FALSE(s.isError);
  EXPECT_EQ(s.text,
            json::toPretty(json::parse(R"({"importedIDs":["X/L0/001"],"failed":[],"count":1})")));
  ASSERT_EQ(caller.requests.size(), 1u);
  EXPECT_EQ(caller.requests[0].method, protocol::IPCMethod::ImportAssets);
  const std::vector<std::string> first = staged(0);
  ASSERT_EQ(first.size(), 1u);
  const std::regex stagedName(exchange() + "/[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-"
                                           "[0-9A-F]{12}-a\\.jpg");
  EXPECT_TRUE(std::regex_match(first[0], stagedName)) << first[0];
  EXPECT_EQ(readFile(first[0]), "jpeg bytes");
  EXPECT_EQ(readFile(home() + "/a.jpg"), "jpeg bytes"); // copied, not moved

  // The same file again gets a copy of its own.
  run(json::parse(R"({"paths":["~/a.jpg"]})"));
  ASSERT_EQ(caller.requests.size(), 2u);
  EXPECT_NE(staged(1).at(0), first[0]);
  EXPECT_EQ(namesIn(exchange()).size(), 2u);
}

TEST_F(ImportTool, FilesThatCannotBeCopiedAreListedByName) {
  writeFile(home() + "/ok.heic", "heic");
  std::filesystem::create_directories(home() + "/Album");
  caller.answer(R"({"importedIDs":["X/1"],"failed":["app-side.heic"]})");

  const json::Array paths{home() + "/missing.jpg", home() + "/Album/", "~/ok.heic",
                          "~no-such-velko-user/x.png"};
  const Shown s = run(json::Object{{"paths", paths}});
  EXPECT_FALSE(s.isError);
  EXPECT_EQ(s.text, json::toPretty(json::parse(
                        R"({"importedIDs":["X/1"],"count":1,)"
                        R"("failed":["missing.jpg","Album","x.png","app-side.heic"]})")));
  EXPECT_EQ(staged(0).size(), 1u);

  // Nothing copied: an error result without count, and nothing sent.
  const Shown none = run(json::Object{{"paths", json::Array{home() + "/missing.jpg"}}});
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

  EXPECT_THROW(run(json::Object{{"paths", json::Array{"~/a.jpg", "~/b.png"}}}), ipc::ClientError);
  EXPECT_EQ(staged(0).size(), 2u);
  EXPECT_EQ(namesIn(exchange()), std::vector<std::string>{"someone-elses.jpg"});
  EXPECT_EQ(readFile(home() + "/a.jpg"), "a");
  EXPECT_EQ(readFile(home() + "/b.png"), "b");
}

} // namespace
} // namespace velko::server
