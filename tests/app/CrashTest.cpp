// velko-headless killed with SIGKILL while it takes changes. The real binary runs in a private
// mount namespace over a temporary home and library; two client threads send ratings, flags,
// edits, keyword assignments, imports and deletions over raw socket connections, one request per
// connection as the server does, and keep what was acknowledged. After each kill the catalogue
// must pass an integrity check, hold every acknowledged change (the one request left without a
// reply may or may not have happened), and every user file must be in exactly one place across
// the library, the exchange folder and the trash.
#include "app/AppFixture.h"
#include "app/Imaging.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "support/ServerProcess.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sqlite3.h>
#include <thread>
#include <xxhash.h>

namespace velko::app::testing {
namespace {

namespace fs = std::filesystem;
using velko::testing::ServerProcess;

constexpr int kLibraryPhotos = 8;
constexpr int kStaged = 32;
constexpr int kRounds = 30;
constexpr std::uint32_t kSeed = 20240501;

std::uint64_t fileHash(const fs::path& path) {
  const std::string bytes = readFile(path);
  return XXH3_64bits(bytes.data(), bytes.size());
}

/// One request on a connection of its own; the reply envelope, or nothing when none came.
std::optional<json::Value> request(const std::string& socketPath, std::string_view method,
                                   json::Object params = {}) {
  const auto reply = roundTrip(
      socketPath,
      json::toCompact(json::Object{
          {"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", std::move(params)}}) +
          "\n");
  return reply ? std::optional(json::parse(*reply)) : std::nullopt;
}

/// What the catalogue holds for one photo.
struct Row {
  std::int64_t state = 0, rating = 0, flag = 0, version = 0;
  bool keyword = false;
  std::string path;
};

struct Catalogue {
  std::string integrity;
  std::map<std::string, Row> photos;
  std::map<std::string, std::string> trash; ///< photo id to trash path
};

Catalogue readCatalogue(const std::string& file) {
  Catalogue c;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    c.integrity = std::string("cannot open: ") + sqlite3_errmsg(db);
    sqlite3_close(db);
    return c;
  }
  sqlite3_busy_timeout(db, 5000);
  auto each = [&](const char* sql, auto&& row) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK) {
      c.integrity += std::string(" ") + sqlite3_errmsg(db);
    }
    while (s != nullptr && sqlite3_step(s) == SQLITE_ROW) {
      row(s);
    }
    sqlite3_finalize(s);
  };
  auto text = [](sqlite3_stmt* s, int i) {
    const auto* t = sqlite3_column_text(s, i);
    return t != nullptr ? std::string(reinterpret_cast<const char*>(t)) : std::string();
  };
  each("PRAGMA integrity_check", [&](sqlite3_stmt* s) { c.integrity += text(s, 0); });
  each("SELECT id, state, rating, flag, stack_version, path, EXISTS(SELECT 1 FROM group_members "
       "m JOIN groups g ON g.id = m.group_id WHERE g.name = 'crash' AND m.photo_id = p.id) "
       "FROM photos p",
       [&](sqlite3_stmt* s) {
         c.photos[text(s, 0)] = {sqlite3_column_int64(s, 1), sqlite3_column_int64(s, 2),
                                 sqlite3_column_int64(s, 3), sqlite3_column_int64(s, 4),
                                 sqlite3_column_int(s, 6) != 0, text(s, 5)};
       });
  each("SELECT photo_id, trash_path FROM trash",
       [&](sqlite3_stmt* s) { c.trash[text(s, 0)] = text(s, 1); });
  sqlite3_close(db);
  return c;
}

/// A change that was sent; `value` is what the field becomes if it happened.
struct Change {
  std::string method, id;
  std::int64_t value = 0;
};

/// One client thread: it alone changes the photos it owns, so its acknowledged changes to them
/// are in a known order.
struct Worker {
  std::mt19937 rng;
  std::map<std::string, Row> expected; ///< owned photos, deleted ones with state 2
  std::optional<Change> unanswered;    ///< the request the kill cut off, if any
  int acknowledged = 0;
};

class Crash : public ::testing::Test {
protected:
  void SetUp() override {
    const std::string why = velko::testing::privateHomeUnavailableReason();
    if (!why.empty()) {
      GTEST_SKIP() << why;
    }
    initImaging();
    // Every file differs, so its content hash names it wherever it moves.
    for (int i = 0; i < kLibraryPhotos + kStaged; ++i) {
      const PhotoSpec shot{.width = 48 + i,
                           .red = static_cast<unsigned char>(5 * i),
                           .dateTimeOriginal =
                               "2024:05:01 10:" + std::to_string(10 + i % 50) + ":00"};
      const std::string path = i < kLibraryPhotos
                                   ? library() + "/p" + std::to_string(i) + ".jpg"
                                   : home() + "/.velko/exchange/s" + std::to_string(i) + ".jpg";
      writePhoto(path, shot);
      known_.insert(fileHash(path));
      if (i >= kLibraryPhotos) {
        staged_.push_back(fs::path(path).filename().string());
      }
    }
    ASSERT_EQ(known_.size(), static_cast<std::size_t>(kLibraryPhotos + kStaged));
  }

  std::string home() const { return root_.home(); }
  std::string library() const { return root_.library(); }
  std::string socket() const { return home() + "/.velko/ipc.sock"; }
  std::string catalogFile() const { return home() + "/.velko/headless/catalog.sqlite"; }
  /// A path the application wrote, as this process reaches it outside the namespace.
  std::string outside(const std::string& path) const {
    const std::string real = velko::testing::passwordHome() + "/";
    return path.starts_with(real) ? home() + "/" + path.substr(real.size()) : path;
  }

  /// Starts the application and waits until it answers with `photos` indexed.
  void start(std::int64_t photos) {
    app_ = std::make_unique<ServerProcess>(root_.headless(VELKO_HEADLESS_PATH, "--allow-delete"));
    for (int tries = 0; tries < 600; ++tries) {
      const auto ping = request(socket(), "system.ping");
      if (ping && ping->as_object().contains("result") &&
          ping->at("result").at("photoCount").as_int64() >= photos) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    FAIL() << "velko-headless did not come up:\n" << root_.log();
  }

  void kill() {
    ::kill(-app_->pid(), SIGKILL);
    app_->waitExit();
    app_.reset();
  }

  /// Sends changes until the kill cuts one off.
  void work(Worker& w, int round) {
    const std::string exchange = velko::testing::passwordHome() + "/.velko/exchange/";
    std::vector<std::string> live;
    for (const auto& [id, row] : w.expected) {
      if (row.state == 0) {
        live.push_back(id);
      }
    }
    // One move of a user file a round, at a random point; the kill follows it closely.
    const bool imports = round % 2 == (&w == &workers_[0] ? 0 : 1);
    const int moveAt = static_cast<int>(w.rng() % 150);
    for (int n = 0;; ++n) {
      const int dice = static_cast<int>(w.rng() % 100);
      const std::string id = live.empty() ? "" : live[w.rng() % live.size()];
      if (stopping_) {
        return; // nothing left to send before the kill
      }
      if (id.empty() && n != moveAt) {
        continue;
      }
      Row& row = w.expected[id];
      Change c{"", id, 0};
      json::Object params{{"ids", json::Array{id}}};
      if (n == moveAt && imports && nextStaged_ < kStaged) {
        c = {"library.import", "", 0};
        params = {{"paths", json::Array{exchange + staged_[static_cast<std::size_t>(nextStaged_++)]}}};
      } else if (n == moveAt && !imports && live.size() > 2) {
        c = {"photo.delete", id, 2};
      } else if (dice < 30) {
        c = {"photo.rate", id, static_cast<std::int64_t>(w.rng() % 6)};
        params["rating"] = c.value;
      } else if (dice < 55) {
        static constexpr std::pair<const char*, int> kFlags[] = {{"pick", 1}, {"reject", -1}, {"none", 0}};
        const auto& f = kFlags[w.rng() % 3];
        c = {"photo.flag", id, f.second};
        params["flag"] = f.first;
      } else if (dice < 85) {
        c = {"edit.set", id, row.version + 1};
        params = {{"id", id},
                  {"ops", json::Array{json::Object{{"kind", "exposure"}, {"scalar", 0.1 * (w.rng() % 10)}}}},
                  {"expectedVersion", row.version}};
      } else {
        c = {"keyword.assign", id, 1};
        params["name"] = "crash";
      }
      if (n == moveAt) {
        moveSent_ = true;
      }
      const auto reply = request(socket(), c.method, params);
      if (!reply) {
        w.unanswered = c;
        return;
      }
      ++w.acknowledged;
      if (!reply->as_object().contains("result")) {
        ADD_FAILURE() << c.method << " " << c.id << " failed: " << json::toCompact(*reply);
        continue;
      }
      const json::Value& result = reply->at("result");
      if (c.method == "library.import") {
        EXPECT_TRUE(result.at("failed").as_array().empty()) << json::toCompact(result);
        for (const json::Value& added : result.at("importedIDs").as_array()) {
          const std::string newId(added.as_string());
          w.expected[newId] = Row{};
          live.push_back(newId);
          imported_.fetch_add(1);
        }
        continue;
      }
      if (c.method == "edit.set") {
        row.version = result.at("newVersion").as_int64();
        EXPECT_EQ(row.version, c.value);
        continue;
      }
      if (result.at("updated").as_int64() != 1) {
        continue; // a photo whose file went with a cut-off deletion
      }
      if (c.method == "photo.rate") {
        row.rating = c.value;
      } else if (c.method == "photo.flag") {
        row.flag = c.value;
      } else if (c.method == "keyword.assign") {
        row.keyword = true;
      } else {
        row.state = 2;
        std::erase(live, id);
        deleted_.fetch_add(1);
      }
    }
  }

  /// Checks the catalogue and the files once the application is back, then takes what they
  /// hold as the new expectation (the cut-off requests are settled one way or the other).
  void verifyAfterRestart(std::vector<Worker>& workers) {
    const Catalogue c = readCatalogue(catalogFile());
    ASSERT_EQ(c.integrity, "ok");
    for (Worker& w : workers) {
      for (auto& entry : w.expected) {
        const std::string& id = entry.first;
        Row& want = entry.second;
        SCOPED_TRACE(id);
        const auto found = c.photos.find(id);
        ASSERT_NE(found, c.photos.end());
        const Row& got = found->second;
        const auto cutOff = [&](std::string_view method, std::int64_t value) {
          return w.unanswered && w.unanswered->id == id && w.unanswered->method == method &&
                 w.unanswered->value == value;
        };
        EXPECT_TRUE(got.rating == want.rating || cutOff("photo.rate", got.rating));
        EXPECT_TRUE(got.flag == want.flag || cutOff("photo.flag", got.flag));
        EXPECT_TRUE(got.version == want.version || cutOff("edit.set", got.version))
            << got.version << " != " << want.version;
        EXPECT_TRUE(got.keyword == want.keyword || cutOff("keyword.assign", 1));
        EXPECT_TRUE(got.state == want.state || cutOff("photo.delete", got.state)) << got.state;
        // A deletion happened whole or not at all: the row and the file agree.
        if (got.state == 2) {
          ASSERT_TRUE(c.trash.contains(id));
          EXPECT_TRUE(fs::exists(outside(c.trash.at(id)))) << c.trash.at(id);
        } else {
          EXPECT_TRUE(fs::exists(got.path.starts_with("/") ? got.path : library() + "/" + got.path))
              << got.path;
        }
        want = got;
      }
      w.unanswered.reset();
    }
    // Every user file exactly once, and nothing else left behind.
    std::map<std::uint64_t, std::vector<std::string>> seen;
    for (const std::string& dir :
         {library(), home() + "/.velko/exchange", home() + "/.velko/headless/trash"}) {
      for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        if (entry.is_regular_file()) {
          seen[fileHash(entry.path())].push_back(entry.path().string());
        }
      }
    }
    for (const auto& [hash, paths] : seen) {
      EXPECT_TRUE(known_.contains(hash)) << "a file that is no user's: " << paths.front();
      EXPECT_EQ(paths.size(), 1u) << "a file in two places: " << paths.front() << " and "
                                  << paths.back();
    }
    for (std::uint64_t hash : known_) {
      EXPECT_TRUE(seen.contains(hash)) << "a user file was lost";
    }
  }

  ProgramRoot root_;
  std::set<std::uint64_t> known_;
  std::vector<std::string> staged_;
  std::vector<Worker> workers_{2};
  std::atomic<bool> stopping_{false}, moveSent_{false};
  int nextStaged_ = 0; ///< one worker imports in a round
  std::atomic<int> imported_{0}, deleted_{0};
  std::unique_ptr<ServerProcess> app_;
};

TEST_F(Crash, AcknowledgedChangesAndUserFilesSurviveKills) {
  ASSERT_NO_FATAL_FAILURE(start(kLibraryPhotos));
  ASSERT_TRUE(request(socket(), "keyword.create", json::Object{{"name", "crash"}}));
  std::vector<Worker>& workers = workers_;
  {
    const Catalogue c = readCatalogue(catalogFile());
    ASSERT_EQ(c.photos.size(), static_cast<std::size_t>(kLibraryPhotos));
    int i = 0;
    for (const auto& [id, row] : c.photos) {
      workers[static_cast<std::size_t>(i++ % 2)].expected[id] = row;
    }
  }
  std::mt19937 rng(kSeed);
  workers[0].rng.seed(kSeed + 1);
  workers[1].rng.seed(kSeed + 2);
  int kills = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    stopping_ = false;
    moveSent_ = false;
    std::vector<std::thread> threads;
    for (Worker& w : workers) {
      threads.emplace_back([this, worker = &w, round] { work(*worker, round); });
    }
    for (int waited = 0; !moveSent_ && waited < 2000; ++waited) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 30000));
    kill();
    stopping_ = true;
    ++kills;
    for (std::thread& t : threads) {
      t.join();
    }
    EXPECT_EQ(readCatalogue(catalogFile()).integrity, "ok");
    ASSERT_NO_FATAL_FAILURE(start(0));
    ASSERT_NO_FATAL_FAILURE(verifyAfterRestart(workers));
  }
  kill();
  const int acknowledged = workers[0].acknowledged + workers[1].acknowledged;
  const std::string text = root_.log();
  int settled = 0;
  for (auto at = text.find("was interrupted"); at != std::string::npos;
       at = text.find("was interrupted", at + 1)) {
    ++settled;
  }
  std::cout << "[ crash    ] " << kRounds << " rounds, " << kills << " kills, " << acknowledged
            << " changes acknowledged (" << imported_ << " imports, " << deleted_
            << " deletions), " << settled << " interrupted moves settled\n";
  EXPECT_GT(acknowledged, kRounds * 4);
}

} // namespace
} // namespace velko::app::testing
