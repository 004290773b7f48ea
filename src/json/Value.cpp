#include "json/Value.h"

#include "json/Errors.h"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value_stack.hpp>
#include <charconv>
#include <string>

namespace velko::json {
namespace {

// Builds values exactly as Boost.JSON's own parser does, except for numbers with a fraction or
// exponent: Boost 1.81 rounds some of those one unit in the last place off (about one in ten
// seventeen-digit decimals), so a stored value would drift on every load and save. They are
// re-read from their text with the correctly rounded std::from_chars.
struct ValueBuilder {
  static constexpr std::size_t max_object_size = Object::max_size();
  static constexpr std::size_t max_array_size = Array::max_size();
  static constexpr std::size_t max_key_size = String::max_size();
  static constexpr std::size_t max_string_size = String::max_size();

  using string_view = boost::json::string_view;
  using error_code = boost::system::error_code;

  boost::json::value_stack stack;
  std::string numberText; // the start of a number that arrived in pieces

  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }
  bool on_object_begin(error_code&) { return true; }
  bool on_object_end(std::size_t n, error_code&) {
    stack.push_object(n);
    return true;
  }
  bool on_array_begin(error_code&) { return true; }
  bool on_array_end(std::size_t n, error_code&) {
    stack.push_array(n);
    return true;
  }
  bool on_key_part(string_view s, std::size_t, error_code&) {
    stack.push_chars(s);
    return true;
  }
  bool on_key(string_view s, std::size_t, error_code&) {
    stack.push_key(s);
    return true;
  }
  bool on_string_part(string_view s, std::size_t, error_code&) {
    stack.push_chars(s);
    return true;
  }
  bool on_string(string_view s, std::size_t, error_code&) {
    stack.push_string(s);
    return true;
  }
  bool on_number_part(string_view s, error_code&) {
    numberText.append(s.data(), s.size());
    return true;
  }
  bool on_int64(std::int64_t i, string_view, error_code&) {
    numberText.clear();
    stack.push_int64(i);
    return true;
  }
  bool on_uint64(std::uint64_t u, string_view, error_code&) {
    numberText.clear();
    stack.push_uint64(u);
    return true;
  }
  bool on_double(double d, string_view s, error_code&) {
    const char* first = s.data();
    const char* last = s.data() + s.size();
    if (!numberText.empty()) {
      numberText.append(s.data(), s.size());
      first = numberText.data();
      last = numberText.data() + numberText.size();
    }
    double precise = 0;
    // Out-of-range texts keep the parser's value (an infinity or zero).
    if (auto [end, ec] = std::from_chars(first, last, precise); ec == std::errc() && end == last) {
      d = precise;
    }
    numberText.clear();
    stack.push_double(d);
    return true;
  }
  bool on_bool(bool b, error_code&) {
    stack.push_bool(b);
    return true;
  }
  bool on_null(error_code&) {
    stack.push_null();
    return true;
  }
  bool on_comment_part(string_view, error_code&) { return true; }
  bool on_comment(string_view, error_code&) { return true; }
};

} // namespace

Value parse(std::string_view text, boost::json::storage_ptr storage) {
  boost::json::parse_options options;
  options.max_depth = kMaxDepth;
  boost::json::basic_parser<ValueBuilder> parser{options};
  parser.handler().stack.reset(std::move(storage));
  boost::system::error_code ec;
  const std::size_t used = parser.write_some(false, text.data(), text.size(), ec);
  if (!ec && used < text.size()) {
    ec = boost::json::error::extra_data;
  }
  if (ec) {
    throw DecodeError("invalid JSON: " + ec.message());
  }
  return parser.handler().stack.release();
}

boost::json::storage_ptr transientStorage() {
  return boost::json::make_shared_resource<boost::json::monotonic_resource>();
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
