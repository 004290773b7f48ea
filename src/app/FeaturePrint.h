// Visual feature prints for similarity search: a small, fixed-size description of what a photo
// looks like, robust to resizing and re-encoding, and a distance between two prints.
//
// A print is kPrintSize bytes: a format byte, the aspect ratio (log2 of width / height, upright,
// clamped to ±2, quantised to 0..255), then an 8×8 grid of CIE Lab cell means in three planes
// of 64 bytes, row by row: L·2.55, then a+128, then b+128. The cells are averaged in linear
// light from a small thumbnail squeezed to the grid, so they do not depend on the photo's size.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace velko::app {

inline constexpr int kPrintGrid = 8;
inline constexpr std::size_t kPrintSize = 2 + kPrintGrid * kPrintGrid * 3;

/// The print of an image file (any format libvips reads), upright by its EXIF orientation.
/// Throws std::runtime_error naming the file.
std::string featurePrintOfFile(const std::string& path);
/// The print of encoded image bytes (PNG or JPEG). Throws std::runtime_error.
std::string featurePrintOfBytes(std::string_view encoded);

/// The distance between two prints, in 0..1. 0 means the prints are identical; 1 would take
/// every cell at opposite corners of the Lab gamut and the most different aspect ratios.
/// 0.9 of the weight is the root-mean-square CIE76 colour difference over the grid divided by
/// its largest possible value, 0.1 the difference of the log aspect ratios over its range.
/// A re-encoded or resized copy of a photo typically lies under 0.01. Prints of another
/// format or size are at distance 1 from everything.
double printDistance(std::string_view a, std::string_view b);

} // namespace velko::app
