// Reading the library and driving the view: ping, paging, one photo, queries, the selection,
// the titled view, the editor and the context that gathers them.
#include "app/Library.h"
#include "app/MethodError.h"
#include "app/Methods.h"
#include "app/PhotoData.h"
#include "protocol/LibraryRecords.h"
#include "protocol/PingResult.h"

#include <algorithm>
#include <cmath>

namespace velko::app {
namespace {

using namespace protocol;

constexpr std::int64_t kDefaultPage = 100;
constexpr std::int64_t kMaxPage = 500;
constexpr std::int64_t kDefaultQueryLimit = 500;
constexpr std::size_t kQuerySample = 10;
constexpr double kDefaultRadiusMeters = 500;
constexpr std::string_view kDefaultShowTitle = "Shown by the assistant";

PingResult ping(App& app) {
  PingResult r;
  r.appVersion = kVersion;
  r.buildStamp = std::string("velko-headless ") + kVersion + " (" + __DATE__ + ")";
  r.protocolVersion = kIpcProtocolVersion;
  r.libraryAuthorized = app.library().readable();
  auto a = app.catalog().access();
  auto s = a->prepare("SELECT count(*) FROM photos WHERE state = 0");
  r.photoCount = s->step() ? s->int64(0) : 0;
  return r;
}

ListResult list(App& app, const ListParams& p) {
  const std::int64_t limit = std::clamp<std::int64_t>(p.limit.value_or(kDefaultPage), 1, kMaxPage);
  const std::int64_t offset = std::max<std::int64_t>(p.cursor.value_or(0), 0);
  static const std::string sql = "SELECT " + std::string(kSummaryColumns) +
                                 " FROM photos p WHERE p.state = 0 AND p.hidden = 0"
                                 " ORDER BY p.created DESC, p.pk DESC LIMIT ? OFFSET ?";
  ListResult r;
  auto a = app.catalog().access();
  auto s = a->prepare(sql);
  // One row past the page tells whether another page follows.
  s->bindAll(limit + 1, offset);
  while (s->step()) {
    if (static_cast<std::int64_t>(r.photos.size()) == limit) {
      r.nextCursor = offset + limit;
      break;
    }
    r.photos.push_back(readSummary(*s));
  }
  return r;
}

SelectionResult selection(App& app) {
  auto a = app.catalog().access();
  ViewState v = loadViewState(a.db());
  return {v.selection, v.primary};
}

SelectResult select(App& app, const SelectParams& p) {
  return app.catalog().write([&](Database& db) {
    ViewState v = loadViewState(db);
    v.selection = knownIds(db, p.ids);
    v.primary.reset();
    if (p.primary && std::find(v.selection.begin(), v.selection.end(), *p.primary) != v.selection.end()) {
      v.primary = p.primary;
    } else if (!v.selection.empty()) {
      v.primary = v.selection.front();
    }
    saveViewState(db, v);
    return SelectResult{static_cast<std::int64_t>(v.selection.size()), v.primary};
  });
}

std::int64_t showIds(Database& db, const std::vector<std::string>& ids,
                     const std::optional<std::string>& title, std::string& usedTitle) {
  ViewState v = loadViewState(db);
  v.shown = knownIds(db, ids);
  usedTitle = title && !title->empty() ? *title : std::string(kDefaultShowTitle);
  v.shownTitle = usedTitle;
  saveViewState(db, v);
  return static_cast<std::int64_t>(v.shown.size());
}

ShowResult show(App& app, const ShowParams& p) {
  return app.catalog().write([&](Database& db) {
    ShowResult r;
    r.shown = showIds(db, p.ids, p.title, r.title);
    return r;
  });
}

OpenEditorResult openEditor(App& app, const OpenEditorParams& p) {
  return app.catalog().write([&](Database& db) {
    ViewState v = loadViewState(db);
    if (p.id) {
      if (!photoExists(db, *p.id)) {
        throw MethodError::noPhoto(*p.id);
      }
      v.editorPhoto = p.id;
      v.editorOpen = p.open.value_or(true);
    } else if (p.open) {
      if (*p.open && !v.editorPhoto) {
        // Opening without naming a photo opens the primary selection.
        v.editorPhoto = v.primary;
      }
      v.editorOpen = *p.open && v.editorPhoto.has_value();
    }
    saveViewState(db, v);
    OpenEditorResult r;
    r.open = v.editorOpen;
    if (v.editorOpen) {
      r.photoID = v.editorPhoto;
    }
    return r;
  });
}

ContextResult context(App& app) {
  auto a = app.catalog().access();
  Database& db = a.db();
  const ViewState v = loadViewState(db);
  ContextResult r;
  r.editorOpen = v.editorOpen;
  if (v.editorOpen) {
    r.editorPhotoID = v.editorPhoto;
  }
  r.selectionIDs = v.selection;
  r.primarySelectionID = v.primary;
  r.focusID = r.editorPhotoID ? r.editorPhotoID : v.primary;
  if (r.focusID) {
    r.focus = loadSummary(db, *r.focusID);
    if (!r.focus) {
      r.focusID.reset(); // the photo went to the trash since
    } else {
      r.focusMetadata = loadMetadata(db, *r.focusID);
      core::EditStack stack = loadStack(db, *r.focusID);
      if (!stack.isEmpty() || stack.version != 0) {
        r.focusStack = std::move(stack);
      }
      r.focusAnnotation = loadAnnotation(db, *r.focusID);
    }
  }
  return r;
}

GetResult get(App& app, const GetParams& p) {
  auto a = app.catalog().access();
  auto summary = loadSummary(a.db(), p.id);
  if (!summary) {
    throw MethodError::noPhoto(p.id);
  }
  return {std::move(*summary), loadMetadata(a.db(), p.id), loadAnnotation(a.db(), p.id)};
}

core::PhotoInfo exif(App& app, const GetParams& p) {
  auto a = app.catalog().access();
  auto s = a->prepare("SELECT capture_date, camera_make, camera_model, lens, iso, shutter, "
                      "aperture, focal_length, width, height, format, path FROM photos "
                      "WHERE id = ? AND state != 2");
  s->bind(1, p.id);
  if (!s->step()) {
    throw MethodError::noPhoto(p.id);
  }
  core::PhotoInfo i;
  if (auto t = s->optInt64(0)) {
    i.captureDate = json::Date(std::chrono::seconds(*t));
  }
  i.cameraMake = s->optText(1);
  i.cameraModel = s->optText(2);
  i.lens = s->optText(3);
  i.iso = s->optInt64(4);
  i.shutterSeconds = s->optReal(5);
  i.aperture = s->optReal(6);
  i.focalLengthMM = s->optReal(7);
  i.pixelWidth = s->int64(8);
  i.pixelHeight = s->int64(9);
  i.formatLabel = s->optText(10);
  const std::string path = s->text(11);
  i.originalFilename = path.substr(path.find_last_of('/') + 1);
  return i;
}

/// Flag names as the tools send them, and the numbers the catalogue keeps.
std::int64_t flagNumber(const std::string& name) {
  if (name == "pick") return 1;
  if (name == "reject") return -1;
  if (name == "none") return 0;
  throw MethodError::invalidParams("unknown flag \"" + name + "\" at params.flag: expected pick, reject or none");
}

/// The free text as an FTS5 query: every token must match (a prefix match for the last
/// letters typed), and no token is read as FTS5 syntax.
std::string ftsQuery(const std::string& text) {
  std::string query;
  std::string token;
  auto flush = [&] {
    if (!token.empty()) {
      query += (query.empty() ? "\"" : " \"") + token + "\"*";
      token.clear();
    }
  };
  for (unsigned char c : text) {
    // Letters, digits and any non-ASCII byte belong to tokens; everything else separates them.
    if (std::isalnum(c) || c >= 0x80) {
      token.push_back(static_cast<char>(c));
    } else {
      flush();
    }
  }
  flush();
  return query;
}

QueryResult query(App& app, const QueryParams& p) {
  std::string sql = "SELECT p.id FROM photos p WHERE p.state = 0 AND p.hidden = 0";
  // Each filter adds a condition with placeholders; values are bound, never spliced.
  std::vector<std::variant<std::int64_t, double, std::string>> values;
  // Which index drives the search: the location box when there is one, else the date range,
  // else the text match. A unary + keeps SQLite from driving with the others, which it would
  // otherwise prefer even when they match a quarter of the library.
  const bool located = p.latitude || p.longitude;
  const char* created = located ? " AND +p.created" : " AND p.created";
  const char* textRows = located || p.dateFrom || p.dateTo ? " AND +p.pk IN" : " AND p.pk IN";
  if (p.dateFrom) {
    sql += created;
    sql += " >= ?";
    values.emplace_back(static_cast<std::int64_t>(p.dateFrom->time_since_epoch().count()));
  }
  if (p.dateTo) {
    sql += created;
    sql += " <= ?";
    values.emplace_back(static_cast<std::int64_t>(p.dateTo->time_since_epoch().count()));
  }
  std::optional<std::tuple<double, double, double>> circle;
  if (located) {
    if (!p.latitude || !p.longitude) {
      throw MethodError::invalidParams("a location filter needs both params.latitude and params.longitude");
    }
    const double radius = p.radiusMeters.value_or(kDefaultRadiusMeters);
    if (!(radius > 0) || std::abs(*p.latitude) > 90 || std::abs(*p.longitude) > 180) {
      throw MethodError::invalidParams("a location filter needs latitude -90..90, longitude -180..180 and a positive radiusMeters");
    }
    // A bounding box narrows the rows through the index; the exact distance is checked after.
    const double dLat = radius / 111'320.0;
    const double cosLat = std::max(std::cos(*p.latitude * M_PI / 180), 1e-6);
    const double dLon = std::min(180.0, radius / (111'320.0 * cosLat));
    sql += " AND p.latitude BETWEEN ? AND ? AND p.longitude BETWEEN ? AND ?";
    values.insert(values.end(), {*p.latitude - dLat, *p.latitude + dLat, *p.longitude - dLon, *p.longitude + dLon});
    circle = std::tuple{*p.latitude, *p.longitude, radius};
  }
  if (p.minRating) {
    sql += " AND p.rating >= ?";
    values.emplace_back(*p.minRating);
  }
  if (p.flag) {
    sql += " AND p.flag = ?";
    values.emplace_back(flagNumber(*p.flag));
  }
  if (p.editedOnly.value_or(false)) {
    sql += " AND (p.has_adjustments = 1 OR p.stack_version > 0)";
  }
  if (p.videoOnly) {
    sql += " AND p.is_video = ?";
    values.emplace_back(std::int64_t{*p.videoOnly ? 1 : 0});
  }
  if (p.favoritesOnly.value_or(false)) {
    sql += " AND p.favorite = 1";
  }
  if (p.text) {
    const std::string match = ftsQuery(*p.text);
    if (!match.empty()) {
      sql += textRows;
      sql += " (SELECT rowid FROM photo_text WHERE photo_text MATCH ?)";
      values.emplace_back(match);
    }
  }
  if (circle) {
    sql += " AND velko_distance(p.latitude, p.longitude, ?, ?) <= ?";
    auto [lat, lon, radius] = *circle;
    values.insert(values.end(), {lat, lon, radius});
  }
  sql += " ORDER BY p.created DESC, p.pk DESC LIMIT ?";
  const std::int64_t limit = std::max<std::int64_t>(p.limit.value_or(kDefaultQueryLimit), 1);
  values.emplace_back(limit);

  QueryResult r;
  auto run = [&](Database& db) {
    {
      auto s = db.prepare(sql);
      for (std::size_t i = 0; i < values.size(); ++i) {
        std::visit([&](const auto& v) { s->bind(static_cast<int>(i + 1), v); }, values[i]);
      }
      while (s->step()) {
        r.ids.push_back(s->text(0));
      }
    }
    r.count = static_cast<std::int64_t>(r.ids.size());
    const std::vector<std::string> head(r.ids.begin(), r.ids.begin() + static_cast<std::ptrdiff_t>(std::min(kQuerySample, r.ids.size())));
    r.sample = summariesOf(db, head);
  };
  if (p.show.value_or(false)) {
    app.catalog().write([&](Database& db) {
      run(db);
      std::string title;
      showIds(db, r.ids, p.title, title);
      r.shown = true;
    });
  } else {
    auto a = app.catalog().access();
    run(a.db());
  }
  return r;
}

} // namespace

void addLibraryMethods(MethodTable& t) {
  t.add<IPCMethod::Ping, &ping>();
  t.add<IPCMethod::List, &list>();
  t.add<IPCMethod::Selection, &selection>();
  t.add<IPCMethod::Select, &select>();
  t.add<IPCMethod::Show, &show>();
  t.add<IPCMethod::EditorOpen, &openEditor>();
  t.add<IPCMethod::Context, &context>();
  t.add<IPCMethod::Get, &get>();
  t.add<IPCMethod::Exif, &exif>();
  t.add<IPCMethod::Query, &query>();
}

} // namespace velko::app
