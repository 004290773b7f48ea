#include "core/PhotoInfo.h"

#include <cmath>
#include <cstdio>

namespace velko::core {
namespace {

// "%.0f" prints any whole double in full; the largest finite one needs 309 digits.
constexpr std::size_t kNumberBuffer = 400;

bool isWhole(double v) {
  return std::isfinite(v) && v == std::trunc(v);
}

// Formats one double with `format` ("%.1f", "%.0f") followed by `suffix`. A negative zero is
// shown as 0, as an integer conversion would show it.
std::string number(const char* format, double v, const char* suffix = "") {
  char buf[kNumberBuffer];
  std::snprintf(buf, sizeof buf, format, v == 0 ? 0.0 : v);
  return std::string(buf) + suffix;
}

} // namespace

std::string cameraDisplayName(const PhotoInfo& info) {
  if (info.cameraMake && info.cameraModel) {
    return *info.cameraMake + " " + *info.cameraModel;
  }
  if (info.cameraMake) {
    return *info.cameraMake;
  }
  return info.cameraModel.value_or("");
}

std::optional<std::string> shutterDisplay(const PhotoInfo& info) {
  if (!info.shutterSeconds || !(*info.shutterSeconds > 0) || !std::isfinite(*info.shutterSeconds)) {
    return std::nullopt;
  }
  const double t = *info.shutterSeconds;
  if (t >= 1) {
    return number("%.1f", t, " s");
  }
  // std::round rounds halves away from zero. The reciprocal of a subnormal time overflows to
  // infinity, which is no exposure a camera reports.
  const double denominator = std::round(1 / t);
  if (!std::isfinite(denominator)) {
    return std::nullopt;
  }
  return "1/" + number("%.0f", denominator, " s");
}

std::optional<std::string> apertureDisplay(const PhotoInfo& info) {
  if (!info.aperture || !(*info.aperture > 0) || !std::isfinite(*info.aperture)) {
    return std::nullopt;
  }
  const double f = *info.aperture;
  return "\u0192/" + number(isWhole(f) ? "%.0f" : "%.1f", f);
}

std::optional<std::string> focalLengthDisplay(const PhotoInfo& info) {
  if (!info.focalLengthMM) {
    return std::nullopt;
  }
  const double mm = *info.focalLengthMM;
  return number(isWhole(mm) ? "%.0f" : "%.1f", mm, " mm");
}

std::string dimensionsDisplay(const PhotoInfo& info) {
  return std::to_string(info.pixelWidth) + " \u00d7 " + std::to_string(info.pixelHeight);
}

} // namespace velko::core
