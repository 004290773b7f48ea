// Local masks: a shape that restricts a set of scalar adjustments to part of the photo,
// optionally refined by further shapes combined with it in order. Shapes are a tagged union
// written as one-key objects ({"radial": {...}}); a mask's adjustments are written as a flat array
// alternating kind name and number (["exposure", 0.3, "saturation", 0.2]), as stored stacks hold.
#pragma once

#include "core/AdjustmentKind.h"
#include "core/Geometry.h"
#include "core/Uuid.h"

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace velko::core {

/// A graduated mask from `start` (full effect) to `end` (none).
struct LinearShape {
  Point start;
  Point end;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("start", &LinearShape::start),
                      json::field("end", &LinearShape::end)};
  }
  friend bool operator==(const LinearShape&, const LinearShape&) = default;
};

struct RadialShape {
  Point center;
  Size radius; ///< x and y radii, written [rx, ry]
  double feather = 0;
  bool inverted = false;
  static constexpr auto jsonFields() {
    using S = RadialShape;
    return std::tuple{json::field("center", &S::center), json::field("radius", &S::radius),
                      json::field("feather", &S::feather), json::field("inverted", &S::inverted)};
  }
  friend bool operator==(const RadialShape&, const RadialShape&) = default;
};

/// Pixels whose brightness (0 to 1) lies between `lower` and `upper`.
struct LuminanceRangeShape {
  double lower = 0;
  double upper = 0;
  double feather = 0;
  static constexpr auto jsonFields() {
    using S = LuminanceRangeShape;
    return std::tuple{json::field("lower", &S::lower), json::field("upper", &S::upper),
                      json::field("feather", &S::feather)};
  }
  friend bool operator==(const LuminanceRangeShape&, const LuminanceRangeShape&) = default;
};

/// Pixels whose hue (0 to 1) lies within `range` of `hue`.
struct ColorRangeShape {
  double hue = 0;
  double range = 0;
  double feather = 0;
  static constexpr auto jsonFields() {
    using S = ColorRangeShape;
    return std::tuple{json::field("hue", &S::hue), json::field("range", &S::range),
                      json::field("feather", &S::feather)};
  }
  friend bool operator==(const ColorRangeShape&, const ColorRangeShape&) = default;
};

struct BrushStroke {
  std::vector<Point> points;
  double radius = 0;
  bool erase = false; ///< the stroke removes coverage instead of adding it
  static constexpr auto jsonFields() {
    return std::tuple{json::field("points", &BrushStroke::points),
                      json::field("radius", &BrushStroke::radius),
                      json::field("erase", &BrushStroke::erase)};
  }
  friend bool operator==(const BrushStroke&, const BrushStroke&) = default;
};

struct BrushShape {
  std::vector<BrushStroke> strokes;
  double feather = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("strokes", &BrushShape::strokes),
                      json::field("feather", &BrushShape::feather)};
  }
  friend bool operator==(const BrushShape&, const BrushShape&) = default;
};

/// The salient subject; the application computes the matte on the device.
struct AiSubjectShape {
  bool inverted = false;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("inverted", &AiSubjectShape::inverted)};
  }
  friend bool operator==(const AiSubjectShape&, const AiSubjectShape&) = default;
};

/// All people in the photo; the application computes the matte on the device.
struct AiPeopleShape {
  bool inverted = false;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("inverted", &AiPeopleShape::inverted)};
  }
  friend bool operator==(const AiPeopleShape&, const AiPeopleShape&) = default;
};

using MaskShape = std::variant<LinearShape, RadialShape, LuminanceRangeShape, ColorRangeShape,
                               BrushShape, AiSubjectShape, AiPeopleShape>;
inline constexpr std::array<std::string_view, 7> kMaskShapeCases = {
    "linear", "radial", "luminanceRange", "colorRange", "brush", "aiSubject", "aiPeople"};
static_assert(kMaskShapeCases.size() == std::variant_size_v<MaskShape>);

/// True for the shapes whose matte comes from an on-device model.
bool isAiShape(const MaskShape& shape);

enum class CompositeMode : std::uint8_t { Add, Subtract, Intersect };

/// One refinement, combined with the mask's main shape by its mode.
struct MaskComponent {
  Uuid id;
  MaskShape shape;
  CompositeMode mode = CompositeMode::Add;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &MaskComponent::id),
                      json::field("shape", &MaskComponent::shape),
                      json::field("mode", &MaskComponent::mode)};
  }
  friend bool operator==(const MaskComponent&, const MaskComponent&) = default;
};

/// Scalar adjustments of one mask, by kind.
using MaskAdjustments = std::map<AdjustmentKind, double>;

inline constexpr std::string_view kDefaultMaskName = "Mask";

struct LocalMask {
  Uuid id;
  std::string name{kDefaultMaskName};
  MaskShape shape;
  MaskAdjustments adjustments;
  bool isEnabled = true; ///< a disabled mask stays in the stack and has no effect
  /// Refinements in combination order; absent and empty mean the same.
  std::optional<std::vector<MaskComponent>> refinementList;

  /// The refinements, empty when absent.
  const std::vector<MaskComponent>& refinements() const;

  static constexpr auto jsonFields() {
    using M = LocalMask;
    return std::tuple{json::field("id", &M::id),
                      json::field("name", &M::name),
                      json::field("shape", &M::shape),
                      json::field("adjustments", &M::adjustments),
                      json::field("isEnabled", &M::isEnabled),
                      json::field("refinementList", &M::refinementList)};
  }
  /// Absent and empty refinement lists compare equal.
  friend bool operator==(const LocalMask& a, const LocalMask& b);
};

/// One region a renderer computes a matte for, keyed by `id`.
struct MatteRegion {
  Uuid id;
  MaskShape shape;
  friend bool operator==(const MatteRegion&, const MatteRegion&) = default;
};

/// The AI shapes of `mask` that need a matte: first the mask's own id and shape when the main
/// shape is an AI shape, then each AI-shaped refinement with its component id, in list order.
std::vector<MatteRegion> aiMatteRegions(const LocalMask& mask);

} // namespace velko::core

namespace velko::json {

template <> struct Codec<core::MaskShape> {
  static Value encode(const core::MaskShape& s);
  static void decode(const Value& v, core::MaskShape& out, const Path& path);
};

template <> struct EnumNames<core::CompositeMode> {
  using M = core::CompositeMode;
  static constexpr std::array<std::pair<M, std::string_view>, 3> table = {
      {{M::Add, "add"}, {M::Subtract, "subtract"}, {M::Intersect, "intersect"}}};
};

/// ["exposure", 0.3, "saturation", 0.2]: kind names and numbers alternating, in kind order.
template <> struct Codec<core::MaskAdjustments> {
  static Value encode(const core::MaskAdjustments& adjustments);
  static void decode(const Value& v, core::MaskAdjustments& out, const Path& path);
};

} // namespace velko::json
