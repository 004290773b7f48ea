// Small pieces the render stages share: colour transfer functions, ramps, the painter's hue
// wheel and exact-size resizing.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <vips/vips8>

namespace velko::app {

inline double clamp01(double x) {
  return std::clamp(x, 0.0, 1.0);
}

/// 0 below e0, 1 above e1, a smooth cubic between; a step at e0 when the two meet.
inline double smoothstep(double e0, double e1, double x) {
  if (e1 - e0 < 1e-9) {
    return x >= e0 ? 1 : 0;
  }
  const double t = clamp01((x - e0) / (e1 - e0));
  return t * t * (3 - 2 * t);
}

/// The sRGB transfer function and its inverse, on 0..1.
inline double toPerceptual(double linear) {
  return linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
}
inline double toLinear(double perceptual) {
  return perceptual <= 0.04045 ? perceptual / 12.92 : std::pow((perceptual + 0.055) / 1.055, 2.4);
}

/// A Lab hue angle on the painter's wheel the mixer bands are centred on (red 0, yellow 60,
/// green 120, aqua 180, blue 240, magenta 300): linear between the Lab hues of the sRGB
/// primaries and secondaries.
inline double wheelHue(double labHue) {
  static constexpr std::array<double, 7> kLab{40, 103, 136, 196, 306, 328, 400};
  static constexpr std::array<double, 7> kWheel{0, 60, 120, 180, 240, 300, 360};
  const double h = labHue < kLab[0] ? labHue + 360 : labHue;
  for (std::size_t i = 0; i + 1 < kLab.size(); ++i) {
    if (h <= kLab[i + 1]) {
      return std::fmod(kWheel[i] + (h - kLab[i]) / (kLab[i + 1] - kLab[i]) * 60, 360);
    }
  }
  return 0;
}

inline vips::VImage withInterpretation(const vips::VImage& image,
                                       VipsInterpretation interpretation) {
  return image.copy(vips::VImage::option()->set("interpretation", interpretation));
}

/// `image` resized to exactly `width` × `height` with `kernel` (mattes use a linear one, which
/// cannot ring past 0..1).
inline vips::VImage resizeTo(const vips::VImage& image, int width, int height,
                             VipsKernel kernel = VIPS_KERNEL_LANCZOS3) {
  if (image.width() == width && image.height() == height) {
    return image;
  }
  vips::VImage out = image.resize(static_cast<double>(width) / image.width(),
                                  vips::VImage::option()
                                      ->set("vscale", static_cast<double>(height) / image.height())
                                      ->set("kernel", kernel));
  if (out.width() != width || out.height() != height) {
    out = out.embed(0, 0, std::max(width, out.width()), std::max(height, out.height()),
                    vips::VImage::option()->set("extend", VIPS_EXTEND_COPY))
              .extract_area(0, 0, width, height);
  }
  return out;
}

} // namespace velko::app
