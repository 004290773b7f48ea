// Renders of a 24-megapixel camera JPEG through the application's request path, each beside its
// floor measured in the same run:
//
//   preview.render at 512 px with 20 adjustments and two masks  vs  a bare libvips thumbnail
//                                                                   of the same file (+ PNG)
//   export.render at full size with the same stack             vs  a bare decode and JPEG encode
//
// The export benchmark also reports the process's peak resident memory.
#include "app/App.h"
#include "app/AppFixture.h"
#include "app/Imaging.h"
#include "app/Library.h"
#include "app/Methods.h"
#include "json/Value.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <sys/resource.h>
#include <vips/vips8>

namespace {

using namespace velko;
using vips::VImage;

/// A 6000×4000 JPEG with smooth colour gradients, shapes and sensor-like noise, made once.
struct Scene {
  velko::testing::TempDir dir;
  std::string file;
  std::unique_ptr<app::App> app;
  std::string id;

  Scene() {
    app::initImaging();
    std::filesystem::create_directories(dir.path() + "/library");
    std::filesystem::create_directories(dir.path() + "/home");
    file = dir.path() + "/library/camera.jpg";
    const VImage xy = VImage::xyz(6000, 4000);
    const VImage x = xy[0] / 6000.0, y = xy[1] / 4000.0;
    const VImage disc = ((x - 0.5).pow(2) + (y - 0.5).pow(2) < 0.04).ifthenelse(60, 0);
    const VImage red = x * 180 + 30 + disc;
    const VImage green = y * 150 + 50 + (x * 40).sin() * 20;
    const VImage blue = (1 - x) * 160 + 40 - disc;
    const VImage noise = VImage::gaussnoise(6000, 4000, VImage::option()->set("sigma", 6.0));
    const VImage image = (red.bandjoin(green).bandjoin(blue) + noise - 128)
                             .cast(VIPS_FORMAT_UCHAR)
                             .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    image.jpegsave(file.c_str(), VImage::option()->set("Q", 90));

    app::Options options;
    options.library = dir.path() + "/library";
    options.catalog = dir.path() + "/home/catalog.sqlite";
    options.luts = dir.path() + "/home/luts";
    options.allowSaving = true;
    app = std::make_unique<app::App>(options, app::Folders::forHome(dir.path() + "/home"));
    app->library().scan();
    const json::Value listed = json::parse(call("library.list", "{}"));
    id = std::string(listed.at("result").at("photos").at(0).at("id").as_string());

    // Twenty adjustments across every stage, a radial and a linear mask.
    std::string ops;
    for (const auto& [kind, value] : std::initializer_list<std::pair<const char*, double>>{
             {"exposure", 0.3}, {"contrast", 0.2}, {"highlights", -0.4}, {"shadows", 0.35},
             {"whites", 0.1}, {"blacks", -0.1}, {"temperature", 0.25}, {"tint", 0.05},
             {"vibrance", 0.3}, {"saturation", 0.1}, {"hslBlueSat", 0.2}, {"hslOrangeLum", 0.1},
             {"cgShadowHue", 0.6}, {"cgShadowSat", 0.2}, {"clarity", 0.3}, {"texture", 0.2},
             {"dehaze", 0.1}, {"sharpenAmount", 0.4}, {"vignetteAmount", -0.3}, {"grainAmount", 0.1}}) {
      ops += std::string(ops.empty() ? "" : ",") + R"({"kind":")" + kind + R"(","scalar":)" +
             std::to_string(value) + "}";
    }
    const std::string masks =
        R"([{"action":"add","id":"0B6A1E2C-3D4F-4A5B-8C6D-7E8F9A0B1C2D","shape":{"radial":{"center":[0.5,0.5],"radius":[0.3,0.25],"feather":0.5,"inverted":false}}},)"
        R"({"action":"setAdjustment","id":"0B6A1E2C-3D4F-4A5B-8C6D-7E8F9A0B1C2D","adjustment":"exposure","value":0.4},)"
        R"({"action":"add","id":"1C7B2F3D-4E5A-4B6C-9D7E-8F9A0B1C2D3E","shape":{"linear":{"start":[0.5,0.0],"end":[0.5,0.5]}}},)"
        R"({"action":"setAdjustment","id":"1C7B2F3D-4E5A-4B6C-9D7E-8F9A0B1C2D3E","adjustment":"exposure","value":-0.5}])";
    const std::string set = call("edit.set", R"({"id":")" + id + R"(","ops":[)" + ops +
                                                 R"(],"maskOps":)" + masks + "}");
    if (set.find("\"error\"") != std::string::npos) {
      std::fprintf(stderr, "edit.set failed: %s\n", set.c_str());
      std::abort();
    }
  }

  std::string call(const std::string& method, const std::string& params) {
    return app::answer(*app, R"({"jsonrpc":"2.0","id":1,"method":")" + method +
                                 R"(","params":)" + params + "}");
  }
};

Scene& scene() {
  static Scene s;
  return s;
}

/// CPU time of every thread of the process so far, in milliseconds.
double processCpuMs() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto ms = [](const timeval& t) {
    return t.tv_sec * 1e3 + t.tv_usec / 1e3;
  };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

long peakResidentMiB() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

void BM_BareThumbnailPng(benchmark::State& state) {
  const std::string& file = scene().file;
  for (auto _ : state) {
    const VImage thumb = VImage::thumbnail(file.c_str(), 512);
    benchmark::DoNotOptimize(app::encodePng(thumb).bytes);
  }
}
BENCHMARK(BM_BareThumbnailPng)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PreviewRender(benchmark::State& state) {
  Scene& s = scene();
  const std::string params = R"({"id":")" + s.id + R"(","longEdge":512})";
  const std::string first = s.call("preview.render", params);
  if (first.find("\"error\"") != std::string::npos) {
    state.SkipWithError(first.c_str());
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(s.call("preview.render", params));
  }
}
BENCHMARK(BM_PreviewRender)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BareDecodeEncodeJpeg(benchmark::State& state) {
  Scene& s = scene();
  const std::string out = s.dir.path() + "/bare.jpg";
  const double cpuBefore = processCpuMs();
  for (auto _ : state) {
    VImage::new_from_file(s.file.c_str(), VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL))
        .jpegsave(out.c_str(), VImage::option()->set("Q", 90));
  }
  state.counters["cpu_ms"] = (processCpuMs() - cpuBefore) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_BareDecodeEncodeJpeg)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ExportRender(benchmark::State& state) {
  Scene& s = scene();
  const std::string params = R"({"id":")" + s.id + R"(","format":"jpeg","quality":0.9})";
  const double cpuBefore = processCpuMs();
  for (auto _ : state) {
    const std::string reply = s.call("export.render", params);
    state.PauseTiming();
    const json::Value r = json::parse(reply);
    if (!r.as_object().contains("result")) {
      state.SkipWithError(reply.c_str());
      break;
    }
    std::filesystem::remove(std::string(r.at("result").at("path").as_string()));
    state.ResumeTiming();
  }
  // CPU time of all threads per export: how well the export keeps the cores busy, beside its
  // wall time.
  state.counters["cpu_ms"] = (processCpuMs() - cpuBefore) / static_cast<double>(state.iterations());
  state.counters["peakRSS_MiB"] = static_cast<double>(peakResidentMiB());
}
BENCHMARK(BM_ExportRender)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
