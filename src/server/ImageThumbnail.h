// Query images for visual search: a file on disk shrunk to a JPEG thumbnail, base64-encoded.
// The image library (libvips) is opened with dlopen on the first call, so start-up and every
// tool that shows no file pay nothing for it, and a machine without it fails only this call.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

namespace velko::server {

/// The image library could not be loaded; the text says what to install.
class ImageLibraryUnavailable : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// The image at `path` (PNG, JPEG, HEIC, anything libvips reads) with its EXIF orientation
/// applied, shrunk so that its long side is at most `maxPixel` (never enlarged), encoded as JPEG
/// at quality 80 and returned as base64 without line breaks. Absent when the file cannot be
/// read or is not an image. Throws ImageLibraryUnavailable when libvips is missing.
std::optional<std::string> downscaledImageBase64(const std::string& path, int maxPixel);

} // namespace velko::server
