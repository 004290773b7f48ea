#include "app/Imaging.h"

#include "app/ColorProfiles.h"
#include "app/Looks.h"
#include "app/PixelOp.h"
#include "app/RenderGeometry.h"
#include "app/RenderPipeline.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <stdexcept>

namespace velko::app {
namespace {

using vips::VImage;
using core::AdjustmentKind;

bool isGrey(const VImage& image) { return image.bands() < 3; }

/// The image in 8-bit sRGB or grey, alpha kept.
VImage eightBit(VImage image) {
  image = image.colourspace(isGrey(image) ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB);
  return image.format() == VIPS_FORMAT_UCHAR ? image : image.cast(VIPS_FORMAT_UCHAR);
}

/// The image in 16-bit RGB or grey, alpha kept.
VImage sixteenBit(VImage image) {
  image = image.colourspace(isGrey(image) ? VIPS_INTERPRETATION_GREY16 : VIPS_INTERPRETATION_RGB16);
  return image.format() == VIPS_FORMAT_USHORT ? image : image.cast(VIPS_FORMAT_USHORT);
}

/// The size of the photo as it is shown: after the EXIF orientation, read from the header only.
std::pair<int, int> uprightSize(const std::string& path) {
  const VImage header = VImage::new_from_file(path.c_str());
  int w = header.width();
  int h = header.height();
  if (header.get_typeof(VIPS_META_ORIENTATION) != 0 && header.get_int(VIPS_META_ORIENTATION) >= 5) {
    std::swap(w, h);
  }
  return {w, h};
}

} // namespace

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

VImage renderStack(const std::string& path, const core::EditStack& stack,
                   std::optional<int> longEdge, const std::string& looksFolder, Encoding encoding) {
  try {
    const GeometrySettings geometry(stack);
    auto [w, h] = uprightSize(path);
    if (geometry.quarterTurns % 2 == 1) {
      std::swap(w, h);
    }
    // The long edge asked for belongs to the final result (cut, straightened and framed), so
    // the decode aims at the size that leaves that many pixels.
    const Warp warp(geometry, static_cast<double>(w) / h);
    const FrameSettings frame(stack);
    const RenderPlan plan = planRender(w, h, geometry, warp, frame, longEdge);
    const int target = plan.decodeLongEdge;
    // thumbnail shrinks on load and applies the EXIF orientation.
    VImage image = VImage::thumbnail(
        path.c_str(), target, VImage::option()->set("height", target)->set("size", VIPS_SIZE_DOWN));
    switch (image.interpretation()) {
    case VIPS_INTERPRETATION_sRGB:
    case VIPS_INTERPRETATION_B_W:
    case VIPS_INTERPRETATION_RGB16:
    case VIPS_INTERPRETATION_GREY16:
    case VIPS_INTERPRETATION_scRGB:
      break;
    default:
      image = image.colourspace(VIPS_INTERPRETATION_sRGB); // CMYK, Lab and the like
    }
    image = applyGeometry(image, geometry, warp, plan);
    if (rereadsInput(image, stack)) {
      // The decoder streams from the top and cannot be read back.
      image = inMemory(image);
    }
    Look look;
    const std::string lookKey = stack.string(core::AdjustmentKind::Lut).value_or("");
    if (!lookKey.empty() && lookKey != "none") {
      const std::optional<LookFile> file = findLook(looksFolder, lookKey);
      if (!file) {
        throw std::runtime_error("the look \"" + lookKey + "\" is not in " + looksFolder +
                                 "; list the looks with lut.list");
      }
      const double intensity =
          std::clamp(stack.scalar(core::AdjustmentKind::LutIntensity, 1.0), 0.0, 1.0);
      look = [cube = loadCube(file->path), intensity](const VImage& srgb) {
        return applyCube(srgb, cube, intensity);
      };
    }
    image = applyAdjustments(image, stack, look, encoding);
    if (frame.any()) {
      image = applyFrame(image, plan, frame.color);
    }
    return image;
  } catch (const vips::VError& e) {
    throw std::runtime_error("cannot render " + path + ": " + e.what());
  }
}

EncodedImage encodePng(const VImage& rendered) {
  try {
    const VImage image = eightBit(rendered);
    void* buffer = nullptr;
    std::size_t size = 0;
    image.write_to_buffer(".png", &buffer, &size,
                          VImage::option()->set("compression", 1)->set("strip", true));
    EncodedImage out{std::string(static_cast<const char*>(buffer), size), image.width(),
                     image.height()};
    g_free(buffer);
    return out;
  } catch (const vips::VError& e) {
    throw std::runtime_error(std::string("cannot encode a PNG: ") + e.what());
  }
}

EncodedImage renderPng(const std::string& path, int longEdge) {
  return encodePng(renderStack(path, core::EditStack{}, longEdge, {}));
}

void saveImage(VImage image, const std::string& path, const SaveSettings& settings) {
  try {
    image = settings.format == FileFormat::Tiff16 ? sixteenBit(image) : eightBit(image);
    if (settings.format == FileFormat::Jpeg && image.has_alpha()) {
      image = image.flatten(VImage::option()->set("background", std::vector<double>{255}));
      image = image.cast(VIPS_FORMAT_UCHAR);
    }
    // A private copy takes the metadata changes; the pixels are upright, and say they are sRGB.
    image = image.copy();
    image.set(VIPS_META_ORIENTATION, 1);
    VipsBlob* profile = nullptr;
    if (!settings.displayP3Folder.empty()) {
      image = toDisplayP3(image, settings.displayP3Folder); // embeds its own profile
    } else if (vips_profile_load("srgb", &profile, nullptr) == 0 && profile != nullptr) {
      std::size_t length = 0;
      const void* data = vips_blob_get(profile, &length);
      vips_image_set_blob_copy(image.get_image(), VIPS_META_ICC_NAME, data, length);
      vips_area_unref(VIPS_AREA(profile));
    }
    const char* file = path.c_str();
    switch (settings.format) {
    case FileFormat::Jpeg:
      image.jpegsave(file, VImage::option()->set("Q", settings.quality));
      break;
    case FileFormat::Png:
      image.pngsave(file, VImage::option()->set("compression", 6));
      break;
    case FileFormat::Heic:
      image.heifsave(file, VImage::option()->set("Q", settings.quality)->set(
                               "compression", VIPS_FOREIGN_HEIF_COMPRESSION_HEVC));
      break;
    case FileFormat::Tiff16:
      image.tiffsave(file, VImage::option()->set("compression", VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE));
      break;
    }
  } catch (const vips::VError& e) {
    throw std::runtime_error("cannot write " + path + ": " + e.what());
  }
}

} // namespace velko::app
