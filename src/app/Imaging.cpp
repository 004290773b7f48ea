#include "app/Imaging.h"

#include <mutex>
#include <stdexcept>
#include <vips/vips8>

namespace velko::app {

void initImaging() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (VIPS_INIT("velko-headless") != 0) {
      throw std::runtime_error("libvips failed to start: " + std::string(vips_error_buffer()));
    }
    // Renders are one-off; a large operation cache would only hold memory between requests.
    vips_cache_set_max(16);
    vips_cache_set_max_mem(32 * 1024 * 1024);
  });
}

EncodedImage renderPng(const std::string& path, int longEdge) {
  try {
    // thumbnail shrinks on load and applies the EXIF orientation.
    vips::VImage image = vips::VImage::thumbnail(
        path.c_str(), longEdge,
        vips::VImage::option()->set("height", longEdge)->set("size", VIPS_SIZE_DOWN));
    if (image.has_alpha() && image.bands() > 4) {
      image = image.extract_band(0, vips::VImage::option()->set("n", 4));
    }
    image = image.colourspace(image.bands() >= 3 ? VIPS_INTERPRETATION_sRGB
                                                 : VIPS_INTERPRETATION_B_W);
    image = image.cast(VIPS_FORMAT_UCHAR);
    void* buffer = nullptr;
    std::size_t size = 0;
    image.write_to_buffer(".png", &buffer, &size,
                          vips::VImage::option()->set("compression", 1)->set("strip", true));
    EncodedImage out{std::string(static_cast<const char*>(buffer), size), image.width(),
                     image.height()};
    g_free(buffer);
    return out;
  } catch (const vips::VError& e) {
    throw std::runtime_error("cannot render " + path + ": " + e.what());
  }
}

} // namespace velko::app
