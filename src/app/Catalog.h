// The catalogue: one SQLite database in WAL mode holding every photo the library scan found,
// with the user's ratings, flags, labels, groups, edit stacks, snapshots, annotations and the
// application's view state. One connection serves the process; callers take it under a lock,
// and every change runs in one transaction that commits before the caller replies.
#pragma once

#include "app/Sqlite.h"
#include "core/PhotoSummary.h"

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace velko::app {

/// Catalogue columns of a photo, in the order readSummary expects; prefix "p." names the table.
inline constexpr std::string_view kSummaryColumns =
    "p.id, p.width, p.height, p.created, p.modified, p.format, p.latitude, p.longitude, "
    "p.favorite, p.hidden, p.duration, p.is_video, p.has_adjustments";
inline constexpr int kSummaryColumnCount = 13;

/// The summary of the photo whose columns start at `first` (see kSummaryColumns).
core::PhotoSummary readSummary(const Statement& s, int first = 0);

/// Photo states: present in the library folder, not found at the last scan, or moved to trash.
enum class PhotoState : int { Present = 0, Missing = 1, Trashed = 2 };

class Catalog {
public:
  static constexpr int kSchemaVersion = 2;

  /// Opens or creates the catalogue, takes its lock file (refusing when another process holds
  /// it) and brings the schema up to date. Throws StoreError.
  explicit Catalog(const std::string& file);
  ~Catalog();
  Catalog(const Catalog&) = delete;
  Catalog& operator=(const Catalog&) = delete;

  /// The connection, held for the life of the returned lock.
  class Access {
  public:
    Access(std::mutex& m, Database& db) : lock_(m), db_(db) {}
    Database& db() const { return db_; }
    Database* operator->() const { return &db_; }

  private:
    std::unique_lock<std::mutex> lock_;
    Database& db_;
  };
  Access access() { return Access(mutex_, *db_); }

  /// Runs `change` inside one transaction and commits; a throw rolls everything back.
  template <class F> auto write(F&& change) {
    Access a = access();
    Transaction tx(a.db());
    if constexpr (std::is_void_v<decltype(change(a.db()))>) {
      change(a.db());
      tx.commit();
    } else {
      auto result = change(a.db());
      tx.commit();
      return result;
    }
  }

  const std::string& file() const { return file_; }

private:
  void migrate();

  std::string file_;
  int lockFd_ = -1;
  std::mutex mutex_;
  std::unique_ptr<Database> db_;
};

/// The summaries of these ids, in the given order, leaving out unknown ids.
std::vector<core::PhotoSummary> summariesOf(Database& db, const std::vector<std::string>& ids);
/// Whether the id names a catalogued photo (present or missing, not trashed).
bool photoExists(Database& db, std::string_view id);

} // namespace velko::app
