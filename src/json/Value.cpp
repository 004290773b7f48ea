#include "json/Value.h"

#include "json/Errors.h"

#include <boost/json/parse.hpp>
#include <string>

namespace velko::json {

Value parse(std::string_view text) {
  boost::system::error_code ec;
  Value v = boost::json::parse(text, ec);
  if (ec) {
    throw DecodeError("invalid JSON: " + ec.message());
  }
  return v;
}

std::string_view kindName(const Value& v) {
  switch (v.kind()) {
  case boost::json::kind::null:
    return "null";
  case boost::json::kind::bool_:
    return "boolean";
  case boost::json::kind::int64:
  case boost::json::kind::uint64:
  case boost::json::kind::double_:
    return "number";
  case boost::json::kind::string:
    return "string";
  case boost::json::kind::array:
    return "array";
  case boost::json::kind::object:
    return "object";
  }
  return "value";
}

} // namespace velko::json
