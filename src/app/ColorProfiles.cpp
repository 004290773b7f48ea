#include "app/ColorProfiles.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <lcms2.h>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace velko::app {
namespace {

std::string buildDisplayP3() {
  const cmsCIExyY d65{0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries{{0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};
  // IEC 61966-2-1: Y = ((X + 0.055) / 1.055)^2.4 above 0.04045, X / 12.92 below.
  const cmsFloat64Number srgbCurve[5] = {2.4, 1.0 / 1.055, 0.055 / 1.055, 1.0 / 12.92, 0.04045};

  std::unique_ptr<cmsToneCurve, void (*)(cmsToneCurve*)> curve(
      cmsBuildParametricToneCurve(nullptr, 4, srgbCurve), cmsFreeToneCurve);
  if (!curve) {
    throw std::runtime_error("lcms2 could not build the sRGB tone curve");
  }
  cmsToneCurve* const curves[3] = {curve.get(), curve.get(), curve.get()};
  std::unique_ptr<void, cmsBool (*)(cmsHPROFILE)> profile(
      cmsCreateRGBProfile(&d65, &primaries, curves), cmsCloseProfile);
  if (!profile) {
    throw std::runtime_error("lcms2 could not build the Display P3 profile");
  }
  cmsSetDeviceClass(profile.get(), cmsSigDisplayClass);
  cmsSetHeaderRenderingIntent(profile.get(), INTENT_PERCEPTUAL);

  const auto writeText = [&](cmsTagSignature tag, const char* text) {
    std::unique_ptr<cmsMLU, void (*)(cmsMLU*)> mlu(cmsMLUalloc(nullptr, 1), cmsMLUfree);
    if (!mlu || !cmsMLUsetASCII(mlu.get(), "en", "US", text) ||
        !cmsWriteTag(profile.get(), tag, mlu.get())) {
      throw std::runtime_error("lcms2 could not write the Display P3 profile's text");
    }
  };
  writeText(cmsSigProfileDescriptionTag, "Display P3");
  writeText(cmsSigCopyrightTag, "No copyright, use freely");

  cmsUInt32Number size = 0;
  if (!cmsSaveProfileToMem(profile.get(), nullptr, &size)) {
    throw std::runtime_error("lcms2 could not size the Display P3 profile");
  }
  std::string bytes(size, '\0');
  if (!cmsSaveProfileToMem(profile.get(), bytes.data(), &size) || size < 128) {
    throw std::runtime_error("lcms2 could not save the Display P3 profile");
  }
  bytes.resize(size);
  // Header bytes 24..35: the creation date, six big-endian 16-bit numbers. A fixed date keeps
  // the file identical from run to run. The profile ID stays zero ("not computed").
  const unsigned char date[12] = {0x07, 0xE8, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0}; // 2024-01-01 00:00:00
  std::memcpy(bytes.data() + 24, date, sizeof date);
  return bytes;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return {};
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeAtomically(const std::string& path, const std::string& bytes) {
  const std::string temporary = path + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    out.close();
    if (!out) {
      const std::string why = std::strerror(errno);
      std::filesystem::remove(temporary);
      throw std::runtime_error("cannot write the colour profile " + temporary + ": " + why);
    }
  }
  std::error_code ec;
  std::filesystem::rename(temporary, path, ec);
  if (ec) {
    std::filesystem::remove(temporary);
    throw std::runtime_error("cannot write the colour profile " + path + ": " + ec.message());
  }
}

} // namespace

const std::string& displayP3IccBytes() {
  static const std::string bytes = buildDisplayP3();
  return bytes;
}

std::string displayP3IccPath(const std::string& folder) {
  static std::mutex mutex;
  static std::set<std::string> checked;
  const std::string path = folder + "/DisplayP3.icc";

  std::lock_guard lock(mutex);
  if (checked.count(folder) != 0) {
    return path;
  }
  std::error_code ec;
  if (!std::filesystem::is_directory(folder)) {
    std::filesystem::create_directories(folder, ec);
    if (!ec) {
      std::filesystem::permissions(folder, std::filesystem::perms::owner_all, ec);
    }
    if (ec) {
      throw std::runtime_error("cannot create the profiles folder " + folder + ": " + ec.message());
    }
  }
  const std::string& bytes = displayP3IccBytes();
  if (readFile(path) != bytes) {
    writeAtomically(path, bytes);
  }
  checked.insert(folder);
  return path;
}

vips::VImage toDisplayP3(const vips::VImage& srgb, const std::string& folder) {
  const std::string profile = displayP3IccPath(folder);
  const bool deep = srgb.format() == VIPS_FORMAT_USHORT;
  const VipsInterpretation space = deep ? VIPS_INTERPRETATION_RGB16 : VIPS_INTERPRETATION_sRGB;

  vips::VImage in = srgb;
  if (!deep && in.format() != VIPS_FORMAT_UCHAR) {
    in = in.rint().cast(VIPS_FORMAT_UCHAR);
  }
  in = in.copy(vips::VImage::option()->set("interpretation", space));
  if (in.bands() < 3) {
    in = in.colourspace(
        space, vips::VImage::option()->set("source_space", deep ? VIPS_INTERPRETATION_GREY16
                                                                : VIPS_INTERPRETATION_B_W));
  }
  vips::VImage out = in.icc_transform(profile.c_str(), vips::VImage::option()
                                                           ->set("input_profile", "srgb")
                                                           ->set("embedded", false)
                                                           ->set("intent", VIPS_INTENT_RELATIVE)
                                                           ->set("depth", deep ? 16 : 8));
  // A private copy to carry the profile: images from libvips' operation cache are shared.
  out = out.copy();
  const std::string& bytes = displayP3IccBytes();
  vips_image_set_blob_copy(out.get_image(), VIPS_META_ICC_NAME, bytes.data(), bytes.size());
  return out;
}

} // namespace velko::app
