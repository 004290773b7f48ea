#include "core/AdjustmentValue.h"

#include "json/OneKey.h"

namespace velko::core {
namespace {

template <class T> std::optional<T> getCase(const AdjustmentPayload& p) {
  if (const T* v = std::get_if<T>(&p)) {
    return *v;
  }
  return std::nullopt;
}

} // namespace

std::optional<double> scalar(const AdjustmentPayload& p) {
  return getCase<double>(p);
}
std::optional<bool> boolean(const AdjustmentPayload& p) {
  return getCase<bool>(p);
}
std::optional<Curve> curve(const AdjustmentPayload& p) {
  return getCase<Curve>(p);
}
std::optional<Rect> rect(const AdjustmentPayload& p) {
  return getCase<Rect>(p);
}
std::optional<std::vector<PointColorTarget>> pointColors(const AdjustmentPayload& p) {
  return getCase<std::vector<PointColorTarget>>(p);
}
std::optional<std::string> string(const AdjustmentPayload& p) {
  return getCase<std::string>(p);
}

} // namespace velko::core

namespace velko::json {

Value Codec<core::AdjustmentPayload>::encode(const core::AdjustmentPayload& p) {
  // The peer writes "_0" around every case value.
  return encodeOneKey(p, core::kPayloadCases, CaseStyle::Labelled);
}

void Codec<core::AdjustmentPayload>::decode(const Value& v, core::AdjustmentPayload& out,
                                            const Path& path) {
  decodeOneKey(v, out, core::kPayloadCases, path, CaseStyle::Labelled);
}

Value Codec<core::EditOrigin>::encode(const core::EditOrigin& o) {
  return encodeOneKey(o, core::kEditOriginCases);
}

void Codec<core::EditOrigin>::decode(const Value& v, core::EditOrigin& out, const Path& path) {
  // Provenance written by a newer build must not make a whole stack unreadable, so every
  // shape that is not one of the known cases reads as unknown.
  out = core::UnknownOrigin{};
  const Object* obj = v.if_object();
  if (obj == nullptr) {
    return;
  }
  if (obj->contains("user")) {
    out = core::UserOrigin{};
    return;
  }
  if (const Value* ai = obj->if_contains("ai")) {
    try {
      out = decodeAs<core::AiOrigin>(*ai, path.key("ai"));
      return;
    } catch (const DecodeError&) {
      // fall through to the next rule
    }
  }
  if (const Value* preset = obj->if_contains("preset")) {
    try {
      out = decodeAs<core::PresetOrigin>(*preset, path.key("preset"));
      return;
    } catch (const DecodeError&) {
      // fall through to unknown
    }
  }
}

} // namespace velko::json
