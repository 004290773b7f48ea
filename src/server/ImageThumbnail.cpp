#include "server/ImageThumbnail.h"

#include "server/Base64.h"

#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vips/vips.h>

namespace velko::server {
namespace {

constexpr const char* kLibraryName = "libvips.so.42";

/// The few libvips and GLib entry points we use, resolved once from the loaded library.
struct Vips {
  decltype(&vips_init) init = nullptr;
  decltype(&vips_thumbnail_buffer) thumbnailBuffer = nullptr;
  decltype(&vips_jpegsave_buffer) jpegsaveBuffer = nullptr;
  decltype(&vips_error_clear) errorClear = nullptr;
  decltype(&g_object_unref) objectUnref = nullptr;
  decltype(&g_free) free = nullptr;
  std::string loadError;

  Vips() {
    void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      const char* why = dlerror();
      loadError = std::string("image support needs libvips, which could not be loaded (") +
                  (why != nullptr ? why : kLibraryName) +
                  "); install the Debian package libvips42 and try again";
      return;
    }
    // dlsym on the handle also searches the libraries libvips itself depends on (GLib).
    bool ok = resolve(handle, init, "vips_init") &&
              resolve(handle, thumbnailBuffer, "vips_thumbnail_buffer") &&
              resolve(handle, jpegsaveBuffer, "vips_jpegsave_buffer") &&
              resolve(handle, errorClear, "vips_error_clear") &&
              resolve(handle, objectUnref, "g_object_unref") && resolve(handle, free, "g_free");
    if (!ok) {
      loadError = std::string("the installed ") + kLibraryName + " lacks a needed function";
      return;
    }
    if (init("velko-mcp") != 0) {
      loadError = "libvips failed to initialise";
    }
  }

  template <class Fn> static bool resolve(void* handle, Fn& fn, const char* name) {
    fn = reinterpret_cast<Fn>(dlsym(handle, name));
    return fn != nullptr;
  }
};

const Vips& vips() {
  static const Vips instance;
  if (!instance.loadError.empty()) {
    throw ImageLibraryUnavailable(instance.loadError);
  }
  return instance;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return std::nullopt;
  }
  std::ostringstream bytes;
  bytes << in.rdbuf();
  if (in.bad()) {
    return std::nullopt;
  }
  return std::move(bytes).str();
}

} // namespace

std::optional<std::string> downscaledImageBase64(const std::string& path, int maxPixel) {
  const Vips& v = vips();
  // Reading the bytes ourselves keeps libvips from parsing "[options]" out of the file name.
  std::optional<std::string> bytes = readFile(path);
  if (!bytes || bytes->empty()) {
    return std::nullopt;
  }
  VipsImage* thumb = nullptr;
  // Thumbnails apply the EXIF orientation unless told otherwise; SIZE_DOWN never enlarges. A
  // file cut short is an error, not a thumbnail of its first rows with the rest left blank.
  if (v.thumbnailBuffer(bytes->data(), bytes->size(), &thumb, maxPixel, "height", maxPixel, "size",
                        VIPS_SIZE_DOWN, "option_string", "fail_on=truncated", nullptr) != 0) {
    v.errorClear();
    return std::nullopt;
  }
  void* jpeg = nullptr;
  std::size_t length = 0;
  const int saved = v.jpegsaveBuffer(thumb, &jpeg, &length, "Q", 80, nullptr);
  v.objectUnref(thumb);
  if (saved != 0) {
    v.errorClear();
    return std::nullopt;
  }
  std::string encoded = base64Encode(std::string_view(static_cast<const char*>(jpeg), length));
  v.free(jpeg);
  return encoded;
}

} // namespace velko::server
