#include "app/PixelOp.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <sys/mman.h>

namespace velko::app {
namespace {

/// What an image made by pixelOp holds until it is closed: its inputs and the row function.
struct Program {
  std::vector<VipsImage*> inputs; ///< referenced, NULL-terminated as vips_start_many wants
  PixelRow row;

  ~Program() {
    for (VipsImage* in : inputs) {
      if (in != nullptr) {
        g_object_unref(in);
      }
    }
  }
};

int generate(VipsRegion* out, void* sequence, void* /*inputs*/, void* program, gboolean* /*stop*/) {
  auto** regions = static_cast<VipsRegion**>(sequence);
  const auto& p = *static_cast<const Program*>(program);
  const VipsRect& area = out->valid;
  const std::size_t n = p.inputs.size() - 1;
  if (n > 0 && vips_reorder_prepare_many(out->im, regions, const_cast<VipsRect*>(&area)) != 0) {
    return -1;
  }
  std::vector<const float*> rows(n);
  for (int y = area.top; y < area.top + area.height; ++y) {
    for (std::size_t i = 0; i < n; ++i) {
      rows[i] = reinterpret_cast<const float*>(VIPS_REGION_ADDR(regions[i], area.left, y));
    }
    p.row(rows.data(), reinterpret_cast<float*>(VIPS_REGION_ADDR(out, area.left, y)), area.left,
          y, area.width);
  }
  return 0;
}

void release(VipsImage* /*image*/, void* program) {
  delete static_cast<Program*>(program);
}

/// `out`, set up as a pipeline, made to compute its pixels with `program`; the program (and its
/// references to the inputs) lives as long as the image.
vips::VImage generated(VipsImage* out, std::unique_ptr<Program> program) {
  Program* owned = program.release();
  g_signal_connect(out, "close", G_CALLBACK(release), owned);
  const bool inputs = owned->inputs.size() > 1;
  if (vips_image_generate(out, inputs ? vips_start_many : nullptr, generate,
                          inputs ? vips_stop_many : nullptr, owned->inputs.data(), owned) != 0) {
    g_object_unref(out);
    throw vips::VError();
  }
  return vips::VImage(out);
}

} // namespace

vips::VImage pixelOp(const std::vector<vips::VImage>& inputs, int bands,
                     VipsInterpretation interpretation, PixelRow row, VipsBandFormat format) {
  if (inputs.empty()) {
    throw std::invalid_argument("pixelOp needs an input");
  }
  if (format != VIPS_FORMAT_FLOAT && format != VIPS_FORMAT_UCHAR) {
    throw std::invalid_argument("pixelOp writes float or 8-bit images");
  }
  auto program = std::make_unique<Program>();
  program->row = std::move(row);
  for (const vips::VImage& in : inputs) {
    const VipsBandFormat format = in.format();
    if ((format != VIPS_FORMAT_FLOAT && format != VIPS_FORMAT_UCHAR &&
         format != VIPS_FORMAT_SHORT) ||
        in.width() != inputs[0].width() || in.height() != inputs[0].height()) {
      throw std::invalid_argument(
          "pixelOp inputs must be float, 8-bit or 16-bit images of one size");
    }
    VipsImage* image = in.get_image();
    g_object_ref(image);
    program->inputs.push_back(image);
  }
  program->inputs.push_back(nullptr);

  VipsImage* out = vips_image_new();
  VipsImage** array = program->inputs.data();
  for (std::size_t i = 0; array[i] != nullptr; ++i) {
    if (vips_image_pio_input(array[i]) != 0) {
      g_object_unref(out);
      throw vips::VError();
    }
  }
  if (vips_image_pipeline_array(out, VIPS_DEMAND_STYLE_THINSTRIP, array) != 0) {
    g_object_unref(out);
    throw vips::VError();
  }
  out->Bands = bands;
  out->BandFmt = format;
  out->Type = interpretation;
  return generated(out, std::move(program));
}

vips::VImage pixelOp(int width, int height, int bands, VipsInterpretation interpretation,
                     PixelRow row) {
  auto program = std::make_unique<Program>();
  program->row = std::move(row);
  program->inputs.push_back(nullptr);
  VipsImage* out = vips_image_new();
  vips_image_init_fields(out, width, height, bands, VIPS_FORMAT_FLOAT, VIPS_CODING_NONE,
                         interpretation, 1.0, 1.0);
  if (vips_image_pipelinev(out, VIPS_DEMAND_STYLE_THINSTRIP, nullptr) != 0) {
    g_object_unref(out);
    throw vips::VError();
  }
  return generated(out, std::move(program));
}

vips::VImage memoryImage(int width, int height, int bands, VipsBandFormat format,
                         VipsInterpretation interpretation) {
  VipsImage* raw = vips_image_new_memory();
  vips_image_init_fields(raw, width, height, bands, format, VIPS_CODING_NONE, interpretation, 1.0,
                         1.0);
  const vips::VImage image(raw);
  if (vips_image_write_prepare(raw) != 0) {
    throw vips::VError();
  }
  // Only whole, aligned huge pages inside the buffer can be advised.
  constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
  const auto start = reinterpret_cast<std::uintptr_t>(VIPS_IMAGE_ADDR(raw, 0, 0));
  const std::uintptr_t begin = (start + kHugePage - 1) & ~(kHugePage - 1);
  const std::uintptr_t end =
      (start + static_cast<std::uintptr_t>(VIPS_IMAGE_SIZEOF_IMAGE(raw))) & ~(kHugePage - 1);
  if (end > begin) {
    ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE); // advice only
  }
  return image;
}

vips::VImage inMemory(const vips::VImage& image) {
  vips::VImage out = memoryImage(image.width(), image.height(), image.bands(), image.format(),
                                 image.interpretation());
  if (vips_image_write(image.get_image(), out.get_image()) != 0) {
    throw vips::VError();
  }
  return out;
}

} // namespace velko::app
