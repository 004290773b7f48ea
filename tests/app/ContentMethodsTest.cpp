#include "app/AppFixture.h"
#include "app/ChildProcess.h"
#include "app/Library.h"
#include "core/Uuid.h"

#include <ctime>
#include <fstream>
#include <glib.h>
#include <set>

namespace velko::app::testing {
namespace {

namespace fs = std::filesystem;

class Content : public AppFixture {
protected:
  std::string idOf(const std::string& path) {
    auto a = app().catalog().access();
    auto s = a->prepare("SELECT id FROM photos WHERE path = ?");
    s->bind(1, path);
    return s->step() ? s->text(0) : "";
  }
  /// Writes a 64 × 48 test-pattern video, shown a quarter turned when `turned`; false when
  /// ffmpeg is not installed.
  bool writeClip(const std::string& path, int seconds, bool turned = false) {
    const std::string plain = turned ? root_.path() + "/plain.mp4" : path;
    try {
      // Stream copy is how ffmpeg 5 writes a rotation (a display matrix) into MP4.
      return runProcess({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                         "testsrc=duration=" + std::to_string(seconds) + ":size=64x48:rate=10",
                         "-pix_fmt", "yuv420p", plain})
                     .exitStatus == 0 &&
             (!turned || runProcess({"ffmpeg", "-v", "error", "-i", plain, "-c", "copy",
                                     "-metadata:s:v:0", "rotate=90", "-y", path})
                                 .exitStatus == 0);
    } catch (const ProgramNotFound&) {
      return false;
    }
  }
};

TEST_F(Content, SimilarRanksAResizedReencodedCopyFirst) {
  writePhoto(libraryFile("a.jpg"), {.width = 64, .height = 48, .pattern = true});
  writePhoto(libraryFile("b.jpg"), {.width = 48, .height = 64, .pattern = true});
  writePhoto(libraryFile("c.jpg"), {.width = 96, .height = 48, .pattern = true});
  writePhoto(libraryFile("d.jpg"), {.red = 200, .green = 40, .blue = 40});
  writePhoto(libraryFile("e.png"), {.red = 40, .green = 40, .blue = 200});
  vips::VImage::thumbnail(libraryFile("a.jpg").c_str(), 40)
      .write_to_file(libraryFile("copy.jpg").c_str(), vips::VImage::option()->set("Q", 40));
  open();
  const std::string a = idOf(libraryFile("a.jpg")), copy = idOf(libraryFile("copy.jpg"));

  // Before the background pass the query photo's print is made on demand.
  json::Value r = call("similar.find", json::Object{{"id", a}});
  EXPECT_EQ(r.at("indexed").as_int64(), 1);
  EXPECT_TRUE(r.at("matches").as_array().empty());

  EXPECT_EQ(app().library().makePrints(100), 5);
  r = call("similar.find", json::Object{{"id", a}, {"limit", 3}});
  EXPECT_EQ(r.at("indexed").as_int64(), 6);
  const json::Array& m = r.at("matches").as_array();
  ASSERT_EQ(m.size(), 3u);
  EXPECT_EQ(m[0].at("id").as_string(), copy);
  EXPECT_LT(m[0].at("distance").to_number<double>(), m[1].at("distance").to_number<double>());
  EXPECT_LT(m[1].at("distance").to_number<double>(), m[2].at("distance").to_number<double>());

  // By image: a larger PNG of the same photo finds it and its copy first.
  g_autofree void* png = nullptr;
  std::size_t size = 0;
  vips::VImage::thumbnail(libraryFile("a.jpg").c_str(), 128,
                          vips::VImage::option()->set("size", VIPS_SIZE_FORCE)->set("height", 96))
      .write_to_buffer(".png", &png, &size);
  g_autofree gchar* base64 = g_base64_encode(static_cast<const guchar*>(png), size);
  g_autofree gchar* cut = g_base64_encode(static_cast<const guchar*>(png), 64);
  r = call("similar.find", json::Object{{"imageBase64", base64}});
  // The same PNG cut short is an error, not a search with a blank picture.
  const CallError refused = callError("similar.find", json::Object{{"imageBase64", cut}});
  EXPECT_EQ(refused.code, -32602);
  EXPECT_THAT(refused.what(), HasSubstr("cannot be decoded as an image (cannot decode the image"));
  const json::Array& byImage = r.at("matches").as_array();
  ASSERT_EQ(byImage.size(), 6u);
  EXPECT_EQ((std::set<std::string>{std::string(byImage[0].at("id").as_string()),
                                   std::string(byImage[1].at("id").as_string())}),
            (std::set<std::string>{a, copy}));

  // Hidden photos are left out.
  call("photo.hide", json::Object{{"ids", json::Array{copy}}, {"hidden", true}});
  r = call("similar.find", json::Object{{"id", a}});
  EXPECT_EQ(r.at("matches").as_array().size(), 4u);
  EXPECT_NE(r.at("matches").as_array()[0].at("id").as_string(), copy);
}

TEST_F(Content, ImportTakesGoodStagedFilesAndRefusesTheRest) {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  char date[16];
  std::strftime(date, sizeof date, "%Y-%m-%d", localtime_r(&now, &tm));
  const std::string day = libraryFile("Imported/") + date;
  writePhoto(day + "/IMG_1.jpg", {}); // taken: the import goes to IMG_1-2.jpg
  open();
  const std::string exchange = app().folders().exchange;
  const std::string good = exchange + "/" + core::Uuid::random().str() + "-IMG_1.jpg";
  const std::string bad = exchange + "/" + core::Uuid::random().str() + "-broken.jpg";
  const std::string outside = root_.path() + "/outside.jpg";
  const std::string link = exchange + "/link.jpg";
  writePhoto(good, {.red = 10});
  std::ofstream(bad) << "\xFF\xD8\xFF not really a JPEG";
  writePhoto(outside, {});
  fs::create_symlink(outside, link);
  const std::string escape = exchange + "/../../../outside.jpg";

  json::Value r =
      call("library.import",
           json::Object{{"paths", json::Array{good, bad, outside, link, escape, "relative.jpg"}}});
  ASSERT_EQ(r.at("importedIDs").as_array().size(), 1u);
  EXPECT_EQ(r.at("failed"), (json::Array{bad, outside, link, escape, "relative.jpg"}));
  EXPECT_EQ(idOf(day + "/IMG_1-2.jpg"), r.at("importedIDs").at(0).as_string());
  EXPECT_FALSE(fs::exists(bad));
  EXPECT_TRUE(fs::exists(outside));
}

TEST_F(Content, MoviesAreMadeOfVideosOnlyAndGradedOnCommit) {
  if (!writeClip(libraryFile("one.mp4"), 2, true) || !writeClip(libraryFile("two.mp4"), 1)) {
    GTEST_SKIP() << "ffmpeg is not installed";
  }
  writePhoto(libraryFile("still.jpg"), {});
  std::ofstream(libraryFile("broken.mov")) << "no movie";
  EXPECT_THROW(readMedia(libraryFile("broken.mov")), std::runtime_error);
  const MediaFacts turned = readMedia(libraryFile("one.mp4"));
  EXPECT_TRUE(turned.isVideo && turned.format == "MP4") << turned.format;
  EXPECT_NEAR(turned.durationSeconds, 2, 0.15);
  EXPECT_EQ(turned.width, 48);
  EXPECT_EQ(turned.height, 64);
  open();
  const std::string one = idOf(libraryFile("one.mp4")), two = idOf(libraryFile("two.mp4"));
  const std::string still = idOf(libraryFile("still.jpg"));

  json::Value reel = call(
      "movie.make", json::Object{{"ids", json::Array{one, still, two, "nope"}}, {"name", "Reel"}});
  EXPECT_EQ(reel.at("name"), "Reel");
  EXPECT_EQ(reel.at("clipCount"), 2);
  EXPECT_NEAR(reel.at("durationSeconds").to_number<double>(), 3, 0.2);
  EXPECT_EQ(callError("movie.make", json::Object{{"ids", json::Array{still}}}).code, -32602);
  // A video keeps a stack (its grade) but has no preview or export.
  for (const char* method : {"preview.render", "export.render"}) {
    EXPECT_THAT(callError(method, json::Object{{"id", one}}).what(), HasSubstr("is a video"));
  }
  EXPECT_EQ(call("movie.list").at("movies"), json::Array{reel});

  // video.commit: refused without the flag, then trims into a rendition.
  const json::Object trim{{"id", one}, {"startSeconds", 0.5}, {"endSeconds", 1.5}};
  EXPECT_THAT(callError("video.commit", trim).what(), HasSubstr("--allow-saving"));
  options_.allowSaving = true;
  open();
  for (const json::Object& bad :
       {json::Object{{"id", one}, {"endSeconds", 9.0}}, json::Object{{"id", still}}}) {
    SCOPED_TRACE(json::toCompact(bad));
    EXPECT_EQ(callError("video.commit", bad).code, -32602);
  }
  EXPECT_EQ(call("video.commit", trim), (json::Object{{"committed", true}, {"version", 0}}));
  std::vector<fs::path> renditions(fs::directory_iterator(app().folders().renditions), {});
  ASSERT_EQ(renditions.size(), 1u); // no temporary file left behind
  const ProcessResult probe =
      runProcess({"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0",
                  renditions[0].string()});
  EXPECT_NEAR(std::stod(probe.output), 1.0, 0.15);
  EXPECT_TRUE(
      call("photo.get", json::Object{{"id", one}}).at("photo").at("hasAdjustments").as_bool());

  // The stack's colour and tone kinds grade the clip: +1 EV brightens it, saturation -1 takes
  // its colour away (clarity is for stills and is left out). The frame at 0.5 s, before and
  // after: its mean brightness and its mean colourfulness (max - min channel per pixel).
  std::string stem = two;
  std::replace(stem.begin(), stem.end(), '/', '_');
  const std::string rendition = app().folders().renditions + "/" + stem + ".mp4";
  auto measure = [&] {
    EXPECT_EQ(call("video.commit", json::Object{{"id", two}}).at("committed"), true);
    const ProcessResult frame =
        runProcess({"ffmpeg", "-nostdin", "-loglevel", "error", "-ss", "0.5", "-i", rendition,
                    "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    const std::size_t pixels = frame.output.size() / 3;
    EXPECT_EQ(pixels, 64u * 48u);
    double brightness = 0, colourfulness = 0;
    for (std::size_t i = 0; i < pixels; ++i) {
      const auto* p = reinterpret_cast<const unsigned char*>(frame.output.data() + 3 * i);
      brightness += (p[0] + p[1] + p[2]) / 3.0;
      colourfulness += std::max({p[0], p[1], p[2]}) - std::min({p[0], p[1], p[2]});
    }
    return std::pair{brightness / double(pixels), colourfulness / double(pixels)};
  };
  const auto [brightBefore, colourBefore] = measure();
  call("edit.set",
       json::Object{{"id", two},
                    {"ops", json::Array{json::Object{{"kind", "exposure"}, {"scalar", 1.0}},
                                        json::Object{{"kind", "saturation"}, {"scalar", -1.0}},
                                        json::Object{{"kind", "clarity"}, {"scalar", 1.0}}}}});
  const auto [brightAfter, colourAfter] = measure();
  EXPECT_GT(brightAfter, brightBefore + 20);
  EXPECT_GT(colourBefore, 40);
  EXPECT_LT(colourAfter, 6);
}

} // namespace
} // namespace velko::app::testing
