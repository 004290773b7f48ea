#include "json/Codec.h"

#include <cmath>
#include <limits>

namespace velko::json {

void failExpected(const Value& v, std::string_view what, const Path& path) {
  std::string problem = "expected ";
  problem += what;
  problem += ", found ";
  problem += kindName(v);
  path.fail(problem);
}

void failUnknownName(std::string_view name, const Path& path) {
  std::string problem = "unknown value \"";
  problem += name;
  problem += '"';
  path.fail(problem);
}

void failUnknownValue(std::int64_t raw, const Path& path) {
  path.fail("unknown value " + std::to_string(raw));
}

void Codec<std::int64_t>::decode(const Value& v, std::int64_t& out, const Path& path) {
  if (const std::int64_t* i = v.if_int64()) {
    out = *i;
    return;
  }
  if (const std::uint64_t* u = v.if_uint64()) {
    if (*u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      out = static_cast<std::int64_t>(*u);
      return;
    }
    path.fail("integer out of range");
  }
  if (const double* d = v.if_double()) {
    // The parser keeps integers beyond 64 bits as doubles; 1.0 or 1e3 come from a peer that
    // treats the value as a number, not an integer.
    if (std::trunc(*d) == *d && std::fabs(*d) >= 0x1p63) {
      path.fail("integer out of range");
    }
    path.fail("expected an integer, found a number with a fraction or exponent");
  }
  failExpected(v, "an integer", path);
}

void Codec<std::int32_t>::decode(const Value& v, std::int32_t& out, const Path& path) {
  std::int64_t wide = 0;
  Codec<std::int64_t>::decode(v, wide, path);
  if (wide < std::numeric_limits<std::int32_t>::min() ||
      wide > std::numeric_limits<std::int32_t>::max()) {
    path.fail("integer out of range");
  }
  out = static_cast<std::int32_t>(wide);
}

void Codec<double>::decode(const Value& v, double& out, const Path& path) {
  switch (v.kind()) {
  case boost::json::kind::double_:
    out = v.get_double();
    return;
  case boost::json::kind::int64:
    out = static_cast<double>(v.get_int64());
    return;
  case boost::json::kind::uint64:
    out = static_cast<double>(v.get_uint64());
    return;
  default:
    failExpected(v, "a number", path);
  }
}

void Codec<bool>::decode(const Value& v, bool& out, const Path& path) {
  if (const bool* b = v.if_bool()) {
    out = *b;
    return;
  }
  failExpected(v, "a boolean", path);
}

void Codec<std::string>::decode(const Value& v, std::string& out, const Path& path) {
  if (const String* s = v.if_string()) {
    out.assign(s->data(), s->size());
    return;
  }
  failExpected(v, "a string", path);
}

} // namespace velko::json
