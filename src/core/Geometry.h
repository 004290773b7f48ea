// Normalised image geometry (0 to 1 from the top-left) and its compact JSON forms: a point is
// [x, y], a size [width, height], a rectangle [[x, y], [width, height]].
#pragma once

#include "json/Codec.h"

#include <array>
#include <vector>

namespace velko::core {

struct Point {
  double x = 0;
  double y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
  double width = 0;
  double height = 0;
  friend bool operator==(const Size&, const Size&) = default;
};

struct Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  friend bool operator==(const Rect&, const Rect&) = default;
};

/// A tone curve: control points in input order.
using Curve = std::vector<Point>;

/// The five points of the identity tone curve; a curve equal to it changes nothing.
inline const Curve identityToneCurvePoints = {
    {0, 0}, {0.25, 0.25}, {0.5, 0.5}, {0.75, 0.75}, {1, 1}};

/// The full-frame rectangle: a crop equal to it crops nothing.
inline constexpr Rect kFullFrame = {0, 0, 1, 1};

} // namespace velko::core

namespace velko::json {

template <> struct Codec<core::Point> {
  static Value encode(const core::Point& p);
  static void decode(const Value& v, core::Point& out, const Path& path);
};

template <> struct Codec<core::Size> {
  static Value encode(const core::Size& s);
  static void decode(const Value& v, core::Size& out, const Path& path);
};

template <> struct Codec<core::Rect> {
  static Value encode(const core::Rect& r);
  static void decode(const Value& v, core::Rect& out, const Path& path);
};

} // namespace velko::json
