// Visual feature prints for similarity search: a small, fixed-size description of what a photo
// looks like, robust to resizing and re-encoding, and a distance between two prints.
#pragma once

#include <string>
#include <string_view>

namespace velko::app {

/// The print of an image file (any format libvips reads). Throws std::runtime_error.
std::string featurePrintOfFile(const std::string& path);
/// The print of encoded image bytes (PNG or JPEG). Throws std::runtime_error.
std::string featurePrintOfBytes(std::string_view encoded);
/// The distance between two prints: 0 for identical, larger for less alike.
double printDistance(std::string_view a, std::string_view b);

} // namespace velko::app
