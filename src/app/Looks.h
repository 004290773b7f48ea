// Colour looks: .cube lookup tables (the Adobe and Resolve text format, 1D and 3D) read into
// memory and applied to 8-bit or float sRGB images with an intensity that blends with the
// original.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include <vips/vips8>

namespace velko::app {

/// A table read from a .cube file. Entries are RGB triples in the file's order: for a 1D table
/// `size` rows, for a 3D table `size`³ rows with red varying fastest, then green, then blue.
struct CubeLut {
  enum class Kind { OneD, ThreeD };

  std::string title; ///< the TITLE line, empty when absent
  Kind kind = Kind::ThreeD;
  int size = 0;                                  ///< entries along each axis
  std::array<float, 3> domainMin{0.f, 0.f, 0.f}; ///< input value mapped to the first entry
  std::array<float, 3> domainMax{1.f, 1.f, 1.f}; ///< input value mapped to the last entry
  std::vector<float> table;                      ///< rows × 3 values, r g b per row

  std::size_t rows() const {
    return kind == Kind::OneD ? std::size_t(size) : std::size_t(size) * size * size;
  }
};

/// Reads a .cube text. `name` (usually the file's path) starts every error message. Accepts
/// TITLE, LUT_1D_SIZE (2..65536), LUT_3D_SIZE (2..256), DOMAIN_MIN/DOMAIN_MAX and Resolve's
/// LUT_1D_INPUT_RANGE/LUT_3D_INPUT_RANGE, '#' comments and blank lines; other keywords are
/// ignored while they come before the table. Throws std::runtime_error naming the line for a
/// malformed text (bad or missing numbers, a size out of range, both sizes, too few or too many
/// rows); never returns a partly read table.
CubeLut parseCube(std::string_view text, const std::string& name);

/// parseCube of the file at `path`. Throws std::runtime_error naming the file.
CubeLut loadCube(const std::string& path);

/// The look applied to an sRGB image: band format uchar (0..255) or float (0..255 nominal), with
/// three bands or four (the fourth, alpha, passes through). The result has the same size, format,
/// interpretation and metadata. A 3D table is interpolated trilinearly, a 1D table linearly per
/// channel; inputs outside the table's domain are clamped to it. `intensity` 0..1 blends with the
/// original: 0 leaves the image as it is, 1 is the table alone. The pixels are computed here, at
/// once (on a few threads for large images), so call it at the render's final size. Throws
/// std::runtime_error for another format or band count.
vips::VImage applyCube(const vips::VImage& srgb, const CubeLut& lut, double intensity);

/// A look offered to the user: a readable .cube file in the looks folder or one of its direct
/// subfolders. The id is the hex XXH3-64 of the path relative to the folder, so it survives
/// restarts and edits of the file.
struct LookFile {
  std::string id;
  std::string name; ///< the TITLE line, else the file's stem
  std::string path;
};

/// The looks of `folder`, sorted by name; a missing folder has none. A malformed file is left
/// out with one log line, so a bad download never breaks the list.
std::vector<LookFile> listLooks(const std::string& folder);

/// The look whose id or name is `key`, or nothing.
std::optional<LookFile> findLook(const std::string& folder, const std::string& key);

} // namespace velko::app
