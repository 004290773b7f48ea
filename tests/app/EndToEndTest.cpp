// velko-mcp and velko-headless together, the way a person runs them: both programs in one
// private mount namespace whose home is a temporary folder, the application over a temporary
// library of generated JPEGs, and MCP requests on the server's standard input. The culling,
// editing, export and import session of clients.session runs through both programs too; this
// covers the tools that session leaves out, without needing Node.
#include "app/AppFixture.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "support/ServerProcess.h"

#include <filesystem>
#include <thread>

namespace velko::app::testing {
namespace {

constexpr int kPhotos = 6;

class EndToEnd : public ::testing::Test {
protected:
  void SetUp() override {
    const std::string why = velko::testing::privateHomeUnavailableReason();
    if (!why.empty()) {
      GTEST_SKIP() << why;
    }
    VIPS_INIT("velko_app_e2e_tests");
    // Photos a day apart, newest last; p1 is stored turned a quarter (orientation 6).
    for (int i = 0; i < kPhotos; ++i) {
      writePhoto(root_.library() + "/roll/p" + std::to_string(i) + ".jpg",
                 {.width = 96 + 8 * i,
                  .height = 64,
                  .pattern = i % 2 == 0,
                  .dateTimeOriginal = "2024:05:0" + std::to_string(i + 1) + " 10:00:00",
                  .orientation = i == 1 ? 6 : 1});
    }
    session_ = std::make_unique<McpSession>(
        root_.headless(VELKO_HEADLESS_PATH, "--allow-saving --allow-delete", VELKO_MCP_PATH));
    // The first scan runs in the background; ping answers at once and counts what is indexed.
    for (int tries = 0; tries < 200; ++tries) {
      const json::Value ping = ok("velko_ping");
      if (ping.is_object() && ping.at("photoCount") == kPhotos) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const json::Value all = ok("velko_list");
    for (const json::Value& photo : all.at("photos").as_array()) {
      ids_.emplace_back(photo.at("id").as_string());
    }
    ASSERT_EQ(ids_.size(), static_cast<std::size_t>(kPhotos)) << root_.log();
  }

  ToolReply tool(std::string_view name, const json::Value& arguments = json::Object{}) {
    return session_->tool(name, arguments);
  }
  json::Value ok(std::string_view name, const json::Value& arguments = json::Object{}) {
    return session_->ok(name, arguments);
  }

  ProgramRoot root_;
  std::unique_ptr<McpSession> session_;
  std::vector<std::string> ids_; ///< newest first
};

TEST_F(EndToEnd, ToolsTheClientSessionLeavesOut) {
  const std::string a = ids_[0], b = ids_[1];
  const json::Value page = ok("velko_list", json::Object{{"limit", 4}});
  ASSERT_EQ(page.at("photos").as_array().size(), 4u);
  EXPECT_EQ(page.at("nextCursor"), 4);
  const json::Value rest = ok("velko_list", json::Object{{"cursor", 4}});
  EXPECT_EQ(rest.at("photos").as_array().size(), 2u);
  EXPECT_FALSE(rest.as_object().contains("nextCursor"));
  // The rotated photo reports its upright size.
  EXPECT_EQ(ok("velko_get", json::Object{{"id", ids_[4]}}).at("photo").at("pixelWidth"), 64);

  ok("velko_label", json::Object{{"ids", json::Array{a}}, {"color", "green"}});
  ok("velko_favorite", json::Object{{"ids", json::Array{b}}, {"favorite", true}});
  EXPECT_EQ(ok("velko_get", json::Object{{"id", a}}).at("metadata").at("colorLabel"), 3);
  EXPECT_EQ(ok("velko_query", json::Object{{"favoritesOnly", true}}).at("count"), 1);
  EXPECT_EQ(
      ok("velko_collection_create", json::Object{{"name", "Keepers"}, {"ids", json::Array{a}}})
          .at("name"),
      "Keepers");
  ok("velko_collection_add", json::Object{{"name", "Keepers"}, {"ids", json::Array{b}}});
  EXPECT_EQ(ok("velko_collection_list").at("collections").at(0).at("count"), 2);
  EXPECT_TRUE(
      tool("velko_collection_add", json::Object{{"name", "Nowhere"}, {"ids", json::Array{a}}})
          .isError);
  ok("velko_album_create", json::Object{{"name", "Trip"}, {"ids", json::Array{a, b}}});
  EXPECT_EQ(ok("velko_album_list").at("albums").at(0).at("count"), 2);
  EXPECT_EQ(ok("velko_annotate_pending").at("remaining"), kPhotos);
  EXPECT_NEAR(ok("velko_geotag", json::Object{{"ids", json::Array{a}}, {"place", "Lisbon"}})
                  .at("latitude")
                  .to_number<double>(),
              38.7, 0.2);
  ok("velko_hide", json::Object{{"ids", json::Array{ids_[5]}}, {"hidden", true}});
  EXPECT_EQ(ok("velko_list").at("photos").as_array().size(), static_cast<std::size_t>(kPhotos - 1));

  ok("velko_edit_set",
     json::Object{{"id", a},
                  {"ops", json::Array{json::Object{{"kind", "exposure"}, {"scalar", 0.5}}}}});
  EXPECT_FALSE(tool("velko_edit_commit", json::Object{{"id", a}}).isError);
  EXPECT_EQ(ok("velko_get", json::Object{{"id", a}}).at("photo").at("hasAdjustments"), true);
  const std::int64_t count = ok("velko_ping").at("photoCount").as_int64();
  ok("velko_delete", json::Object{{"ids", json::Array{b}}});
  EXPECT_EQ(ok("velko_ping").at("photoCount"), count - 1);
  EXPECT_TRUE(tool("velko_get", json::Object{{"id", b}}).isError);
  EXPECT_TRUE(tool("velko_make_movie", json::Object{{"ids", json::Array{a}}}).isError); // no videos
  EXPECT_TRUE(ok("velko_movie_list").at("movies").as_array().empty());
}

} // namespace
} // namespace velko::app::testing
