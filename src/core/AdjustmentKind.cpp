#include "core/AdjustmentKind.h"

#include <algorithm>

namespace velko::core {
namespace {

// Wire names sorted once at compile time, so a stack of every kind decodes without 94-way scans.
constexpr auto kSortedKinds = [] {
  std::array<AdjustmentKind, kAdjustmentKindCount> sorted = allAdjustmentKinds();
  std::sort(sorted.begin(), sorted.end(),
            [](AdjustmentKind a, AdjustmentKind b) { return rawValue(a) < rawValue(b); });
  return sorted;
}();

static_assert([] {
  for (std::size_t i = 1; i < kSortedKinds.size(); ++i) {
    if (!(rawValue(kSortedKinds[i - 1]) < rawValue(kSortedKinds[i]))) {
      return false; // a duplicate wire name
    }
  }
  return true;
}());

constexpr std::array<std::string_view, 8> kBandNames = {"Red",  "Orange", "Yellow", "Green",
                                                        "Aqua", "Blue",   "Purple", "Magenta"};
constexpr std::array<double, 8> kBandCenters = {0, 30, 60, 120, 180, 240, 280, 320};
constexpr std::array<std::string_view, 4> kRegionNames = {"Shadows", "Midtones", "Highlights",
                                                          "Global"};

// clang-format off
constexpr std::array<ColorProfileTraits, 6> kProfileTraits = {{
    {"Standard", 1.0, 1.0, 0},
    {"Vivid", 1.12, 1.25, 0},
    {"Neutral", 0.92, 0.9, 0},
    {"Portrait", 1.03, 0.94, 0.06},
    {"Landscape", 1.1, 1.2, 0},
    {"Monochrome", 1.06, 0.0, 0},
}};

constexpr std::array<std::string_view, 13> kGroupNames = {
    "Light", "Curve & Levels", "Color & White Balance", "Color Mixer (HSL)", "Color Grading",
    "Point Color", "Detail", "Presence", "Effects", "LUT", "Crop & Geometry", "Frame / Matte",
    "Masks"};
// clang-format on

} // namespace

std::optional<AdjustmentKind> parseAdjustmentKind(std::string_view raw) {
  auto it = std::lower_bound(kSortedKinds.begin(), kSortedKinds.end(), raw,
                             [](AdjustmentKind k, std::string_view s) { return rawValue(k) < s; });
  if (it == kSortedKinds.end() || rawValue(*it) != raw) {
    return std::nullopt;
  }
  return *it;
}

double centerHueDegrees(ColorMixerBand b) {
  return kBandCenters[static_cast<std::size_t>(b)];
}
std::string_view displayName(ColorMixerBand b) {
  return kBandNames[static_cast<std::size_t>(b)];
}
std::string_view displayName(ColorGradeRegion r) {
  return kRegionNames[static_cast<std::size_t>(r)];
}

const ColorProfileTraits& traits(ColorProfile p) {
  return kProfileTraits[static_cast<std::size_t>(p)];
}
std::string_view displayName(ColorProfile p) {
  return traits(p).displayName;
}

std::string_view displayName(DevelopSource s) {
  return s == DevelopSource::Jpeg ? "JPEG" : "RAW";
}

std::string_view displayName(EditGroup g) {
  return kGroupNames[static_cast<std::size_t>(g)];
}

const std::vector<AdjustmentKind>& kinds(EditGroup g) {
  static const std::array<std::vector<AdjustmentKind>, 13> byGroup = [] {
    std::array<std::vector<AdjustmentKind>, 13> out;
    for (const AdjustmentKindRow& r : kAdjustmentKindRows) {
      if (r.group) {
        out[static_cast<std::size_t>(*r.group)].push_back(r.kind);
      }
    }
    return out;
  }();
  return byGroup[static_cast<std::size_t>(g)];
}

const std::vector<EditGroup>& defaultSelection() {
  static const std::vector<EditGroup> groups = [] {
    std::vector<EditGroup> out;
    for (EditGroup g : kOrderedEditGroups) {
      if (g != EditGroup::Geometry && g != EditGroup::Masks) {
        out.push_back(g);
      }
    }
    return out;
  }();
  return groups;
}

} // namespace velko::core

namespace velko::json {

void Codec<core::AdjustmentKind>::decode(const Value& v, core::AdjustmentKind& out,
                                         const Path& path) {
  const String* s = v.if_string();
  if (s == nullptr) {
    failExpected(v, "a string", path);
  }
  std::optional<core::AdjustmentKind> k = core::parseAdjustmentKind(std::string_view(*s));
  if (!k) {
    path.fail("unknown kind \"" + std::string(std::string_view(*s)) + "\"");
  }
  out = *k;
}

} // namespace velko::json
