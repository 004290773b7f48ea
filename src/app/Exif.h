// Capture metadata from an EXIF block (the bytes libvips hands over as "exif-data"), parsed with
// libexif: capture time, GPS position, camera, lens, exposure and orientation.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velko::app {

struct ExifFacts {
  std::optional<std::int64_t> captureTime; ///< DateTimeOriginal as Unix seconds (read as UTC)
  std::optional<double> latitude, longitude;
  std::optional<std::string> cameraMake, cameraModel, lens;
  std::optional<std::int64_t> iso;
  std::optional<double> shutterSeconds, aperture, focalLengthMM;
  int orientation = 1; ///< 1 to 8
};

/// Parses the block; missing or malformed tags are left absent, never an error.
ExifFacts parseExif(std::string_view block);

} // namespace velko::app
