// What the grid knows about one asset of the library: identity, size, dates, place, flags and
// kind. Summaries travel inside list, query, get and context replies; the display strings and
// kind tests derived from them are free functions below.
#pragma once

#include "json/Codec.h"
#include "json/Date.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace velko::core {

/// How an asset plays back. The wire form is the raw value.
enum class PhotoPlaybackStyle : std::int64_t {
  Unsupported = 0,
  Image = 1,
  ImageAnimated = 2,
  LivePhoto = 3,
  Video = 4,
  VideoLooping = 5,
};

/// Where an asset comes from. The wire form is the raw value.
enum class PhotoSourceType : std::int64_t {
  None = 0,
  UserLibrary = 1,
  CloudShared = 2,
  ITunesSynced = 3,
};

struct PhotoSummary {
  std::string id; ///< the photo library's local identifier
  std::int64_t pixelWidth = 0;
  std::int64_t pixelHeight = 0;
  std::optional<json::Date> creationDate;
  std::optional<json::Date> modificationDate;
  std::optional<std::string> formatLabel; ///< file format as shown to the user
  std::optional<double> latitude;         ///< decimal degrees
  std::optional<double> longitude;        ///< decimal degrees
  bool isFavorite = false;
  bool isHidden = false;
  double durationSeconds = 0; ///< 0 for stills
  PhotoPlaybackStyle playbackStyle = PhotoPlaybackStyle::Unsupported;
  PhotoSourceType sourceType = PhotoSourceType::None;
  std::optional<std::string> burstIdentifier;
  bool representsBurst = false;
  bool canEditContent = false;
  bool canEditProperties = false;
  bool canDelete = false;
  bool hasAdjustments = false;
  std::optional<std::string> cloudIdentifier;

  static constexpr auto jsonFields() {
    using S = PhotoSummary;
    return std::tuple{json::field("id", &S::id),
                      json::field("pixelWidth", &S::pixelWidth),
                      json::field("pixelHeight", &S::pixelHeight),
                      json::field("creationDate", &S::creationDate),
                      json::field("modificationDate", &S::modificationDate),
                      json::field("formatLabel", &S::formatLabel),
                      json::field("latitude", &S::latitude),
                      json::field("longitude", &S::longitude),
                      json::field("isFavorite", &S::isFavorite),
                      json::field("isHidden", &S::isHidden),
                      json::field("durationSeconds", &S::durationSeconds),
                      json::field("playbackStyle", &S::playbackStyle),
                      json::field("sourceType", &S::sourceType),
                      json::field("burstIdentifier", &S::burstIdentifier),
                      json::field("representsBurst", &S::representsBurst),
                      json::field("canEditContent", &S::canEditContent),
                      json::field("canEditProperties", &S::canEditProperties),
                      json::field("canDelete", &S::canDelete),
                      json::field("hasAdjustments", &S::hasAdjustments),
                      json::field("cloudIdentifier", &S::cloudIdentifier)};
  }
  friend bool operator==(const PhotoSummary&, const PhotoSummary&) = default;
};

/// A video or a looping video.
bool isVideo(const PhotoSummary& photo);
bool isLivePhoto(const PhotoSummary& photo);

/// "m:ss" of the duration rounded to whole seconds ("1:00" for 59.6 s, "60:00" for an hour: there
/// is no hour field). Absent unless the duration is finite and greater than 0.
std::optional<std::string> durationDisplay(const PhotoSummary& photo);

} // namespace velko::core

namespace velko::json {

template <> struct EnumValues<core::PhotoPlaybackStyle> {
  using P = core::PhotoPlaybackStyle;
  static constexpr std::array<P, 6> table = {P::Unsupported, P::Image, P::ImageAnimated,
                                             P::LivePhoto,   P::Video, P::VideoLooping};
};

template <> struct EnumValues<core::PhotoSourceType> {
  using S = core::PhotoSourceType;
  static constexpr std::array<S, 4> table = {S::None, S::UserLibrary, S::CloudShared,
                                             S::ITunesSynced};
};

} // namespace velko::json
