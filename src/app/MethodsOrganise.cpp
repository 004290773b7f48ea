// Organising the catalogue: ratings, flags, colour labels, favourites and hiding; collections,
// keywords and albums; AI annotations; and geotags. Every change is one transaction; ids that do
// not name a catalogued photo are reported back, never an error.
#include "app/Gazetteer.h"
#include "app/MethodError.h"
#include "app/Methods.h"
#include "app/PhotoData.h"
#include "core/Uuid.h"
#include "json/Writer.h"
#include "protocol/LibraryRecords.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>

namespace velko::app {
namespace {

using namespace protocol;

constexpr std::int64_t kDefaultPendingBatch = 20;
constexpr std::int64_t kMaxPendingBatch = 500;

std::string trimmed(std::string_view s) {
  constexpr std::string_view kSpace = " \t\n\r\f\v";
  const auto first = s.find_first_not_of(kSpace);
  if (first == std::string_view::npos) {
    return {};
  }
  return std::string(s.substr(first, s.find_last_not_of(kSpace) - first + 1));
}

/// Runs `change(id)` for each id that names a catalogued photo, once per id; unknown and
/// repeated ids are skipped. A known photo counts as updated even when it already had the
/// value asked for (or already was, or was not, in the group): the answer says which photos
/// are now as asked, so repeating a request gives the same answer.
template <class F>
UpdatedResult forEachPhoto(Database& db, const std::vector<std::string>& ids, F&& change) {
  UpdatedResult r;
  std::set<std::string_view> seen;
  for (const std::string& id : ids) {
    if (seen.insert(id).second && photoExists(db, id)) {
      change(id);
      ++r.updated;
    } else {
      r.skipped.push_back(id);
    }
  }
  return r;
}

// ---- Ratings, flags, labels, favourites, hiding -----------------------------------------------

/// Sets one catalogue column, named by the fixed SQL text, on each photo.
UpdatedResult setColumn(App& app, const std::vector<std::string>& ids, std::string_view sql,
                        std::int64_t value) {
  return app.catalog().write([&](Database& db) {
    return forEachPhoto(db, ids, [&](const std::string& id) {
      auto s = db.prepare(sql);
      s->bindAll(value, id);
      s->run();
    });
  });
}

using NamedNumber = std::pair<std::string_view, std::int64_t>;
constexpr NamedNumber kFlags[] = {{"pick", 1}, {"reject", -1}, {"none", 0}};
constexpr NamedNumber kLabels[] = {{"none", 0},  {"red", 1},  {"yellow", 2},
                                   {"green", 3}, {"blue", 4}, {"purple", 5}};

template <std::size_t N>
std::int64_t numberOf(const NamedNumber (&names)[N], const std::string& given,
                      std::string_view what, std::string_view path) {
  std::string accepted;
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i].first == given) {
      return names[i].second;
    }
    accepted += (i == 0 ? "" : i + 1 == N ? " or " : ", ") + std::string(names[i].first);
  }
  throw MethodError::invalidParams("unknown " + std::string(what) + " \"" + given + "\" at " +
                                   std::string(path) + ": expected " + accepted);
}

UpdatedResult rate(App& app, const RateParams& p) {
  if (p.rating < 0 || p.rating > 5) {
    throw MethodError::invalidParams("rating " + std::to_string(p.rating) +
                                     " at params.rating is out of range: expected 0 to 5 stars");
  }
  return setColumn(app, p.ids, "UPDATE photos SET rating = ? WHERE id = ?", p.rating);
}

UpdatedResult flag(App& app, const FlagParams& p) {
  return setColumn(app, p.ids, "UPDATE photos SET flag = ? WHERE id = ?",
                   numberOf(kFlags, p.flag, "flag", "params.flag"));
}

UpdatedResult label(App& app, const LabelParams& p) {
  return setColumn(app, p.ids, "UPDATE photos SET label = ? WHERE id = ?",
                   numberOf(kLabels, p.color, "colour label", "params.color"));
}

UpdatedResult favorite(App& app, const FavoriteParams& p) {
  return setColumn(app, p.ids, "UPDATE photos SET favorite = ? WHERE id = ?", p.favorite ? 1 : 0);
}

UpdatedResult hide(App& app, const HideParams& p) {
  return setColumn(app, p.ids, "UPDATE photos SET hidden = ? WHERE id = ?", p.hidden ? 1 : 0);
}

// ---- Collections, keywords and albums ----------------------------------------------------------

/// The `kind` column of table groups.
enum class GroupKind : std::int64_t { Collection = 0, Keyword = 1, Album = 2 };

template <GroupKind K> struct GroupTraits;
template <> struct GroupTraits<GroupKind::Collection> {
  using Info = CollectionInfo;
  using List = CollectionListResult;
  static constexpr auto items = &List::collections;
  static constexpr std::string_view noun = "collection";
};
template <> struct GroupTraits<GroupKind::Keyword> {
  using Info = KeywordInfo;
  using List = KeywordListResult;
  static constexpr auto items = &List::keywords;
  static constexpr std::string_view noun = "keyword";
};
template <> struct GroupTraits<GroupKind::Album> {
  using Info = AlbumInfo;
  using List = AlbumListResult;
  static constexpr auto items = &List::albums;
  static constexpr std::string_view noun = "album";
};

// A group's count is of its members that are still catalogued (trashed photos leave it).
constexpr std::string_view kGroupColumns =
    "SELECT g.id, g.name, g.parent_id, (SELECT count(*) FROM group_members m JOIN photos p "
    "ON p.id = m.photo_id WHERE m.group_id = g.id AND p.state != 2) FROM groups g ";

template <GroupKind K> typename GroupTraits<K>::Info readGroup(const Statement& s) {
  typename GroupTraits<K>::Info info;
  info.id = s.text(0);
  info.count = s.int64(3);
  if constexpr (K == GroupKind::Album) {
    info.title = s.text(1);
  } else {
    info.name = s.text(1);
    info.parentID = s.optText(2);
  }
  return info;
}

template <GroupKind K>
typename GroupTraits<K>::Info loadGroup(Database& db, const std::string& id) {
  static const std::string sql = std::string(kGroupColumns) + "WHERE g.id = ?";
  auto s = db.prepare(sql);
  s->bind(1, id);
  s->step();
  return readGroup<K>(*s);
}

template <GroupKind K> typename GroupTraits<K>::List listGroups(App& app) {
  static const std::string sql =
      std::string(kGroupColumns) + "WHERE g.kind = ? ORDER BY g.name COLLATE NOCASE, g.name, g.id";
  typename GroupTraits<K>::List r;
  auto a = app.catalog().access();
  auto s = a->prepare(sql);
  s->bind(1, static_cast<std::int64_t>(K));
  while (s->step()) {
    (r.*GroupTraits<K>::items).push_back(readGroup<K>(*s));
  }
  return r;
}

bool groupExists(Database& db, GroupKind kind, const std::string& id) {
  auto s = db.prepare("SELECT 1 FROM groups WHERE id = ? AND kind = ?");
  s->bindAll(id, static_cast<std::int64_t>(kind));
  return s->step();
}

/// The group a membership change names: by id when given, else by name. Names match without
/// regard to ASCII case; when several groups share one (keywords nested under different
/// parents), the exact spelling wins, then a top-level group, then the oldest.
template <GroupKind K> std::string resolveGroup(Database& db, const GroupMembershipParams& p) {
  const std::string noun(GroupTraits<K>::noun);
  if (p.id) {
    if (!groupExists(db, K, *p.id)) {
      throw MethodError::invalidParams("no " + noun + " with id " + *p.id + "; call " + noun +
                                       ".list for the ids");
    }
    return *p.id;
  }
  if (p.name) {
    const std::string name = trimmed(*p.name);
    auto s = db.prepare("SELECT id FROM groups WHERE kind = ? AND name = ? COLLATE NOCASE "
                        "ORDER BY name = ? DESC, parent_id IS NOT NULL, created, rowid LIMIT 1");
    s->bindAll(static_cast<std::int64_t>(K), name, name);
    if (!s->step()) {
      throw MethodError::invalidParams("no " + noun + " named \"" + name + "\"; create it with " +
                                       noun + ".create or call " + noun + ".list for the names");
    }
    return s->text(0);
  }
  throw MethodError::invalidParams("give the " + noun + " by params.id or params.name");
}

void addMember(Database& db, const std::string& group, const std::string& photo) {
  auto s =
      db.prepare("INSERT INTO group_members(group_id, photo_id, position) VALUES(?1, ?2, "
                 "(SELECT COALESCE(MAX(position), 0) + 1 FROM group_members WHERE group_id = ?1)) "
                 "ON CONFLICT(group_id, photo_id) DO NOTHING");
  s->bindAll(group, photo);
  s->run();
}

void removeMember(Database& db, const std::string& group, const std::string& photo) {
  auto s = db.prepare("DELETE FROM group_members WHERE group_id = ? AND photo_id = ?");
  s->bindAll(group, photo);
  s->run();
}

/// Creating a group whose name (in any ASCII case) is already taken under the same parent
/// returns that group, with the given photos added to it: a name is how the assistant refers
/// to a group, so two groups of one name side by side could never be told apart.
template <GroupKind K>
typename GroupTraits<K>::Info createGroup(App& app, const GroupCreateParams& p) {
  const std::string noun(GroupTraits<K>::noun);
  const std::string name = trimmed(p.name);
  if (name.empty()) {
    throw MethodError::invalidParams("params.name is empty: give the " + noun + " a name");
  }
  // An empty parentID is read as none, the way a form leaves an unused field.
  std::optional<std::string> parent =
      p.parentID && !p.parentID->empty() ? p.parentID : std::nullopt;
  return app.catalog().write([&](Database& db) {
    if (parent) {
      if constexpr (K == GroupKind::Album) {
        throw MethodError::invalidParams("albums do not nest: leave out params.parentID");
      }
      if (!groupExists(db, K, *parent)) {
        throw MethodError::invalidParams("params.parentID " + *parent + " is not a " + noun +
                                         "; call " + noun + ".list for the ids");
      }
    }
    std::string id;
    {
      auto s = db.prepare("SELECT id FROM groups WHERE kind = ? AND name = ? COLLATE NOCASE "
                          "AND parent_id IS ? ORDER BY created, rowid LIMIT 1");
      s->bindAll(static_cast<std::int64_t>(K), name, parent);
      if (s->step()) {
        id = s->text(0);
      }
    }
    if (id.empty()) {
      id = core::Uuid::random().str();
      auto s = db.prepare(
          "INSERT INTO groups(id, kind, name, parent_id, created) VALUES(?, ?, ?, ?, ?)");
      s->bindAll(id, static_cast<std::int64_t>(K), name, parent, unixNow());
      s->run();
    }
    if (p.ids) {
      forEachPhoto(db, *p.ids, [&](const std::string& photo) { addMember(db, id, photo); });
    }
    return loadGroup<K>(db, id);
  });
}

template <GroupKind K, bool Add>
UpdatedResult changeMembers(App& app, const GroupMembershipParams& p) {
  return app.catalog().write([&](Database& db) {
    const std::string group = resolveGroup<K>(db, p);
    return forEachPhoto(db, p.ids, [&](const std::string& photo) {
      Add ? addMember(db, group, photo) : removeMember(db, group, photo);
    });
  });
}

// ---- AI annotations -----------------------------------------------------------------------------

// Stills still waiting for a description, in the order they are handed out.
constexpr std::string_view kPendingWhere =
    " FROM photos WHERE state = 0 AND is_video = 0 AND hidden = 0 AND annotation IS NULL";

AnnotatePendingResult annotatePending(App& app, const AnnotatePendingParams& p) {
  const auto limit = static_cast<std::size_t>(
      std::clamp<std::int64_t>(p.limit.value_or(kDefaultPendingBatch), 1, kMaxPendingBatch));
  static const std::string countSql = "SELECT count(*)" + std::string(kPendingWhere);
  static const std::string oneSql = "SELECT 1" + std::string(kPendingWhere) + " AND id = ?";
  static const std::string newestSql =
      "SELECT id" + std::string(kPendingWhere) + " ORDER BY created DESC, pk DESC LIMIT ?";
  AnnotatePendingResult r;
  auto a = app.catalog().access();
  Database& db = a.db();
  {
    auto s = db.prepare(countSql);
    r.remaining = s->step() ? s->int64(0) : 0;
  }
  // What the user has selected comes first, in selection order; then the newest.
  std::set<std::string> taken;
  for (const std::string& id : loadViewState(db).selection) {
    if (r.ids.size() == limit) {
      break;
    }
    auto s = db.prepare(oneSql);
    s->bind(1, id);
    if (s->step() && taken.insert(id).second) {
      r.ids.push_back(id);
    }
  }
  auto s = db.prepare(newestSql);
  s->bind(1, static_cast<std::int64_t>(limit + taken.size()));
  while (r.ids.size() < limit && s->step()) {
    std::string id = s->text(0);
    if (!taken.contains(id)) {
      r.ids.push_back(std::move(id));
    }
  }
  return r;
}

/// The annotation as it is kept: text trimmed, keyword, subject and palette lists trimmed and
/// without empty or repeated entries (compared ignoring ASCII case, the first spelling kept),
/// empty optional texts dropped and the keeper score clamped to 0..1.
core::PhotoAIAnnotation tidy(core::PhotoAIAnnotation a) {
  a.caption = trimmed(a.caption);
  if (a.caption.empty()) {
    throw MethodError::invalidParams(
        "params.annotation.caption is empty: describe the photo in one grounded sentence");
  }
  a.longDescription = trimmed(a.longDescription);
  for (auto* list : {&a.keywords, &a.subjects, &a.palette}) {
    std::transform(list->begin(), list->end(), list->begin(), trimmed);
    *list = core::unionOf({}, *list);
  }
  for (auto* text : {&a.scene, &a.ocrText}) {
    if (*text && (** text = trimmed(**text)).empty()) {
      text->reset();
    }
  }
  if (a.peopleCount && *a.peopleCount < 0) {
    throw MethodError::invalidParams("params.annotation.peopleCount is " +
                                     std::to_string(*a.peopleCount) + ": expected 0 or more");
  }
  if (a.keeperScore) {
    a.keeperScore = std::clamp(*a.keeperScore, 0.0, 1.0);
  }
  return a;
}

// Takes the params whole so that the annotation is read the lenient way the assistant writes it
// (an omitted longDescription or list reads as empty).
AnnotateSetResult annotateSet(App& app, const json::Value& params) {
  AnnotateSetParams p = decodeAssistantAnnotateSet(params, json::Path("params"));
  AnnotateSetResult r{tidy(std::move(p.annotation))};
  app.catalog().write([&](Database& db) {
    std::int64_t pk = 0;
    std::string path;
    {
      auto s = db.prepare("SELECT pk, path FROM photos WHERE id = ? AND state != 2");
      s->bind(1, p.id);
      if (!s->step()) {
        throw MethodError::noPhoto(p.id);
      }
      pk = s->int64(0);
      path = s->text(1);
    }
    {
      auto s = db.prepare("UPDATE photos SET annotation = ?, annotation_model = ? WHERE pk = ?");
      s->bindAll(json::toCompact(json::encode(r.annotation)), p.model, pk);
      s->run();
    }
    const std::string text = core::searchText(r.annotation);
    auto update = db.prepare("UPDATE photo_text SET annotation = ? WHERE rowid = ?");
    update->bindAll(text, pk);
    update->run();
    if (db.changes() == 0) {
      // The scanner writes each photo's row with its file name; one written before that
      // existed gets it here.
      auto insert =
          db.prepare("INSERT INTO photo_text(rowid, filename, annotation) VALUES(?, ?, ?)");
      insert->bindAll(pk, path.substr(path.find_last_of('/') + 1), text);
      insert->run();
    }
  });
  return r;
}

// ---- Location -----------------------------------------------------------------------------------

/// Where the photos were taken, from the one form the params give.
struct Location {
  std::optional<double> latitude, longitude; ///< both absent: clear
};

void checkRange(double value, double limit, std::string_view key) {
  if (!std::isfinite(value) || std::abs(value) > limit) {
    std::ostringstream shown;
    shown << value;
    throw MethodError::invalidParams(std::string(key) + " " + shown.str() + " at params." +
                                     std::string(key) + " is out of range: expected -" +
                                     std::to_string(int(limit)) + " to " +
                                     std::to_string(int(limit)));
  }
}

Location locationOf(const GeotagParams& p) {
  const bool coordinates = p.latitude || p.longitude;
  const bool clear = p.clear.value_or(false);
  const int forms = int(coordinates) + int(p.place.has_value()) + int(clear);
  if (forms != 1) {
    throw MethodError::invalidParams(
        std::string(forms == 0 ? "say where the photos were taken: give"
                               : "give only one of the location forms:") +
        " params.latitude and params.longitude, params.place, or params.clear: true");
  }
  if (clear) {
    return {};
  }
  if (coordinates) {
    if (!p.latitude || !p.longitude) {
      throw MethodError::invalidParams(std::string("params.") +
                                       (p.latitude ? "longitude" : "latitude") +
                                       " is missing: coordinates need both latitude and longitude");
    }
    checkRange(*p.latitude, 90, "latitude");
    checkRange(*p.longitude, 180, "longitude");
    return {p.latitude, p.longitude};
  }
  const Gazetteer& gazetteer = Gazetteer::system();
  if (gazetteer.empty()) {
    throw MethodError::invalidParams("the offline gazetteer (tzdata's zone.tab) is not installed, "
                                     "so \"" +
                                     *p.place +
                                     "\" cannot be looked up; pass latitude and longitude instead");
  }
  const auto place = gazetteer.find(*p.place);
  if (!place) {
    throw MethodError::invalidParams("no place named \"" + *p.place +
                                     "\" in the offline gazetteer (it knows major cities and "
                                     "countries); pass latitude and longitude instead");
  }
  return {place->latitude, place->longitude};
}

// Locations are kept in the catalogue only; the files are never written. user_location tells
// the scanner to keep them rather than read the EXIF position again (a cleared one included).
GeotagResult geotag(App& app, const GeotagParams& p) {
  if (!app.options().allowSaving) {
    throw MethodError::internal("photo.geotag changes your library; start velko-headless with "
                                "--allow-saving to allow it");
  }
  const Location where = locationOf(p);
  UpdatedResult u = app.catalog().write([&](Database& db) {
    return forEachPhoto(db, p.ids, [&](const std::string& id) {
      auto s = db.prepare(
          "UPDATE photos SET latitude = ?, longitude = ?, user_location = 1 WHERE id = ?");
      s->bindAll(where.latitude, where.longitude, id);
      s->run();
    });
  });
  return {u.updated, std::move(u.skipped), where.latitude, where.longitude};
}

} // namespace

void addOrganiseMethods(MethodTable& t) {
  t.add<IPCMethod::Rate, &rate>();
  t.add<IPCMethod::Flag, &flag>();
  t.add<IPCMethod::Label, &label>();
  t.add<IPCMethod::Favorite, &favorite>();
  t.add<IPCMethod::Hide, &hide>();

  using enum GroupKind;
  t.add<IPCMethod::CollectionList, &listGroups<Collection>>();
  t.add<IPCMethod::CollectionCreate, &createGroup<Collection>>();
  t.add<IPCMethod::CollectionAdd, &changeMembers<Collection, true>>();
  t.add<IPCMethod::CollectionRemove, &changeMembers<Collection, false>>();
  t.add<IPCMethod::KeywordList, &listGroups<Keyword>>();
  t.add<IPCMethod::KeywordCreate, &createGroup<Keyword>>();
  t.add<IPCMethod::KeywordAssign, &changeMembers<Keyword, true>>();
  t.add<IPCMethod::KeywordRemove, &changeMembers<Keyword, false>>();
  t.add<IPCMethod::AlbumList, &listGroups<Album>>();
  t.add<IPCMethod::AlbumCreate, &createGroup<Album>>();
  t.add<IPCMethod::AlbumAdd, &changeMembers<Album, true>>();
  t.add<IPCMethod::AlbumRemove, &changeMembers<Album, false>>();

  t.add<IPCMethod::AnnotatePending, &annotatePending>();
  t.add<IPCMethod::AnnotateSet, &annotateSet>();
  t.add<IPCMethod::Geotag, &geotag>();
}

} // namespace velko::app
