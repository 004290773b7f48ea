// JSON text output in the two forms the system writes:
//   - compact: one line, no insignificant whitespace, members in insertion order (protocol lines);
//   - pretty: two-space indentation, members sorted by key, "/" escaped as "\/" (tool text).
// Both throw EncodeError for a non-finite number or a string that is not valid UTF-8, so a
// caller can refuse a message it cannot encode instead of sending a broken line. Strings are
// scanned eight bytes at a time, so a multi-megabyte base64 payload is copied in bulk.
#pragma once

#include "json/Value.h"

#include <string>

namespace velko::json {

/// Appends the compact form of `v` to `out`; on EncodeError `out` may hold a partial text.
void writeCompact(const Value& v, std::string& out);
std::string toCompact(const Value& v);

/// The pretty, key-sorted form, without a trailing newline.
std::string toPretty(const Value& v);

} // namespace velko::json
