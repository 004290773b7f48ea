// velko-mcp and velko-headless together, the way a person runs them: both programs in one
// private mount namespace whose home is a temporary folder, the application over a temporary
// library of generated JPEGs with EXIF, and MCP requests on the server's standard input. One
// test per family of tools, each over a fresh pair of processes.
#include "app/AppFixture.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "support/ServerProcess.h"

#include <filesystem>
#include <fstream>
#include <thread>
#include <vips/vips8>

namespace velko::app::testing {
namespace {

using velko::testing::ServerProcess;
using velko::testing::TempDir;

constexpr int kPhotos = 6;

struct ToolReply {
  json::Value text; ///< the first content item's text, parsed when it is JSON
  std::string rawText;
  std::vector<std::string> images; ///< base64 PNGs
  bool isError = false;
};

class Session {
public:
  Session() {
    // Photos a day apart, newest last, spread around Paris; one rotated, one with a lens.
    for (int i = 0; i < kPhotos; ++i) {
      PhotoSpec shot;
      shot.width = 96 + 8 * i;
      shot.height = 64;
      shot.pattern = i % 2 == 0;
      shot.red = static_cast<unsigned char>(40 * i);
      shot.green = static_cast<unsigned char>(200 - 30 * i);
      shot.dateTimeOriginal = "2024:05:0" + std::to_string(i + 1) + " 10:00:00";
      shot.latitude = 48.8566 + 0.001 * i;
      shot.longitude = 2.3522;
      shot.make = "Velkon";
      shot.model = "V" + std::to_string(i);
      shot.lens = "24-70mm";
      shot.iso = 100 * (i + 1);
      shot.exposureSeconds = 1.0 / 250;
      shot.fNumber = 2.8;
      shot.focalLength = 35;
      shot.orientation = i == 1 ? 6 : 1;
      writePhoto(library() + "/roll/p" + std::to_string(i) + ".jpg", shot);
    }
    std::filesystem::create_directories(home() + "/.velko/luts");
    std::ofstream(home() + "/.velko/luts/Warm.cube")
        << "TITLE \"Warm\"\nLUT_3D_SIZE 2\n0 0 0\n1 0 0\n0 1 0\n1 1 0\n0 0 1\n1 0 1\n0 1 1\n1 1 1\n";
    const std::string script =
        "mount --bind \"$1\" \"$2\" || exit 97\n"
        "\"$3\" --library \"$4\" --allow-saving --allow-delete 2>\"$5\" &\n"
        "i=0; while [ ! -S \"$2/.velko/ipc.sock\" ]; do\n"
        "  i=$((i+1)); [ $i -gt 600 ] && exit 98; sleep 0.05\n"
        "done\n"
        "exec \"$6\"\n";
    process_ = std::make_unique<ServerProcess>(std::vector<std::string>{
        "/usr/bin/unshare", "--mount", "--", "/bin/sh", "-c", script, "sh", home(),
        velko::testing::passwordHome(), VELKO_HEADLESS_PATH, library(), logFile(),
        VELKO_MCP_PATH});
    request(R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2024-11-05","capabilities":{},"clientInfo":{"name":"e2e","version":"1"}}})");
    process_->send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
    // The first scan runs in the background; ping answers at once and counts what is indexed.
    for (int tries = 0; tries < 200 && photoCount() != kPhotos; ++tries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const json::Value all = ok("velko_list");
    for (const json::Value& photo : all.at("photos").as_array()) {
      ids.emplace_back(photo.at("id").as_string());
    }
  }

  std::int64_t photoCount() {
    const json::Value ping = ok("velko_ping");
    return ping.is_object() ? ping.at("photoCount").as_int64() : -1;
  }

  std::string home() const { return root_.path() + "/home"; }
  std::string library() const { return root_.path() + "/library"; }
  std::string logFile() const { return root_.path() + "/headless.log"; }
  std::string log() const {
    std::ifstream in(logFile());
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  json::Value request(const std::string& line) {
    process_->send(line);
    return json::parse(process_->readLine(std::chrono::seconds(60)));
  }

  ToolReply tool(std::string_view name, const json::Value& arguments = json::Object{}) {
    json::Object call{{"jsonrpc", "2.0"}, {"id", ++id_}, {"method", "tools/call"},
                      {"params", json::Object{{"name", name}, {"arguments", arguments}}}};
    const json::Value reply = request(json::toCompact(call));
    const json::Object& result = reply.at("result").as_object();
    ToolReply r;
    r.isError = result.at("isError").as_bool();
    for (const json::Value& item : result.at("content").as_array()) {
      if (item.at("type") == "text") {
        r.rawText = std::string(item.at("text").as_string());
        try {
          r.text = json::parse(r.rawText);
        } catch (const std::exception&) {
        }
      } else {
        r.images.emplace_back(item.at("data").as_string());
      }
    }
    return r;
  }

  /// A tool that must succeed, its text parsed.
  json::Value ok(std::string_view name, const json::Value& arguments = json::Object{}) {
    ToolReply r = tool(name, arguments);
    EXPECT_FALSE(r.isError) << name << ": " << r.rawText;
    return r.text;
  }

  std::vector<std::string> ids; ///< newest first

private:
  TempDir root_;
  std::unique_ptr<ServerProcess> process_;
  std::int64_t id_ = 0;
};

/// Width and height of a base64 PNG.
std::pair<int, int> pngSize(const std::string& base64) {
  gsize size = 0;
  guchar* bytes = g_base64_decode(base64.c_str(), &size);
  vips::VImage image = vips::VImage::new_from_buffer(bytes, size, "");
  std::pair<int, int> out{image.width(), image.height()};
  g_free(bytes);
  return out;
}

class EndToEnd : public ::testing::Test {
protected:
  void SetUp() override {
    const std::string why = velko::testing::privateHomeUnavailableReason();
    if (!why.empty()) {
      GTEST_SKIP() << why;
    }
    VIPS_INIT("velko_app_e2e_tests");
    session_ = std::make_unique<Session>();
    ASSERT_EQ(session_->ids.size(), static_cast<std::size_t>(kPhotos)) << session_->log();
  }

  Session& s() { return *session_; }
  std::unique_ptr<Session> session_;
};

TEST_F(EndToEnd, LibraryTools) {
  const json::Value page = s().ok("velko_list", json::Object{{"limit", 4}});
  ASSERT_EQ(page.at("photos").as_array().size(), 4u);
  EXPECT_EQ(page.at("nextCursor"), 4);
  const json::Value rest = s().ok("velko_list", json::Object{{"cursor", 4}});
  EXPECT_EQ(rest.at("photos").as_array().size(), 2u);
  EXPECT_FALSE(rest.as_object().contains("nextCursor"));
  // Newest first: p5 was taken last.
  const json::Value exif = s().ok("velko_exif", json::Object{{"id", s().ids.front()}});
  EXPECT_EQ(exif.at("originalFilename"), "p5.jpg");
  EXPECT_EQ(exif.at("cameraModel"), "V5");
  EXPECT_EQ(exif.at("iso"), 600);
  // The rotated photo reports its upright size.
  const json::Value rotated = s().ok("velko_get", json::Object{{"id", s().ids[4]}});
  EXPECT_EQ(rotated.at("photo").at("pixelWidth"), 64);

  const json::Value near = s().ok("velko_query", json::Object{{"latitude", 48.8566}, {"longitude", 2.3522}, {"radiusMeters", 250}});
  EXPECT_EQ(near.at("count"), 3); // 0, 111 and 222 metres away
  const json::Value dated = s().ok("velko_query", json::Object{{"dateFrom", "2024-05-02T00:00:00Z"}, {"dateTo", "2024-05-03T23:59:59Z"}});
  EXPECT_EQ(dated.at("count"), 2);

  s().ok("velko_select", json::Object{{"ids", json::Array{s().ids[0], s().ids[1]}}, {"primary", s().ids[1]}});
  const json::Value selection = s().ok("velko_selection");
  EXPECT_EQ(selection.at("primary").as_string(), s().ids[1]);
  const ToolReply context = s().tool("velko_context");
  EXPECT_FALSE(context.isError) << context.rawText;
  EXPECT_EQ(context.text.at("focusID").as_string(), s().ids[1]);
  EXPECT_EQ(context.images.size(), 1u);
}

TEST_F(EndToEnd, OrganisationTools) {
  const std::string a = s().ids[0], b = s().ids[1];
  EXPECT_EQ(s().ok("velko_rate", json::Object{{"ids", json::Array{a, "nope"}}, {"rating", 4}}).at("updated"), 1);
  s().ok("velko_flag", json::Object{{"ids", json::Array{a}}, {"flag", "pick"}});
  s().ok("velko_label", json::Object{{"ids", json::Array{a}}, {"color", "green"}});
  s().ok("velko_favorite", json::Object{{"ids", json::Array{b}}, {"favorite", true}});
  const json::Value got = s().ok("velko_get", json::Object{{"id", a}});
  EXPECT_EQ(got.at("metadata").at("rating"), 4);
  EXPECT_EQ(got.at("metadata").at("flag"), 1);
  EXPECT_EQ(got.at("metadata").at("colorLabel"), 3);
  EXPECT_EQ(s().ok("velko_query", json::Object{{"minRating", 4}, {"flag", "pick"}}).at("count"), 1);
  EXPECT_EQ(s().ok("velko_query", json::Object{{"favoritesOnly", true}}).at("count"), 1);

  const json::Value made = s().ok("velko_collection_create", json::Object{{"name", "Keepers"}, {"ids", json::Array{a}}});
  s().ok("velko_collection_add", json::Object{{"name", "Keepers"}, {"ids", json::Array{b}}});
  const json::Value collections = s().ok("velko_collection_list");
  ASSERT_FALSE(collections.at("collections").as_array().empty());
  EXPECT_EQ(collections.at("collections").at(0).at("count"), 2);
  EXPECT_EQ(made.at("name"), "Keepers");
  s().ok("velko_keyword_create", json::Object{{"name", "coast"}});
  s().ok("velko_keyword_assign", json::Object{{"name", "coast"}, {"ids", json::Array{a}}});
  s().ok("velko_album_create", json::Object{{"name", "Trip"}, {"ids", json::Array{a, b}}});
  EXPECT_EQ(s().ok("velko_album_list").at("albums").at(0).at("count"), 2);
  EXPECT_TRUE(s().tool("velko_collection_add", json::Object{{"name", "Nowhere"}, {"ids", json::Array{a}}}).isError);

  const json::Value pending = s().ok("velko_annotate_pending");
  EXPECT_EQ(pending.at("remaining"), kPhotos);
  s().ok("velko_annotate_set", json::Object{{"id", b}, {"annotation", json::Object{{"caption", "A lighthouse above the harbour"}, {"keywords", json::Array{"lighthouse", "harbour"}}}}});
  const json::Value found = s().ok("velko_query", json::Object{{"text", "lighthouse harbour"}});
  EXPECT_EQ(found.at("ids"), json::Array{b});

  const json::Value geotag = s().ok("velko_geotag", json::Object{{"ids", json::Array{a}}, {"place", "Lisbon"}});
  EXPECT_NEAR(geotag.at("latitude").to_number<double>(), 38.7, 0.2);

  s().ok("velko_hide", json::Object{{"ids", json::Array{s().ids[5]}}, {"hidden", true}});
  EXPECT_EQ(s().ok("velko_list").at("photos").as_array().size(), static_cast<std::size_t>(kPhotos - 1));
  s().ok("velko_hide", json::Object{{"ids", json::Array{s().ids[5]}}, {"hidden", false}});
}

TEST_F(EndToEnd, EditingTools) {
  const std::string id = s().ids[2];
  const json::Value stack = s().ok("velko_edit_get", json::Object{{"id", id}});
  const std::int64_t version = stack.at("version").as_int64();
  const ToolReply set = s().tool("velko_edit_set", json::Object{{"id", id}, {"ops", json::Array{json::Object{{"kind", "exposure"}, {"scalar", 0.5}}}}, {"expectedVersion", version}, {"preview", true}});
  ASSERT_FALSE(set.isError) << set.rawText;
  ASSERT_EQ(set.images.size(), 1u);
  // A stale version is refused and says so.
  const ToolReply stale = s().tool("velko_edit_set", json::Object{{"id", id}, {"ops", json::Array{json::Object{{"kind", "contrast"}, {"scalar", 0.2}}}}, {"expectedVersion", version}});
  EXPECT_TRUE(stale.isError);
  s().ok("velko_crop", json::Object{{"id", id}, {"x", 0.1}, {"y", 0.1}, {"width", 0.5}, {"height", 0.5}});
  s().ok("velko_mask", json::Object{{"id", id}, {"type", "radial"}, {"adjustments", json::Object{{"exposure", 0.3}}}});
  const ToolReply preview = s().tool("velko_preview_render", json::Object{{"id", s().ids[4]}, {"longEdge", 64}});
  ASSERT_EQ(preview.images.size(), 1u) << preview.rawText;
  EXPECT_EQ(pngSize(preview.images[0]), (std::pair<int, int>{39, 64})); // upright: 104x64 turned

  s().ok("velko_snapshot_save", json::Object{{"id", id}, {"name", "first"}});
  s().ok("velko_edit_reset", json::Object{{"id", id}});
  s().ok("velko_snapshot_restore", json::Object{{"id", id}, {"name", "first"}});
  EXPECT_EQ(s().ok("velko_snapshot_list", json::Object{{"id", id}}).at("snapshots").as_array().size(), 1u);
  EXPECT_TRUE(s().ok("velko_edit_get", json::Object{{"id", id}}).at("stack").at("values").is_array() ||
              s().ok("velko_edit_get", json::Object{{"id", id}}).at("stack").is_object());

  const json::Value luts = s().ok("velko_lut_list");
  ASSERT_EQ(luts.at("luts").as_array().size(), 1u);
  s().ok("velko_lut", json::Object{{"id", id}, {"lut", "Warm"}, {"intensity", 0.5}});

  EXPECT_FALSE(s().tool("velko_edit_commit", json::Object{{"id", id}}).isError);
  EXPECT_EQ(s().ok("velko_get", json::Object{{"id", id}}).at("photo").at("hasAdjustments"), true);

  const std::string out = s().home() + "/exports";
  const ToolReply exported = s().tool("velko_export", json::Object{{"ids", json::Array{id, s().ids[3]}}, {"directory", out}, {"format", "png"}, {"longEdge", 48}});
  ASSERT_FALSE(exported.isError) << exported.rawText;
  int files = 0;
  for (const auto& f : std::filesystem::directory_iterator(out)) {
    vips::VImage image = vips::VImage::new_from_file(f.path().c_str());
    EXPECT_EQ(std::max(image.width(), image.height()), 48) << f.path();
    ++files;
  }
  EXPECT_EQ(files, 2);
}

TEST_F(EndToEnd, ContentTools) {
  // A file from outside the library comes in through the exchange folder.
  const std::string incoming = s().home() + "/incoming.jpg";
  PhotoSpec shot;
  shot.dateTimeOriginal = "2025:01:01 12:00:00";
  writePhoto(incoming, shot);
  const json::Value imported = s().ok("velko_import", json::Object{{"paths", json::Array{incoming}}});
  ASSERT_EQ(imported.at("importedIDs").as_array().size(), 1u) << json::toCompact(imported);
  const std::string newId(imported.at("importedIDs").at(0).as_string());
  EXPECT_EQ(s().ok("velko_ping").at("photoCount"), kPhotos + 1);

  // Feature prints are made in the background after the scan.
  json::Value similar;
  for (int tries = 0; tries < 200; ++tries) {
    similar = s().ok("velko_find_similar", json::Object{{"id", s().ids[0]}, {"limit", 3}});
    if (similar.is_object() && similar.at("indexed").as_int64() >= kPhotos) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_GE(similar.at("indexed").as_int64(), kPhotos) << s().log();

  s().ok("velko_delete", json::Object{{"ids", json::Array{newId}}});
  EXPECT_EQ(s().ok("velko_ping").at("photoCount"), kPhotos);
  EXPECT_TRUE(s().tool("velko_get", json::Object{{"id", newId}}).isError);
  EXPECT_TRUE(s().tool("velko_make_movie", json::Object{{"ids", json::Array{s().ids[0]}}}).isError); // no videos
  EXPECT_TRUE(s().ok("velko_movie_list").at("movies").as_array().empty());
}

} // namespace
} // namespace velko::app::testing
