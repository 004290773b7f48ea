// Colour profiles the application writes into exported files: Display P3 (the P3 primaries, a D65
// white and the sRGB tone curve), built with lcms2 and kept as a file so libvips can load it.
#pragma once

#include <string>
#include <vips/vips8>

namespace velko::app {

/// The ICC profile "Display P3" (version 4, display class), built once per process. The bytes
/// are the same in every run: the header's creation date is fixed.
const std::string& displayP3IccBytes();

/// The path of DisplayP3.icc in `folder` (for example ~/.velko/headless/profiles), creating the
/// folder (mode 0700) and writing the file when it is missing or differs. Checked once per folder
/// and process. Throws std::runtime_error naming the path.
std::string displayP3IccPath(const std::string& folder);

/// An sRGB image (uchar, float 0..255, or 16-bit; grey is made RGB; alpha passes through)
/// converted to Display P3 with relative colorimetric intent, with the profile attached as
/// "icc-profile-data" so that saved files carry it. 16-bit input gives 16-bit output, anything
/// else 8-bit. `folder` is where the profile file lives, as for displayP3IccPath. Throws
/// std::runtime_error (a vips::VError) when libvips cannot convert.
vips::VImage toDisplayP3(const vips::VImage& srgb, const std::string& folder);

} // namespace velko::app
