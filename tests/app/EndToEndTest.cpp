// velko-mcp and velko-headless together, the way a person runs them: both programs in one
// private mount namespace whose home is a temporary folder, the application over a temporary
// library of generated JPEGs, and MCP requests on the server's standard input. The culling,
// editing, export and import session of clients.session runs through both programs too; this
// covers the tools that session leaves out, without needing Node, and the socket's refusals.
#include "app/AppFixture.h"

#include <sys/socket.h>
#include <unistd.h>

namespace velko::app::testing {
namespace {

constexpr int kPhotos = 6;

using EndToEnd = ProgramTest;

TEST_F(EndToEnd, ToolsTheClientSessionLeavesOut) {
  // Photos a day apart, newest last; p1 is stored turned a quarter (orientation 6).
  for (int i = 0; i < kPhotos; ++i) {
    const std::string date = "2024:05:0" + std::to_string(i + 1) + " 10:00:00";
    writePhoto(library() + "/roll/p" + std::to_string(i) + ".jpg",
               {.width = 96 + 8 * i, .height = 64, .pattern = i % 2 == 0,
                .dateTimeOriginal = date, .orientation = i == 1 ? 6 : 1});
  }
  McpSession session(
      headless(VELKO_HEADLESS_PATH, "--allow-saving --allow-delete", VELKO_MCP_PATH));
  const auto ok = [&](std::string_view name, const json::Value& arguments = json::Object{}) {
    const ToolReply r = session.tool(name, arguments);
    EXPECT_FALSE(r.isError) << name << ": " << r.rawText;
    return r.text;
  };
  // The first scan runs in the background; ping answers at once and counts what is indexed.
  waitFor([&] { return ok("velko_ping").at("photoCount") == kPhotos; });
  // A second velko-headless over the same home refuses to start; peers that say nothing, leave
  // mid-frame or send a frame past the size limit are dropped alone. The session goes on.
  velko::testing::ServerProcess second(headless(VELKO_HEADLESS_PATH, ""));
  EXPECT_EQ(second.waitExit(std::chrono::seconds(30)), 1);
  EXPECT_THAT(log(), HasSubstr("another application is already serving"));
  const int silent = connectUnix(socket()), leaving = connectUnix(socket());
  ASSERT_GE(silent, 0);
  ::send(leaving, "{\"jsonrpc\":", 11, MSG_NOSIGNAL);
  ::close(leaving);
  EXPECT_EQ(roundTrip(socket(), std::string(8 * 1024 * 1024 + 16, ' ')), std::nullopt);
  std::vector<std::string> ids; ///< newest first
  const json::Value all = ok("velko_list");
  for (const json::Value& photo : all.at("photos").as_array()) {
    ids.emplace_back(photo.at("id").as_string());
  }
  ASSERT_EQ(ids.size(), static_cast<std::size_t>(kPhotos)) << log();

  const std::string a = ids[0], b = ids[1];
  const json::Value page = ok("velko_list", json::Object{{"limit", 4}});
  ASSERT_EQ(page.at("photos").as_array().size(), 4u);
  EXPECT_EQ(page.at("nextCursor"), 4);
  const json::Value rest = ok("velko_list", json::Object{{"cursor", 4}});
  EXPECT_EQ(rest.at("photos").as_array().size(), 2u);
  EXPECT_FALSE(rest.as_object().contains("nextCursor"));
  // The rotated photo reports its upright size.
  EXPECT_EQ(ok("velko_get", json::Object{{"id", ids[4]}}).at("photo").at("pixelWidth"), 64);

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
  ok("velko_album_create", json::Object{{"name", "Trip"}, {"ids", json::Array{a, b}}});
  EXPECT_EQ(ok("velko_album_list").at("albums").at(0).at("count"), 2);
  EXPECT_EQ(ok("velko_annotate_pending").at("remaining"), kPhotos);
  EXPECT_NEAR(ok("velko_geotag", json::Object{{"ids", json::Array{a}}, {"place", "Lisbon"}})
                  .at("latitude")
                  .to_number<double>(),
              38.7, 0.2);
  ok("velko_hide", json::Object{{"ids", json::Array{ids[5]}}, {"hidden", true}});
  EXPECT_EQ(ok("velko_list").at("photos").as_array().size(), static_cast<std::size_t>(kPhotos - 1));

  ok("velko_edit_set",
     json::Object{{"id", a},
                  {"ops", json::Array{json::Object{{"kind", "exposure"}, {"scalar", 0.5}}}}});
  ok("velko_edit_commit", json::Object{{"id", a}});
  EXPECT_EQ(ok("velko_get", json::Object{{"id", a}}).at("photo").at("hasAdjustments"), true);
  const std::int64_t count = ok("velko_ping").at("photoCount").as_int64();
  ok("velko_delete", json::Object{{"ids", json::Array{b}}});
  EXPECT_EQ(ok("velko_ping").at("photoCount"), count - 1);
  EXPECT_TRUE(session.tool("velko_get", json::Object{{"id", b}}).isError);
  // A movie needs videos, and the library has none.
  EXPECT_TRUE(session.tool("velko_make_movie", json::Object{{"ids", json::Array{a}}}).isError);
  EXPECT_TRUE(ok("velko_movie_list").at("movies").as_array().empty());
  ::close(silent);
}

} // namespace
} // namespace velko::app::testing
