// JSON text output in the two forms the system writes:
//   - compact: one line, no insignificant whitespace, members in insertion order (protocol lines);
//   - pretty: two-space indentation, members sorted by key, "/" escaped as "\/" (tool text).
// Both throw EncodeError for a non-finite number or a string that is not valid UTF-8, so a
// caller can refuse a message it cannot encode instead of sending a broken line. Strings are
// scanned sixteen bytes at a time, so a multi-megabyte base64 payload is copied in bulk.
#pragma once

#include "json/Value.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace velko::json {

/// Appends the compact form of `v` to `out`; on EncodeError `out` may hold a partial text.
void writeCompact(const Value& v, std::string& out);
std::string toCompact(const Value& v);

/// The pretty, key-sorted form, without a trailing newline.
std::string toPretty(const Value& v);

/// The pretty form written piece by piece, for encoders that write typed records straight to
/// text without building a Value first (json/RecordText.h). The pieces produce exactly what
/// toPretty would for the equivalent Value; the caller supplies members in key order.
class PrettyWriter {
public:
  explicit PrettyWriter(std::string& out) : out_(out) {}

  void value(const Value& v, int depth);
  void string(std::string_view s);
  void integer(std::int64_t n);
  void number(double d);
  void boolean(bool b) { out_ += b ? "true" : "false"; }
  void null() { out_ += "null"; }

  /// Opens an object or array with `bracket`; close() ends it with `bracket`'s partner, "{}"
  /// or "[]" when nothing was written in between.
  void open(char bracket) { out_ += bracket; }
  void close(char bracket, bool empty, int depth);
  /// Starts an item of an array at `depth` (the array's own depth + 1).
  void item(bool first, int depth);
  /// Starts a member `key` of an object at `depth` (the object's own depth + 1).
  void key(bool first, std::string_view key, int depth);
  /// key() for a key already written with its quotes and separator: "\"name\": ".
  void quotedKey(bool first, std::string_view quoted, int depth);

private:
  void newline(int depth);

  std::string& out_;
};

} // namespace velko::json
