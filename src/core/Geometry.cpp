#include "core/Geometry.h"

namespace velko::json {
namespace {

Value pair(double a, double b) {
  return Array{Value(a), Value(b)};
}

void decodePair(const Value& v, double& a, double& b, const Path& path) {
  const Array* arr = v.if_array();
  if (arr == nullptr) {
    failExpected(v, "an array of two numbers", path);
  }
  if (arr->size() != 2) {
    path.fail("expected two numbers, found " + std::to_string(arr->size()));
  }
  Codec<double>::decode((*arr)[0], a, path.index(0));
  Codec<double>::decode((*arr)[1], b, path.index(1));
}

} // namespace

Value Codec<core::Point>::encode(const core::Point& p) {
  return pair(p.x, p.y);
}
void Codec<core::Point>::decode(const Value& v, core::Point& out, const Path& path) {
  decodePair(v, out.x, out.y, path);
}

Value Codec<core::Size>::encode(const core::Size& s) {
  return pair(s.width, s.height);
}
void Codec<core::Size>::decode(const Value& v, core::Size& out, const Path& path) {
  decodePair(v, out.width, out.height, path);
}

Value Codec<core::Rect>::encode(const core::Rect& r) {
  return Array{pair(r.x, r.y), pair(r.width, r.height)};
}
void Codec<core::Rect>::decode(const Value& v, core::Rect& out, const Path& path) {
  const Array* arr = v.if_array();
  if (arr == nullptr) {
    failExpected(v, "an array [[x, y], [width, height]]", path);
  }
  if (arr->size() != 2) {
    path.fail("expected [[x, y], [width, height]]");
  }
  decodePair((*arr)[0], out.x, out.y, path.index(0));
  decodePair((*arr)[1], out.width, out.height, path.index(1));
}

} // namespace velko::json
