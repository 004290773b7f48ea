#include "json/Date.h"

#include <cstdio>

namespace velko::json {
namespace {

using namespace std::chrono;

bool readDigits(std::string_view text, std::size_t pos, std::size_t count, int& out) {
  if (pos + count > text.size()) {
    return false;
  }
  int value = 0;
  for (std::size_t i = pos; i < pos + count; ++i) {
    char c = text[i];
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + (c - '0');
  }
  out = value;
  return true;
}

bool expectChar(std::string_view text, std::size_t pos, char a, char b = '\0') {
  return pos < text.size() && (text[pos] == a || (b != '\0' && text[pos] == b));
}

} // namespace

std::string formatDate(Date date) {
  const auto days = floor<std::chrono::days>(date);
  const year_month_day ymd{days};
  const hh_mm_ss hms{date - days};
  const int year = static_cast<int>(ymd.year());
  const auto hours = static_cast<int>(hms.hours().count());
  const auto minutes = static_cast<int>(hms.minutes().count());
  const auto seconds = static_cast<int>(hms.seconds().count());
  if (year < 0 || year > 9999) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02d:%02d:%02dZ", year,
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()), hours,
                  minutes, seconds);
    return buf;
  }
  // Every record of a listing carries dates, so the common case is written digit by digit.
  std::string out = "0000-00-00T00:00:00Z";
  auto put = [&](std::size_t at, int value, int digits) {
    for (int i = digits - 1; i >= 0; --i, value /= 10) {
      out[at + static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
    }
  };
  put(0, year, 4);
  put(5, static_cast<int>(static_cast<unsigned>(ymd.month())), 2);
  put(8, static_cast<int>(static_cast<unsigned>(ymd.day())), 2);
  put(11, hours, 2);
  put(14, minutes, 2);
  put(17, seconds, 2);
  return out;
}

std::optional<Date> parseDate(std::string_view text) {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  if (!readDigits(text, 0, 4, y) || !expectChar(text, 4, '-') || !readDigits(text, 5, 2, mo) ||
      !expectChar(text, 7, '-') || !readDigits(text, 8, 2, d) || !expectChar(text, 10, 'T', 't') ||
      !readDigits(text, 11, 2, h) || !expectChar(text, 13, ':') || !readDigits(text, 14, 2, mi) ||
      !expectChar(text, 16, ':') || !readDigits(text, 17, 2, s)) {
    return std::nullopt;
  }
  const year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)},
                           day{static_cast<unsigned>(d)}};
  if (!ymd.ok() || h > 23 || mi > 59 || s > 59) {
    return std::nullopt;
  }
  int offsetSeconds = 0;
  std::size_t pos = 19;
  if (expectChar(text, pos, 'Z', 'z')) {
    pos += 1;
  } else if (expectChar(text, pos, '+', '-')) {
    int oh = 0, om = 0;
    if (!readDigits(text, pos + 1, 2, oh) || !expectChar(text, pos + 3, ':') ||
        !readDigits(text, pos + 4, 2, om) || oh > 23 || om > 59) {
      return std::nullopt;
    }
    offsetSeconds = (oh * 3600 + om * 60) * (text[pos] == '-' ? -1 : 1);
    pos += 6;
  } else {
    return std::nullopt; // fractional seconds or a missing zone
  }
  if (pos != text.size()) {
    return std::nullopt;
  }
  return Date{sys_days{ymd}} + hours{h} + minutes{mi} + seconds{s} - seconds{offsetSeconds};
}

void Codec<Date>::decode(const Value& v, Date& out, const Path& path) {
  const String* s = v.if_string();
  if (s == nullptr) {
    failExpected(v, "an ISO 8601 date string", path);
  }
  std::optional<Date> d = parseDate(std::string_view(*s));
  if (!d) {
    path.fail("expected an ISO 8601 date-time with whole seconds, such as "
              "2024-05-01T08:30:00Z, found \"" +
              std::string(std::string_view(*s)) + "\"");
  }
  out = *d;
}

} // namespace velko::json
