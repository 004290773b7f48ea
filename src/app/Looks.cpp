#include "app/Looks.h"

#include "app/Log.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <tuple>
#include <xxhash.h>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace velko::app {
namespace {

constexpr int kMax1D = 65536;
constexpr int kMax3D = 256;

[[noreturn]] void fail(const std::string& name, int line, const std::string& what) {
  throw std::runtime_error(name + " line " + std::to_string(line) + ": " + what +
                           "; fix or remove the .cube file");
}

std::string_view trim(std::string_view s) {
  const auto begin = s.find_first_not_of(" \t\r\f\v");
  if (begin == std::string_view::npos) {
    return {};
  }
  const auto end = s.find_last_not_of(" \t\r\f\v");
  return s.substr(begin, end - begin + 1);
}

std::vector<std::string_view> words(std::string_view s) {
  std::vector<std::string_view> out;
  std::size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) {
      ++i;
    }
    const auto start = i;
    while (i < s.size() && s[i] != ' ' && s[i] != '\t') {
      ++i;
    }
    if (i > start) {
      out.push_back(s.substr(start, i - start));
    }
  }
  return out;
}

std::optional<double> number(std::string_view word) {
  double value = 0;
  const char* first = word.data();
  if (!word.empty() && word.front() == '+') {
    ++first;
  }
  const auto [end, ec] = std::from_chars(first, word.data() + word.size(), value);
  if (ec != std::errc() || end != word.data() + word.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

bool isKeyword(std::string_view word) {
  return !word.empty() && ((word.front() >= 'A' && word.front() <= 'Z') || word.front() == '_');
}

/// The three numbers of a row or of DOMAIN_MIN/DOMAIN_MAX.
std::array<float, 3> triple(const std::vector<std::string_view>& w, std::size_t from,
                            std::string_view line, const std::string& name, int lineNo) {
  if (w.size() - from != 3) {
    fail(name, lineNo, "expected three numbers, found \"" + std::string(line) + "\"");
  }
  std::array<float, 3> out{};
  for (std::size_t i = 0; i < 3; ++i) {
    const auto v = number(w[from + i]);
    if (!v) {
      fail(name, lineNo, "\"" + std::string(w[from + i]) + "\" is not a number");
    }
    out[i] = float(*v);
  }
  return out;
}

} // namespace

CubeLut parseCube(std::string_view text, const std::string& name) {
  CubeLut lut;
  std::optional<int> size1D, size3D;
  std::size_t expected = 0;
  int lineNo = 0;
  int lastLine = 0;

  std::size_t pos = 0;
  while (pos <= text.size()) {
    auto eol = text.find('\n', pos);
    if (eol == std::string_view::npos) {
      eol = text.size();
    }
    const std::string_view raw = text.substr(pos, eol - pos);
    pos = eol + 1;
    ++lineNo;

    std::string_view line = trim(raw);
    if (line.empty() || line.front() == '#') {
      continue;
    }
    lastLine = lineNo;

    if (line.rfind("TITLE", 0) == 0 && (line.size() == 5 || line[5] == ' ' || line[5] == '\t')) {
      if (!lut.table.empty()) {
        fail(name, lineNo, "TITLE comes after the table; keywords must come first");
      }
      auto rest = trim(line.substr(5));
      if (rest.size() >= 2 && rest.front() == '"') {
        const auto close = rest.find('"', 1);
        if (close == std::string_view::npos) {
          fail(name, lineNo, "the TITLE has no closing quote");
        }
        rest = rest.substr(1, close - 1);
      }
      lut.title = std::string(rest);
      continue;
    }

    // Comments may also follow a keyword or a row.
    if (const auto hash = line.find('#'); hash != std::string_view::npos) {
      line = trim(line.substr(0, hash));
    }
    const auto w = words(line);

    if (isKeyword(w[0])) {
      const std::string_view key = w[0];
      if (!lut.table.empty()) {
        fail(name, lineNo,
             "keyword " + std::string(key) + " comes after the table; keywords must come first");
      }
      if (key == "LUT_1D_SIZE" || key == "LUT_3D_SIZE") {
        const bool oneD = key == "LUT_1D_SIZE";
        const int max = oneD ? kMax1D : kMax3D;
        const auto v = w.size() == 2 ? number(w[1]) : std::nullopt;
        if (!v || *v != std::floor(*v)) {
          fail(name, lineNo, std::string(key) + " needs one whole number");
        }
        if (*v < 2 || *v > max) {
          fail(name, lineNo,
               std::string(key) + " " + std::string(w[1]) + " is out of range 2.." +
                   std::to_string(max));
        }
        auto& slot = oneD ? size1D : size3D;
        if (slot) {
          fail(name, lineNo, std::string(key) + " is given twice");
        }
        slot = int(*v);
        if (size1D && size3D) {
          fail(name, lineNo,
               "the file gives both LUT_1D_SIZE and LUT_3D_SIZE; a .cube file holds one table");
        }
      } else if (key == "DOMAIN_MIN" || key == "DOMAIN_MAX") {
        const auto v = triple(w, 1, line, name, lineNo);
        (key == "DOMAIN_MIN" ? lut.domainMin : lut.domainMax) = v;
      } else if (key == "LUT_1D_INPUT_RANGE" || key == "LUT_3D_INPUT_RANGE") {
        const auto lo = w.size() == 3 ? number(w[1]) : std::nullopt;
        const auto hi = w.size() == 3 ? number(w[2]) : std::nullopt;
        if (!lo || !hi) {
          fail(name, lineNo, std::string(key) + " needs two numbers, min and max");
        }
        lut.domainMin.fill(float(*lo));
        lut.domainMax.fill(float(*hi));
      }
      // Other keywords (LUT_IN_VIDEO_RANGE and the like) carry nothing this reader uses.
      continue;
    }

    if (lut.table.empty()) {
      if (!size1D && !size3D) {
        fail(name, lineNo, "a table row comes before LUT_1D_SIZE or LUT_3D_SIZE");
      }
      lut.kind = size1D ? CubeLut::Kind::OneD : CubeLut::Kind::ThreeD;
      lut.size = size1D ? *size1D : *size3D;
      expected = lut.rows();
      lut.table.reserve(expected * 3);
    }
    if (lut.table.size() == expected * 3) {
      fail(name, lineNo, "more rows than the " + std::to_string(expected) + " the size calls for");
    }
    const auto row = triple(w, 0, line, name, lineNo);
    lut.table.insert(lut.table.end(), row.begin(), row.end());
  }

  if (!size1D && !size3D) {
    fail(name, std::max(lastLine, 1), "no LUT_1D_SIZE or LUT_3D_SIZE; this is not a .cube file");
  }
  if (lut.table.empty()) {
    lut.kind = size1D ? CubeLut::Kind::OneD : CubeLut::Kind::ThreeD;
    lut.size = size1D ? *size1D : *size3D;
    expected = lut.rows();
  }
  if (lut.table.size() != expected * 3) {
    const auto found = lut.table.size() / 3;
    const auto want = expected;
    fail(name, std::max(lastLine, 1),
         "the table ends after " + std::to_string(found) + " rows of the " + std::to_string(want) +
             " the size calls for");
  }
  for (int c = 0; c < 3; ++c) {
    if (!(lut.domainMin[c] < lut.domainMax[c])) {
      fail(name, lastLine, "DOMAIN_MIN must be below DOMAIN_MAX in every channel");
    }
  }
  return lut;
}

CubeLut loadCube(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot read the look " + path + ": " + std::strerror(errno));
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    throw std::runtime_error("cannot read the look " + path + ": " + std::strerror(errno));
  }
  return parseCube(text.str(), path);
}

// ---- applying a table ---------------------------------------------------------------------------

namespace {

/// Where a value falls along one axis of the table: the lower entry and the weight of the next.
struct Coord {
  int index = 0;
  float weight = 0;
};

class Sampler {
public:
  Sampler(const CubeLut& lut) : lut_(lut), last_(lut.size - 1) {
    for (int c = 0; c < 3; ++c) {
      scale_[c] = 1.f / (255.f * (lut.domainMax[c] - lut.domainMin[c]));
      offset_[c] = lut.domainMin[c] / (lut.domainMax[c] - lut.domainMin[c]);
    }
  }

  /// The axis position of a 0..255 value in channel c.
  Coord coord(int c, float value) const {
    float t = value * scale_[c] - offset_[c];
    t = (t > 0.f ? std::min(t, 1.f) : 0.f) * float(last_); // NaN goes to the first entry
    const int i = std::min(int(t), last_ - 1);
    return {i, t - float(i)};
  }

  /// The table's output (0..1 nominal) for the three positions.
  void sample(const Coord (&p)[3], float (&out)[3]) const {
    const float* t = lut_.table.data();
    if (lut_.kind == CubeLut::Kind::OneD) {
      for (int c = 0; c < 3; ++c) {
        const float a = t[p[c].index * 3 + c];
        const float b = t[(p[c].index + 1) * 3 + c];
        out[c] = a + p[c].weight * (b - a);
      }
      return;
    }
    const std::size_t n = std::size_t(lut_.size);
    const std::size_t base =
        ((std::size_t(p[2].index) * n + std::size_t(p[1].index)) * n + std::size_t(p[0].index)) * 3;
    const std::size_t dr = 3, dg = n * 3, db = n * n * 3;
    const float fr = p[0].weight, fg = p[1].weight, fb = p[2].weight;
    for (int c = 0; c < 3; ++c) {
      const float* q = t + base + c;
      const float c00 = q[0] + fr * (q[dr] - q[0]);
      const float c10 = q[dg] + fr * (q[dg + dr] - q[dg]);
      const float c01 = q[db] + fr * (q[db + dr] - q[db]);
      const float c11 = q[db + dg] + fr * (q[db + dg + dr] - q[db + dg]);
      const float c0 = c00 + fg * (c10 - c00);
      const float c1 = c01 + fg * (c11 - c01);
      out[c] = c0 + fb * (c1 - c0);
    }
  }

private:
  const CubeLut& lut_;
  int last_;
  float scale_[3];
  float offset_[3];
};

template <typename T, typename CoordOf>
void applyRange(T* px, std::size_t pixels, int bands, const Sampler& sampler, float intensity,
                CoordOf coordOf) {
  for (std::size_t i = 0; i < pixels; ++i, px += bands) {
    const Coord p[3] = {coordOf(0, px[0]), coordOf(1, px[1]), coordOf(2, px[2])};
    float looked[3];
    sampler.sample(p, looked);
    for (int c = 0; c < 3; ++c) {
      const float in = float(px[c]);
      const float out = in + intensity * (looked[c] * 255.f - in);
      if constexpr (std::is_same_v<T, unsigned char>) {
        px[c] = static_cast<unsigned char>(std::clamp(out, 0.f, 255.f) + 0.5f);
      } else {
        px[c] = out;
      }
    }
  }
}

/// applyRange over the pixels, split between a few threads for large images. Every pixel is
/// computed alone, so the result does not depend on the split.
template <typename T, typename CoordOf>
void applyPixels(T* px, std::size_t pixels, int bands, const Sampler& sampler, float intensity,
                 CoordOf coordOf) {
  constexpr std::size_t kChunk = 1 << 18;
  const std::size_t threads = std::clamp<std::size_t>(
      std::min<std::size_t>(std::thread::hardware_concurrency(), pixels / kChunk), 1, 8);
  const std::size_t share = (pixels + threads - 1) / threads;
  std::vector<std::thread> workers;
  for (std::size_t t = 1; t < threads; ++t) {
    const std::size_t first = t * share;
    const std::size_t count = std::min(share, pixels - std::min(first, pixels));
    workers.emplace_back([=, &sampler] {
      applyRange(px + first * bands, count, bands, sampler, intensity, coordOf);
    });
  }
  applyRange(px, std::min(share, pixels), bands, sampler, intensity, coordOf);
  for (auto& w : workers) {
    w.join();
  }
}

/// The fields every image has; the rest of the header is metadata (EXIF, ICC, orientation...).
bool isBuiltinField(const char* name) {
  static const char* const kBuiltin[] = {"width",  "height",         "bands",   "format",
                                         "coding", "interpretation", "xoffset", "yoffset",
                                         "xres",   "yres",           "filename"};
  return std::any_of(std::begin(kBuiltin), std::end(kBuiltin),
                     [&](const char* b) { return std::strcmp(b, name) == 0; });
}

void copyMetadata(VipsImage* from, VipsImage* to) {
  std::unique_ptr<char*, void (*)(char**)> fields(vips_image_get_fields(from), g_strfreev);
  for (char** f = fields.get(); f && *f; ++f) {
    if (isBuiltinField(*f)) {
      continue;
    }
    GValue value = G_VALUE_INIT;
    if (vips_image_get(from, *f, &value) == 0) {
      vips_image_set(to, *f, &value);
      g_value_unset(&value);
    }
  }
}

} // namespace

vips::VImage applyCube(const vips::VImage& srgb, const CubeLut& lut, double intensity) {
  const auto format = srgb.format();
  if (format != VIPS_FORMAT_UCHAR && format != VIPS_FORMAT_FLOAT) {
    throw std::runtime_error(std::string("a look applies to 8-bit or float sRGB images, not ") +
                             vips_enum_nick(VIPS_TYPE_BAND_FORMAT, format) +
                             "; convert the image first");
  }
  if (srgb.bands() != 3 && srgb.bands() != 4) {
    throw std::runtime_error("a look applies to RGB images (3 bands, or 4 with alpha), not " +
                             std::to_string(srgb.bands()) + " bands");
  }
  if (lut.table.size() != lut.rows() * 3 || lut.size < 2) {
    throw std::runtime_error("the look's table is incomplete");
  }
  if (std::isnan(intensity)) {
    throw std::runtime_error("the look's intensity is not a number; give 0..1");
  }
  const float amount = float(std::clamp(intensity, 0.0, 1.0));
  if (amount == 0.f) {
    return srgb;
  }

  std::size_t bytes = 0;
  void* memory = srgb.write_to_memory(&bytes);
  const int bands = srgb.bands();
  const std::size_t pixels = std::size_t(srgb.width()) * std::size_t(srgb.height());
  const Sampler sampler(lut);

  if (format == VIPS_FORMAT_UCHAR) {
    // 256 possible values per channel: place each on the axes once.
    std::array<std::array<Coord, 256>, 3> axes;
    for (int c = 0; c < 3; ++c) {
      for (int v = 0; v < 256; ++v) {
        axes[c][v] = sampler.coord(c, float(v));
      }
    }
    applyPixels(static_cast<unsigned char*>(memory), pixels, bands, sampler, amount,
                [&](int c, unsigned char v) { return axes[c][v]; });
  } else {
    applyPixels(static_cast<float*>(memory), pixels, bands, sampler, amount,
                [&](int c, float v) { return sampler.coord(c, v); });
  }

  auto out = vips::VImage::new_from_memory_steal(memory, bytes, srgb.width(), srgb.height(), bands,
                                                 format);
  copyMetadata(srgb.get_image(), out.get_image());
  return out.copy(vips::VImage::option()
                      ->set("interpretation", srgb.interpretation())
                      ->set("xres", srgb.xres())
                      ->set("yres", srgb.yres()));
}

} // namespace velko::app

namespace velko::app {
namespace {

bool isCubeFile(const std::filesystem::directory_entry& e) {
  std::error_code ec;
  if (!e.is_regular_file(ec)) {
    return false;
  }
  std::string ext = e.path().extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".cube";
}

} // namespace

std::vector<LookFile> listLooks(const std::string& folder) {
  namespace fs = std::filesystem;
  const fs::path root = folder;
  std::vector<fs::path> files;
  std::error_code ec;
  // The folder itself and its direct subfolders.
  for (const auto& entry : fs::directory_iterator(root, ec)) {
    std::error_code sub;
    if (isCubeFile(entry)) {
      files.push_back(entry.path());
    } else if (entry.is_directory(sub)) {
      for (const auto& inner : fs::directory_iterator(entry.path(), sub)) {
        if (isCubeFile(inner)) {
          files.push_back(inner.path());
        }
      }
    }
  }
  std::vector<LookFile> looks;
  for (const fs::path& file : files) {
    std::string title;
    try {
      title = loadCube(file.string()).title;
    } catch (const std::runtime_error& e) {
      static std::mutex logged;
      std::lock_guard lock(logged);
      logLine(std::string("skipping a look: ") + e.what());
      continue;
    }
    const std::string relative = file.lexically_relative(root).generic_string();
    char id[17];
    std::snprintf(id, sizeof id, "%016llx",
                  static_cast<unsigned long long>(XXH3_64bits(relative.data(), relative.size())));
    looks.push_back({id, title.empty() ? file.stem().string() : title, file.string()});
  }
  std::sort(looks.begin(), looks.end(), [](const LookFile& a, const LookFile& b) {
    return std::tie(a.name, a.id) < std::tie(b.name, b.id);
  });
  return looks;
}

std::optional<LookFile> findLook(const std::string& folder, const std::string& key) {
  for (LookFile& look : listLooks(folder)) {
    if (look.id == key || look.name == key) {
      return std::move(look);
    }
  }
  return std::nullopt;
}

} // namespace velko::app
