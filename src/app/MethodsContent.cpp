// Methods that deal with the photos' files and content: importing staged files, moving photos
// to the trash, visual similarity, movie projects and trimming videos with ffmpeg.
#include "app/ChildProcess.h"
#include "app/FeaturePrint.h"
#include "files/FileMove.h"
#include "app/Library.h"
#include "app/Log.h"
#include "app/MethodError.h"
#include "app/Methods.h"
#include "app/PhotoData.h"
#include "app/RenderPipeline.h"
#include "core/Uuid.h"
#include "protocol/DeliveryRecords.h"
#include "protocol/LibraryRecords.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <glib.h>
#include <memory>
#include <mutex>
#include <sqlite3.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace velko::app {
namespace {

using namespace protocol;

constexpr std::int64_t kDefaultMatches = 10;
constexpr std::int64_t kMaxMatches = 100;
constexpr std::string_view kDeleteOff =
    "deleting photos is turned off; start velko-headless with --allow-delete to allow it";
constexpr std::string_view kSavingOff =
    "saving videos is turned off; start velko-headless with --allow-saving to allow it";

std::string baseName(const std::string& path) {
  return path.substr(path.find_last_of('/') + 1);
}

/// A file or folder name for a photo id: "<UUID>/L0/001" becomes "<UUID>_L0_001".
std::string idStem(std::string id) {
  std::replace(id.begin(), id.end(), '/', '_');
  if (id.empty() || id.front() == '.') {
    id.insert(0, "_");
  }
  return id;
}

/// Today in local time, as YYYY-MM-DD.
std::string localDate() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", &tm);
  return text;
}

// ---- similar.find ---------------------------------------------------------------------------

/// The bytes of a base64 text, or nothing when it is not base64. g_base64_decode skips what it
/// does not understand, so the alphabet and the padding are checked first.
std::optional<std::string> decodeBase64(std::string_view text) {
  std::string clean;
  clean.reserve(text.size());
  std::size_t padding = 0;
  for (unsigned char c : text) {
    if (std::isspace(c))
      continue;
    if (c == '=') {
      ++padding;
    } else if (padding > 0 || !(std::isalnum(c) || c == '+' || c == '/')) {
      return std::nullopt;
    }
    clean.push_back(static_cast<char>(c));
  }
  if (clean.empty() || padding > 2 || (padding > 0 && clean.size() % 4 != 0) ||
      clean.size() % 4 == 1) {
    return std::nullopt;
  }
  gsize size = 0;
  guchar* bytes = g_base64_decode(clean.c_str(), &size);
  std::string out(reinterpret_cast<const char*>(bytes), size);
  g_free(bytes);
  return out;
}

std::string queryPrintOfImage(std::string_view base64) {
  // A data URL ("data:image/png;base64,…") is taken for the data it carries.
  if (base64.starts_with("data:")) {
    const auto comma = base64.find(',');
    base64.remove_prefix(comma == std::string_view::npos ? base64.size() : comma + 1);
  }
  const auto bytes = decodeBase64(base64);
  if (!bytes) {
    throw MethodError::invalidParams("params.imageBase64 is not valid base64");
  }
  const bool png = bytes->starts_with("\x89PNG\r\n\x1a\n");
  const bool jpeg = bytes->starts_with("\xFF\xD8\xFF");
  if (!png && !jpeg) {
    throw MethodError::invalidParams("params.imageBase64 is not a PNG or JPEG image");
  }
  try {
    return featurePrintOfBytes(*bytes);
  } catch (const std::exception& e) {
    throw MethodError::invalidParams(
        std::string("params.imageBase64 cannot be decoded as an image (") + e.what() + ")");
  }
}

std::string queryPrintOfPhoto(App& app, const std::string& id) {
  std::string path;
  {
    auto a = app.catalog().access();
    auto s = a->prepare("SELECT print, path, is_video FROM photos WHERE id = ? AND state != 2");
    s->bind(1, id);
    if (!s->step()) {
      throw MethodError::noPhoto(id);
    }
    if (s->int64(2) != 0) {
      throw MethodError::invalidParams(id + " is a video; similar.find compares stills only");
    }
    if (!s->isNull(0) && s->blob(0).size() == kPrintSize) {
      return std::string(s->blob(0));
    }
    path = s->text(1);
  }
  // No print yet (the background pass has not reached it): make it now and keep it.
  std::string print;
  try {
    print = featurePrintOfFile(path);
  } catch (const std::exception& e) {
    throw MethodError::internal(std::string(e.what()) + "; check that the file is readable");
  }
  app.catalog().write([&](Database& db) {
    auto s = db.prepare("UPDATE photos SET print = ? WHERE id = ?");
    s->bindBlob(1, print).bind(2, id);
    s->run();
  });
  return print;
}

/// The stills similar.find compares against, in flat buffers. A full read of 100,000 rows
/// takes longer than a query may, so one read is kept until the catalogue's "similar"
/// generation moves: triggers move it on every change to a photo's print, state, visibility or
/// kind, and on every row added or removed, so ratings and edits leave the copy valid.
struct Candidates {
  sqlite3* connection = nullptr;
  std::int64_t generation = -1;
  std::int64_t dataVersion = -1;
  std::int64_t indexed = 0; ///< present photos with a print, hidden ones too
  std::string prints;       ///< kPrintSize bytes per candidate
  std::string idText;       ///< the ids, back to back
  std::vector<std::size_t> idEnds;

  std::string_view print(std::size_t i) const {
    return std::string_view(prints).substr(i * kPrintSize, kPrintSize);
  }
  std::string_view id(std::size_t i) const {
    const std::size_t begin = i == 0 ? 0 : idEnds[i - 1];
    return std::string_view(idText).substr(begin, idEnds[i] - begin);
  }
};

std::mutex candidatesMutex;
std::shared_ptr<const Candidates> cachedCandidates; // guarded by candidatesMutex

/// The candidates as the catalogue has them now; the caller holds the catalogue.
std::shared_ptr<const Candidates> currentCandidates(Database& db) {
  // A temporary table lives as long as the connection, so it tells a reopened catalogue
  // (at the same address, with the same counts) from the one the cache was read from.
  constexpr std::string_view kMarker = "velko_similar_cache";
  bool marked = false;
  {
    auto s = db.prepare("SELECT 1 FROM temp.sqlite_master WHERE name = ?");
    s->bind(1, kMarker);
    marked = s->step();
  }
  std::int64_t dataVersion = 0;
  {
    auto s = db.prepare("PRAGMA data_version");
    dataVersion = s->step() ? s->int64(0) : 0;
  }
  std::int64_t generation = 0;
  {
    auto s = db.prepare("SELECT value FROM generations WHERE name = 'similar'");
    generation = s->step() ? s->int64(0) : 0;
  }
  {
    std::lock_guard lock(candidatesMutex);
    if (marked && cachedCandidates && cachedCandidates->connection == db.handle() &&
        cachedCandidates->generation == generation && cachedCandidates->dataVersion == dataVersion) {
      return cachedCandidates;
    }
  }
  if (!marked) {
    db.exec("CREATE TEMP TABLE IF NOT EXISTS velko_similar_cache(unused)");
  }
  auto c = std::make_shared<Candidates>();
  c->connection = db.handle();
  c->generation = generation;
  c->dataVersion = dataVersion;
  auto s = db.prepare("SELECT id, print, hidden FROM photos WHERE state = 0 AND is_video = 0 AND "
                      "print IS NOT NULL");
  while (s->step()) {
    const std::string_view print = s->blob(1);
    ++c->indexed;
    if (print.size() != kPrintSize || s->int64(2) != 0) {
      continue;
    }
    c->prints.append(print);
    c->idText.append(s->text(0));
    c->idEnds.push_back(c->idText.size());
  }
  std::lock_guard lock(candidatesMutex);
  cachedCandidates = c;
  return c;
}

SimilarFindResult similarFind(App& app, const SimilarFindParams& p) {
  if (p.id.has_value() == p.imageBase64.has_value()) {
    throw MethodError::invalidParams(
        "similar.find needs exactly one of params.id and params.imageBase64");
  }
  const std::string query =
      p.id ? queryPrintOfPhoto(app, *p.id) : queryPrintOfImage(*p.imageBase64);
  const auto limit = static_cast<std::size_t>(
      std::clamp(p.limit.value_or(kDefaultMatches), std::int64_t{1}, kMaxMatches));

  std::shared_ptr<const Candidates> c;
  {
    auto a = app.catalog().access();
    c = currentCandidates(a.db());
  }
  // Distances are computed on the immutable snapshot, with the catalogue free for others.
  const std::size_t n = c->idEnds.size();
  std::vector<std::pair<double, std::size_t>> ranked(n);
  for (std::size_t i = 0; i < n; ++i) {
    ranked[i] = {printDistance(query, c->print(i)), i};
  }
  // One more than asked, in case the query photo itself is among them.
  const std::size_t k = std::min(limit + 1, n);
  std::partial_sort(ranked.begin(), ranked.begin() + static_cast<std::ptrdiff_t>(k), ranked.end());
  SimilarFindResult r;
  r.indexed = c->indexed;
  for (std::size_t j = 0; j < k && r.matches.size() < limit; ++j) {
    const std::string_view id = c->id(ranked[j].second);
    if (!p.id || id != *p.id) {
      r.matches.push_back({std::string(id), ranked[j].first});
    }
  }
  return r;
}

// ---- photo.delete ---------------------------------------------------------------------------

/// The photo changed while its file was being moved (another delete got there first).
struct DeleteRaced : std::runtime_error {
  DeleteRaced() : std::runtime_error("deleted meanwhile") {}
};

UpdatedResult deletePhotos(App& app, const DeleteParams& p) {
  if (!app.options().allowDelete) {
    throw MethodError::internal(std::string(kDeleteOff));
  }
  UpdatedResult r;
  for (const std::string& id : p.ids) {
    std::optional<std::string> original;
    {
      auto a = app.catalog().access();
      auto s = a->prepare("SELECT path FROM photos WHERE id = ? AND state = 0");
      s->bind(1, id);
      if (s->step()) {
        original = s->text(0);
      }
    }
    if (!original) {
      r.skipped.push_back(id);
      continue;
    }
    // The file moves first and the catalogue follows; a failed commit moves the file back.
    std::string trashed;
    try {
      trashed =
          files::moveIntoFolder(*original, app.folders().trash + "/" + idStem(id), baseName(*original));
    } catch (const std::system_error& e) {
      logLine("photo.delete left " + id + " in place: " + e.what());
      r.skipped.push_back(id);
      continue;
    }
    auto moveBack = [&] {
      try {
        files::moveFile(trashed, *original);
      } catch (const std::exception& e) {
        logLine("photo.delete could not put " + trashed + " back at " + *original + ": " +
                e.what());
      }
    };
    try {
      app.catalog().write([&](Database& db) {
        auto u = db.prepare("UPDATE photos SET state = 2 WHERE id = ? AND state != 2");
        u->bind(1, id);
        u->run();
        if (db.changes() == 0) {
          throw DeleteRaced();
        }
        auto t = db.prepare(
            "INSERT OR REPLACE INTO trash(photo_id, original_path, trash_path, deleted_at) "
            "VALUES (?, ?, ?, ?)");
        t->bindAll(id, *original, trashed, unixNow());
        t->run();
      });
    } catch (const DeleteRaced&) {
      moveBack();
      r.skipped.push_back(id);
      continue;
    } catch (...) {
      moveBack();
      throw;
    }
    ++r.updated;
  }
  return r;
}

// ---- library.import -------------------------------------------------------------------------

/// The real path of a regular file inside the exchange folder, or nothing: relative paths, NUL
/// bytes, `..` escapes and symbolic links that lead outside are all refused.
std::optional<std::string> stagedFile(const std::string& path, const std::string& exchange) {
  if (exchange.empty() || path.empty() || path.front() != '/' ||
      path.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  char resolved[PATH_MAX];
  if (!::realpath(path.c_str(), resolved)) {
    return std::nullopt;
  }
  const std::string real = resolved;
  struct stat st {};
  if (!real.starts_with(exchange + "/") || ::stat(real.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return std::nullopt;
  }
  return real;
}

/// The name the user gave the file: staging prefixes "<UUID>-" to keep copies apart.
std::string originalName(const std::string& stagedName) {
  constexpr std::size_t kUuidLength = 36;
  if (stagedName.size() > kUuidLength + 1 && stagedName[kUuidLength] == '-' &&
      core::Uuid::parse(std::string_view(stagedName).substr(0, kUuidLength))) {
    return stagedName.substr(kUuidLength + 1);
  }
  return stagedName;
}

ImportResult importAssets(App& app, const ImportParams& p) {
  ImportResult r;
  std::string exchange;
  if (char* real = ::realpath(app.folders().exchange.c_str(), nullptr)) {
    exchange = real;
    std::free(real);
  }
  const std::string dayFolder = app.options().library + "/Imported/" + localDate();
  for (const std::string& path : p.paths) {
    const auto staged = stagedFile(path, exchange);
    if (!staged) {
      logLine("library.import refused " + path + ": not a file in " + app.folders().exchange);
      r.failed.push_back(path);
      continue;
    }
    try {
      const std::string name = originalName(baseName(*staged));
      if (!formatOfName(name)) {
        throw std::runtime_error("not a supported photo or video type");
      }
      readMedia(*staged);
      const std::string placed = files::moveIntoFolder(*staged, dayFolder, name);
      try {
        r.importedIDs.push_back(app.library().addFile(placed));
      } catch (...) {
        files::moveFile(placed, *staged); // removed below with the other failures
        throw;
      }
      continue;
    } catch (const std::exception& e) {
      logLine("library.import could not import " + path + ": " + e.what());
    }
    r.failed.push_back(path);
    // The staged file is the tool's copy; the user's original is elsewhere.
    ::unlink(staged->c_str());
  }
  return r;
}

// ---- movie.make, movie.list -----------------------------------------------------------------

MovieInfo movieMake(App& app, const MovieMakeParams& p) {
  return app.catalog().write([&](Database& db) {
    std::vector<std::string> clips;
    MovieInfo m;
    for (const std::string& id : p.ids) {
      auto s =
          db.prepare("SELECT duration FROM photos WHERE id = ? AND is_video = 1 AND state != 2");
      s->bind(1, id);
      if (s->step()) {
        clips.push_back(id);
        m.durationSeconds += s->real(0);
      }
    }
    if (clips.empty()) {
      throw MethodError::invalidParams(
          "a movie needs at least one video: no id in params.ids names a video in the library");
    }
    m.id = core::Uuid::random().str();
    m.name = p.name && !p.name->empty() ? *p.name : "Movie " + localDate();
    m.clipCount = static_cast<std::int64_t>(clips.size());
    auto insert = db.prepare("INSERT INTO movies(id, name, created) VALUES (?, ?, ?)");
    insert->bindAll(m.id, m.name, unixNow());
    insert->run();
    for (std::size_t i = 0; i < clips.size(); ++i) {
      auto c = db.prepare("INSERT INTO movie_clips(movie_id, position, photo_id) VALUES (?, ?, ?)");
      c->bindAll(m.id, static_cast<std::int64_t>(i), clips[i]);
      c->run();
    }
    return m;
  });
}

MovieListResult movieList(App& app) {
  auto a = app.catalog().access();
  auto s = a->prepare(
      "SELECT m.id, m.name, count(c.photo_id), coalesce(sum(p.duration), 0) FROM movies m "
      "LEFT JOIN movie_clips c ON c.movie_id = m.id LEFT JOIN photos p ON p.id = c.photo_id "
      "GROUP BY m.rowid ORDER BY m.created DESC, m.rowid DESC");
  MovieListResult r;
  while (s->step()) {
    r.movies.push_back({s->text(0), s->text(1), s->int64(2), s->real(3)});
  }
  return r;
}

// ---- video.commit ---------------------------------------------------------------------------

std::string seconds(double t) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", t);
  return text;
}

/// The last lines of ffmpeg's error output, enough to say what went wrong.
std::string tailOf(const std::string& text, std::size_t max = 600) {
  std::string t = text;
  while (!t.empty() && std::isspace(static_cast<unsigned char>(t.back())))
    t.pop_back();
  return t.size() > max ? "…" + t.substr(t.size() - max) : t;
}

/// Whether a kind grades a video: those that change each pixel by its colour alone (develop,
/// tone, colour, grading), which a 3D lookup table reproduces. Geometry, neighbourhood kinds
/// (sharpening, noise reduction, clarity…), effects, looks, frames and masks are for stills.
bool gradesVideo(core::AdjustmentKind kind) {
  using K = core::AdjustmentKind;
  switch (kind) {
  case K::SharpenAmount: case K::SharpenRadius: case K::LuminanceNR: case K::ColorNR:
  case K::SharpenDetail: case K::DefringeAmount: case K::Clarity: case K::Dehaze:
  case K::Texture: case K::Rotation: case K::VignetteAmount: case K::VignetteMidpoint:
  case K::VignetteFeather: case K::GrainAmount: case K::GrainSize: case K::GrainRoughness:
  case K::Crop: case K::Straighten: case K::FlipHorizontal: case K::FlipVertical:
  case K::PerspectiveVertical: case K::PerspectiveHorizontal: case K::LensDistortion:
  case K::Lut: case K::LutIntensity: case K::FrameAspect: case K::FrameFitMode:
  case K::FrameColor: case K::FrameInset: case K::FrameInsetLinked: case K::FrameInsetTop:
  case K::FrameInsetBottom: case K::FrameInsetLeft: case K::FrameInsetRight:
    return false;
  default:
    return true;
  }
}

/// A .cube file (33³ entries) holding what the stack's grading kinds do to every colour,
/// computed by the same render pipeline as the stills; empty when they do nothing.
std::string videoGradeCube(core::EditStack stack) {
  constexpr int n = 33;
  stack.setMasks({});
  std::erase_if(stack.values, [](const auto& entry) { return !gradesVideo(entry.first); });
  if (stack.values.empty()) {
    return {};
  }
  // Red runs fastest, then green, then blue, as the format lists the table.
  std::vector<unsigned char> grid;
  grid.reserve(n * n * n * 3);
  for (int b = 0; b < n; ++b) {
    for (int g = 0; g < n; ++g) {
      for (int r = 0; r < n; ++r) {
        for (int c : {r, g, b}) {
          grid.push_back(static_cast<unsigned char>(std::lround(c * 255.0 / (n - 1))));
        }
      }
    }
  }
  const vips::VImage in =
      vips::VImage::new_from_memory(grid.data(), grid.size(), n * n, n, 3, VIPS_FORMAT_UCHAR)
          .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
  vips::VImage out = applyAdjustments(in, stack);
  if (out.get_image() == in.get_image()) {
    return {};
  }
  if (out.bands() == 1) {
    out = out.bandjoin({out, out});
  }
  out = out.colourspace(VIPS_INTERPRETATION_RGB16).extract_band(0, vips::VImage::option()->set("n", 3));
  std::size_t size = 0;
  void* pixels = out.cast(VIPS_FORMAT_USHORT).write_to_memory(&size);
  const auto* values = static_cast<const std::uint16_t*>(pixels);
  std::string cube = "LUT_3D_SIZE " + std::to_string(n) + "\n";
  char line[64];
  for (std::size_t i = 0; i + 2 < size / sizeof(std::uint16_t); i += 3) {
    std::snprintf(line, sizeof line, "%.6f %.6f %.6f\n", values[i] / 65535.0,
                  values[i + 1] / 65535.0, values[i + 2] / 65535.0);
    cube += line;
  }
  g_free(pixels);
  return cube;
}

/// A folder for scratch files whose path needs no escaping in an ffmpeg filter argument.
std::string plainTemporaryFolder() {
  std::error_code ec;
  const std::string dir = std::filesystem::temp_directory_path(ec).string();
  const bool plain = !ec && !dir.empty() && std::all_of(dir.begin(), dir.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '/' || c == '.' || c == '_' || c == '-';
  });
  return plain ? dir : "/tmp";
}

CommitResult videoCommit(App& app, const VideoCommitParams& p) {
  if (!app.options().allowSaving) {
    throw MethodError::internal(std::string(kSavingOff));
  }
  std::string source;
  double duration = 0;
  core::EditStack stack;
  {
    auto a = app.catalog().access();
    auto s = a->prepare("SELECT path, is_video, duration FROM photos WHERE id = ? AND state != 2");
    s->bind(1, p.id);
    if (!s->step()) {
      throw MethodError::noPhoto(p.id);
    }
    if (s->int64(1) == 0) {
      throw MethodError::invalidParams(
          p.id + " is not a video; video.commit trims videos (use edit.commit for stills)");
    }
    source = s->text(0);
    duration = s->real(2);
    stack = loadStack(a.db(), p.id);
  }
  const double start = p.startSeconds.value_or(0);
  const double end = p.endSeconds.value_or(duration);
  constexpr double kSlack = 1e-3; // durations are stored rounded
  if (!std::isfinite(start) || !std::isfinite(end) || start < 0 || start >= end ||
      (duration > 0 && end > duration + kSlack)) {
    throw MethodError::invalidParams(
        "the trim must satisfy 0 ≤ params.startSeconds < params.endSeconds ≤ " + seconds(duration) +
        " (the clip's duration in seconds)");
  }
  if (::access(source.c_str(), R_OK) != 0) {
    throw MethodError::internal("the file of " + p.id + " cannot be read (" + source +
                                "); is the library folder mounted?");
  }

  // ffmpeg writes a temporary file beside the rendition; it is renamed into place only when
  // ffmpeg succeeded, so a failure never leaves a partial rendition behind.
  const std::string target = app.folders().renditions + "/" + idStem(p.id) + ".mp4";
  std::string temp = app.folders().renditions + "/." + idStem(p.id) + "-XXXXXX.mp4";
  const int fd = ::mkostemps(temp.data(), 4, O_CLOEXEC);
  if (fd < 0) {
    throw MethodError::internal("cannot write in " + app.folders().renditions + ": " +
                                std::strerror(errno));
  }
  ::close(fd);
  // The grade is a lookup table made by the stills' pipeline, applied by ffmpeg's lut3d.
  std::string filters = "scale=trunc(iw/2)*2:trunc(ih/2)*2";
  std::string cubePath;
  if (const std::string cube = videoGradeCube(stack); !cube.empty()) {
    cubePath = plainTemporaryFolder() + "/velko-grade-XXXXXX.cube";
    const int cubeFd = ::mkostemps(cubePath.data(), 5, O_CLOEXEC);
    const bool written = cubeFd >= 0 && ::write(cubeFd, cube.data(), cube.size()) ==
                                            static_cast<ssize_t>(cube.size());
    if (cubeFd >= 0) {
      ::close(cubeFd);
    }
    if (!written) {
      const int e = errno;
      ::unlink(temp.c_str());
      if (cubeFd >= 0) {
        ::unlink(cubePath.c_str());
      }
      throw MethodError::internal("cannot write the video's grade to " + cubePath + ": " +
                                  std::strerror(e));
    }
    filters += ",lut3d=file=" + cubePath + ":interp=tetrahedral";
  }
  struct RemoveCube {
    const std::string& path;
    ~RemoveCube() {
      if (!path.empty()) {
        ::unlink(path.c_str());
      }
    }
  } removeCube{cubePath};
  // Input seeking with re-encoding cuts at the exact times, not at the nearest keyframes.
  const std::vector<std::string> argv = {"ffmpeg",
                                         "-nostdin",
                                         "-hide_banner",
                                         "-loglevel",
                                         "error",
                                         "-y",
                                         "-ss",
                                         seconds(start),
                                         "-to",
                                         seconds(end),
                                         "-i",
                                         source,
                                         "-map",
                                         "0:v:0",
                                         "-map",
                                         "0:a?",
                                         "-vf",
                                         filters,
                                         "-c:v",
                                         "libx264",
                                         "-preset",
                                         "veryfast",
                                         "-crf",
                                         "18",
                                         "-pix_fmt",
                                         "yuv420p",
                                         "-c:a",
                                         "aac",
                                         "-b:a",
                                         "192k",
                                         "-movflags",
                                         "+faststart",
                                         "-f",
                                         "mp4",
                                         temp};
  ProcessResult run;
  try {
    run = runProcess(argv);
  } catch (const ProgramNotFound&) {
    ::unlink(temp.c_str());
    throw MethodError::internal("ffmpeg is not installed; install Debian's ffmpeg package (apt "
                                "install ffmpeg) to commit videos");
  } catch (const std::exception& e) {
    ::unlink(temp.c_str());
    throw MethodError::internal(e.what());
  }
  if (run.exitStatus != 0) {
    ::unlink(temp.c_str());
    throw MethodError::internal("ffmpeg could not trim " + source + " (exit status " +
                                std::to_string(run.exitStatus) + "): " + tailOf(run.errors));
  }
  if (::rename(temp.c_str(), target.c_str()) != 0) {
    const int e = errno;
    ::unlink(temp.c_str());
    throw MethodError::internal("cannot write " + target + ": " + std::strerror(e));
  }
  return app.catalog().write([&](Database& db) {
    auto u = db.prepare("UPDATE photos SET has_adjustments = 1 WHERE id = ?");
    u->bind(1, p.id);
    u->run();
    auto s = db.prepare("SELECT stack_version FROM photos WHERE id = ?");
    s->bind(1, p.id);
    return CommitResult{true, s->step() ? s->int64(0) : 0};
  });
}

} // namespace

void addContentMethods(MethodTable& t) {
  t.add<IPCMethod::ImportAssets, &importAssets>();
  t.add<IPCMethod::Delete, &deletePhotos>();
  t.add<IPCMethod::SimilarFind, &similarFind>();
  t.add<IPCMethod::MovieMake, &movieMake>();
  t.add<IPCMethod::MovieList, &movieList>();
  t.add<IPCMethod::VideoCommit, &videoCommit>();
}

} // namespace velko::app
