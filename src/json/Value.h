// The JSON value type used across the project, and the one entry point for parsing text.
// Values are Boost.JSON's: it parses multi-megabyte strings at memory speed and keeps object
// members in insertion order, which the record encoders rely on for key order.
#pragma once

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>
#include <boost/json/storage_ptr.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <string_view>

namespace velko::json {

using Value = boost::json::value;
using Object = boost::json::object;
using Array = boost::json::array;
using String = boost::json::string;

/// How deeply arrays and objects may nest in a parsed text: far more than any message of ours
/// needs, and what MCP hosts allow, while bounding the parser's stack.
inline constexpr std::size_t kMaxDepth = 512;

/// Parses one complete JSON text (any top-level value, RFC 8259; invalid UTF-8 is rejected;
/// nesting at most kMaxDepth). Numbers are read to the nearest double. Every JSON text that
/// enters the process goes through here. Throws DecodeError naming the problem. The value's
/// memory comes from `storage` (the default heap when null).
Value parse(std::string_view text, boost::json::storage_ptr storage = {});

/// Storage for a value that is read once and dropped: one growing arena, freed with the value's
/// last copy, so neither parsing nor dropping calls the allocator per member.
boost::json::storage_ptr transientStorage();

/// "null", "boolean", "number", "string", "array" or "object": for error messages.
std::string_view kindName(const Value& v);

} // namespace velko::json
