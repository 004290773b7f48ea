// An offline gazetteer for photo.geotag: the principal cities of the time-zone database
// (zone.tab, one row per country and zone, coordinates in ISO 6709) and its country names
// (iso3166.tab), both shipped by tzdata. It knows a few hundred cities, not every town, so a
// name it cannot find is answered with "pass coordinates", never with a guess.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace velko::app {

struct Place {
  std::string name;    ///< the city as the zone names it, underscores as spaces ("New York")
  std::string zone;    ///< "America/New_York"
  std::string country; ///< ISO 3166 code
  double latitude = 0;
  double longitude = 0;
};

class Gazetteer {
public:
  /// Builds the gazetteer from the text of a zone table (zone.tab or zone1970.tab: codes,
  /// coordinates, zone name, comment) and of iso3166.tab (code, name). Malformed rows are skipped.
  Gazetteer(std::string_view zoneTable, std::string_view countryTable);

  /// The one read from tzdata's /usr/share/zoneinfo (zone.tab, else zone1970.tab), loaded on
  /// first use; empty when tzdata is not installed.
  static const Gazetteer& system();

  /// Resolves "Paris", "Paris, France", "São Paulo, BR", "Europe/Paris" or a country alone
  /// ("France", its principal city). Case, accents, underscores and punctuation do not matter. A
  /// city given with a country must lie in that country.
  std::optional<Place> find(std::string_view query) const;

  bool empty() const { return places_.empty(); }

private:
  std::optional<std::string> countryCode(const std::string& key) const;
  std::optional<Place> cityIn(const std::string& key,
                              const std::optional<std::string>& country) const;
  std::optional<Place> principalCity(const std::string& country) const;

  std::vector<Place> places_; ///< in table order
  std::unordered_map<std::string, std::vector<std::size_t>> byName_;
  std::unordered_map<std::string, std::string> countries_; ///< folded name or code → code
};

/// The form names are compared in: accents transliterated to ASCII, lower case, apostrophes
/// dropped, every other run of non-alphanumerics one space ("St. John's" → "st johns").
std::string foldPlaceName(std::string_view name);

} // namespace velko::app
