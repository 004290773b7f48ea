#include "app/Gazetteer.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <glib.h>
#include <sstream>

namespace velko::app {
namespace {

constexpr const char* kZoneInfo = "/usr/share/zoneinfo/";

/// Common English names that iso3166.tab spells otherwise.
constexpr std::pair<std::string_view, std::string_view> kCountryAliases[] = {
    {"united kingdom", "GB"},
    {"great britain", "GB"},
    {"england", "GB"},
    {"scotland", "GB"},
    {"wales", "GB"},
    {"usa", "US"},
    {"united states of america", "US"},
    {"holland", "NL"},
    {"czech republic", "CZ"},
};

/// Former or longer names of zone cities.
constexpr std::pair<std::string_view, std::string_view> kCityAliases[] = {
    {"kiev", "Europe/Kyiv"},
    {"saigon", "Asia/Ho_Chi_Minh"},
    {"ho chi minh city", "Asia/Ho_Chi_Minh"},
    {"calcutta", "Asia/Kolkata"},
    {"rangoon", "Asia/Yangon"},
    {"katmandu", "Asia/Kathmandu"},
};

/// A country alone resolves to its first listed city, which the table puts first because it is
/// the most populous, except where the listing runs across the country from one edge (Lord
/// Howe Island for Australia, Kaliningrad for Russia): there, the principal city below.
constexpr std::pair<std::string_view, std::string_view> kPrincipalZones[] = {
    {"AU", "Australia/Sydney"}, {"BR", "America/Sao_Paulo"}, {"CA", "America/Toronto"},
    {"RU", "Europe/Moscow"},    {"UA", "Europe/Kyiv"},       {"UZ", "Asia/Tashkent"},
};

std::vector<std::string_view> splitOn(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string_view::npos) {
      return parts;
    }
    start = end + 1;
  }
}

/// One ISO 6709 angle: sign, then degrees in `degreeDigits` digits, minutes, optional seconds.
std::optional<double> angle(std::string_view text, std::size_t degreeDigits) {
  if (text.size() != 1 + degreeDigits + 2 && text.size() != 1 + degreeDigits + 4) {
    return std::nullopt;
  }
  if (text[0] != '+' && text[0] != '-') {
    return std::nullopt;
  }
  double value = 0, unit = 1;
  for (std::size_t i = 1, width = degreeDigits; i < text.size();
       i += width, width = 2, unit *= 60) {
    double part = 0;
    for (char c : text.substr(i, width)) {
      if (c < '0' || c > '9') {
        return std::nullopt;
      }
      part = part * 10 + (c - '0');
    }
    value += part / unit;
  }
  return text[0] == '-' ? -value : value;
}

std::string trimmed(std::string_view s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string_view::npos) {
    return {};
  }
  return std::string(s.substr(first, s.find_last_not_of(" \t") - first + 1));
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

} // namespace

std::string foldPlaceName(std::string_view name) {
  if (name.empty()) {
    return {};
  }
  // g_str_to_ascii wants UTF-8; anything else is repaired first (bad bytes become U+FFFD).
  gchar* valid = g_utf8_make_valid(name.data(), static_cast<gssize>(name.size()));
  gchar* ascii = g_str_to_ascii(valid, "C");
  std::string out;
  bool gap = false;
  for (const char* p = ascii; *p; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    if (c == '\'') {
      continue;
    }
    if (std::isalnum(c)) {
      if (gap && !out.empty()) {
        out.push_back(' ');
      }
      gap = false;
      out.push_back(static_cast<char>(std::tolower(c)));
    } else {
      gap = true;
    }
  }
  g_free(ascii);
  g_free(valid);
  return out;
}

Gazetteer::Gazetteer(std::string_view zoneTable, std::string_view countryTable) {
  for (std::string_view line : splitOn(countryTable, '\n')) {
    const auto cols = splitOn(line, '\t');
    if (line.empty() || line[0] == '#' || cols.size() < 2 || cols[0].size() != 2) {
      continue;
    }
    const std::string code(cols[0]);
    const std::string name = trimmed(cols[1]);
    countries_.emplace(foldPlaceName(code), code);
    countries_.emplace(foldPlaceName(name), code);
    // "Korea (South)" is also "South Korea", and "Britain (UK)" also "UK" and "Britain";
    // a bare name two countries share ("Korea") names neither.
    if (const auto open = name.find(" ("); open != std::string::npos && name.back() == ')') {
      const std::string base = name.substr(0, open);
      const std::string inner = name.substr(open + 2, name.size() - open - 3);
      countries_.emplace(foldPlaceName(inner + " " + base), code);
      if (inner.find_first_of("abcdefghijklmnopqrstuvwxyz") == std::string::npos) {
        countries_.emplace(foldPlaceName(inner), code);
      }
      const std::string key = foldPlaceName(base);
      if (auto [it, added] = countries_.emplace(key, code); !added && it->second != code) {
        it->second.clear(); // ambiguous
      }
    }
  }
  for (auto [alias, code] : kCountryAliases) {
    countries_.emplace(std::string(alias), std::string(code));
  }

  for (std::string_view line : splitOn(zoneTable, '\n')) {
    const auto cols = splitOn(line, '\t');
    if (line.empty() || line[0] == '#' || cols.size() < 3) {
      continue;
    }
    const std::string_view coords = cols[1];
    const std::size_t split = coords.find_first_of("+-", 1);
    if (split == std::string_view::npos) {
      continue;
    }
    const auto lat = angle(coords.substr(0, split), 2);
    const auto lon = angle(coords.substr(split), 3);
    if (!lat || !lon) {
      continue;
    }
    const std::string zone(cols[2]);
    std::string city = zone.substr(zone.rfind('/') + 1);
    std::replace(city.begin(), city.end(), '_', ' ');
    // zone1970.tab lists every country a zone covers; zone.tab one per row.
    for (std::string_view code : splitOn(cols[0], ',')) {
      places_.push_back({city, zone, std::string(code), *lat, *lon});
      byName_[foldPlaceName(city)].push_back(places_.size() - 1);
      byName_[foldPlaceName(zone)].push_back(places_.size() - 1);
    }
  }
  for (auto [alias, zone] : kCityAliases) {
    if (auto it = byName_.find(foldPlaceName(zone)); it != byName_.end()) {
      byName_.emplace(std::string(alias), it->second);
    }
  }
}

const Gazetteer& Gazetteer::system() {
  // Thread-safe lazy loading: the first caller reads the files, later ones wait for it.
  static const Gazetteer gazetteer = [] {
    const std::string dir = kZoneInfo;
    std::string zones = readFile(dir + "zone.tab");
    if (zones.empty()) {
      zones = readFile(dir + "zone1970.tab");
    }
    return Gazetteer(zones, readFile(dir + "iso3166.tab"));
  }();
  return gazetteer;
}

std::optional<std::string> Gazetteer::countryCode(const std::string& key) const {
  const auto it = countries_.find(key);
  if (it == countries_.end() || it->second.empty()) {
    return std::nullopt;
  }
  return it->second;
}

std::optional<Place> Gazetteer::cityIn(const std::string& key,
                                       const std::optional<std::string>& country) const {
  const auto it = byName_.find(key);
  if (it == byName_.end()) {
    return std::nullopt;
  }
  for (std::size_t i : it->second) {
    if (!country || places_[i].country == *country) {
      return places_[i];
    }
  }
  return std::nullopt;
}

std::optional<Place> Gazetteer::principalCity(const std::string& country) const {
  for (auto [code, zone] : kPrincipalZones) {
    if (code == country) {
      if (auto city = cityIn(foldPlaceName(zone), country)) {
        return city;
      }
    }
  }
  for (const Place& p : places_) {
    if (p.country == country) {
      return p;
    }
  }
  return std::nullopt;
}

std::optional<Place> Gazetteer::find(std::string_view query) const {
  // "City", "City, Country" or "City, Region, Country": the first part is the place, the
  // last the country; parts between (a region, a street) are not checked.
  const auto parts = splitOn(query, ',');
  const std::string first = foldPlaceName(parts.front());
  if (first.empty()) {
    return std::nullopt;
  }
  if (parts.size() == 1) {
    if (auto city = cityIn(first, std::nullopt)) {
      return city;
    }
    if (auto code = countryCode(first)) {
      return principalCity(*code);
    }
    return std::nullopt;
  }
  const auto code = countryCode(foldPlaceName(parts.back()));
  if (!code) {
    return std::nullopt;
  }
  return cityIn(first, code);
}

} // namespace velko::app
