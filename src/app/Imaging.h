// libvips for the application: start-up settings, the render of a photo with its edit stack,
// and the encoders of previews, renditions and exports.
#pragma once

#include "app/RenderPipeline.h"
#include "core/EditStack.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vips/vips8>

namespace velko::app {

/// Starts libvips once per process with the cache and concurrency this program wants.
void initImaging();

/// The photo at `path`, upright (EXIF orientation applied), with the stack's edits, with the
/// long edge of the result (frame included) at `longEdge` pixels (never enlarged) or at full
/// size when absent. A sized render shrinks on load and works at that size only.
///
/// Geometry first, while sizing (RenderGeometry.h): quarter-turn rotation, flips, lens
/// distortion, perspective, straighten with its auto-crop, crop (a rectangle of the
/// straightened picture, normalised 0..1). Then the pixel stages of applyAdjustments
/// (RenderPipeline.h) at the output size, then the frame. The result's band format and
/// interpretation vary (sRGB, B_W, scRGB, 16-bit); the encoders below bring it to their own. Throws
/// std::runtime_error naming the file when it cannot be decoded.
/// The stack's look (kind lut, a look id or name) comes from `looksFolder` and is applied
/// last, blended by lutIntensity; a look that is not there fails the render, naming it.
/// `encoding` says what the result is bound for: Srgb8 (an 8-bit file, the default) lets the
/// last pass encode it; LinearFloat keeps the precision a 16-bit file needs.
vips::VImage renderStack(const std::string& path, const core::EditStack& stack,
                         std::optional<int> longEdge, const std::string& looksFolder,
                         Encoding encoding = Encoding::Srgb8);

/// An encoded image and its size in pixels.
struct EncodedImage {
  std::string bytes;
  std::int64_t width = 0;
  std::int64_t height = 0;
};

/// An 8-bit sRGB (or grey) PNG without metadata, fast compression.
EncodedImage encodePng(const vips::VImage& image);

/// A PNG of the unedited photo with its long edge at `longEdge` pixels (never enlarged), upright.
EncodedImage renderPng(const std::string& path, int longEdge);

/// The file formats written to disk.
enum class FileFormat { Jpeg, Png, Heic, Tiff16 };

struct SaveSettings {
  FileFormat format = FileFormat::Jpeg;
  int quality = 90; ///< libvips Q, 1..100, for JPEG and HEIC
  /// Empty for sRGB; otherwise Display P3, with its profile kept in this folder.
  std::string displayP3Folder;
};

/// Writes the image to `path` in the format, as sRGB with the sRGB profile embedded (or Display
/// P3 with its profile, when the settings name a profile folder) (8 bits, or
/// 16 for Tiff16), alpha flattened onto white for JPEG. The EXIF block the decoder found is
/// kept with its orientation set to 1, since the pixels are upright. Throws std::runtime_error.
void saveImage(vips::VImage image, const std::string& path, const SaveSettings& settings);

} // namespace velko::app
