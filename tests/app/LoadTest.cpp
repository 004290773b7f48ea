// Eight velko-mcp processes at once against one velko-headless, for a bounded time, each sending a
// mixed stream of reads, changes, previews and exports, the way eight assistant sessions would.
// Both programs run in private mount namespaces over a temporary home and library.
//
// Afterwards every acknowledged change must be in the catalogue: each client alone rates and
// flags the photos it owns, so its last acknowledged values are known; all clients edit a few
// shared photos with expectedVersion, so a photo's stack version must equal the number of edits
// acknowledged on it (version conflicts are the one failure expected). Every acknowledged export
// is a file. The application's memory and descriptors, measured while idle after a warm-up
// phase and again after a second phase of the same length, must be flat.
//
// VELKO_LOAD_SECONDS sets the length of each phase (default 10). Throughput and latency
// percentiles are printed for the note and the README.
#include "app/AppFixture.h"
#include "app/Imaging.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "support/Sanitizer.h"
#include "support/ServerProcess.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <thread>

namespace velko::app::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using velko::testing::ServerProcess;

constexpr int kClients = 8;
constexpr int kOwnedEach = 2;
constexpr int kShared = 4;
constexpr int kPhotos = kClients * kOwnedEach + kShared;

int phaseSeconds() {
  const char* s = std::getenv("VELKO_LOAD_SECONDS");
  return s != nullptr && std::atoi(s) > 0 ? std::atoi(s) : 10;
}

int descriptorCount(pid_t pid) {
  int n = 0;
  std::error_code ec;
  for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
       !ec && it != fs::directory_iterator(); it.increment(ec)) {
    ++n;
  }
  return n;
}

long residentKiB(pid_t pid) {
  return velko::testing::statusKiB(pid, "VmRSS");
}

/// What one client saw: latencies by kind of call, and what it was told had happened.
struct Tally {
  std::map<std::string, std::vector<double>> millis;
  std::map<std::string, std::pair<std::int64_t, std::int64_t>> owned; ///< id → rating, flag
  int conflicts = 0;
  int exports = 0;
  std::vector<std::string> failures;
};

class Load : public ::testing::Test {
protected:
  void SetUp() override {
    const std::string why = velko::testing::privateHomeUnavailableReason();
    if (!why.empty()) {
      GTEST_SKIP() << why;
    }
    initImaging();
    for (int i = 0; i < kPhotos; ++i) {
      writePhoto(library() + "/p" + std::to_string(i) + ".jpg",
                 {.width = 1600,
                  .height = 1067,
                  .red = static_cast<unsigned char>(11 * i),
                  .pattern = true,
                  .dateTimeOriginal = "2024:06:" + std::to_string(10 + i) + " 09:00:00"});
    }
    app_ = std::make_unique<ServerProcess>(root_.headless(VELKO_HEADLESS_PATH, "--allow-saving"));
  }

  std::string home() const { return root_.home(); }
  std::string library() const { return root_.library(); }
  std::string log() const { return root_.log(); }

  /// One client's stream until `until`.
  void drive(McpSession& client, int index, const std::vector<std::string>& ids,
             Clock::time_point until, Tally& tally) {
    std::mt19937 rng(1000 + static_cast<unsigned>(index));
    const std::string out = root_.root.path() + "/exports/c" + std::to_string(index);
    auto owned = [&] {
      return ids[static_cast<std::size_t>(index * kOwnedEach) + rng() % kOwnedEach];
    };
    auto shared = [&] {
      return ids[static_cast<std::size_t>(kClients * kOwnedEach) + rng() % kShared];
    };
    auto any = [&] {
      return ids[rng() % ids.size()];
    };
    std::map<std::string, std::int64_t> versions;
    while (Clock::now() < until) {
      const int dice = static_cast<int>(rng() % 100);
      std::string kind;
      std::string name;
      json::Object args;
      std::function<void(const ToolReply&)> acknowledged = [](const ToolReply&) {
      };
      if (dice < 12) {
        kind = "read", name = "velko_list", args = {{"limit", 50}};
      } else if (dice < 22) {
        kind = "read", name = "velko_get", args = {{"id", any()}};
      } else if (dice < 30) {
        kind = "read", name = "velko_query", args = {{"minRating", 3}};
      } else if (dice < 40) {
        const std::string id = owned();
        const std::int64_t rating = rng() % 6;
        kind = "change", name = "velko_rate", args = {{"ids", json::Array{id}}, {"rating", rating}};
        acknowledged = [&, id, rating](const ToolReply&) {
          tally.owned[id].first = rating;
        };
      } else if (dice < 48) {
        static constexpr std::pair<const char*, std::int64_t> kFlags[] = {
            {"pick", 1}, {"reject", -1}, {"none", 0}};
        const std::string id = owned();
        const auto& flag = kFlags[rng() % 3];
        kind = "change", name = "velko_flag",
        args = {{"ids", json::Array{id}}, {"flag", flag.first}};
        acknowledged = [&, id, flag](const ToolReply&) {
          tally.owned[id].second = flag.second;
        };
      } else if (dice < 68) {
        const std::string id = shared();
        if (!versions.contains(id)) {
          const auto got = client.tool("velko_edit_get", json::Object{{"id", id}});
          versions[id] = got.isError ? 0 : got.text.at("version").as_int64();
        }
        kind = "edit", name = "velko_edit_set";
        args = {{"id", id},
                {"ops",
                 json::Array{json::Object{{"kind", "exposure"}, {"scalar", 0.05 * (rng() % 20)}}}},
                {"expectedVersion", versions[id]}};
        acknowledged = [&, id](const ToolReply& r) {
          versions[id] = r.text.at("newVersion").as_int64();
          edits_.at(id).fetch_add(1);
        };
      } else if (dice < 90) {
        kind = "preview", name = "velko_preview_render", args = {{"id", any()}, {"longEdge", 512}};
      } else {
        kind = "export", name = "velko_export";
        args = {{"ids", json::Array{any()}},
                {"directory", out},
                {"format", "jpeg"},
                {"longEdge", 1024}};
        acknowledged = [&](const ToolReply&) {
          ++tally.exports;
        };
      }
      const std::string id = args.contains("id") ? std::string(args.at("id").as_string()) : "";
      const Clock::time_point start = Clock::now();
      ToolReply r;
      try {
        r = client.tool(name, std::move(args));
      } catch (const std::exception& e) {
        tally.failures.push_back(name + ": " + e.what());
        return; // the process is gone or stuck; nothing more from this client
      }
      tally.millis[kind].push_back(
          std::chrono::duration<double, std::milli>(Clock::now() - start).count());
      if (!r.isError) {
        acknowledged(r);
      } else if (name == "velko_edit_set" && r.rawText.starts_with("velko error -32000:")) {
        ++tally.conflicts;
        versions.erase(id); // read again before the next edit
      } else {
        tally.failures.push_back(name + ": " + r.rawText);
      }
    }
  }

  /// Runs every client for `seconds`; the highest resident size of `watched` meanwhile, in KiB.
  long phase(std::vector<std::unique_ptr<McpSession>>& clients, const std::vector<std::string>& ids,
             int seconds, std::vector<Tally>& tallies, pid_t watched) {
    const Clock::time_point until = Clock::now() + std::chrono::seconds(seconds);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
      threads.emplace_back([&, i] {
        drive(*clients[static_cast<std::size_t>(i)], i, ids, until,
              tallies[static_cast<std::size_t>(i)]);
      });
    }
    long peak = 0;
    while (Clock::now() < until) {
      peak = std::max(peak, residentKiB(watched));
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    for (std::thread& t : threads) {
      t.join();
    }
    return peak;
  }

  ProgramRoot root_;
  std::unique_ptr<ServerProcess> app_;
  std::map<std::string, std::atomic<int>> edits_;
};

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0
                   : v[std::min(v.size() - 1,
                                static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

TEST_F(Load, EightSessionsAtOnceLoseNothingAndStayFlat) {
  std::vector<std::unique_ptr<McpSession>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(
        std::make_unique<McpSession>(velko::testing::withPrivateHome(home(), VELKO_MCP_PATH)));
  }
  // Wait for the first scan, then learn the ids in file order (photo i was taken on day 10 + i,
  // and the list is newest first): the first sixteen are owned two by two, the rest shared.
  std::vector<std::string> ids;
  for (int tries = 0; tries < 600 && ids.size() != kPhotos; ++tries) {
    const auto listed = clients[0]->tool("velko_list", json::Object{{"limit", 100}});
    ids.clear();
    for (const json::Value& p :
         listed.isError ? json::Array{} : listed.text.at("photos").as_array()) {
      ids.insert(ids.begin(), std::string(p.at("id").as_string()));
    }
    if (ids.size() != kPhotos) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  ASSERT_EQ(ids.size(), static_cast<std::size_t>(kPhotos)) << log();
  for (const std::string& id : ids) {
    edits_[id] = 0;
  }
  const pid_t app = static_cast<pid_t>(
      json::parse(readFile(home() + "/.velko/ipc-endpoint.json")).at("pid").as_int64());

  const int seconds = phaseSeconds();
  std::vector<Tally> warmUp(kClients), measured(kClients);
  const long peakBefore = phase(clients, ids, seconds, warmUp, app);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const int fdsBefore = descriptorCount(app);
  const long rssBefore = residentKiB(app);
  std::vector<long> mcpBefore;
  for (const auto& c : clients) {
    mcpBefore.push_back(residentKiB(c->process.pid()));
  }
  const Clock::time_point start = Clock::now();
  const long peakAfter = phase(clients, ids, seconds, measured, app);
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const int fdsAfter = descriptorCount(app);
  const long rssAfter = residentKiB(app);

  // Nothing failed but version conflicts.
  std::map<std::string, std::vector<double>> millis;
  int conflicts = 0, exports = 0;
  std::map<std::string, std::pair<std::int64_t, std::int64_t>> owned;
  for (const std::vector<Tally>* run : {&warmUp, &measured}) {
    for (const Tally& t : *run) {
      for (const std::string& f : t.failures) {
        ADD_FAILURE() << f;
      }
      exports += t.exports;
      for (const auto& [id, values] : t.owned) {
        owned[id] = values; // the measured phase comes second and wins
      }
      if (run == &measured) {
        conflicts += t.conflicts;
        for (const auto& [kind, v] : t.millis) {
          millis[kind].insert(millis[kind].end(), v.begin(), v.end());
        }
      }
    }
  }

  // Every acknowledged change is in the catalogue once the application has stopped.
  ::kill(app, SIGTERM);
  EXPECT_EQ(app_->waitExit(std::chrono::seconds(30)), 0) << log();
  Catalog catalog(home() + "/.velko/headless/catalog.sqlite");
  auto access = catalog.access();
  auto s = access->prepare("SELECT id, rating, flag, stack_version FROM photos");
  int rows = 0;
  for (; s->step(); ++rows) {
    const std::string id = s->text(0);
    SCOPED_TRACE(id);
    if (owned.contains(id)) {
      EXPECT_EQ(s->int64(1), owned[id].first);
      EXPECT_EQ(s->int64(2), owned[id].second);
    }
    EXPECT_EQ(s->int64(3), edits_.at(id).load());
  }
  EXPECT_EQ(rows, kPhotos);
  std::size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(root_.root.path() + "/exports")) {
    files += entry.is_regular_file() ? 1 : 0;
  }
  EXPECT_EQ(files, static_cast<std::size_t>(exports));

  // Flat: the same idle descriptors, and memory that a second phase as long as the first did
  // not grow by more than an eighth (allocator arenas and the image cache settle in the first).
  EXPECT_LE(fdsAfter, fdsBefore + 1)
      << fdsBefore << " descriptors before, " << fdsAfter << " after";
  // Under AddressSanitizer resident memory grows with the work done, by design; its leak
  // checker covers that build, and the Release build checks memory.
  if (!velko::testing::kUnderAddressSanitizer) {
    // The application's high-water mark: where the allocator settles depends on how the first
    // phase's requests happened to overlap, so the peaks of the two phases are compared.
    EXPECT_LE(peakAfter, peakBefore + peakBefore / 8)
        << peakBefore << " KiB at most in the first phase, " << peakAfter << " in the second";
    for (std::size_t i = 0; i < clients.size(); ++i) {
      EXPECT_LE(residentKiB(clients[i]->process.pid()), mcpBefore[i] + mcpBefore[i] / 8 + 512)
          << "velko-mcp " << i;
    }
  }

  std::size_t calls = 0;
  for (const auto& [kind, v] : millis) {
    calls += v.size();
  }
  std::printf(
      "[ load     ] %d clients, %.1f s: %zu calls, %.0f calls/s, %d version conflicts, "
      "%d exports; velko-headless idle %ld → %ld KiB (peak %ld → %ld), %d → %d descriptors\n",
      kClients, elapsed, calls, static_cast<double>(calls) / elapsed, conflicts, exports, rssBefore,
      rssAfter, peakBefore, peakAfter, fdsBefore, fdsAfter);
  for (const auto& [kind, v] : millis) {
    std::printf(
        "[ load     ] %-8s %6zu calls  p50 %7.1f ms  p90 %7.1f ms  p99 %7.1f ms  max %7.1f ms\n",
        kind.c_str(), v.size(), percentile(v, 0.5), percentile(v, 0.9), percentile(v, 0.99),
        percentile(v, 1.0));
  }
  EXPECT_GT(calls, 0u);
}

} // namespace
} // namespace velko::app::testing
