// The edit stack and what is made from it: reading, patching and resetting the stack, named
// snapshots, previews, the committed rendition, exports, and the looks folder.
//
// Renders never run under the catalogue lock: a handler reads what it needs in one short
// access (or commits its change first), then decodes and encodes with the lock released, so
// other requests are answered meanwhile.
#include "app/Imaging.h"
#include "app/Looks.h"
#include "app/Log.h"
#include "app/MethodError.h"
#include "app/Methods.h"
#include "app/PhotoData.h"
#include "core/EditPatch.h"
#include "protocol/EditingRecords.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <glib.h>
#include <unistd.h>

namespace velko::app {
namespace {

using namespace protocol;
namespace fs = std::filesystem;

constexpr std::int64_t kDefaultPreviewEdge = 512;
constexpr std::int64_t kMinPreviewEdge = 16;
constexpr std::int64_t kMaxPreviewEdge = 4096;
constexpr double kDefaultExportQuality = 0.9;
constexpr int kRenditionQuality = 92;

/// The file behind an id, whether it is a video, and the folder its look (if any) comes from.
struct PhotoFile {
  std::string id;
  std::string path;
  bool video = false;
  std::string looks;
};

PhotoFile photoFile(App& app, Database& db, const std::string& id) {
  auto s = db.prepare("SELECT path, is_video FROM photos WHERE id = ? AND state != 2");
  s->bind(1, id);
  if (!s->step()) {
    throw MethodError::noPhoto(id);
  }
  return PhotoFile{id, s->text(0), s->int64(1) != 0, app.options().luts};
}

/// The file and the edit stack of a render, read together.
std::pair<PhotoFile, core::EditStack> renderSource(App& app, const std::string& id) {
  auto a = app.catalog().access();
  PhotoFile file = photoFile(app, a.db(), id);
  return {std::move(file), loadStack(a.db(), id)};
}

/// Refuses videos for the still-only methods, naming what to use instead.
void requireStill(const PhotoFile& f, std::string_view what) {
  if (f.video) {
    throw MethodError::invalidParams(f.id + " is a video; " + std::string(what));
  }
}

/// The photo's stack, checking the id.
core::EditStack stackOf(Database& db, const std::string& id) {
  if (!photoExists(db, id)) {
    throw MethodError::noPhoto(id);
  }
  return loadStack(db, id);
}

PreviewResult preview(const PhotoFile& f, const core::EditStack& stack, std::optional<std::int64_t> longEdge) {
  requireStill(f, "previews are for stills");
  const auto edge = static_cast<int>(
      std::clamp(longEdge.value_or(kDefaultPreviewEdge), kMinPreviewEdge, kMaxPreviewEdge));
  const EncodedImage png = encodePng(renderStack(f.path, stack, edge, f.looks));
  gchar* encoded = g_base64_encode(reinterpret_cast<const guchar*>(png.bytes.data()), png.bytes.size());
  PreviewResult r;
  r.pngBase64 = encoded;
  g_free(encoded);
  r.width = png.width;
  r.height = png.height;
  r.appliedStackVersion = stack.version;
  r.basedOnOriginal = true; // every render here starts from the original file
  return r;
}

/// The file at `path` written by `write` under a temporary name, renamed into place when whole.
template <class F> void writeReplacing(const std::string& path, F&& write) {
  const std::string temporary = path + ".part-" + core::Uuid::random().str();
  try {
    write(temporary);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
      throw std::runtime_error("cannot move " + temporary + " to " + path + ": " + std::strerror(errno));
    }
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
}

// ---- The stack ---------------------------------------------------------------------------------

EditGetResult editGet(App& app, const EditGetParams& p) {
  auto a = app.catalog().access();
  core::EditStack stack = stackOf(a.db(), p.id);
  const std::int64_t version = stack.version;
  return {std::move(stack), version};
}

EditSetResult editSet(App& app, const EditSetParams& p) {
  const bool wantPreview = p.preview.value_or(false);
  // The assistant's changes carry its name and session; a change without an agent is the user's.
  const core::EditOrigin origin =
      p.agent ? core::EditOrigin(core::AiOrigin{*p.agent, p.sessionId.value_or("")})
              : core::EditOrigin(core::UserOrigin{});
  PhotoFile file;
  EditSetResult r;
  app.catalog().write([&](Database& db) {
    file = photoFile(app, db, p.id);
    if (wantPreview) {
      // Checked before anything changes, so a refused request leaves the stack as it was.
      requireStill(file, "previews are for stills; send the change without preview");
    }
    core::EditStack stack = loadStack(db, p.id);
    try {
      core::applyAtomically(stack, p.ops, p.maskOps.value_or(std::vector<core::MaskPatchOp>{}),
                            origin, core::nowSeconds(), p.expectedVersion);
    } catch (const core::EditPatchError& e) {
      if (e.kind() != core::EditPatchError::Kind::VersionMismatch) {
        throw MethodError::invalidParams(std::string(e.what()) + "; nothing was changed");
      }
      throw MethodError(RPCErrorCode::VersionConflict,
                        "the edit stack of " + p.id + " is at version " + std::to_string(e.actual()) +
                            ", not " + std::to_string(e.expected()) +
                            "; read it again with edit.get and retry");
    }
    saveStack(db, p.id, stack);
    r.newVersion = stack.version;
    r.stack = std::move(stack);
  });
  if (wantPreview) {
    // The change is committed by now: a failed render must not read as a refused change.
    try {
      r.preview = preview(file, r.stack, p.previewLongEdge);
    } catch (const std::exception& e) {
      logLine("edit.set of " + p.id + " applied, but its preview failed: " + e.what());
    }
  }
  return r;
}

EditGetResult editReset(App& app, const EditResetParams& p) {
  return app.catalog().write([&](Database& db) {
    core::EditStack stack = stackOf(db, p.id);
    core::EditStack fresh;
    fresh.version = core::nextVersion(stack.version);
    saveStack(db, p.id, fresh);
    return EditGetResult{fresh, fresh.version};
  });
}

CommitResult editCommit(App& app, const CommitParams& p) {
  const auto [file, stack] = renderSource(app, p.id);
  requireStill(file, "use video.commit for videos");
  const std::string uuid = p.id.substr(0, p.id.find('/'));
  if (uuid.empty() || uuid.find_first_of("./") != std::string::npos) {
    throw MethodError::invalidParams("the id " + p.id + " cannot name a rendition");
  }
  fs::create_directories(app.folders().renditions);
  const std::string rendition = app.folders().renditions + "/" + uuid + ".jpg";
  const vips::VImage image = renderStack(file.path, stack, std::nullopt, file.looks);
  writeReplacing(rendition, [&](const std::string& temporary) {
    saveImage(image, temporary, {FileFormat::Jpeg, kRenditionQuality});
  });
  app.catalog().write([&](Database& db) {
    auto s = db.prepare("UPDATE photos SET has_adjustments = 1 WHERE id = ?");
    s->bind(1, p.id);
    s->run();
  });
  return {true, stack.version};
}

PreviewResult previewRender(App& app, const PreviewParams& p) {
  const auto [file, stack] = renderSource(app, p.id);
  return preview(file, stack, p.longEdge);
}

// ---- Snapshots ---------------------------------------------------------------------------------

std::string snapshotName(const std::string& name) {
  const auto first = name.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) {
    throw MethodError::invalidParams("a snapshot needs a name at params.name");
  }
  const auto last = name.find_last_not_of(" \t\r\n");
  return name.substr(first, last - first + 1);
}

SnapshotListResult snapshotList(App& app, const SnapshotListParams& p) {
  auto a = app.catalog().access();
  if (!photoExists(a.db(), p.id)) {
    throw MethodError::noPhoto(p.id);
  }
  auto s = a->prepare("SELECT name, created FROM snapshots WHERE photo_id = ? "
                      "ORDER BY created DESC, rowid DESC");
  s->bind(1, p.id);
  SnapshotListResult r;
  while (s->step()) {
    r.snapshots.push_back({s->text(0), json::Date(std::chrono::seconds(s->int64(1)))});
  }
  return r;
}

SnapshotInfo snapshotSave(App& app, const SnapshotRefParams& p) {
  const std::string name = snapshotName(p.name);
  return app.catalog().write([&](Database& db) {
    const core::EditStack stack = stackOf(db, p.id);
    const std::int64_t now = unixNow();
    // A new row rather than an update, so a replaced snapshot lists as the newest.
    auto drop = db.prepare("DELETE FROM snapshots WHERE photo_id = ? AND name = ?");
    drop->bindAll(p.id, name);
    drop->run();
    auto s = db.prepare("INSERT INTO snapshots(photo_id, name, stack, created) VALUES(?, ?, ?, ?)");
    s->bindAll(p.id, name, core::AdjustmentDataCodec::encode(stack), now);
    s->run();
    return SnapshotInfo{name, json::Date(std::chrono::seconds(now))};
  });
}

EditGetResult snapshotRestore(App& app, const SnapshotRefParams& p) {
  const std::string name = snapshotName(p.name);
  return app.catalog().write([&](Database& db) {
    core::EditStack stack = stackOf(db, p.id);
    auto s = db.prepare("SELECT stack FROM snapshots WHERE photo_id = ? AND name = ?");
    s->bindAll(p.id, name);
    if (!s->step()) {
      throw MethodError::invalidParams("no snapshot named \"" + name + "\" for " + p.id +
                                       "; snapshot.list names the saved ones");
    }
    const auto saved = core::AdjustmentDataCodec::decode(s->text(0));
    if (!saved) {
      throw MethodError::internal("the snapshot \"" + name + "\" of " + p.id +
                                  " cannot be read; save it again");
    }
    // Every field and mask, with the provenance it had when saved, as one new version.
    const std::int64_t next = core::nextVersion(stack.version);
    stack = *saved;
    stack.version = next;
    saveStack(db, p.id, stack);
    return EditGetResult{stack, stack.version};
  });
}

// ---- Export ------------------------------------------------------------------------------------

struct ExportFormat {
  std::string_view name;
  std::string_view extension;
  FileFormat format;
};
constexpr std::array<ExportFormat, 4> kExportFormats = {{{"jpeg", "jpg", FileFormat::Jpeg},
                                                         {"png", "png", FileFormat::Png},
                                                         {"heic", "heic", FileFormat::Heic},
                                                         {"tiff16", "tiff", FileFormat::Tiff16}}};

const ExportFormat& exportFormat(const std::optional<std::string>& name) {
  const std::string wanted = name.value_or("jpeg");
  for (const ExportFormat& f : kExportFormats) {
    if (f.name == wanted) {
      return f;
    }
  }
  throw MethodError::invalidParams("unknown export format \"" + wanted +
                                   "\" at params.format: expected jpeg, png, heic or tiff16");
}

/// Creates an empty file named after `stem` that did not exist before (stem.ext, stem-1.ext, …);
/// the render is renamed over it, so two exports of one photo never share a name.
std::string reserveFile(const std::string& folder, const std::string& stem, std::string_view ext) {
  for (int k = 0;; ++k) {
    const std::string path = folder + "/" + stem + (k == 0 ? "" : "-" + std::to_string(k)) + "." +
                             std::string(ext);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
      ::close(fd);
      return path;
    }
    if (errno != EEXIST) {
      throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
    }
  }
}

ExportRenderResult exportRender(App& app, const ExportRenderParams& p) {
  const ExportFormat& format = exportFormat(p.format);
  const std::string colorSpace = p.colorSpace.value_or("sRGB");
  if (colorSpace != "sRGB" && colorSpace != "displayP3") {
    throw MethodError::invalidParams("unknown colour space \"" + colorSpace +
                                     "\" at params.colorSpace: expected sRGB or displayP3");
  }
  const double quality = p.quality.value_or(kDefaultExportQuality);
  if (!(quality >= 0 && quality <= 1)) {
    throw MethodError::invalidParams("params.quality must be between 0 and 1");
  }
  if (p.longEdge && (*p.longEdge < 1 || *p.longEdge > VIPS_MAX_COORD)) {
    throw MethodError::invalidParams("params.longEdge must be a positive number of pixels");
  }
  const auto [file, stack] = renderSource(app, p.id);
  requireStill(file, "export.render renders stills");
  std::string stem = fs::path(file.path).stem().string();
  if (stem.empty()) {
    stem = "export";
  }

  const vips::VImage image = renderStack(
      file.path, stack,
      p.longEdge ? std::optional<int>(static_cast<int>(*p.longEdge)) : std::nullopt, file.looks,
      format.format == FileFormat::Tiff16 ? Encoding::LinearFloat : Encoding::Srgb8);
  SaveSettings settings{format.format,
                        std::clamp(static_cast<int>(std::lround(quality * 100)), 1, 100)};
  if (colorSpace == "displayP3") {
    settings.displayP3Folder = app.folders().headless + "/profiles";
  }
  fs::create_directories(app.folders().exports);
  const std::string path = reserveFile(app.folders().exports, stem, format.extension);
  try {
    writeReplacing(path, [&](const std::string& temporary) { saveImage(image, temporary, settings); });
  } catch (...) {
    ::unlink(path.c_str());
    throw;
  }
  ExportRenderResult r;
  r.path = path;
  r.format = std::string(format.name);
  r.suggestedFilename = stem + "." + std::string(format.extension);
  r.bytes = static_cast<std::int64_t>(fs::file_size(path));
  return r;
}

// ---- Looks -------------------------------------------------------------------------------------

LUTListResult lutList(App& app) {
  LUTListResult r;
  for (LookFile& look : listLooks(app.options().luts)) {
    r.luts.push_back({std::move(look.id), std::move(look.name)});
  }
  return r;
}

} // namespace

void addEditingMethods(MethodTable& t) {
  t.add<IPCMethod::EditGet, &editGet>();
  t.add<IPCMethod::EditSet, &editSet>();
  t.add<IPCMethod::EditReset, &editReset>();
  t.add<IPCMethod::EditCommit, &editCommit>();
  t.add<IPCMethod::PreviewRender, &previewRender>();
  t.add<IPCMethod::SnapshotList, &snapshotList>();
  t.add<IPCMethod::SnapshotSave, &snapshotSave>();
  t.add<IPCMethod::SnapshotRestore, &snapshotRestore>();
  t.add<IPCMethod::ExportRender, &exportRender>();
  t.add<IPCMethod::LutList, &lutList>();
}

} // namespace velko::app
