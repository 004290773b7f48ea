#include "app/App.h"

#include "files/FileMove.h"
#include "app/Library.h"
#include "app/Log.h"
#include "app/PhotoData.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <unistd.h>

namespace velko::app {

namespace {
const Folders& created(const Folders& f) {
  f.create();
  return f;
}

bool sameContent(const std::string& a, const std::string& b) {
  std::ifstream x(a, std::ios::binary), y(b, std::ios::binary);
  return x && y &&
         std::equal(std::istreambuf_iterator<char>(x), {}, std::istreambuf_iterator<char>(y), {});
}

/// Settles the moves a crash cut off. Temporary copies go (their sources are still in place).
/// A photo.delete stopped between the move into the trash and its record: when the file has
/// left the library the deletion is recorded; when the source is still there (the copy was
/// named but the source not yet removed) the identical copy in the trash goes.
void settleInterruptedMoves(const Options& options, const Folders& folders, Catalog& catalog) {
  const int copies = files::removeInterruptedCopies(folders.trash) +
                     files::removeInterruptedCopies(options.library + "/Imported");
  if (copies > 0) {
    logLine("removed " + std::to_string(copies) + " copies left by an interrupted move");
  }
  namespace fs = std::filesystem;
  std::error_code ec;
  // A library.import stopped after its copy was named in the library but before the staged file
  // went: the staged file is the same bytes as a file under Imported.
  std::multimap<std::uintmax_t, std::string> imported; // by size, listed once when needed
  bool listed = false;
  for (auto it = fs::recursive_directory_iterator(folders.exchange, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    std::error_code fileEc;
    if (!it->is_regular_file(fileEc)) {
      continue;
    }
    if (!listed) {
      listed = true;
      std::error_code listEc;
      for (auto in = fs::recursive_directory_iterator(options.library + "/Imported", listEc);
           !listEc && in != fs::recursive_directory_iterator(); in.increment(listEc)) {
        if (in->is_regular_file(fileEc)) {
          imported.emplace(in->file_size(fileEc), in->path().string());
        }
      }
    }
    const std::string staged = it->path().string();
    const auto [from, to] = imported.equal_range(it->file_size(fileEc));
    if (std::any_of(from, to, [&](const auto& i) { return sameContent(staged, i.second); }) &&
        ::unlink(staged.c_str()) == 0) {
      logLine("library.import of " + staged + " was interrupted after the file was placed; "
              "removed the staged copy");
    }
  }
  ec.clear();
  for (const auto& folder : fs::directory_iterator(folders.trash, ec)) {
    // Photo A/L0/001 goes into the folder A_L0_001.
    std::string id = folder.path().filename().string();
    std::replace(id.begin(), id.end(), '_', '/');
    std::optional<std::string> path;
    {
      auto a = catalog.access();
      auto s = a->prepare("SELECT path FROM photos WHERE id = ? AND state != 2");
      s->bind(1, id);
      if (s->step()) {
        path = s->text(0);
      }
    }
    if (!path) {
      continue;
    }
    const std::string& original = *path;
    std::error_code fileEc;
    for (const auto& file : fs::directory_iterator(folder.path(), fileEc)) {
      const std::string trashed = file.path().string();
      if (!file.is_regular_file(fileEc)) {
        continue;
      }
      if (::access(original.c_str(), F_OK) == 0) {
        if (sameContent(trashed, original) && ::unlink(trashed.c_str()) == 0) {
          logLine("photo.delete of " + id + " was interrupted; the photo stays in the library");
        }
        continue;
      }
      catalog.write([&](Database& db) {
        auto u = db.prepare("UPDATE photos SET state = 2 WHERE id = ?");
        u->bind(1, id);
        u->run();
        auto t = db.prepare("INSERT OR REPLACE INTO trash(photo_id, original_path, trash_path, "
                            "deleted_at) VALUES (?, ?, ?, ?)");
        t->bindAll(id, original, trashed, unixNow());
        t->run();
      });
      logLine("photo.delete of " + id + " was interrupted; finished it: " + trashed);
      break;
    }
  }
}

} // namespace

App::App(Options options, Folders folders)
    : options_(std::move(options)), folders_(created(folders)), catalog_(options_.catalog),
      library_(std::make_unique<Library>(options_, catalog_)) {
  settleInterruptedMoves(options_, folders_, catalog_);
}

App::~App() { library_->stop(); }

} // namespace velko::app
