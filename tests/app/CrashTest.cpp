// velko-headless killed with SIGKILL while it takes changes. The real binary runs in a private
// mount namespace over a temporary home and library; two client threads send ratings, flags,
// edits, keyword assignments, imports and deletions over raw socket connections, one request per
// connection as the server does, and keep what was acknowledged. After each kill the catalogue
// must pass an integrity check, hold every acknowledged change (the one request left without a
// reply may or may not have happened), and every user file must be in exactly one place across
// the library, the exchange folder and the trash.
#include "app/AppFixture.h"

#include <atomic>
#include <csignal>
#include <map>
#include <random>
#include <set>
#include <thread>

namespace velko::app::testing {
namespace {

namespace fs = std::filesystem;
using velko::testing::ServerProcess;

constexpr int kLibraryPhotos = 8;
constexpr int kStaged = 32;
constexpr int kRounds = 30;
constexpr std::uint32_t kSeed = 20240501;

std::size_t fileHash(const fs::path& path) {
  return std::hash<std::string>{}(readFile(path));
}

/// What the catalogue holds for one photo; state 2 is in the trash.
struct Row {
  std::int64_t state = 0, rating = 0, flag = 0, version = 0, keyword = 0;
  std::string path;
};
using Field = std::int64_t Row::*;
constexpr std::pair<const char*, Field> kFields[] = {
    {"state", &Row::state}, {"rating", &Row::rating}, {"flag", &Row::flag},
    {"stack version", &Row::version}, {"keyword", &Row::keyword}};

std::map<std::string, Row> photosIn(const std::string& catalogue) {
  std::map<std::string, Row> photos;
  for (const auto& r : readRows(
           catalogue, "SELECT id, state, rating, flag, stack_version, EXISTS(SELECT 1 FROM "
                      "group_members m JOIN groups g ON g.id = m.group_id WHERE g.name = 'crash' "
                      "AND m.photo_id = p.id), path FROM photos p")) {
    photos[r[0]] = {std::stoll(r[1]), std::stoll(r[2]), std::stoll(r[3]),
                    std::stoll(r[4]), std::stoll(r[5]), r[6]};
  }
  return photos;
}

/// A change that was sent: `field` becomes `value` if it happened.
struct Change {
  std::string method, id;
  Field field = nullptr;
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

class Crash : public ProgramTest {
protected:
  std::string integrity() const { return readRows(catalogue(), "PRAGMA integrity_check")[0][0]; }
  /// A path the application wrote, as this process reaches it outside the namespace.
  std::string outside(const std::string& path) const {
    const std::string real = velko::testing::passwordHome() + "/";
    return path.starts_with(real) ? home() + "/" + path.substr(real.size()) : path;
  }

  /// Starts the application and waits until it answers with `photos` indexed.
  void start(std::int64_t photos) {
    app_ = std::make_unique<ServerProcess>(headless(VELKO_HEADLESS_PATH, "--allow-delete"));
    ASSERT_TRUE(waitFor([&] {
      const auto ping = rpc(socket(), "system.ping");
      return ping && ping->as_object().contains("result") &&
             ping->at("result").at("photoCount").as_int64() >= photos;
    })) << "velko-headless did not come up:\n"
        << log();
  }

  void kill() {
    ::kill(-app_->pid(), SIGKILL);
    app_->waitExit();
    app_.reset();
  }

  /// Sends changes until the kill cuts one off; one move of a user file (an import when
  /// `imports`, else a deletion) at a random point, which the kill follows closely.
  void work(Worker& w, bool imports) {
    const std::string exchange = velko::testing::passwordHome() + "/.velko/exchange/";
    std::vector<std::string> live;
    for (const auto& [id, row] : w.expected) {
      if (row.state == 0) {
        live.push_back(id);
      }
    }
    const int moveAt = static_cast<int>(w.rng() % 150);
    for (int n = 0; !stopping_; ++n) {
      const int dice = static_cast<int>(w.rng() % 100);
      const std::string id = live[w.rng() % live.size()];
      const json::Array ids{id};
      Change c{"keyword.assign", id, &Row::keyword, 1};
      json::Object params{{"ids", ids}, {"name", "crash"}};
      if (n == moveAt && imports && nextStaged_ < kLibraryPhotos + kStaged) {
        c = {"library.import", "", nullptr, 0};
        params = {{"paths", json::Array{exchange + "s" + std::to_string(nextStaged_++) + ".jpg"}}};
      } else if (n == moveAt && !imports && live.size() > 2) {
        c = {"photo.delete", id, &Row::state, 2};
        params = {{"ids", ids}};
      } else if (dice < 30) {
        c = {"photo.rate", id, &Row::rating, static_cast<std::int64_t>(w.rng() % 6)};
        params = {{"ids", ids}, {"rating", c.value}};
      } else if (dice < 55) {
        static constexpr const char* kFlags[] = {"reject", "none", "pick"};
        c = {"photo.flag", id, &Row::flag, static_cast<std::int64_t>(w.rng() % 3) - 1};
        params = {{"ids", ids}, {"flag", kFlags[c.value + 1]}};
      } else if (dice < 85) {
        const std::int64_t version = w.expected[id].version;
        c = {"edit.set", id, &Row::version, version + 1};
        params = {{"id", id},
                  {"ops", json::Array{json::Object{{"kind", "exposure"},
                                                   {"scalar", 0.1 * (w.rng() % 10)}}}},
                  {"expectedVersion", version}};
      }
      moveSent_ = moveSent_ || n == moveAt;
      const auto reply = rpc(socket(), c.method, params);
      if (!reply) {
        w.unanswered = c;
        return;
      }
      ++w.acknowledged;
      const json::Value* result = reply->as_object().if_contains("result");
      if (result == nullptr) {
        ADD_FAILURE() << c.method << " " << c.id << " failed: " << json::toCompact(*reply);
      } else if (c.method == "library.import") {
        EXPECT_TRUE(result->at("failed").as_array().empty()) << json::toCompact(*result);
        for (const json::Value& added : result->at("importedIDs").as_array()) {
          w.expected[std::string(added.as_string())] = Row{};
          live.emplace_back(added.as_string());
          ++imported_;
        }
      } else if (c.method == "edit.set") {
        w.expected[id].version = result->at("newVersion").as_int64();
        EXPECT_EQ(w.expected[id].version, c.value);
      } else if (result->at("updated").as_int64() == 1) { // else its file went with a deletion
        w.expected[id].*c.field = c.value;
        if (c.field == &Row::state) {
          std::erase(live, id);
          ++deleted_;
        }
      }
    }
  }

  /// Checks the catalogue and the files once the application is back, then takes what they
  /// hold as the new expectation (the cut-off requests are settled one way or the other).
  void verifyAfterRestart() {
    ASSERT_EQ(integrity(), "ok");
    const std::map<std::string, Row> photos = photosIn(catalogue());
    std::map<std::string, std::string> trash;
    for (const auto& r : readRows(catalogue(), "SELECT photo_id, trash_path FROM trash")) {
      trash[r[0]] = r[1];
    }
    for (Worker& w : workers_) {
      for (auto& [id, want] : w.expected) {
        SCOPED_TRACE(id);
        ASSERT_TRUE(photos.contains(id));
        const Row& got = photos.at(id);
        for (const auto& [name, field] : kFields) {
          const bool cutOff = w.unanswered && w.unanswered->id == id &&
                              w.unanswered->field == field && w.unanswered->value == got.*field;
          EXPECT_TRUE(got.*field == want.*field || cutOff)
              << name << " " << got.*field << ", acknowledged " << want.*field;
        }
        // A deletion happened whole or not at all: the row and the file agree.
        if (got.state == 2) {
          ASSERT_TRUE(trash.contains(id));
          EXPECT_TRUE(fs::exists(outside(trash.at(id)))) << trash.at(id);
        } else {
          EXPECT_TRUE(fs::exists(got.path.starts_with("/") ? got.path : library() + "/" + got.path))
              << got.path;
        }
        want = got;
      }
      w.unanswered.reset();
    }
    // Every user file exactly once, and nothing else left behind.
    std::map<std::size_t, std::vector<std::string>> seen;
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
    EXPECT_EQ(seen.size(), known_.size()) << "a user file was lost";
  }

  std::set<std::size_t> known_;
  std::vector<Worker> workers_{{.rng = std::mt19937(kSeed + 1)}, {.rng = std::mt19937(kSeed + 2)}};
  std::atomic<bool> stopping_{false}, moveSent_{false};
  int nextStaged_ = kLibraryPhotos; ///< one worker imports in a round
  std::atomic<int> imported_{0}, deleted_{0};
  std::unique_ptr<ServerProcess> app_;
};

TEST_F(Crash, AcknowledgedChangesAndUserFilesSurviveKills) {
  // Every file differs, so its content hash names it wherever it moves.
  for (int i = 0; i < kLibraryPhotos + kStaged; ++i) {
    const std::string path =
        (i < kLibraryPhotos ? library() + "/p" : home() + "/.velko/exchange/s") +
        std::to_string(i) + ".jpg";
    writePhoto(path, {.width = 48 + i, .red = static_cast<unsigned char>(5 * i),
                      .dateTimeOriginal = "2024:05:01 10:" + std::to_string(10 + i) + ":00"});
    known_.insert(fileHash(path));
  }
  ASSERT_EQ(known_.size(), static_cast<std::size_t>(kLibraryPhotos + kStaged));
  ASSERT_NO_FATAL_FAILURE(start(kLibraryPhotos));
  ASSERT_TRUE(rpc(socket(), "keyword.create", json::Object{{"name", "crash"}}));
  const std::map<std::string, Row> photos = photosIn(catalogue());
  ASSERT_EQ(photos.size(), static_cast<std::size_t>(kLibraryPhotos));
  int owner = 0;
  for (const auto& [id, row] : photos) {
    workers_[static_cast<std::size_t>(owner++ % 2)].expected[id] = row;
  }
  std::mt19937 rng(kSeed);
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    stopping_ = false;
    moveSent_ = false;
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < workers_.size(); ++i) {
      threads.emplace_back([this, i, round] { work(workers_[i], round % 2 == int(i)); });
    }
    waitFor([&] { return moveSent_.load(); }, std::chrono::seconds(2),
            std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 30000));
    kill();
    stopping_ = true;
    threads.clear(); // joins them
    EXPECT_EQ(integrity(), "ok");
    ASSERT_NO_FATAL_FAILURE(start(0));
    ASSERT_NO_FATAL_FAILURE(verifyAfterRestart());
  }
  kill();
  const int acknowledged = workers_[0].acknowledged + workers_[1].acknowledged;
  std::cout << "[ crash    ] " << kRounds << " rounds, each ended by a kill: " << acknowledged
            << " changes acknowledged (" << imported_ << " imports, " << deleted_
            << " deletions)\n";
  EXPECT_GT(acknowledged, kRounds * 4);
}

} // namespace
} // namespace velko::app::testing
