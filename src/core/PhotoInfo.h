// Capture metadata of one photo: camera, lens, exposure, size and original file. Every capture
// value is optional because many files lack it. The display strings shown to the assistant are
// free functions below.
#pragma once

#include "json/Codec.h"
#include "json/Date.h"

#include <cstdint>
#include <optional>
#include <string>

namespace velko::core {

struct PhotoInfo {
  std::optional<json::Date> captureDate;
  std::optional<std::string> cameraMake;
  std::optional<std::string> cameraModel;
  std::optional<std::string> lens;
  std::optional<std::int64_t> iso;
  std::optional<double> shutterSeconds; ///< exposure time in seconds
  std::optional<double> aperture;       ///< f-number
  std::optional<double> focalLengthMM;  ///< millimetres
  std::int64_t pixelWidth = 0;
  std::int64_t pixelHeight = 0;
  std::optional<std::string> formatLabel;
  std::optional<std::string> originalFilename;

  static constexpr auto jsonFields() {
    using I = PhotoInfo;
    return std::tuple{json::field("captureDate", &I::captureDate),
                      json::field("cameraMake", &I::cameraMake),
                      json::field("cameraModel", &I::cameraModel),
                      json::field("lens", &I::lens),
                      json::field("iso", &I::iso),
                      json::field("shutterSeconds", &I::shutterSeconds),
                      json::field("aperture", &I::aperture),
                      json::field("focalLengthMM", &I::focalLengthMM),
                      json::field("pixelWidth", &I::pixelWidth),
                      json::field("pixelHeight", &I::pixelHeight),
                      json::field("formatLabel", &I::formatLabel),
                      json::field("originalFilename", &I::originalFilename)};
  }
  friend bool operator==(const PhotoInfo&, const PhotoInfo&) = default;
};

/// Make and model joined by one space, whichever exists alone, or "" (a make repeated inside the
/// model is kept).
std::string cameraDisplayName(const PhotoInfo& info);

/// "2.0 s" from 1 second up, "1/250 s" below (the nearest integer to 1/t, halves away from
/// zero). Absent unless the exposure is finite and greater than 0.
std::optional<std::string> shutterDisplay(const PhotoInfo& info);

/// "ƒ/8" for a whole f-number, "ƒ/2.8" otherwise. Absent unless finite and greater than 0.
std::optional<std::string> apertureDisplay(const PhotoInfo& info);

/// "35 mm" for a whole length, "35.5 mm" otherwise. Absent only when the length is: zero and
/// negative lengths are shown as they are, unlike shutter and aperture.
std::optional<std::string> focalLengthDisplay(const PhotoInfo& info);

/// "4032 × 3024".
std::string dimensionsDisplay(const PhotoInfo& info);

} // namespace velko::core
