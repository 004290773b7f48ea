// The application's library at scale: the first index of 10,000 small JPEGs with EXIF (headers,
// EXIF, fingerprints, ids), and library.list / library.query answered through the request path
// over a catalogue of 100,000 photos.
#include "app/AppFixture.h"
#include "app/Imaging.h"
#include "app/Library.h"
#include "app/Methods.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <filesystem>
#include <random>

namespace {

using namespace velko;
using app::testing::PhotoSpec;

constexpr int kFiles = 10'000;
constexpr int kRows = 100'000;

app::Options optionsIn(const std::string& root) {
  app::Options o;
  o.library = root + "/library";
  o.catalog = root + "/home/catalog.sqlite";
  o.luts = root + "/home/luts";
  return o;
}

void removeCatalog(const app::Options& o) {
  for (const char* suffix : {"", "-wal", "-shm", ".lock"}) {
    std::filesystem::remove(o.catalog + suffix);
  }
}

/// A library folder of small JPEGs with dates, positions and camera facts, made once.
const velko::testing::TempDir& photoLibrary() {
  static velko::testing::TempDir dir;
  static const bool made = [] {
    app::initImaging();
    std::mt19937 random(7);
    std::uniform_real_distribution<double> lat(-60, 70), lon(-180, 180);
    for (int i = 0; i < kFiles; ++i) {
      PhotoSpec shot;
      shot.width = 96;
      shot.height = 64;
      shot.red = static_cast<unsigned char>(i);
      shot.green = static_cast<unsigned char>(i >> 8);
      shot.blue = static_cast<unsigned char>(i * 7);
      char date[32];
      std::snprintf(date, sizeof date, "20%02d:%02d:%02d 12:%02d:%02d", 10 + i % 14, 1 + i % 12,
                    1 + i % 28, i % 60, (i / 60) % 60);
      shot.dateTimeOriginal = date;
      shot.latitude = lat(random);
      shot.longitude = lon(random);
      shot.make = "Acme";
      shot.model = "X100";
      shot.iso = 100 + i % 3200;
      shot.exposureSeconds = 1.0 / 250;
      shot.fNumber = 5.6;
      shot.focalLength = 23;
      shot.orientation = i % 10 == 0 ? 6 : 1;
      char name[64];
      std::snprintf(name, sizeof name, "/library/%03d/IMG_%05d.jpg", i / 500, i);
      app::testing::writePhoto(dir.path() + name, shot);
    }
    return true;
  }();
  (void)made;
  return dir;
}

void BM_FirstIndex(benchmark::State& state) {
  const app::Options options = optionsIn(photoLibrary().path());
  const app::Folders folders = app::Folders::forHome(photoLibrary().path() + "/home");
  for (auto _ : state) {
    state.PauseTiming();
    removeCatalog(options);
    state.ResumeTiming();
    app::App app(options, folders);
    const app::ScanReport r = app.library().scan();
    if (r.added != kFiles) {
      state.SkipWithError(("indexed " + std::to_string(r.added) + " files, not " + std::to_string(kFiles)).c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_FirstIndex)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

/// An App over a catalogue of 100,000 photos written straight into SQLite: dates over ten
/// years, a quarter of them around one city, and annotation text for the search.
app::App& bigCatalogue() {
  static velko::testing::TempDir dir;
  static std::unique_ptr<app::App> app = [] {
    std::filesystem::create_directories(dir.path() + "/library");
    std::filesystem::create_directories(dir.path() + "/home");
    auto a = std::make_unique<app::App>(optionsIn(dir.path()),
                                        app::Folders::forHome(dir.path() + "/home"));
    static const char* const kWords[] = {"beach", "sunset", "dog", "mountain", "city", "family",
                                         "birthday", "snow", "forest", "street", "portrait", "boat"};
    std::mt19937 random(11);
    std::uniform_real_distribution<double> lat(-60, 70), lon(-180, 180), near(-0.2, 0.2);
    std::uniform_int_distribution<std::int64_t> when(1'400'000'000, 1'715'000'000);
    std::uniform_int_distribution<int> word(0, std::size(kWords) - 1);
    a->catalog().write([&](app::Database& db) {
      for (int i = 0; i < kRows; ++i) {
        const bool city = i % 4 == 0;
        char id[64], path[64];
        std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d/L0/001", i);
        std::snprintf(path, sizeof path, "/photos/IMG_%06d.jpg", i);
        auto s = db.prepare(
            "INSERT INTO photos(id, path, size, mtime_ns, fingerprint, format, width, height, "
            "created, modified, latitude, longitude, camera_make, camera_model, iso, added) "
            "VALUES(?, ?, 100000, 0, ?, 'JPEG', 4000, 3000, ?, ?, ?, ?, 'Acme', 'X100', 200, 0)");
        const std::int64_t t = when(random);
        s->bindAll(id, path, std::to_string(i), t, t, city ? 48.8566 + near(random) : lat(random),
                   city ? 2.3522 + near(random) : lon(random));
        s->run();
        const std::string text = std::string(kWords[word(random)]) + " " + kWords[word(random)] +
                                 " " + kWords[word(random)] + " photo of the day";
        auto t2 = db.prepare("INSERT INTO photo_text(rowid, filename, annotation) VALUES(?, ?, ?)");
        t2->bindAll(db.lastInsertRowid(), std::string(path + 8), text);
        t2->run();
      }
    });
    a->catalog().access()->exec("ANALYZE");
    return a;
  }();
  return *app;
}

void runFrame(benchmark::State& state, const std::string& frame) {
  app::App& app = bigCatalogue();
  const std::string first = app::answer(app, frame);
  if (first.find("\"error\"") != std::string::npos) {
    state.SkipWithError(first.c_str());
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(app::answer(app, frame));
  }
}

void BM_ListFirstPage(benchmark::State& state) {
  runFrame(state, R"({"jsonrpc":"2.0","id":1,"method":"library.list","params":{"limit":100}})");
}
BENCHMARK(BM_ListFirstPage)->Unit(benchmark::kMillisecond);

void BM_QueryTextDateRadius(benchmark::State& state) {
  runFrame(state, R"({"jsonrpc":"2.0","id":1,"method":"library.query","params":{)"
                  R"("text":"beach","dateFrom":"2016-01-01T00:00:00Z","dateTo":"2021-12-31T23:59:59Z",)"
                  R"("latitude":48.8566,"longitude":2.3522,"radiusMeters":10000}})");
}
BENCHMARK(BM_QueryTextDateRadius)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
