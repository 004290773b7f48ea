#include "core/LocalMask.h"

#include "json/OneKey.h"

namespace velko::core {

bool isAiShape(const MaskShape& shape) {
  return std::holds_alternative<AiSubjectShape>(shape) ||
         std::holds_alternative<AiPeopleShape>(shape);
}

const std::vector<MaskComponent>& LocalMask::refinements() const {
  static const std::vector<MaskComponent> kNone;
  return refinementList ? *refinementList : kNone;
}

bool operator==(const LocalMask& a, const LocalMask& b) {
  return a.id == b.id && a.name == b.name && a.shape == b.shape && a.adjustments == b.adjustments &&
         a.isEnabled == b.isEnabled && a.refinements() == b.refinements();
}

std::vector<MatteRegion> aiMatteRegions(const LocalMask& mask) {
  std::vector<MatteRegion> regions;
  // Filled in place: a braced temporary trips GCC 12's -Wmaybe-uninitialized on the variant.
  auto add = [&regions](const Uuid& id, const MaskShape& shape) {
    MatteRegion& r = regions.emplace_back();
    r.id = id;
    r.shape = shape;
  };
  if (isAiShape(mask.shape)) {
    add(mask.id, mask.shape);
  }
  for (const MaskComponent& c : mask.refinements()) {
    if (isAiShape(c.shape)) {
      add(c.id, c.shape);
    }
  }
  return regions;
}

} // namespace velko::core

namespace velko::json {

Value Codec<core::MaskShape>::encode(const core::MaskShape& s) {
  return encodeOneKey(s, core::kMaskShapeCases);
}

void Codec<core::MaskShape>::decode(const Value& v, core::MaskShape& out, const Path& path) {
  decodeOneKey(v, out, core::kMaskShapeCases, path);
}

Value Codec<core::MaskAdjustments>::encode(const core::MaskAdjustments& adjustments) {
  Array arr;
  arr.reserve(adjustments.size() * 2);
  for (const auto& [kind, value] : adjustments) {
    arr.emplace_back(core::rawValue(kind));
    arr.emplace_back(value);
  }
  return arr;
}

void Codec<core::MaskAdjustments>::decode(const Value& v, core::MaskAdjustments& out,
                                          const Path& path) {
  const Array* arr = v.if_array();
  if (arr == nullptr) {
    failExpected(v, "an array alternating kind and number", path);
  }
  if (arr->size() % 2 != 0) {
    path.fail("expected kind and number pairs, found an odd number of elements");
  }
  out.clear();
  for (std::size_t i = 0; i < arr->size(); i += 2) {
    core::AdjustmentKind kind{};
    double value = 0;
    Codec<core::AdjustmentKind>::decode((*arr)[i], kind, path.index(i));
    Codec<double>::decode((*arr)[i + 1], value, path.index(i + 1));
    out[kind] = value;
  }
}

} // namespace velko::json
