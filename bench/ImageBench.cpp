// Query-image thumbnails: a 24-megapixel camera JPEG shrunk to 1024 pixels on the long side,
// including the first call that opens libvips.
#include "server/ImageThumbnail.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vips/vips.h>

namespace {

/// A 6000×4000 three-band JPEG with fine detail in it, written once to a temporary file.
const std::string& cameraJpeg() {
  static const std::string path = [] {
    char dir[] = "/tmp/velko-image-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr || VIPS_INIT("velko-bench") != 0) {
      std::abort();
    }
    std::string file = std::string(dir) + "/camera.jpg";
    double constants[] = {64.0, 192.0};
    VipsImage* noise = nullptr;
    VipsImage* image = nullptr;
    if (vips_gaussnoise(&noise, 6000, 4000, "mean", 128.0, "sigma", 40.0, nullptr) != 0 ||
        vips_bandjoin_const(noise, &image, constants, 2, nullptr) != 0 ||
        vips_image_write_to_file(image, (file + "[Q=90]").c_str(), nullptr) != 0) {
      std::abort();
    }
    g_object_unref(image);
    g_object_unref(noise);
    std::atexit([] {
      std::string dirName = path.substr(0, path.rfind('/'));
      ::unlink(path.c_str());
      ::rmdir(dirName.c_str());
    });
    return file;
  }();
  return path;
}

void BM_DownscaleCameraJpeg(benchmark::State& state) {
  const std::string& path = cameraJpeg();
  std::size_t outBytes = 0;
  for (auto _ : state) {
    auto out = velko::server::downscaledImageBase64(path, 1024);
    if (!out) {
      state.SkipWithError("the thumbnail could not be made");
      return;
    }
    outBytes = out->size();
  }
  state.counters["base64_bytes"] = static_cast<double>(outBytes);
}
BENCHMARK(BM_DownscaleCameraJpeg)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
