#include "core/EditStack.h"

#include "core/EditPatch.h"
#include "json/Value.h"
#include "json/Writer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace velko::core {
namespace {

/// Rounds half away from zero; absent for a number with no integer near it.
std::optional<std::int64_t> roundedInteger(double v) {
  if (!std::isfinite(v) || std::fabs(v) >= 9.0e18) {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(std::llround(v));
}

// White space and line breaks, Unicode ones included, as a person pasting a colour may bring.
constexpr std::array<std::string_view, 25> kBlanks = {
    " ",      "\t",     "\n",     "\r",     "\v",     "\f",     "\u0085", "\u00A0", "\u1680",
    "\u2000", "\u2001", "\u2002", "\u2003", "\u2004", "\u2005", "\u2006", "\u2007", "\u2008",
    "\u2009", "\u200A", "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"};

std::string_view trimmedBlanks(std::string_view text) {
  for (bool trimmed = true; trimmed && !text.empty();) {
    trimmed = false;
    for (std::string_view blank : kBlanks) {
      if (text.starts_with(blank)) {
        text.remove_prefix(blank.size());
        trimmed = true;
      }
      if (text.ends_with(blank)) {
        text.remove_suffix(blank.size());
        trimmed = true;
      }
    }
  }
  return text;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return -1;
}

/// A pair of lower-case digits read as a signed base-16 integer: "ff" is 255, "+f" is 15 and
/// "-f" is -15, as an ordinary signed integer parse reads them.
std::optional<int> parsePair(char hi, char lo) {
  const int l = hexDigit(lo);
  if (l < 0) {
    return std::nullopt;
  }
  if (hi == '+') {
    return l;
  }
  if (hi == '-') {
    return -l;
  }
  const int h = hexDigit(hi);
  if (h < 0) {
    return std::nullopt;
  }
  return h * 16 + l;
}

void appendHexByte(std::string& out, double component) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  double scaled = std::round(component * 255);
  const int byte = std::isnan(scaled) ? 0 : static_cast<int>(std::clamp(scaled, 0.0, 255.0));
  out += kDigits[byte >> 4];
  out += kDigits[byte & 0xF];
}

} // namespace

const FrameColorRGBA FrameColorRGBA::white = {1, 1, 1, 1};
const FrameColorRGBA FrameColorRGBA::black = {0, 0, 0, 1};
const FrameInsets FrameInsets::zero = {0, 0, 0, 0};

std::string FrameColorRGBA::hex() const {
  std::string out = "#";
  appendHexByte(out, r);
  appendHexByte(out, g);
  appendHexByte(out, b);
  if (a < 1.0) {
    appendHexByte(out, a);
  }
  return out;
}

std::optional<FrameColorRGBA> FrameColorRGBA::fromHex(std::string_view text) {
  text = trimmedBlanks(text);
  if (!text.empty() && text.front() == '#') {
    text.remove_prefix(1);
  }
  std::string digits(text);
  for (char& c : digits) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  if (digits.size() == 3) {
    digits = {digits[0], digits[0], digits[1], digits[1], digits[2], digits[2]};
  }
  if (digits.size() != 6 && digits.size() != 8) {
    return std::nullopt;
  }
  std::array<double, 4> parts = {0, 0, 0, 1};
  for (std::size_t i = 0; i * 2 < digits.size(); ++i) {
    std::optional<int> v = parsePair(digits[i * 2], digits[i * 2 + 1]);
    if (!v) {
      return std::nullopt;
    }
    parts[i] = *v / 255.0;
  }
  return FrameColorRGBA{parts[0], parts[1], parts[2], parts[3]};
}

double FrameInsets::maxSide() const {
  return std::max({top, bottom, left, right});
}

json::Date nowSeconds() {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

const std::vector<AdjustmentKind>& EditStack::geometryKinds() {
  using K = AdjustmentKind;
  static const std::vector<AdjustmentKind> kinds = {K::Rotation,
                                                    K::Crop,
                                                    K::Straighten,
                                                    K::FlipHorizontal,
                                                    K::FlipVertical,
                                                    K::PerspectiveVertical,
                                                    K::PerspectiveHorizontal,
                                                    K::LensDistortion,
                                                    K::FrameAspect,
                                                    K::FrameFitMode,
                                                    K::FrameColor,
                                                    K::FrameInset,
                                                    K::FrameInsetLinked,
                                                    K::FrameInsetTop,
                                                    K::FrameInsetBottom,
                                                    K::FrameInsetLeft,
                                                    K::FrameInsetRight};
  return kinds;
}

const std::vector<LocalMask>& EditStack::masks() const {
  static const std::vector<LocalMask> kNone;
  return maskList ? *maskList : kNone;
}

void EditStack::setMasks(std::vector<LocalMask> masks) {
  if (masks.empty()) {
    maskList.reset();
  } else {
    maskList = std::move(masks);
  }
}

std::int64_t nextVersion(std::int64_t version) {
  if (version == std::numeric_limits<std::int64_t>::max()) {
    throw std::overflow_error("the edit stack's version " + std::to_string(version) +
                              " is the largest there is and cannot advance");
  }
  return version + 1;
}

void EditStack::set(AdjustmentKind kind, AdjustmentPayload payload, const EditOrigin& origin,
                    json::Date at) {
  const std::int64_t next = nextVersion(version);
  values.insert_or_assign(kind, AdjustmentValue{kind, std::move(payload), origin, at});
  version = next;
}

void EditStack::setScalar(AdjustmentKind kind, double v, const EditOrigin& origin, json::Date at) {
  set(kind, AdjustmentPayload(std::in_place_type<double>, v), origin, at);
}
void EditStack::setBoolean(AdjustmentKind kind, bool v, const EditOrigin& origin, json::Date at) {
  set(kind, AdjustmentPayload(std::in_place_type<bool>, v), origin, at);
}
void EditStack::setCurve(AdjustmentKind kind, Curve v, const EditOrigin& origin, json::Date at) {
  set(kind, AdjustmentPayload(std::move(v)), origin, at);
}
void EditStack::setRect(AdjustmentKind kind, Rect v, const EditOrigin& origin, json::Date at) {
  set(kind, AdjustmentPayload(v), origin, at);
}
void EditStack::setString(AdjustmentKind kind, std::string v, const EditOrigin& origin,
                          json::Date at) {
  set(kind, AdjustmentPayload(std::move(v)), origin, at);
}
void EditStack::setPointColors(std::vector<PointColorTarget> targets, const EditOrigin& origin,
                               json::Date at) {
  set(AdjustmentKind::PointColor, AdjustmentPayload(std::move(targets)), origin, at);
}

void EditStack::clear(AdjustmentKind kind) {
  if (values.contains(kind)) {
    const std::int64_t next = nextVersion(version);
    values.erase(kind);
    version = next;
  }
}

void EditStack::addMask(LocalMask mask) {
  const std::int64_t next = nextVersion(version);
  if (!maskList) {
    maskList.emplace();
  }
  maskList->push_back(std::move(mask));
  version = next;
}

void EditStack::updateMask(const LocalMask& mask) {
  if (!maskList) {
    return;
  }
  auto it = std::find_if(maskList->begin(), maskList->end(),
                         [&](const LocalMask& m) { return m.id == mask.id; });
  if (it == maskList->end()) {
    return;
  }
  const std::int64_t next = nextVersion(version);
  *it = mask;
  version = next;
}

void EditStack::removeMask(const Uuid& id) {
  const std::int64_t next = nextVersion(version);
  if (maskList) {
    std::erase_if(*maskList, [&](const LocalMask& m) { return m.id == id; });
    if (maskList->empty()) {
      maskList.reset();
    }
  }
  version = next;
}

void EditStack::setFrameFit(FrameFit fit) {
  // Storing nothing for the default keeps an untouched stack and a reset one equal.
  if (fit == FrameFit::Fit) {
    clear(AdjustmentKind::FrameFitMode);
    return;
  }
  setScalar(AdjustmentKind::FrameFitMode, static_cast<double>(fit), UserOrigin{}, nowSeconds());
}

void EditStack::setDevelopSource(DevelopSource source) {
  if (source == DevelopSource::Raw) {
    clear(AdjustmentKind::DevelopSource);
    return;
  }
  setScalar(AdjustmentKind::DevelopSource, static_cast<double>(source), UserOrigin{}, nowSeconds());
}

void EditStack::applyGroups(const std::vector<EditGroup>& groups, const EditStack& other) {
  const std::int64_t next = nextVersion(version);
  for (EditGroup group : groups) {
    if (group == EditGroup::Masks) {
      maskList = other.maskList;
      if (maskList && maskList->empty()) {
        maskList.reset();
      }
      continue;
    }
    for (AdjustmentKind kind : kinds(group)) {
      if (const AdjustmentValue* v = other.find(kind)) {
        values.insert_or_assign(kind, *v);
      } else {
        values.erase(kind);
      }
    }
  }
  version = next;
}

const AdjustmentValue* EditStack::find(AdjustmentKind kind) const {
  auto it = values.find(kind);
  return it == values.end() ? nullptr : &it->second;
}

std::optional<double> EditStack::scalar(AdjustmentKind kind) const {
  const AdjustmentValue* v = find(kind);
  return v ? core::scalar(v->payload) : std::nullopt;
}
std::optional<bool> EditStack::boolean(AdjustmentKind kind) const {
  const AdjustmentValue* v = find(kind);
  return v ? core::boolean(v->payload) : std::nullopt;
}
std::optional<Curve> EditStack::curve(AdjustmentKind kind) const {
  const AdjustmentValue* v = find(kind);
  return v ? core::curve(v->payload) : std::nullopt;
}
std::optional<Rect> EditStack::rect(AdjustmentKind kind) const {
  const AdjustmentValue* v = find(kind);
  return v ? core::rect(v->payload) : std::nullopt;
}
std::optional<std::string> EditStack::string(AdjustmentKind kind) const {
  const AdjustmentValue* v = find(kind);
  return v ? core::string(v->payload) : std::nullopt;
}
double EditStack::scalar(AdjustmentKind kind, double fallback) const {
  return scalar(kind).value_or(fallback);
}
bool EditStack::boolean(AdjustmentKind kind, bool fallback) const {
  return boolean(kind).value_or(fallback);
}

std::vector<PointColorTarget> EditStack::pointColors() const {
  const AdjustmentValue* v = find(AdjustmentKind::PointColor);
  if (v == nullptr) {
    return {};
  }
  return core::pointColors(v->payload).value_or(std::vector<PointColorTarget>{});
}

ColorProfile EditStack::colorProfile() const {
  std::optional<std::int64_t> raw = roundedInteger(scalar(AdjustmentKind::ColorProfile, 0));
  if (!raw) {
    return ColorProfile::Standard;
  }
  return json::enumFromValue<ColorProfile>(*raw).value_or(ColorProfile::Standard);
}

DevelopSource EditStack::developSource() const {
  return roundedInteger(scalar(AdjustmentKind::DevelopSource, 0)) == 1 ? DevelopSource::Jpeg
                                                                       : DevelopSource::Raw;
}

FrameFit EditStack::frameFit() const {
  return roundedInteger(scalar(AdjustmentKind::FrameFitMode, 0)) == 1 ? FrameFit::Fill
                                                                      : FrameFit::Fit;
}

FrameColorRGBA EditStack::frameColorValue() const {
  std::optional<std::string> text = string(AdjustmentKind::FrameColor);
  if (!text) {
    return FrameColorRGBA::white;
  }
  return FrameColorRGBA::fromHex(*text).value_or(FrameColorRGBA::white);
}

bool EditStack::hasFrame() const {
  std::optional<double> aspect = scalar(AdjustmentKind::FrameAspect);
  return aspect && *aspect != 0;
}

bool EditStack::frameInsetLinked() const {
  return boolean(AdjustmentKind::FrameInsetLinked, true);
}

FrameInsets EditStack::frameInsets() const {
  using K = AdjustmentKind;
  if (frameInsetLinked()) {
    const double inset = scalar(K::FrameInset, 0);
    return {inset, inset, inset, inset};
  }
  return {scalar(K::FrameInsetTop, 0), scalar(K::FrameInsetBottom, 0), scalar(K::FrameInsetLeft, 0),
          scalar(K::FrameInsetRight, 0)};
}

bool EditStack::hasGeometry() const {
  using K = AdjustmentKind;
  if (std::optional<Rect> crop = rect(K::Crop); crop && *crop != kFullFrame) {
    return true;
  }
  for (K k : {K::Straighten, K::Rotation, K::PerspectiveVertical, K::PerspectiveHorizontal,
              K::LensDistortion}) {
    if (std::optional<double> v = scalar(k); v && *v != 0) {
      return true;
    }
  }
  if (boolean(K::FlipHorizontal, false) || boolean(K::FlipVertical, false)) {
    return true;
  }
  return hasFrame();
}

bool EditStack::hasValues(EditGroup group) const {
  if (group == EditGroup::Masks) {
    return !masks().empty();
  }
  const std::vector<AdjustmentKind>& groupKinds = kinds(group);
  return std::any_of(groupKinds.begin(), groupKinds.end(),
                     [&](AdjustmentKind k) { return values.contains(k); });
}

bool operator==(const EditStack& a, const EditStack& b) {
  return a.values == b.values && a.version == b.version && a.masks() == b.masks();
}

const LocalMask& EditStack::mask(const Uuid& id) const {
  for (const LocalMask& m : masks()) {
    if (m.id == id) {
      return m;
    }
  }
  throw EditPatchError::maskNotFound(id);
}

bool AdjustmentDataCodec::canHandle(std::string_view identifier, std::string_view formatVersion) {
  if (identifier != formatIdentifier) {
    return false;
  }
  // The first non-empty piece between dots is the major version.
  std::size_t start = 0;
  while (start < formatVersion.size() && formatVersion[start] == '.') {
    ++start;
  }
  std::size_t end = formatVersion.find('.', start);
  std::string_view major = formatVersion.substr(
      start, end == std::string_view::npos ? std::string_view::npos : end - start);
  if (major.empty()) {
    return false;
  }
  if (major.front() == '+') {
    major.remove_prefix(1);
    if (major.empty() || major.front() == '-') {
      return false;
    }
  }
  std::int64_t number = 0;
  const char* last = major.data() + major.size();
  auto [ptr, ec] = std::from_chars(major.data(), last, number);
  if (ec != std::errc() || ptr != last) {
    return false;
  }
  return number <= currentMajorVersion;
}

std::string AdjustmentDataCodec::encode(const EditStack& stack) {
  return json::toCompact(json::encode(stack));
}

std::optional<EditStack> AdjustmentDataCodec::decode(std::string_view bytes) {
  try {
    return json::decodeAs<EditStack>(json::parse(bytes));
  } catch (const json::DecodeError&) {
    return std::nullopt;
  }
}

} // namespace velko::core

namespace velko::json {

Value Codec<core::EditStack>::encode(const core::EditStack& stack) {
  Object values;
  values.reserve(stack.values.size());
  for (const auto& [kind, value] : stack.values) {
    values.emplace(core::rawValue(kind), json::encode(value));
  }
  Object obj;
  obj.emplace("values", std::move(values));
  obj.emplace("version", stack.version);
  if (!stack.masks().empty()) {
    obj.emplace("masks", json::encode(stack.masks()));
  }
  return obj;
}

void Codec<core::EditStack>::decode(const Value& v, core::EditStack& out, const Path& path) {
  const Object* obj = v.if_object();
  if (obj == nullptr) {
    failExpected(v, "an object", path);
  }
  out = core::EditStack{};

  // Values and masks that this build cannot read are skipped one by one rather than failing the
  // stack: a stack written by a newer build must still load.
  if (const Value* values = obj->if_contains("values"); values && !values->is_null()) {
    const Object* members = values->if_object();
    if (members == nullptr) {
      failExpected(*values, "an object", path.key("values"));
    }
    for (const auto& member : *members) {
      std::optional<core::AdjustmentKind> kind =
          core::parseAdjustmentKind(std::string_view(member.key()));
      if (!kind) {
        continue;
      }
      try {
        core::AdjustmentValue value;
        json::decode(member.value(), value, Path());
        out.values.insert_or_assign(*kind, std::move(value));
      } catch (const DecodeError&) {
        // an unreadable value is left out
      }
    }
  }

  if (const Value* version = obj->if_contains("version"); version && !version->is_null()) {
    json::decode(*version, out.version, path.key("version"));
  }

  if (const Value* masks = obj->if_contains("masks"); masks && !masks->is_null()) {
    const Array* items = masks->if_array();
    if (items == nullptr) {
      failExpected(*masks, "an array", path.key("masks"));
    }
    std::vector<core::LocalMask> kept;
    kept.reserve(items->size());
    for (const Value& item : *items) {
      try {
        kept.push_back(decodeAs<core::LocalMask>(item));
      } catch (const DecodeError&) {
        // an unreadable mask is dropped
      }
    }
    out.setMasks(std::move(kept));
  }
}

} // namespace velko::json
