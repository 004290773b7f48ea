#include "core/PhotoSummary.h"

#include <cmath>
#include <cstdio>

namespace velko::core {

bool isVideo(const PhotoSummary& photo) {
  return photo.playbackStyle == PhotoPlaybackStyle::Video ||
         photo.playbackStyle == PhotoPlaybackStyle::VideoLooping;
}

bool isLivePhoto(const PhotoSummary& photo) {
  return photo.playbackStyle == PhotoPlaybackStyle::LivePhoto;
}

std::optional<std::string> durationDisplay(const PhotoSummary& photo) {
  const double d = photo.durationSeconds;
  // An infinite duration (1e400 parses as one) has no minutes to show.
  if (!(d > 0) || !std::isfinite(d)) {
    return std::nullopt;
  }
  // Whole seconds in a double stay exact up to 2^53, far beyond any int a clip could need, so
  // the minutes are printed from the double rather than narrowed first.
  const double total = std::round(d);
  const double seconds = std::fmod(total, 60.0);
  const double minutes = (total - seconds) / 60.0;
  char buf[400];
  std::snprintf(buf, sizeof buf, "%.0f:%02d", minutes, static_cast<int>(seconds));
  return std::string(buf);
}

} // namespace velko::core
