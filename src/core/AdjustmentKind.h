// The vocabulary of the edit model: every field an edit stack can hold is one AdjustmentKind.
// The kinds, their wire names, payload types, panels and documented ranges come from one row
// table, AdjustmentKinds.def, expanded here twice (the enumeration and the row array) so the two
// always agree. The small enumerations that hang off the kinds live here too: colour-mixer bands
// and colour-grade regions (which compute their kinds from ordinals), profiles, develop sources
// and frame fits. EditGroup is declared here because each row names its group.
#pragma once

#include "json/Codec.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace velko::core {

enum class AdjustmentKind : std::uint8_t {
#define VELKO_ADJUSTMENT_KIND(name, raw, payload, group, range, lower, upper) name,
#include "core/AdjustmentKinds.def"
};

/// The inspector's panels, in display order.
enum class EditGroup : std::uint8_t {
  Light,
  Curve,
  Color,
  ColorMixer,
  ColorGrade,
  PointColor,
  Detail,
  Presence,
  Effects,
  Lut,
  Geometry,
  Frame,
  Masks,
};

/// The case of AdjustmentPayload a kind normally carries (the model stores any case).
enum class PayloadType : std::uint8_t { Scalar, Boolean, Curve, Rect, PointColors, String };

/// How firm a kind's documented range is.
enum class RangeKind : std::uint8_t {
  None,    ///< no range is documented
  Bounds,  ///< the documented range
  Typical, ///< the usual range; larger values are legal
};

struct DocumentedRange {
  RangeKind kind;
  double lower;
  double upper;
};

struct AdjustmentKindRow {
  AdjustmentKind kind;
  std::string_view rawValue;
  PayloadType payload;
  std::optional<EditGroup> group; ///< absent for developSource and cgBalance
  DocumentedRange range;
};

namespace detail {
// Group and range tokens as the row file spells them.
namespace rowgroup {
inline constexpr std::optional<EditGroup> None = std::nullopt;
inline constexpr std::optional<EditGroup> Light = EditGroup::Light;
inline constexpr std::optional<EditGroup> Curve = EditGroup::Curve;
inline constexpr std::optional<EditGroup> Color = EditGroup::Color;
inline constexpr std::optional<EditGroup> ColorMixer = EditGroup::ColorMixer;
inline constexpr std::optional<EditGroup> ColorGrade = EditGroup::ColorGrade;
inline constexpr std::optional<EditGroup> PointColor = EditGroup::PointColor;
inline constexpr std::optional<EditGroup> Detail = EditGroup::Detail;
inline constexpr std::optional<EditGroup> Presence = EditGroup::Presence;
inline constexpr std::optional<EditGroup> Effects = EditGroup::Effects;
inline constexpr std::optional<EditGroup> Lut = EditGroup::Lut;
inline constexpr std::optional<EditGroup> Geometry = EditGroup::Geometry;
inline constexpr std::optional<EditGroup> Frame = EditGroup::Frame;
} // namespace rowgroup
} // namespace detail

inline constexpr std::array kAdjustmentKindRows = {
#define VELKO_ADJUSTMENT_KIND(name, raw, payload, group, range, lower, upper)                      \
  AdjustmentKindRow{AdjustmentKind::name, raw, PayloadType::payload, detail::rowgroup::group,      \
                    DocumentedRange{RangeKind::range, lower, upper}},
#include "core/AdjustmentKinds.def"
};

inline constexpr std::size_t kAdjustmentKindCount = kAdjustmentKindRows.size();

static_assert(kAdjustmentKindCount == 94);
static_assert([] {
  for (std::size_t i = 0; i < kAdjustmentKindRows.size(); ++i) {
    if (static_cast<std::size_t>(kAdjustmentKindRows[i].kind) != i) {
      return false;
    }
  }
  return true;
}());

/// 0-based position in the table.
constexpr std::size_t ordinal(AdjustmentKind k) {
  return static_cast<std::size_t>(k);
}
/// The kind at `ordinal`; ordinal must be below kAdjustmentKindCount.
constexpr AdjustmentKind adjustmentKindAt(std::size_t ordinal) {
  return static_cast<AdjustmentKind>(ordinal);
}

constexpr const AdjustmentKindRow& row(AdjustmentKind k) {
  return kAdjustmentKindRows[ordinal(k)];
}
constexpr std::string_view rawValue(AdjustmentKind k) {
  return row(k).rawValue;
}
constexpr PayloadType payloadType(AdjustmentKind k) {
  return row(k).payload;
}
constexpr std::optional<EditGroup> groupOf(AdjustmentKind k) {
  return row(k).group;
}

/// Exact, case-sensitive lookup of a wire name; absent for anything else.
std::optional<AdjustmentKind> parseAdjustmentKind(std::string_view raw);

/// Every kind in table order.
constexpr std::array<AdjustmentKind, kAdjustmentKindCount> allAdjustmentKinds() {
  std::array<AdjustmentKind, kAdjustmentKindCount> out{};
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] = adjustmentKindAt(i);
  }
  return out;
}

// ---- Colour mixer and colour grading --------------------------------------------------------

enum class ColorMixerBand : std::uint8_t {
  Red,
  Orange,
  Yellow,
  Green,
  Aqua,
  Blue,
  Purple,
  Magenta
};
inline constexpr std::array kAllColorMixerBands = {
    ColorMixerBand::Red,  ColorMixerBand::Orange, ColorMixerBand::Yellow, ColorMixerBand::Green,
    ColorMixerBand::Aqua, ColorMixerBand::Blue,   ColorMixerBand::Purple, ColorMixerBand::Magenta};

constexpr AdjustmentKind hueKind(ColorMixerBand b) {
  return adjustmentKindAt(26 + 3 * static_cast<std::size_t>(b));
}
constexpr AdjustmentKind saturationKind(ColorMixerBand b) {
  return adjustmentKindAt(27 + 3 * static_cast<std::size_t>(b));
}
constexpr AdjustmentKind luminanceKind(ColorMixerBand b) {
  return adjustmentKindAt(28 + 3 * static_cast<std::size_t>(b));
}
/// The band's centre on the hue wheel, in degrees.
double centerHueDegrees(ColorMixerBand b);
/// "Red", "Orange", …
std::string_view displayName(ColorMixerBand b);

/// The regions of colour grading. Their wire names are plural ("shadows", "midtones") while the
/// kind names use singular words ("cgShadowHue", "cgMidSat"); both spellings are part of the
/// stored format.
enum class ColorGradeRegion : std::uint8_t { Shadows, Midtones, Highlights, Global };
inline constexpr std::array kAllColorGradeRegions = {
    ColorGradeRegion::Shadows, ColorGradeRegion::Midtones, ColorGradeRegion::Highlights,
    ColorGradeRegion::Global};

constexpr AdjustmentKind hueKind(ColorGradeRegion r) {
  return adjustmentKindAt(50 + 3 * static_cast<std::size_t>(r));
}
constexpr AdjustmentKind saturationKind(ColorGradeRegion r) {
  return adjustmentKindAt(51 + 3 * static_cast<std::size_t>(r));
}
constexpr AdjustmentKind luminanceKind(ColorGradeRegion r) {
  return adjustmentKindAt(52 + 3 * static_cast<std::size_t>(r));
}
/// "Shadows", "Midtones", "Highlights", "Global".
std::string_view displayName(ColorGradeRegion r);

static_assert(luminanceKind(ColorMixerBand::Magenta) == AdjustmentKind::HslMagentaLum);
static_assert(hueKind(ColorGradeRegion::Shadows) == AdjustmentKind::CgShadowHue);
static_assert(luminanceKind(ColorGradeRegion::Global) == AdjustmentKind::CgGlobalLum);

// ---- Profiles, develop sources, frame fits --------------------------------------------------

/// A colour rendering profile; stored in a stack as the "colorProfile" scalar.
enum class ColorProfile : std::int64_t {
  Standard = 0,
  Vivid = 1,
  Neutral = 2,
  Portrait = 3,
  Landscape = 4,
  Monochrome = 5,
};
inline constexpr std::array kAllColorProfiles = {ColorProfile::Standard,  ColorProfile::Vivid,
                                                 ColorProfile::Neutral,   ColorProfile::Portrait,
                                                 ColorProfile::Landscape, ColorProfile::Monochrome};

struct ColorProfileTraits {
  std::string_view displayName;
  double contrast;   ///< contrast factor
  double saturation; ///< saturation factor
  double warmth;     ///< warmth offset
};
const ColorProfileTraits& traits(ColorProfile p);
std::string_view displayName(ColorProfile p);
constexpr bool isIdentity(ColorProfile p) {
  return p == ColorProfile::Standard;
}
constexpr bool isMonochrome(ColorProfile p) {
  return p == ColorProfile::Monochrome;
}

/// Which of a RAW+JPEG pair is developed; stored as the "developSource" scalar.
enum class DevelopSource : std::int64_t { Raw = 0, Jpeg = 1 };
inline constexpr std::array kAllDevelopSources = {DevelopSource::Raw, DevelopSource::Jpeg};
/// "RAW" or "JPEG".
std::string_view displayName(DevelopSource s);

/// How the photo sits inside a frame; stored as the "frameFitMode" scalar.
enum class FrameFit : std::int64_t { Fit = 0, Fill = 1 };
inline constexpr std::array kAllFrameFits = {FrameFit::Fit, FrameFit::Fill};

// ---- Edit groups ----------------------------------------------------------------------------

/// All 13 groups in display order.
inline constexpr std::array<EditGroup, 13> kOrderedEditGroups = {
    EditGroup::Light,      EditGroup::Curve,      EditGroup::Color,    EditGroup::ColorMixer,
    EditGroup::ColorGrade, EditGroup::PointColor, EditGroup::Detail,   EditGroup::Presence,
    EditGroup::Effects,    EditGroup::Lut,        EditGroup::Geometry, EditGroup::Frame,
    EditGroup::Masks};

/// "Light", "Curve & Levels", …
std::string_view displayName(EditGroup g);

/// The group's kinds in table order; empty for Masks (masks are not kinds).
const std::vector<AdjustmentKind>& kinds(EditGroup g);

/// Every group except Geometry and Masks: what is copied between stacks unless asked otherwise,
/// so that crop, geometry and masks stay put by default.
const std::vector<EditGroup>& defaultSelection();

// ---- Shared constants -----------------------------------------------------------------------

struct ClosedRange {
  double lower;
  double upper;
  constexpr bool contains(double v) const { return v >= lower && v <= upper; }
};

} // namespace velko::core

namespace velko::json {

template <> struct EnumNames<core::AdjustmentKind> {
  static constexpr auto table = [] {
    std::array<std::pair<core::AdjustmentKind, std::string_view>, core::kAdjustmentKindCount> t{};
    for (std::size_t i = 0; i < t.size(); ++i) {
      t[i] = {core::kAdjustmentKindRows[i].kind, core::kAdjustmentKindRows[i].rawValue};
    }
    return t;
  }();
};

/// Kinds decode through the fast lookup and report "unknown kind" for names they do not know.
template <> struct Codec<core::AdjustmentKind> {
  static Value encode(core::AdjustmentKind k) { return Value(core::rawValue(k)); }
  static void decode(const Value& v, core::AdjustmentKind& out, const Path& path);
};

template <> struct EnumNames<core::EditGroup> {
  using G = core::EditGroup;
  // clang-format off
  static constexpr std::array<std::pair<G, std::string_view>, 13> table = {{
      {G::Light, "light"},
      {G::Curve, "curve"},
      {G::Color, "color"},
      {G::ColorMixer, "colorMixer"},
      {G::ColorGrade, "colorGrade"},
      {G::PointColor, "pointColor"},
      {G::Detail, "detail"},
      {G::Presence, "presence"},
      {G::Effects, "effects"},
      {G::Lut, "lut"},
      {G::Geometry, "geometry"},
      {G::Frame, "frame"},
      {G::Masks, "masks"},
  }};
  // clang-format on
};

template <> struct EnumNames<core::ColorMixerBand> {
  using B = core::ColorMixerBand;
  static constexpr std::array<std::pair<B, std::string_view>, 8> table = {
      {{B::Red, "red"},
       {B::Orange, "orange"},
       {B::Yellow, "yellow"},
       {B::Green, "green"},
       {B::Aqua, "aqua"},
       {B::Blue, "blue"},
       {B::Purple, "purple"},
       {B::Magenta, "magenta"}}};
};

template <> struct EnumNames<core::ColorGradeRegion> {
  using R = core::ColorGradeRegion;
  static constexpr std::array<std::pair<R, std::string_view>, 4> table = {
      {{R::Shadows, "shadows"},
       {R::Midtones, "midtones"},
       {R::Highlights, "highlights"},
       {R::Global, "global"}}};
};

template <> struct EnumValues<core::ColorProfile> {
  static constexpr auto table = core::kAllColorProfiles;
};
template <> struct EnumValues<core::DevelopSource> {
  static constexpr auto table = core::kAllDevelopSources;
};
template <> struct EnumValues<core::FrameFit> {
  static constexpr auto table = core::kAllFrameFits;
};

} // namespace velko::json
