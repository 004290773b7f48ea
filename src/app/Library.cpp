#include "app/Library.h"

#include "app/ChildProcess.h"
#include "app/Exif.h"
#include "app/FeaturePrint.h"
#include "app/Log.h"
#include "core/Uuid.h"
#include "json/Value.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>
#include <vips/vips8>
#include <xxhash.h>

namespace velko::app {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBatch = 500;                // rows per transaction
constexpr std::int64_t kFingerprintPart = 64 * 1024; // bytes hashed at each end of a file
constexpr std::int64_t kPrintBatch = 32;
constexpr std::int64_t kTiffExifLimit = 64 << 20; // TIFFs larger than this are read without EXIF
constexpr auto kProgressEvery = std::chrono::seconds(2);
constexpr auto kMinRescan = std::chrono::seconds(5);

std::string errorText(int error) { return std::error_code(error, std::generic_category()).message(); }

std::string fileName(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

std::string firstLine(std::string text) {
  text.resize(std::min(text.find('\n'), text.size()));
  return text;
}

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

/// A supported file found in the library folder.
struct FileStat {
  std::string path;
  std::int64_t size = 0;
  std::int64_t mtimeNs = 0;
};

std::int64_t mtimeNs(const struct stat& st) {
  return std::int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec;
}

std::optional<FileStat> statFile(const std::string& path) {
  struct stat st{};
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return std::nullopt;
  }
  return FileStat{path, st.st_size, mtimeNs(st)};
}

bool exists(const std::string& path) {
  struct stat st{};
  return ::stat(path.c_str(), &st) == 0;
}

void readAt(int fd, char* out, std::int64_t size, std::int64_t offset, const std::string& path) {
  while (size > 0) {
    const ssize_t n = ::pread(fd, out, static_cast<std::size_t>(size), offset);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      throw std::runtime_error("cannot read " + path + ": " + (n < 0 ? errorText(errno) : "it got shorter"));
    }
    out += n;
    size -= n;
    offset += n;
  }
}

/// XXH3 of the size and the first and last 64 KiB: cheap, and enough to tell a moved file
/// from a different one.
std::string fingerprintOf(const FileStat& f) {
  const int fd = ::open(f.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw std::runtime_error("cannot open " + f.path + ": " + errorText(errno));
  }
  const std::int64_t head = std::min(f.size, kFingerprintPart);
  const std::int64_t tail = f.size > kFingerprintPart ? std::min(f.size - kFingerprintPart, kFingerprintPart) : 0;
  std::string bytes(8 + head + tail, '\0');
  for (int i = 0; i < 8; ++i) {
    bytes[i] = static_cast<char>((static_cast<std::uint64_t>(f.size) >> (8 * i)) & 0xff);
  }
  try {
    readAt(fd, bytes.data() + 8, head, 0, f.path);
    readAt(fd, bytes.data() + 8 + head, tail, f.size - tail, f.path);
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::close(fd);
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx",
                static_cast<unsigned long long>(XXH3_64bits(bytes.data(), bytes.size())));
  return hex;
}

/// Days since 1970 from a civil date, and the seconds of a clock time, read as UTC.
std::optional<std::int64_t> utcSeconds(int y, int mo, int d, int h, int mi, int s) {
  using namespace std::chrono;
  const year_month_day day{year(y), month(static_cast<unsigned>(mo)), std::chrono::day(static_cast<unsigned>(d))};
  if (y < 1800 || !day.ok() || h < 0 || h > 23 || mi < 0 || mi > 59 || s < 0 || s > 60) {
    return std::nullopt;
  }
  return sys_days(day).time_since_epoch().count() * std::int64_t{86400} + h * 3600 + mi * 60 + s;
}

/// Up to `limit` bytes from the start of a file; empty when it cannot be read.
std::string readHead(const std::string& path, std::int64_t limit) {
  const auto f = statFile(path);
  const int fd = f ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) {
    return {};
  }
  std::string bytes(static_cast<std::size_t>(std::min(f->size, limit)), '\0');
  try {
    readAt(fd, bytes.data(), static_cast<std::int64_t>(bytes.size()), 0, path);
  } catch (const std::runtime_error&) {
    bytes.clear();
  }
  ::close(fd);
  return bytes;
}

// --- Stills -------------------------------------------------------------------------------

MediaFacts readStill(const std::string& path, const std::string& format) {
  try {
    // A source, not a file name: libvips caches loads by file name, and a changed file must be
    // read again. Only the header is read; no pixel is decoded.
    vips::VSource source = vips::VSource::new_from_file(path.c_str());
    vips::VImage image = vips::VImage::new_from_source(
        source, "", vips::VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL));
    MediaFacts m;
    m.format = format;
    m.width = image.width();
    m.height = image.height();
    std::string_view block;
    std::string tiff;
    if (image.get_typeof("exif-data") != 0) {
      // The length is known only once get_blob has run, so it is read in a second statement.
      std::size_t size = 0;
      const auto* data = static_cast<const char*>(image.get_blob("exif-data", &size));
      block = std::string_view(data, size);
    } else if (format == "TIFF") {
      // libvips 8.14 keeps a TIFF's EXIF directory to itself; the file is the EXIF structure.
      tiff = readHead(path, kTiffExifLimit);
      block = tiff;
    }
    if (!block.empty()) {
      ExifFacts e = parseExif(block);
      m.orientation = e.orientation;
      m.captureTime = e.captureTime;
      m.latitude = e.latitude;
      m.longitude = e.longitude;
      m.cameraMake = std::move(e.cameraMake);
      m.cameraModel = std::move(e.cameraModel);
      m.lens = std::move(e.lens);
      m.iso = e.iso;
      m.shutterSeconds = e.shutterSeconds;
      m.aperture = e.aperture;
      m.focalLengthMM = e.focalLengthMM;
    }
    // libvips' own orientation wins where it has one: for HEIF it already accounts for the
    // container's transforms, which libheif applies on decode.
    if (image.get_typeof("orientation") != 0) {
      const int o = image.get_int("orientation");
      m.orientation = o >= 1 && o <= 8 ? o : 1;
    }
    if (m.orientation >= 5) {
      std::swap(m.width, m.height);
    }
    return m;
  } catch (const vips::VError& e) {
    std::string why = e.what();
    while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) {
      why.pop_back();
    }
    throw std::runtime_error("cannot read " + path + ": " + firstLine(why));
  }
}

// --- Videos -------------------------------------------------------------------------------

const json::Object* objectAt(const json::Object* o, std::string_view key) {
  const json::Value* v = o ? o->if_contains(key) : nullptr;
  return v ? v->if_object() : nullptr;
}

/// A number ffprobe writes either as a JSON number or as a string.
std::optional<double> numberAt(const json::Object* o, std::string_view key) {
  const json::Value* v = o ? o->if_contains(key) : nullptr;
  if (!v) {
    return std::nullopt;
  }
  if (v->is_number()) {
    return v->to_number<double>();
  }
  if (const json::String* s = v->if_string()) {
    char* end = nullptr;
    const std::string text(*s);
    const double d = std::strtod(text.c_str(), &end);
    if (end != text.c_str() && std::isfinite(d)) {
      return d;
    }
  }
  return std::nullopt;
}

MediaFacts readVideo(const std::string& path, const std::string& format) {
  MediaFacts m;
  m.isVideo = true;
  m.format = format;
  ProcessResult r;
  try {
    r = runProcess({"ffprobe", "-v", "error", "-print_format", "json", "-show_format",
                    "-show_streams", path});
  } catch (const ProgramNotFound&) {
    static std::once_flag once;
    std::call_once(once, [] {
      logLine("ffprobe is not installed (Debian package ffmpeg): videos are catalogued without "
              "duration or size");
    });
    return m;
  }
  if (r.exitStatus != 0) {
    const std::string why = firstLine(r.errors);
    throw std::runtime_error("cannot read " + path + ": ffprobe " +
                             (why.empty() ? "failed" : "says: " + why));
  }
  json::Value probe;
  try {
    probe = json::parse(r.output);
  } catch (const std::exception& e) {
    throw std::runtime_error("cannot read " + path + ": ffprobe's report is not JSON: " + e.what());
  }
  const json::Object* top = probe.if_object();
  const json::Object* fmt = objectAt(top, "format");
  m.durationSeconds = std::max(0.0, numberAt(fmt, "duration").value_or(0));
  if (const json::Object* tags = objectAt(fmt, "tags")) {
    if (const json::Value* t = tags->if_contains("creation_time"); t && t->is_string()) {
      int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
      if (std::sscanf(std::string(t->get_string()).c_str(), "%d-%d-%dT%d:%d:%d", &y, &mo, &d, &h, &mi, &s) == 6) {
        m.captureTime = utcSeconds(y, mo, d, h, mi, s);
      }
    }
  }
  const json::Value* streams = top ? top->if_contains("streams") : nullptr;
  if (streams && streams->is_array()) {
    for (const json::Value& sv : streams->get_array()) {
      const json::Object* s = sv.if_object();
      const json::Value* type = s ? s->if_contains("codec_type") : nullptr;
      if (!type || !type->is_string() || type->get_string() != "video" ||
          numberAt(objectAt(s, "disposition"), "attached_pic").value_or(0) != 0) {
        continue; // audio, data, cover art
      }
      m.width = static_cast<std::int64_t>(numberAt(s, "width").value_or(0));
      m.height = static_cast<std::int64_t>(numberAt(s, "height").value_or(0));
      std::optional<double> rotation = numberAt(objectAt(s, "tags"), "rotate");
      if (const json::Value* side = s->if_contains("side_data_list"); side && side->is_array()) {
        for (const json::Value& d : side->get_array()) {
          if (auto rot = numberAt(d.if_object(), "rotation")) {
            rotation = rot;
          }
        }
      }
      if (rotation && std::llround(std::fabs(*rotation)) % 180 == 90) {
        std::swap(m.width, m.height);
      }
      break;
    }
  }
  return m;
}

// --- The catalogue side -------------------------------------------------------------------

struct Pending {
  FileStat file;
  std::string fingerprint;
  std::optional<MediaFacts> facts;
  std::string error;
};

/// Fingerprints and reads the files, two at a time: the machine this runs on has two cores.
void readPending(std::vector<Pending>& items) {
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    for (std::size_t i; (i = next++) < items.size();) {
      Pending& p = items[i];
      try {
        p.fingerprint = fingerprintOf(p.file);
        p.facts = readMedia(p.file.path);
      } catch (const std::exception& e) {
        p.error = e.what();
      }
    }
  };
  if (items.size() < 2) {
    work();
    return;
  }
  std::thread helper(work);
  work();
  helper.join();
}

/// Writes the facts of the file into the row `pk`, keeping a position the user set.
void updateRow(Database& db, std::int64_t pk, const FileStat& f, const std::string& fingerprint,
               const MediaFacts& m) {
  auto s = db.prepare(
      "UPDATE photos SET path = ?, size = ?, mtime_ns = ?, fingerprint = ?, state = 0, "
      "is_video = ?, format = ?, width = ?, height = ?, orientation = ?, created = ?, modified = ?, "
      "latitude = CASE WHEN user_location = 1 THEN latitude ELSE ? END, "
      "longitude = CASE WHEN user_location = 1 THEN longitude ELSE ? END, "
      "duration = ?, camera_make = ?, camera_model = ?, lens = ?, iso = ?, shutter = ?, "
      "aperture = ?, focal_length = ?, capture_date = ? WHERE pk = ?");
  const std::int64_t modified = f.mtimeNs / 1'000'000'000;
  s->bindAll(f.path, f.size, f.mtimeNs, fingerprint, m.isVideo, m.format, m.width, m.height,
             m.orientation, m.captureTime.value_or(modified), modified, m.latitude, m.longitude,
             m.durationSeconds, m.cameraMake, m.cameraModel, m.lens, m.iso, m.shutterSeconds,
             m.aperture, m.focalLengthMM, m.captureTime, pk);
  s->run();
}

/// Catalogues one read file: the row at its path, else a row whose file went away with the
/// same content (moved, or put back from the trash), else a new row. Returns the id.
std::string store(Database& db, const FileStat& f, const std::string& fingerprint,
                  const MediaFacts& m, ScanReport& report) {
  {
    auto s = db.prepare("SELECT pk, id FROM photos WHERE path = ? AND state = 0");
    s->bind(1, f.path);
    if (s->step()) {
      const std::int64_t pk = s->int64(0);
      std::string id = s->text(1);
      updateRow(db, pk, f, fingerprint, m);
      ++report.changed;
      return id;
    }
  }
  std::optional<std::int64_t> pk;
  std::string id, oldPath;
  bool trashed = false;
  {
    // Missing rows first; a trashed row only when no other row wants this file.
    auto s = db.prepare("SELECT pk, id, path, state FROM photos WHERE fingerprint = ? "
                        "ORDER BY state = 2, pk");
    s->bind(1, fingerprint);
    while (s->step()) {
      const auto state = static_cast<PhotoState>(s->int64(3));
      std::string path = s->text(2);
      if (state == PhotoState::Present && exists(path)) {
        continue; // a copy: both files stay, each with its own row
      }
      pk = s->int64(0);
      id = s->text(1);
      oldPath = std::move(path);
      trashed = state == PhotoState::Trashed;
      break;
    }
  }
  if (pk) {
    updateRow(db, *pk, f, fingerprint, m);
    if (trashed) {
      auto s = db.prepare("DELETE FROM trash WHERE photo_id = ?");
      s->bind(1, id);
      s->run();
    }
    if (fileName(oldPath) != fileName(f.path)) {
      auto s = db.prepare("UPDATE photo_text SET filename = ? WHERE rowid = ?");
      s->bindAll(fileName(f.path), *pk);
      s->run();
    }
    ++report.moved;
    return id;
  }
  id = core::Uuid::random().str() + "/L0/001";
  {
    auto s = db.prepare(
        "INSERT INTO photos(id, path, size, mtime_ns, fingerprint, state, is_video, format, "
        "width, height, orientation, created, modified, latitude, longitude, duration, "
        "camera_make, camera_model, lens, iso, shutter, aperture, focal_length, capture_date, "
        "added) VALUES(?, ?, ?, ?, ?, 0, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    const std::int64_t modified = f.mtimeNs / 1'000'000'000;
    s->bindAll(id, f.path, f.size, f.mtimeNs, fingerprint, m.isVideo, m.format, m.width,
               m.height, m.orientation, m.captureTime.value_or(modified), modified, m.latitude,
               m.longitude, m.durationSeconds, m.cameraMake, m.cameraModel, m.lens, m.iso,
               m.shutterSeconds, m.aperture, m.focalLengthMM, m.captureTime, nowSeconds());
    s->run();
  }
  auto s = db.prepare("INSERT INTO photo_text(rowid, filename, annotation) VALUES(?, ?, '')");
  s->bindAll(db.lastInsertRowid(), fileName(f.path));
  s->run();
  ++report.added;
  return id;
}

/// The supported files under a folder, without hidden entries or symlinked folders, and the
/// folders that could not be opened (their rows are left alone).
struct Walk {
  std::vector<FileStat> files;
  std::vector<std::string> unreadable;
  std::vector<std::string> reasons;
};

void walk(const std::string& dir, Walk& w) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) {
    w.unreadable.push_back(dir + "/");
    w.reasons.push_back(errorText(errno));
    return;
  }
  const int fd = ::dirfd(d);
  std::vector<std::string> folders;
  while (const dirent* e = ::readdir(d)) {
    const std::string name = e->d_name;
    if (name.empty() || name[0] == '.') {
      continue;
    }
    unsigned char type = e->d_type;
    struct stat st{};
    if (type == DT_UNKNOWN) {
      if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        continue;
      }
      type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISLNK(st.st_mode) ? DT_LNK : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
    }
    if (type == DT_DIR) {
      folders.push_back(dir + "/" + name);
      continue;
    }
    // Symlinked files count; symlinked folders are not followed (the check below drops them).
    if ((type != DT_REG && type != DT_LNK) || !formatOfName(name)) {
      continue;
    }
    if (::fstatat(fd, name.c_str(), &st, 0) != 0 || !S_ISREG(st.st_mode)) {
      continue;
    }
    w.files.push_back({dir + "/" + name, st.st_size, mtimeNs(st)});
  }
  ::closedir(d);
  for (const std::string& f : folders) {
    walk(f, w);
  }
}

std::string rootOf(const std::string& library) {
  std::string root = library;
  while (root.size() > 1 && root.back() == '/') {
    root.pop_back();
  }
  return root;
}

} // namespace

std::optional<std::string> formatOfName(const std::string& name) {
  const auto dot = name.find_last_of('.');
  if (dot == std::string::npos || name.find('/', dot) != std::string::npos) {
    return std::nullopt;
  }
  std::string ext = name.substr(dot + 1);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  static const std::pair<std::string_view, std::string_view> kFormats[] = {
      {"jpg", "JPEG"}, {"jpeg", "JPEG"}, {"png", "PNG"},   {"heic", "HEIC"}, {"heif", "HEIC"},
      {"tif", "TIFF"}, {"tiff", "TIFF"}, {"webp", "WebP"}, {"mp4", "MP4"},   {"mov", "MOV"},
      {"m4v", "M4V"}};
  for (const auto& [e, label] : kFormats) {
    if (ext == e) {
      return std::string(label);
    }
  }
  return std::nullopt;
}

MediaFacts readMedia(const std::string& path) {
  const auto format = formatOfName(fileName(path));
  if (!format) {
    throw std::runtime_error("cannot read " + path + ": not a supported photo or video (JPEG, PNG, "
                             "HEIC, TIFF, WebP, MP4, MOV, M4V)");
  }
  if (*format == "MP4" || *format == "MOV" || *format == "M4V") {
    return readVideo(path, *format);
  }
  return readStill(path, *format);
}

Library::Library(const Options& options, Catalog& catalog) : options_(options), catalog_(catalog) {}

Library::~Library() { stop(); }

bool Library::readable() const {
  DIR* d = ::opendir(options_.library.c_str());
  if (!d) {
    return false;
  }
  ::closedir(d);
  return true;
}

ScanReport Library::scan() {
  std::lock_guard scanning(scanMutex_);
  const auto start = Clock::now();
  const std::string root = rootOf(options_.library);
  ScanReport report;
  auto finish = [&] {
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return report;
  };
  if (DIR* d = ::opendir(root.c_str())) {
    ::closedir(d);
    std::lock_guard note(noteMutex_);
    if (unreadableLogged_) {
      logLine("the library folder " + root + " can be read again");
      unreadableLogged_ = false;
    }
  } else {
    // An unmounted disk or a folder renamed away: marking every photo missing would be wrong.
    const std::string why = errorText(errno);
    std::lock_guard note(noteMutex_);
    if (!unreadableLogged_) {
      logLine("the library folder " + root + " cannot be read (" + why +
              "); nothing is marked missing until it is back");
      unreadableLogged_ = true;
    }
    return finish();
  }

  Walk found;
  walk(root, found);
  {
    std::lock_guard note(noteMutex_);
    std::unordered_set<std::string> now(found.unreadable.begin(), found.unreadable.end());
    for (std::size_t i = 0; i < found.unreadable.size(); ++i) {
      if (unreadableFolders_.insert(found.unreadable[i]).second) {
        logLine("cannot read the folder " + found.unreadable[i] + " (" + found.reasons[i] +
                "); its photos keep their state until it can be read");
      }
    }
    std::erase_if(unreadableFolders_, [&](const std::string& f) { return !now.count(f); });
  }

  std::unordered_map<std::string, std::pair<std::int64_t, std::int64_t>> known;
  {
    auto a = catalog_.access();
    auto s = a->prepare("SELECT path, size, mtime_ns FROM photos WHERE state = 0");
    while (s->step()) {
      known.emplace(s->text(0), std::pair{s->int64(1), s->int64(2)});
    }
  }
  std::vector<const FileStat*> todo;
  {
    std::lock_guard note(noteMutex_);
    for (const FileStat& f : found.files) {
      const std::pair stamp{f.size, f.mtimeNs};
      if (auto k = known.find(f.path); k != known.end() && k->second == stamp) {
        ++report.unchanged;
      } else if (auto b = badFiles_.find(f.path); b != badFiles_.end() && b->second == stamp) {
        ++report.failed; // logged when it was first met
      } else {
        todo.push_back(&f);
      }
    }
  }

  auto lastProgress = start;
  bool longScan = false;
  for (std::size_t done = 0; done < todo.size() && !cancel_; ) {
    const std::size_t n = std::min(kBatch, todo.size() - done);
    std::vector<Pending> batch(n);
    for (std::size_t i = 0; i < n; ++i) {
      batch[i].file = *todo[done + i];
    }
    readPending(batch);
    catalog_.write([&](Database& db) {
      for (const Pending& p : batch) {
        if (p.facts) {
          store(db, p.file, p.fingerprint, *p.facts, report);
        }
      }
    });
    for (const Pending& p : batch) {
      if (!p.facts && exists(p.file.path)) {
        logLine(p.error + "; skipped");
        ++report.failed;
        std::lock_guard note(noteMutex_);
        badFiles_[p.file.path] = {p.file.size, p.file.mtimeNs};
      }
    }
    done += n;
    const auto now = Clock::now();
    if (now - lastProgress >= kProgressEvery && done < todo.size()) {
      const double elapsed = std::chrono::duration<double>(now - start).count();
      char line[256];
      std::snprintf(line, sizeof line, "indexing %s: %zu of %zu files read (%.0f/s), %zu left",
                    root.c_str(), done, todo.size(), done / elapsed, todo.size() - done);
      logLine(line);
      lastProgress = now;
      longScan = true;
    }
  }
  if (cancel_) {
    return finish();
  }

  // Rows whose file is gone. A file catalogued by addFile after the walk is still on disk, and
  // a folder that could not be opened keeps its rows as they were.
  if (readable()) {
    std::unordered_set<std::string> seen;
    seen.reserve(found.files.size());
    for (const FileStat& f : found.files) {
      seen.insert(f.path);
    }
    std::vector<std::pair<std::int64_t, std::string>> gone;
    {
      auto a = catalog_.access();
      auto s = a->prepare("SELECT pk, path FROM photos WHERE state = 0");
      while (s->step()) {
        std::string path = s->text(1);
        if (seen.count(path)) {
          continue;
        }
        const bool shadowed = std::any_of(found.unreadable.begin(), found.unreadable.end(),
                                          [&](const std::string& u) { return path.compare(0, u.size(), u) == 0; });
        if (!shadowed) {
          gone.emplace_back(s->int64(0), std::move(path));
        }
      }
    }
    for (std::size_t i = 0; i < gone.size(); i += kBatch) {
      catalog_.write([&](Database& db) {
        for (std::size_t j = i; j < std::min(gone.size(), i + kBatch); ++j) {
          const std::string& path = gone[j].second;
          const bool inside = path.compare(0, root.size() + 1, root + "/") == 0;
          if (inside && exists(path)) {
            continue;
          }
          auto s = db.prepare("UPDATE photos SET state = 1 WHERE pk = ? AND state = 0 AND path = ?");
          s->bindAll(gone[j].first, path);
          s->run();
          report.missing += db.changes();
        }
      });
    }
  }
  finish();
  if (longScan) {
    char line[256];
    std::snprintf(line, sizeof line, "indexed %s in %.1f s: %lld new, %lld changed, %lld moved, %lld missing, %lld skipped",
                  root.c_str(), report.seconds, static_cast<long long>(report.added),
                  static_cast<long long>(report.changed), static_cast<long long>(report.moved),
                  static_cast<long long>(report.missing), static_cast<long long>(report.failed));
    logLine(line);
  }
  return report;
}

std::string Library::addFile(const std::string& absolutePath) {
  const auto file = statFile(absolutePath);
  if (!file) {
    throw std::runtime_error("cannot add " + absolutePath + ": it is not a file");
  }
  const std::string fingerprint = fingerprintOf(*file);
  const MediaFacts facts = readMedia(absolutePath);
  ScanReport report;
  return catalog_.write(
      [&](Database& db) { return store(db, *file, fingerprint, facts, report); });
}

std::int64_t Library::printBatch(std::int64_t limit, std::int64_t& cursor, std::int64_t& made) {
  std::vector<std::pair<std::int64_t, std::string>> rows;
  {
    auto a = catalog_.access();
    auto s = a->prepare("SELECT pk, path FROM photos WHERE is_video = 0 AND state = 0 "
                        "AND print IS NULL AND pk > ? ORDER BY pk");
    s->bind(1, cursor);
    std::lock_guard note(noteMutex_);
    while (static_cast<std::int64_t>(rows.size()) < limit && s->step()) {
      cursor = s->int64(0);
      if (!printFailed_.count(cursor)) {
        rows.emplace_back(cursor, s->text(1));
      }
    }
  }
  std::vector<std::pair<std::int64_t, std::string>> prints;
  for (const auto& [pk, path] : rows) {
    if (cancel_) {
      break;
    }
    try {
      prints.emplace_back(pk, featurePrintOfFile(path));
    } catch (const std::exception& e) {
      std::lock_guard note(noteMutex_);
      printFailed_.insert(pk);
      if (!printFailureLogged_) {
        logLine(std::string("no feature print for some photos, similar.find will leave them out: ") + e.what());
        printFailureLogged_ = true;
      }
    }
  }
  if (!prints.empty()) {
    catalog_.write([&](Database& db) {
      for (const auto& [pk, bytes] : prints) {
        auto s = db.prepare("UPDATE photos SET print = ? WHERE pk = ? AND print IS NULL");
        s->bindBlob(1, bytes);
        s->bind(2, pk);
        s->run();
      }
    });
  }
  made += static_cast<std::int64_t>(prints.size());
  return static_cast<std::int64_t>(rows.size());
}

std::int64_t Library::makePrints(std::int64_t limit) {
  std::int64_t cursor = 0, made = 0;
  printBatch(limit, cursor, made);
  return made;
}

void Library::start() {
  if (thread_.joinable()) {
    return;
  }
  {
    std::lock_guard l(wakeMutex_);
    stopping_ = false;
  }
  cancel_ = false;
  thread_ = std::thread([this] { run(); });
}

void Library::stop() {
  {
    std::lock_guard l(wakeMutex_);
    stopping_ = true;
  }
  cancel_ = true;
  wake_.notify_all();
  if (thread_.joinable()) {
    thread_.join();
  }
  cancel_ = false;
}

void Library::run() {
  for (;;) {
    double seconds = 0;
    try {
      seconds = scan().seconds;
      std::int64_t cursor = 0, made = 0;
      while (!cancel_ && printBatch(kPrintBatch, cursor, made) > 0) {
      }
    } catch (const std::exception& e) {
      logLine(std::string("library scan failed, trying again later: ") + e.what());
    }
    // A slow scan is repeated less often, so rescans take at most a tenth of the time.
    const auto interval = std::max<std::chrono::milliseconds>(
        kMinRescan, std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 10'000)));
    std::unique_lock l(wakeMutex_);
    if (wake_.wait_for(l, interval, [this] { return stopping_; })) {
      return;
    }
  }
}

} // namespace velko::app
