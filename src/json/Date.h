// Dates on the wire: ISO 8601 internet date-time with whole seconds, written in UTC with "Z"
// (2024-05-01T08:30:00Z). Input may carry a numeric offset; fractional seconds are rejected.
#pragma once

#include "json/Codec.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace velko::json {

using Date = std::chrono::sys_seconds;

std::string formatDate(Date date);

/// Absent when `text` is not an internet date-time with whole seconds.
std::optional<Date> parseDate(std::string_view text);

template <> struct Codec<Date> {
  static Value encode(Date d) { return Value(formatDate(d)); }
  static void decode(const Value& v, Date& out, const Path& path);
};

} // namespace velko::json
