#include "app/PhotoData.h"

#include "app/Catalog.h"
#include "json/Value.h"
#include "json/Writer.h"

#include <chrono>
#include <set>

namespace velko::app {

ViewState loadViewState(Database& db) {
  auto s = db.prepare("SELECT value FROM view_state WHERE key = 'view'");
  if (!s->step()) {
    return {};
  }
  try {
    return json::decodeAs<ViewState>(json::parse(s->text(0)));
  } catch (const json::DecodeError&) {
    return {}; // a view state is not worth refusing to start over
  }
}

void saveViewState(Database& db, const ViewState& state) {
  auto s = db.prepare("INSERT INTO view_state(key, value) VALUES('view', ?) "
                      "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
  s->bind(1, json::toCompact(json::encode(state)));
  s->run();
}

core::EditStack loadStack(Database& db, std::string_view id) {
  auto s = db.prepare("SELECT stack FROM photos WHERE id = ?");
  s->bind(1, id);
  if (s->step() && !s->isNull(0)) {
    if (auto stack = core::AdjustmentDataCodec::decode(s->text(0))) {
      return *stack;
    }
  }
  return {};
}

void saveStack(Database& db, std::string_view id, const core::EditStack& stack) {
  auto s = db.prepare("UPDATE photos SET stack = ?, stack_version = ? WHERE id = ?");
  s->bindAll(core::AdjustmentDataCodec::encode(stack), stack.version, id);
  s->run();
}

std::optional<core::PhotoAIAnnotation> loadAnnotation(Database& db, std::string_view id) {
  auto s = db.prepare("SELECT annotation FROM photos WHERE id = ? AND annotation IS NOT NULL");
  s->bind(1, id);
  if (!s->step()) {
    return std::nullopt;
  }
  try {
    return json::decodeAs<core::PhotoAIAnnotation>(json::parse(s->text(0)));
  } catch (const json::DecodeError&) {
    return std::nullopt;
  }
}

std::optional<protocol::PhotoMetadataDTO> loadMetadata(Database& db, std::string_view id) {
  auto s = db.prepare("SELECT rating, flag, label, stack FROM photos WHERE id = ? AND state != 2");
  s->bind(1, id);
  if (!s->step()) {
    return std::nullopt;
  }
  protocol::PhotoMetadataDTO m;
  m.rating = s->int64(0);
  m.flag = s->int64(1);
  m.colorLabel = s->int64(2);
  if (!s->isNull(3)) {
    const auto stack = core::AdjustmentDataCodec::decode(s->text(3));
    m.hasEditStack = stack && !stack->isEmpty();
  }
  return m;
}

std::optional<core::PhotoSummary> loadSummary(Database& db, std::string_view id) {
  static const std::string sql =
      "SELECT " + std::string(kSummaryColumns) + " FROM photos p WHERE p.id = ? AND p.state != 2";
  auto s = db.prepare(sql);
  s->bind(1, id);
  if (!s->step()) {
    return std::nullopt;
  }
  return readSummary(*s);
}

std::vector<std::string> knownIds(Database& db, const std::vector<std::string>& ids) {
  std::vector<std::string> out;
  std::set<std::string_view> seen;
  for (const std::string& id : ids) {
    if (seen.insert(id).second && photoExists(db, id)) {
      out.push_back(id);
    }
  }
  return out;
}

std::int64_t unixNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

} // namespace velko::app
