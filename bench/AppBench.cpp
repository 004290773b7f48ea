// The application's library at scale, each benchmark at 10,000 and at 100,000 photos so that
// the growth between the two shows:
//
//  - the first index of a folder of small JPEGs with EXIF (headers, EXIF, fingerprints, ids),
//    and a rescan of the same folder with nothing changed;
//  - library.list pages, library.query with each filter alone and all together, similar.find
//    and annotate.pending, answered through the request path over a catalogue written straight
//    into SQLite (dates over ten years, a quarter of the photos around one city, ratings, flags,
//    favourites, edits, videos, annotation text for half of them and a feature print for every
//    still).
//
// The folders are generated once per size: a thousand distinct JPEGs made with the test
// fixture (dates, positions, camera facts), each written again with a short numbered trailer
// after its end-of-image marker, so every file is distinct in size, bytes and fingerprint
// while generating 100,000 of them stays quick. Decoders stop at the marker; the indexer reads
// headers and EXIF, which the trailer does not change.
#include "app/AppFixture.h"
#include "app/FeaturePrint.h"
#include "app/Imaging.h"
#include "app/Library.h"
#include "app/Methods.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

namespace {

using namespace velko;
using app::testing::PhotoSpec;

constexpr int kTemplates = 1'000;

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

/// The thousand distinct JPEGs every generated folder is made from, as bytes.
const std::vector<std::string>& templates() {
  static const std::vector<std::string> made = [] {
    app::initImaging();
    velko::testing::TempDir dir;
    std::vector<std::string> out;
    std::mt19937 random(7);
    std::uniform_real_distribution<double> lat(-60, 70), lon(-180, 180);
    for (int i = 0; i < kTemplates; ++i) {
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
      const std::string path = dir.path() + "/t.jpg";
      app::testing::writePhoto(path, shot);
      std::ifstream in(path, std::ios::binary);
      out.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return out;
  }();
  return made;
}

/// A library folder of `files` JPEGs in folders of 500, made once per size.
const std::string& photoLibrary(int files) {
  static std::map<int, std::unique_ptr<velko::testing::TempDir>> made;
  auto& dir = made[files];
  if (!dir) {
    dir = std::make_unique<velko::testing::TempDir>();
    const auto& shots = templates();
    for (int i = 0; i < files; ++i) {
      char folder[64], name[96];
      std::snprintf(folder, sizeof folder, "%s/library/%03d", dir->path().c_str(), i / 500);
      std::snprintf(name, sizeof name, "/IMG_%06d.jpg", i);
      if (i % 500 == 0) {
        std::filesystem::create_directories(folder);
      }
      std::ofstream out(std::string(folder) + name, std::ios::binary);
      out << shots[static_cast<std::size_t>(i % kTemplates)] << "velko" << i;
    }
  }
  return dir->path();
}

void BM_FirstIndex(benchmark::State& state) {
  const int files = static_cast<int>(state.range(0));
  const std::string& root = photoLibrary(files);
  const app::Options options = optionsIn(root);
  for (auto _ : state) {
    state.PauseTiming();
    removeCatalog(options);
    state.ResumeTiming();
    app::App app(options, app::Folders::forHome(root + "/home"));
    const app::ScanReport r = app.library().scan();
    if (r.added != files) {
      state.SkipWithError(("indexed " + std::to_string(r.added) + " files").c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * files);
}
BENCHMARK(BM_FirstIndex)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_RescanUnchanged(benchmark::State& state) {
  const int files = static_cast<int>(state.range(0));
  const std::string& root = photoLibrary(files);
  const app::Options options = optionsIn(root);
  removeCatalog(options);
  app::App app(options, app::Folders::forHome(root + "/home"));
  app.library().scan();
  for (auto _ : state) {
    const app::ScanReport r = app.library().scan();
    if (r.unchanged != files) {
      state.SkipWithError(("rescan found " + std::to_string(r.unchanged) + " unchanged").c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * files);
}
BENCHMARK(BM_RescanUnchanged)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond)->UseRealTime();

/// An App over a catalogue of `rows` photos written straight into SQLite, made once per size.
app::App& catalogue(int rows) {
  static std::map<int, std::pair<std::unique_ptr<velko::testing::TempDir>, std::unique_ptr<app::App>>> made;
  auto& entry = made[rows];
  if (entry.second) {
    return *entry.second;
  }
  entry.first = std::make_unique<velko::testing::TempDir>();
  const std::string root = entry.first->path();
  std::filesystem::create_directories(root + "/library");
  std::filesystem::create_directories(root + "/home");
  entry.second = std::make_unique<app::App>(optionsIn(root), app::Folders::forHome(root + "/home"));
  static const char* const kWords[] = {"beach", "sunset", "dog", "mountain", "city", "family",
                                       "birthday", "snow", "forest", "street", "portrait", "boat"};
  std::mt19937 random(11);
  std::uniform_real_distribution<double> lat(-60, 70), lon(-180, 180), near(-0.2, 0.2);
  std::uniform_int_distribution<std::int64_t> when(1'400'000'000, 1'715'000'000);
  std::uniform_int_distribution<int> word(0, std::size(kWords) - 1), byte(0, 255);
  entry.second->catalog().write([&](app::Database& db) {
    auto photo = db.prepare(
        "INSERT INTO photos(id, path, size, mtime_ns, fingerprint, format, width, height, "
        "created, modified, latitude, longitude, camera_make, camera_model, iso, added, rating, "
        "flag, favorite, has_adjustments, stack_version, is_video, annotation, print) "
        "VALUES(?, ?, 100000, 0, ?, 'JPEG', 4000, 3000, ?, ?, ?, ?, 'Acme', 'X100', 200, 0, ?, "
        "?, ?, ?, ?, ?, ?, ?)");
    auto text = db.prepare("INSERT INTO photo_text(rowid, filename, annotation) VALUES(?, ?, ?)");
    std::string print(app::kPrintSize, '\0');
    for (int i = 0; i < rows; ++i) {
      const bool city = i % 4 == 0;
      const bool video = i % 50 == 0;
      const bool annotated = i % 2 == 0;
      char id[64], path[64];
      std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d/L0/001", i);
      std::snprintf(path, sizeof path, "/photos/IMG_%06d.jpg", i);
      const std::int64_t t = when(random);
      const std::string words = std::string(kWords[word(random)]) + " " + kWords[word(random)] +
                                " " + kWords[word(random)] + " photo of the day";
      print[0] = 1;
      for (std::size_t b = 1; b < print.size(); ++b) {
        print[b] = static_cast<char>(byte(random));
      }
      photo->reset();
      photo->bindAll(id, path, std::to_string(i), t, t, city ? 48.8566 + near(random) : lat(random),
                     city ? 2.3522 + near(random) : lon(random), std::int64_t{i % 6},
                     std::int64_t{i % 7 == 0 ? 1 : (i % 11 == 0 ? -1 : 0)},
                     std::int64_t{i % 13 == 0}, std::int64_t{i % 9 == 0},
                     std::int64_t{i % 9 == 0 ? 1 : 0}, std::int64_t{video});
      if (annotated) {
        photo->bind(14, R"({"caption":")" + words + R"("})");
      } else {
        photo->bindNull(14);
      }
      if (video) {
        photo->bindNull(15);
      } else {
        photo->bindBlob(15, print);
      }
      photo->run();
      text->reset();
      text->bindAll(db.lastInsertRowid(), std::string(path + 8), annotated ? words : std::string());
      text->run();
    }
  });
  entry.second->catalog().access()->exec("ANALYZE");
  return *entry.second;
}

void runFrame(benchmark::State& state, const std::string& params, const std::string& method) {
  app::App& app = catalogue(static_cast<int>(state.range(0)));
  const std::string frame =
      R"({"jsonrpc":"2.0","id":1,"method":")" + method + R"(","params":)" + params + "}";
  const std::string first = app::answer(app, frame);
  if (first.find("\"error\"") != std::string::npos) {
    state.SkipWithError(first.c_str());
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(app::answer(app, frame));
  }
}

#define VELKO_AT_SCALE(name) BENCHMARK(name)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond)

void BM_ListFirstPage(benchmark::State& state) {
  runFrame(state, R"({"limit":100})", "library.list");
}
VELKO_AT_SCALE(BM_ListFirstPage);

void BM_ListMiddlePage(benchmark::State& state) {
  runFrame(state, R"({"limit":100,"cursor":)" + std::to_string(state.range(0) / 2) + "}", "library.list");
}
VELKO_AT_SCALE(BM_ListMiddlePage);

// library.query with each filter alone, then all of them together.
const std::map<std::string, std::string> kFilters = {
    {"date", R"("dateFrom":"2016-01-01T00:00:00Z","dateTo":"2016-12-31T23:59:59Z")"},
    {"radius", R"("latitude":48.8566,"longitude":2.3522,"radiusMeters":10000)"},
    {"minRating", R"("minRating":5)"},
    {"flag", R"("flag":"pick")"},
    {"editedOnly", R"("editedOnly":true)"},
    {"videoOnly", R"("videoOnly":true)"},
    {"favoritesOnly", R"("favoritesOnly":true)"},
    {"text", R"("text":"beach sunset")"},
    {"all", R"("dateFrom":"2012-01-01T00:00:00Z","dateTo":"2024-12-31T23:59:59Z",)"
            R"("latitude":48.8566,"longitude":2.3522,"radiusMeters":50000,"minRating":1,)"
            R"("flag":"pick","editedOnly":false,"videoOnly":false,"text":"beach")"},
};

void BM_Query(benchmark::State& state, const std::string& filter) {
  runFrame(state, "{" + kFilters.at(filter) + "}", "library.query");
}
BENCHMARK_CAPTURE(BM_Query, date, "date")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, radius, "radius")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, minRating, "minRating")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, flag, "flag")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, editedOnly, "editedOnly")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, videoOnly, "videoOnly")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, favoritesOnly, "favoritesOnly")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, text, "text")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, all, "all")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

/// similar.find by id, the candidates already read (the catalogue has not changed since).
void BM_SimilarFind(benchmark::State& state) {
  runFrame(state, R"({"id":"00000000-0000-4000-8000-000000000001/L0/001","limit":20})", "similar.find");
}
VELKO_AT_SCALE(BM_SimilarFind);

/// similar.find after a change to the catalogue: a rating leaves the prints read before valid;
/// hiding a photo changes the candidates, so they are read again from the catalogue.
void similarAfter(benchmark::State& state, const std::string& change, const char* const values[2]) {
  app::App& app = catalogue(static_cast<int>(state.range(0)));
  const std::string find =
      R"({"jsonrpc":"2.0","id":1,"method":"similar.find","params":{"id":"00000000-0000-4000-8000-000000000001/L0/001","limit":20}})";
  app::answer(app, find);
  std::int64_t n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    app::answer(app, R"({"jsonrpc":"2.0","id":1,"method":")" + change + values[++n % 2] + "}}");
    state.ResumeTiming();
    benchmark::DoNotOptimize(app::answer(app, find));
  }
}
void BM_SimilarFindAfterRating(benchmark::State& state) {
  static const char* const kRatings[2] = {"2", "4"};
  similarAfter(state, R"(photo.rate","params":{"ids":["00000000-0000-4000-8000-000000000003/L0/001"],"rating":)", kRatings);
}
VELKO_AT_SCALE(BM_SimilarFindAfterRating);
void BM_SimilarFindAfterHiding(benchmark::State& state) {
  static const char* const kHidden[2] = {"false", "true"};
  similarAfter(state, R"(photo.hide","params":{"ids":["00000000-0000-4000-8000-000000000003/L0/001"],"hidden":)", kHidden);
}
VELKO_AT_SCALE(BM_SimilarFindAfterHiding);

void BM_AnnotatePending(benchmark::State& state) {
  runFrame(state, R"({"limit":20})", "annotate.pending");
}
VELKO_AT_SCALE(BM_AnnotatePending);

} // namespace

BENCHMARK_MAIN();
