// The tools that work on files, on real files in a temporary folder with a recording caller for
// the application. velko_export and velko_import: the rendered files are made in a stand-in
// sandbox folder, the user's files sit under a temporary home (clients.session exports and
// imports through both programs; refused arguments are in ToolHandlersTest). velko_find_similar:
// which query goes out, the not-indexed notice, the thumbnails that follow the JSON text, and the
// downscaled query image it sends.
#include "server/ExportTool.h"
#include "server/FileTransfer.h"
#include "server/FindSimilarTool.h"
#include "server/ImageThumbnail.h"
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
#include <vips/vips.h>

namespace velko::server {
namespace {

namespace fs = std::filesystem;
using testing::RecordingCaller;
using testing::textAt;
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

TEST(FindSimilarTool, ChoosesTheQuery) {
  velko::testing::TempDir tmp;
  // A 4×2 binary PPM, which the image library reads without extra loaders.
  const std::string image =
      tmp.write("query.ppm", "P6\n4 2\n255\n" + std::string(4 * 2 * 3, '\x80'));
  const std::string notImage = tmp.write("notes.txt", "not an image");

  struct Case {
    const char* name;
    json::Value arguments;
    const char* sent;  // the similar.find params; null when nothing may be sent
    std::string error; // the error result's text when nothing is sent
  } cases[] = {
      {"path beats id", json::Object{{"path", image}, {"id", "X"}, {"limit", 3}}, "image", ""},
      {"empty path falls to id", json::parse(R"({"path":"","id":"X"})"), R"({"id":"X"})", ""},
      {"non-string path falls to image", json::parse(R"({"path":5,"image":"abc","id":"X"})"),
       R"({"imageBase64":"abc"})", ""},
      {"fractional limit is dropped", json::parse(R"({"id":"X","limit":3.5})"), R"({"id":"X"})",
       ""},
      {"not an image", json::Object{{"path", notImage}, {"id", "X"}}, nullptr,
       "couldn't read an image at " + notImage},
      {"path is not expanded", json::parse(R"({"path":"~/query.ppm"})"), nullptr,
       "couldn't read an image at ~/query.ppm"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingCaller caller;
    if (c.sent != nullptr) {
      caller.answer(R"({"matches":[{"id":"A","distance":0.1}],"indexed":0})");
    }
    const ToolResult result = runFindSimilar(c.arguments, caller);
    if (c.sent == nullptr) {
      EXPECT_TRUE(result.at("isError").as_bool());
      EXPECT_EQ(textAt(result), c.error);
      EXPECT_TRUE(caller.requests.empty());
      continue;
    }
    // With nothing indexed the matches mean nothing, and no thumbnails are asked for.
    EXPECT_EQ(json::toCompact(result),
              R"({"content":[{"type":"text","text":"No photos are indexed for visual search yet — )"
              R"(let velko finish describing the library (Settings ▸ Photo descriptions), then try )"
              R"(again."}],"isError":false})");
    ASSERT_EQ(caller.requests.size(), 1u);
    EXPECT_EQ(caller.requests[0].method, protocol::IPCMethod::SimilarFind);
    const json::Object& params = caller.requests[0].params->as_object();
    if (std::string_view(c.sent) == "image") {
      // The file goes out as a shrunk JPEG, base64, with the limit and without the id.
      EXPECT_TRUE(params.at("imageBase64").as_string().starts_with("/9j/"));
      EXPECT_FALSE(params.contains("id"));
      EXPECT_EQ(params.at("limit"), 3);
    } else {
      EXPECT_EQ(json::toCompact(params), c.sent);
    }
  }
}

TEST(FindSimilarTool, ThumbnailsForTheNearestSixOnly) {
  RecordingCaller caller;
  json::Array matches;
  for (int i = 1; i <= 12; ++i) {
    matches.push_back(json::Object{{"id", "m" + std::to_string(i)}, {"distance", 0.12345 * i}});
  }
  caller.answer(json::toCompact(json::Object{{"matches", matches}, {"indexed", 500}}));
  const char* kPreview = R"({"pngBase64":"PNG","width":256,"height":192,)"
                         R"("appliedStackVersion":0,"basedOnOriginal":true})";
  caller.answer(kPreview).answer(kPreview).fail(ipc::ClientError::connectionClosed());
  caller.answer(kPreview).answer(kPreview).answer(kPreview);

  const ToolResult result = runFindSimilar(json::parse(R"({"id":"X","limit":12})"), caller);
  EXPECT_FALSE(result.at("isError").as_bool());
  ASSERT_EQ(caller.requests.size(), 7u);
  EXPECT_EQ(caller.sent()[1], R"(preview.render {"id":"m1","longEdge":256})");
  EXPECT_EQ(caller.sent()[6], R"(preview.render {"id":"m6","longEdge":256})");

  const json::Array& content = result.at("content").as_array();
  ASSERT_EQ(content.size(), 1u + 2 * 5); // the third thumbnail failed and is skipped
  EXPECT_EQ(json::parse(content[0].at("text").as_string()).at("matches").as_array().size(), 12u);
  EXPECT_EQ(json::toCompact(content[1]), R"({"type":"image","data":"PNG","mimeType":"image/png"})");
  EXPECT_EQ(content[2].at("text"), "m1 (distance 0.123)");
  EXPECT_EQ(content[6].at("text"), "m4 (distance 0.494)");
}

/// Decodes `base64` as an image and returns {width, height}; {0, 0} if it is not a JPEG. This
/// checks the thumbnail's base64 too.
std::pair<int, int> jpegSize(const std::string& base64) {
  gsize length = 0;
  guchar* decoded = g_base64_decode(base64.c_str(), &length);
  const std::string bytes(reinterpret_cast<const char*>(decoded), length);
  g_free(decoded);
  VipsImage* image = bytes.starts_with("\xff\xd8\xff")
                         ? vips_image_new_from_buffer(bytes.data(), bytes.size(), "", nullptr)
                         : nullptr;
  if (image == nullptr) {
    return {0, 0};
  }
  std::pair<int, int> size{vips_image_get_width(image), vips_image_get_height(image)};
  g_object_unref(image);
  return size;
}

// Find_similar's test gives it a missing file and one that is not an image.
TEST_F(FileTools, ThumbnailShrinksLongSideUprightAndNeverEnlarges) {
  struct Case {
    const char* name;
    int width, height, maxPixel, orientation;
    std::pair<int, int> expected;
  } cases[] = {
      {"wide.jpg", 400, 200, 100, 0, {100, 50}},
      {"tall.png", 120, 600, 300, 0, {60, 300}},
      {"small.png", 40, 20, 1024, 0, {40, 20}},
      // Orientation 6 means "rotate 90° clockwise to display": 400×200 shows as 200×400.
      {"rotated.jpg", 400, 200, 100, 6, {50, 100}},
  };
  // The images are made with libvips linked directly (the code under test opens it by itself):
  // a bright left half, saved through the saver of the name's suffix.
  ASSERT_EQ(VIPS_INIT("velko-tests"), 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    VipsImage* image = nullptr;
    EXPECT_EQ(vips_black(&image, c.width, c.height, "bands", 3, nullptr), 0);
    EXPECT_EQ(vips_draw_rect1(image, 255.0, 0, 0, c.width / 2, c.height, "fill", TRUE, nullptr), 0);
    if (c.orientation != 0) {
      vips_image_set_int(image, VIPS_META_ORIENTATION, c.orientation);
    }
    const std::string path = tmp.file(c.name);
    EXPECT_EQ(vips_image_write_to_file(image, path.c_str(), nullptr), 0) << vips_error_buffer();
    g_object_unref(image);
    std::optional<std::string> out = downscaledImageBase64(path, c.maxPixel);
    ASSERT_TRUE(out.has_value());
    EXPECT_EQ(out->find('\n'), std::string::npos);
    EXPECT_EQ(jpegSize(*out), c.expected);
  }
  // Images cut short give nothing, rather than a thumbnail of what was there.
  for (const char* name : {"wide.jpg", "tall.png"}) {
    SCOPED_TRACE(name);
    const std::string cut = readFile(tmp.file(name)).substr(0, 64);
    EXPECT_EQ(downscaledImageBase64(tmp.write(std::string("cut-") + name, cut), 100),
              std::nullopt);
  }
}

} // namespace
} // namespace velko::server
