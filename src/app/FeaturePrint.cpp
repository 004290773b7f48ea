#include "app/FeaturePrint.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vips/vips8>

namespace velko::app {
namespace {

using vips::VImage;

constexpr unsigned char kPrintFormat = 1;
constexpr double kMaxLogAspect = 2; // 4:1 either way; longer panoramas count as 4:1
/// The largest CIE76 difference two quantised cells can have: L 0..100, a and b -128..127.
const double kMaxCellDifference = std::sqrt(100.0 * 100 + 255.0 * 255 + 255.0 * 255);
/// A query image decoded from bytes may not be larger than this (a decompression bomb guard).
constexpr double kMaxQueryPixels = 200e6;
/// The thumbnail the cells are averaged from fits in a square of this many pixels.
constexpr int kThumbnailBox = 64;

unsigned char quantise(double v) {
  return static_cast<unsigned char>(std::clamp(std::lround(v), 0L, 255L));
}

/// The upright size of a loaded image's header, by its EXIF orientation.
std::pair<int, int> uprightSize(const VImage& header) {
  int orientation = 1;
  if (header.get_typeof(VIPS_META_ORIENTATION) != 0) {
    orientation = header.get_int(VIPS_META_ORIENTATION);
  }
  return orientation >= 5 && orientation <= 8 ? std::pair{header.height(), header.width()}
                                              : std::pair{header.width(), header.height()};
}

/// The print of an upright image of this size, from its thumbnail that fits kThumbnailBox.
std::string printOf(std::pair<int, int> size, VImage thumb) {
  if (size.first <= 0 || size.second <= 0) {
    throw std::runtime_error("the image has no pixels");
  }
  // Eight-bit sRGB first (16-bit, grey and CMYK images alike), so transparent areas can be
  // laid on white, as a viewer shows them on a light page.
  thumb = thumb.copy_memory().colourspace(VIPS_INTERPRETATION_sRGB);
  if (thumb.has_alpha()) {
    thumb = thumb.flatten(
        VImage::option()->set("background", std::vector<double>(thumb.bands() - 1, 255)));
  }
  // Cell means are taken in linear light, then described in Lab. Averaging a small in-memory
  // thumbnail, rather than letting the loader shrink straight to the grid, keeps the cells the
  // same whatever size and encoding the file had.
  const VImage linear = thumb.colourspace(VIPS_INTERPRETATION_scRGB);
  const VImage lab = linear
                         .resize(double(kPrintGrid) / linear.width(),
                                 VImage::option()
                                     ->set("vscale", double(kPrintGrid) / linear.height())
                                     ->set("kernel", VIPS_KERNEL_LINEAR))
                         .colourspace(VIPS_INTERPRETATION_LAB)
                         .cast(VIPS_FORMAT_FLOAT);
  if (lab.width() != kPrintGrid || lab.height() != kPrintGrid || lab.bands() != 3) {
    throw std::runtime_error("unexpected thumbnail shape");
  }
  std::size_t bytes = 0;
  void* memory = lab.write_to_memory(&bytes);
  const float* cells = static_cast<const float*>(memory);
  constexpr std::size_t kCells = kPrintGrid * kPrintGrid;
  std::string print(kPrintSize, '\0');
  print[0] = static_cast<char>(kPrintFormat);
  const double logAspect =
      std::clamp(std::log2(double(size.first) / size.second), -kMaxLogAspect, kMaxLogAspect);
  print[1] = static_cast<char>(quantise((logAspect + kMaxLogAspect) / (2 * kMaxLogAspect) * 255));
  for (std::size_t i = 0; i < kCells; ++i) {
    print[2 + i] = static_cast<char>(quantise(cells[3 * i] * 2.55));
    print[2 + kCells + i] = static_cast<char>(quantise(cells[3 * i + 1] + 128));
    print[2 + 2 * kCells + i] = static_cast<char>(quantise(cells[3 * i + 2] + 128));
  }
  g_free(memory);
  return print;
}

/// A file cut short fails rather than giving the print of its first rows and a blank rest.
vips::VOption* thumbnailOptions() {
  return VImage::option()
      ->set("height", kThumbnailBox)
      ->set("size", VIPS_SIZE_DOWN)
      ->set("option_string", "fail_on=truncated");
}

} // namespace

std::string featurePrintOfFile(const std::string& path) {
  try {
    const VImage header = VImage::new_from_file(
        path.c_str(), VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL));
    // thumbnail shrinks on load and turns the image upright.
    return printOf(uprightSize(header),
                   VImage::thumbnail(path.c_str(), kThumbnailBox, thumbnailOptions()));
  } catch (const vips::VError& e) {
    throw std::runtime_error("cannot make a feature print of " + path + ": " + e.what());
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("cannot make a feature print of " + path + ": " + e.what());
  }
}

std::string featurePrintOfBytes(std::string_view encoded) {
  // The blob owns a copy, so nothing libvips caches can outlive the caller's bytes.
  VipsBlob* blob = vips_blob_copy(encoded.data(), encoded.size());
  try {
    const VImage header =
        VImage::new_from_buffer(encoded.data(), encoded.size(), "",
                                VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL));
    const auto size = uprightSize(header);
    if (double(size.first) * size.second > kMaxQueryPixels) {
      throw std::runtime_error("the image is larger than 200 megapixels");
    }
    std::string print =
        printOf(size, VImage::thumbnail_buffer(blob, kThumbnailBox, thumbnailOptions()));
    vips_area_unref(VIPS_AREA(blob));
    return print;
  } catch (const vips::VError& e) {
    vips_area_unref(VIPS_AREA(blob));
    throw std::runtime_error(std::string("cannot decode the image: ") + e.what());
  } catch (...) {
    vips_area_unref(VIPS_AREA(blob));
    throw;
  }
}

double printDistance(std::string_view a, std::string_view b) {
  if (a.size() != kPrintSize || b.size() != kPrintSize || a[0] != b[0]) {
    return 1;
  }
  const auto* p = reinterpret_cast<const unsigned char*>(a.data());
  const auto* q = reinterpret_cast<const unsigned char*>(b.data());
  const double aspect = std::abs(int(p[1]) - int(q[1])) / 255.0;
  // Integer sums over the planes, which the compiler vectorises; L is stored as L·2.55, so its
  // squares are weighted by 1/2.55².
  constexpr std::size_t kPlane = kPrintGrid * kPrintGrid;
  int lightness = 0, chroma = 0;
  for (std::size_t i = 2; i < 2 + kPlane; ++i) {
    const int d = int(p[i]) - int(q[i]);
    lightness += d * d;
  }
  for (std::size_t i = 2 + kPlane; i < kPrintSize; ++i) {
    const int d = int(p[i]) - int(q[i]);
    chroma += d * d;
  }
  constexpr double kCells = kPrintGrid * kPrintGrid;
  const double rms = std::sqrt((double(lightness) / (2.55 * 2.55) + double(chroma)) / kCells);
  return 0.9 * std::min(1.0, rms / kMaxCellDifference) + 0.1 * aspect;
}

} // namespace velko::app
