#include "app/Library.h"

#include "app/AppFixture.h"
#include "app/Exif.h"
#include "core/Uuid.h"

#include <fstream>

namespace velko::app::testing {
namespace {

namespace fs = std::filesystem;

class LibraryScan : public AppFixture {
protected:
  ScanReport scan() { return app().library().scan(); }

  /// The first number of `sql` with `arg` bound to its parameter; -100 without a row.
  std::int64_t number(const std::string& sql, const std::string& arg) {
    auto a = app().catalog().access();
    auto s = a->prepare(sql);
    s->bind(1, arg);
    return s->step() ? s->int64(0) : -100;
  }
  /// A photo's `column` in the catalogue.
  std::int64_t field(const std::string& column, const std::string& id) {
    return number("SELECT " + column + " FROM photos WHERE id = ?", id);
  }
};

TEST(LibraryExif, MalformedBlocksGiveNoFacts) {
  for (std::string_view block : {std::string_view(""), std::string_view("Exif\0\0garbage", 13),
                                 std::string_view("\xff\xd8\xff\xe1\x00\x02", 6)}) {
    const ExifFacts f = parseExif(block);
    EXPECT_FALSE(f.captureTime || f.latitude || f.cameraMake || f.iso);
    EXPECT_EQ(f.orientation, 1);
  }
}

TEST_F(LibraryScan, ExifFactsReadBack) {
  const PhotoSpec dated{.width = 30,
                        .height = 20,
                        .dateTimeOriginal = "2021:07:04 18:30:15",
                        .make = "Acme",
                        .orientation = 8};
  const std::pair<const char*, PhotoSpec> cases[] = {
      {"north-east.jpg",
       {.dateTimeOriginal = "2021:07:04 18:30:15", .latitude = 48.8584, .longitude = 2.2945}},
      {"south-west.JPG", {.latitude = -33.8568, .longitude = -70.6483}},
      {"camera.jpeg",
       {.make = "Acme",
        .model = "X100",
        .lens = "23mm F2",
        .iso = 400,
        .exposureSeconds = 1.0 / 250,
        .fNumber = 5.6,
        .focalLength = 23}},
      {"p.png", dated},
      // libvips 8.14 writes no EXIF into TIFF, so a TIFF here only carries its orientation.
      {"t.tif", dated},
  };
  for (const auto& [name, shot] : cases) {
    SCOPED_TRACE(name);
    const bool exif = !std::string_view(name).ends_with(".tif");
    writePhoto(libraryFile(name), shot);
    const MediaFacts m = readMedia(libraryFile(name));
    EXPECT_EQ(m.format, formatOfName(name));
    EXPECT_FALSE(m.isVideo);
    EXPECT_EQ(m.captureTime, shot.dateTimeOriginal && exif
                                 ? std::optional<std::int64_t>(1625423415) // 2021-07-04T18:30:15Z
                                 : std::nullopt);
    EXPECT_NEAR(m.latitude.value_or(999), shot.latitude.value_or(999), 1e-6);
    EXPECT_NEAR(m.longitude.value_or(999), shot.longitude.value_or(999), 1e-6);
    EXPECT_EQ(m.cameraMake, exif ? shot.make : std::nullopt);
    EXPECT_EQ(m.cameraModel, shot.model);
    EXPECT_EQ(m.lens, shot.lens);
    EXPECT_EQ(m.iso, shot.iso);
    EXPECT_NEAR(m.shutterSeconds.value_or(999), shot.exposureSeconds.value_or(999), 1e-9);
    EXPECT_NEAR(m.aperture.value_or(999), shot.fNumber.value_or(999), 1e-9);
    EXPECT_NEAR(m.focalLengthMM.value_or(999), shot.focalLength.value_or(999), 1e-9);
    EXPECT_EQ(m.orientation, shot.orientation);
    const bool swapped = shot.orientation >= 5;
    EXPECT_EQ(m.width, swapped ? shot.height : shot.width);
    EXPECT_EQ(m.height, swapped ? shot.width : shot.height);
  }
  EXPECT_THROW(readMedia(libraryFile("none.jpg")), std::runtime_error);
}

TEST_F(LibraryScan, IdsSurviveReopenRenameMoveAndDeletion) {
  writePhoto(libraryFile("a.jpg"), {.dateTimeOriginal = "2020:01:01 10:00:00"});
  writePhoto(libraryFile("b.jpg"), {.red = 10, .dateTimeOriginal = "2020:01:02 10:00:00"});
  writePhoto(libraryFile("c.jpg"), {.red = 250, .dateTimeOriginal = "2020:01:03 10:00:00"});
  open();
  const std::vector<std::string> first = ids();
  ASSERT_EQ(first.size(), 3u);
  const auto uuid = core::Uuid::parse(first[0].substr(0, 36));
  ASSERT_TRUE(uuid);
  EXPECT_EQ(uuid->str() + "/L0/001", first[0]);
  const std::string c = first[0], b = first[1], a = first[2];
  call("photo.rate", json::Object{{"ids", json::Array{a, b}}, {"rating", 4}});

  fs::rename(libraryFile("a.jpg"), libraryFile("renamed.jpg"));
  fs::create_directories(libraryFile("sub"));
  fs::rename(libraryFile("b.jpg"), libraryFile("sub/b.jpg"));
  const std::string outside = root_.path() + "/c.jpg";
  fs::rename(libraryFile("c.jpg"), outside);
  ScanReport r = scan();
  EXPECT_EQ(r.moved, 2);
  EXPECT_EQ(r.added, 0);
  EXPECT_EQ(r.missing, 1);
  EXPECT_EQ(field("rating", a), 4);
  EXPECT_EQ(field("rating", b), 4);
  EXPECT_EQ(field("state", c), 1);
  EXPECT_EQ(ids(), (std::vector<std::string>{b, a}));
  EXPECT_EQ(number("SELECT count(*) FROM photo_text WHERE photo_text MATCH ?", "renamed"), 1);

  // Back from missing, then back from the trash, each time with its id.
  fs::rename(outside, libraryFile("c.jpg"));
  r = scan();
  EXPECT_EQ(r.moved, 1);
  EXPECT_EQ(field("state", c), 0);
  fs::rename(libraryFile("c.jpg"), outside);
  app().catalog().write([&](Database& db) {
    db.prepare("UPDATE photos SET state = 2 WHERE id = ?")->bindAll(c).run();
    db.prepare("INSERT INTO trash VALUES(?, ?, ?, 0)")
        ->bindAll(c, libraryFile("c.jpg"), outside)
        .run();
  });
  EXPECT_EQ(scan().missing, 0);
  fs::rename(outside, libraryFile("sub/c.jpg"));
  scan();
  EXPECT_EQ(field("state", c), 0);
  EXPECT_EQ(number("SELECT count(*) FROM trash WHERE photo_id = ?", c), 0);
  EXPECT_EQ(ids().size(), 3u);
}

TEST_F(LibraryScan, RescanReadsOnlyChangesSkipsWhatItCannotReadAndSurvivesAGoneFolder) {
  writePhoto(libraryFile("a.jpg"), {});
  writePhoto(libraryFile("deep/er/b.PNG"), {});
  std::ofstream(libraryFile("bad.jpg")) << "not a jpeg at all";
  std::ofstream(libraryFile("notes.txt")) << "text";
  std::ofstream(libraryFile("a.jpg.xmp")) << "sidecar";
  writePhoto(libraryFile(".hidden/h.jpg"), {});
  writePhoto(root_.path() + "/outside/o.jpg", {});
  fs::create_directory_symlink(root_.path() + "/outside", libraryFile("link"));
  open(false);
  ScanReport r = scan();
  EXPECT_EQ(r.added, 2);
  EXPECT_EQ(r.failed, 1);
  EXPECT_EQ(ids().size(), 2u);

  writePhoto(libraryFile("c.jpg"), {.red = 3});
  writePhoto(libraryFile("a.jpg"), {.width = 80});
  r = scan();
  EXPECT_EQ(r.added, 1);
  EXPECT_EQ(r.changed, 1);
  EXPECT_EQ(r.unchanged, 1);
  EXPECT_EQ(r.failed, 1); // still unreadable, and not logged again
  EXPECT_EQ(ids().size(), 3u);

  // A library folder that has gone (an unmounted disk) marks nothing missing.
  fs::rename(library_, library_ + "-away");
  EXPECT_FALSE(app().library().readable());
  EXPECT_EQ(scan().missing, 0);
  EXPECT_EQ(ids().size(), 3u);
  EXPECT_FALSE(call("system.ping").at("libraryAuthorized").as_bool());
  fs::rename(library_ + "-away", library_);
  EXPECT_EQ(scan().unchanged, 3);
}

} // namespace
} // namespace velko::app::testing
