#include "app/Catalog.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <sqlite3.h>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace velko::app {
namespace {

// Each entry takes the schema from the version before it to its own number; entries are never
// edited once released, only appended.
constexpr std::string_view kMigrations[] = {
    // 1: the first schema.
    R"sql(
CREATE TABLE photos(
  pk INTEGER PRIMARY KEY,
  id TEXT NOT NULL UNIQUE,
  path TEXT NOT NULL, -- absolute
  size INTEGER NOT NULL,
  mtime_ns INTEGER NOT NULL,
  fingerprint TEXT NOT NULL,
  state INTEGER NOT NULL DEFAULT 0,
  is_video INTEGER NOT NULL DEFAULT 0,
  format TEXT,
  width INTEGER NOT NULL DEFAULT 0,
  height INTEGER NOT NULL DEFAULT 0,
  orientation INTEGER NOT NULL DEFAULT 1,
  created INTEGER,
  modified INTEGER,
  latitude REAL,
  longitude REAL,
  user_location INTEGER NOT NULL DEFAULT 0,
  duration REAL NOT NULL DEFAULT 0,
  camera_make TEXT, camera_model TEXT, lens TEXT, iso INTEGER,
  shutter REAL, aperture REAL, focal_length REAL, capture_date INTEGER,
  rating INTEGER NOT NULL DEFAULT 0,
  flag INTEGER NOT NULL DEFAULT 0,
  label INTEGER NOT NULL DEFAULT 0,
  favorite INTEGER NOT NULL DEFAULT 0,
  hidden INTEGER NOT NULL DEFAULT 0,
  has_adjustments INTEGER NOT NULL DEFAULT 0,
  stack TEXT,
  stack_version INTEGER NOT NULL DEFAULT 0,
  annotation TEXT,
  annotation_model TEXT,
  print BLOB,
  added INTEGER NOT NULL
);
CREATE UNIQUE INDEX photos_path ON photos(path) WHERE state = 0;
CREATE INDEX photos_fingerprint ON photos(fingerprint);
CREATE INDEX photos_created ON photos(created DESC, pk DESC);
CREATE INDEX photos_location ON photos(latitude, longitude, created);
CREATE VIRTUAL TABLE photo_text USING fts5(filename, annotation,
  tokenize = 'unicode61 remove_diacritics 2');
CREATE TABLE view_state(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE groups(
  id TEXT PRIMARY KEY,
  kind INTEGER NOT NULL,
  name TEXT NOT NULL,
  parent_id TEXT REFERENCES groups(id) ON DELETE SET NULL,
  created INTEGER NOT NULL
);
CREATE INDEX groups_name ON groups(kind, name);
CREATE TABLE group_members(
  group_id TEXT NOT NULL REFERENCES groups(id) ON DELETE CASCADE,
  photo_id TEXT NOT NULL,
  position INTEGER NOT NULL,
  PRIMARY KEY(group_id, photo_id)
);
CREATE INDEX group_members_photo ON group_members(photo_id);
CREATE TABLE snapshots(
  photo_id TEXT NOT NULL,
  name TEXT NOT NULL,
  stack TEXT NOT NULL,
  created INTEGER NOT NULL,
  PRIMARY KEY(photo_id, name)
);
CREATE TABLE movies(id TEXT PRIMARY KEY, name TEXT NOT NULL, created INTEGER NOT NULL);
CREATE TABLE movie_clips(
  movie_id TEXT NOT NULL REFERENCES movies(id) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  photo_id TEXT NOT NULL,
  PRIMARY KEY(movie_id, position)
);
CREATE TABLE trash(
  photo_id TEXT PRIMARY KEY,
  original_path TEXT NOT NULL,
  trash_path TEXT NOT NULL,
  deleted_at INTEGER NOT NULL
);
)sql",
    // 2: the grid's order with the cheap filters and the id beside it, over the rows the grid
    // shows, so a deep page or a rare filter walks this index alone and never reads the rows it
    // skips. It replaces the plain date index, which SQLite would otherwise prefer.
    R"sql(
DROP INDEX photos_created;
CREATE INDEX photos_listing ON photos(created DESC, pk DESC, is_video, rating, flag, favorite,
  has_adjustments, stack_version, id) WHERE state = 0 AND hidden = 0;
-- A generation that moves whenever the stills similar.find compares could have changed, and on
-- nothing else (a rating, an edit), so its in-memory copy of the prints outlives those.
CREATE TABLE generations(name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;
INSERT INTO generations VALUES('similar', 0);
CREATE TRIGGER similar_insert AFTER INSERT ON photos BEGIN
  UPDATE generations SET value = value + 1 WHERE name = 'similar';
END;
CREATE TRIGGER similar_delete AFTER DELETE ON photos BEGIN
  UPDATE generations SET value = value + 1 WHERE name = 'similar';
END;
CREATE TRIGGER similar_update AFTER UPDATE OF id, print, state, hidden, is_video ON photos BEGIN
  UPDATE generations SET value = value + 1 WHERE name = 'similar';
END;
)sql",
};

// Great-circle distance in metres between two points in decimal degrees (haversine).
void distanceFunction(sqlite3_context* ctx, int, sqlite3_value** argv) {
  for (int i = 0; i < 4; ++i) {
    if (sqlite3_value_type(argv[i]) == SQLITE_NULL) {
      sqlite3_result_null(ctx);
      return;
    }
  }
  constexpr double kRad = M_PI / 180, kEarthMetres = 6'371'008.8;
  const double lat1 = sqlite3_value_double(argv[0]) * kRad, lon1 = sqlite3_value_double(argv[1]) * kRad;
  const double lat2 = sqlite3_value_double(argv[2]) * kRad, lon2 = sqlite3_value_double(argv[3]) * kRad;
  const double a = std::pow(std::sin((lat2 - lat1) / 2), 2) +
                   std::cos(lat1) * std::cos(lat2) * std::pow(std::sin((lon2 - lon1) / 2), 2);
  sqlite3_result_double(ctx, 2 * kEarthMetres * std::asin(std::min(1.0, std::sqrt(a))));
}

json::Date fromSeconds(std::int64_t s) { return json::Date(std::chrono::seconds(s)); }

} // namespace

core::PhotoSummary readSummary(const Statement& s, int c) {
  core::PhotoSummary p;
  p.id = s.text(c);
  p.pixelWidth = s.int64(c + 1);
  p.pixelHeight = s.int64(c + 2);
  if (auto v = s.optInt64(c + 3)) {
    p.creationDate = fromSeconds(*v);
  }
  if (auto v = s.optInt64(c + 4)) {
    p.modificationDate = fromSeconds(*v);
  }
  p.formatLabel = s.optText(c + 5);
  p.latitude = s.optReal(c + 6);
  p.longitude = s.optReal(c + 7);
  p.isFavorite = s.int64(c + 8) != 0;
  p.isHidden = s.int64(c + 9) != 0;
  p.durationSeconds = s.real(c + 10);
  const bool video = s.int64(c + 11) != 0;
  p.playbackStyle = video ? core::PhotoPlaybackStyle::Video : core::PhotoPlaybackStyle::Image;
  p.sourceType = core::PhotoSourceType::UserLibrary;
  p.canEditContent = !video;
  p.canEditProperties = true;
  p.canDelete = true;
  p.hasAdjustments = s.int64(c + 12) != 0;
  return p;
}

Catalog::Catalog(const std::string& file) : file_(file) {
  // A second process on the same catalogue would race this one's scans and view state, so
  // only one may hold it.
  const std::string lockPath = file + ".lock";
  lockFd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lockFd_ < 0) {
    throw StoreError(0, "cannot create " + lockPath + ": " + std::strerror(errno));
  }
  if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
    ::close(lockFd_);
    lockFd_ = -1;
    throw StoreError(5, "the catalogue " + file +
                            " is in use by another velko-headless; quit that one first or pass "
                            "--catalog with another file");
  }
  db_ = std::make_unique<Database>(file);
  db_->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;");
  sqlite3_busy_timeout(db_->handle(), 5000);
  check(db_->handle(),
        sqlite3_create_function(db_->handle(), "velko_distance", 4,
                                SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr, distanceFunction,
                                nullptr, nullptr),
        "registering velko_distance");
  migrate();
}

Catalog::~Catalog() {
  db_.reset();
  if (lockFd_ >= 0) {
    ::close(lockFd_);
  }
}

void Catalog::migrate() {
  std::int64_t version = 0;
  {
    auto s = db_->prepare("PRAGMA user_version");
    if (s->step()) {
      version = s->int64(0);
    }
  }
  constexpr auto kLatest = static_cast<std::int64_t>(std::size(kMigrations));
  static_assert(std::size(kMigrations) == kSchemaVersion);
  if (version > kLatest) {
    throw StoreError(0, "the catalogue " + file_ + " was written by a newer velko-headless (schema " +
                            std::to_string(version) + ")");
  }
  for (; version < kLatest; ++version) {
    Transaction tx(*db_);
    db_->exec(kMigrations[version]);
    db_->exec("PRAGMA user_version = " + std::to_string(version + 1));
    tx.commit();
  }
}

std::vector<core::PhotoSummary> summariesOf(Database& db, const std::vector<std::string>& ids) {
  static const std::string sql =
      "SELECT " + std::string(kSummaryColumns) + " FROM photos p WHERE p.id = ? AND p.state != 2";
  std::vector<core::PhotoSummary> out;
  out.reserve(ids.size());
  for (const std::string& id : ids) {
    auto s = db.prepare(sql);
    s->bind(1, id);
    if (s->step()) {
      out.push_back(readSummary(*s));
    }
  }
  return out;
}

bool photoExists(Database& db, std::string_view id) {
  auto s = db.prepare("SELECT 1 FROM photos WHERE id = ? AND state != 2");
  s->bind(1, id);
  return s->step();
}

} // namespace velko::app
