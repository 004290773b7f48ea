// Our own per-pixel code as a lazy libvips image: computed a region at a time, on libvips'
// worker threads, when something downstream reads it. A chain of many libvips operations
// evaluates an intermediate image once for every operation that reads it; one PixelOp reads
// each input once and computes everything the pixel needs in one go.
#pragma once

#include <functional>
#include <vector>
#include <vips/vips8>

namespace velko::app {

/// One row of a region: `in[i]` points at input i's pixels (float, band-interleaved), `out` at
/// the output's; `x`, `y` are the row's first pixel in the image, `width` its length. Called
/// from several threads at once, so it must only read shared state.
using PixelRow =
    std::function<void(const float* const* in, float* out, int x, int y, int width)>;

/// A lazy image the size of `inputs[0]` with `bands` bands of `format` (float, or unsigned 8-bit,
/// whose row the program receives as the same pointer and writes as bytes), each row computed by
/// `row` from the same area of every input. Inputs must be the same size, and float, unsigned 8-bit
/// or signed 16-bit: an integer input's row arrives as the same pointer, and the program reads it
/// as its own type.
vips::VImage pixelOp(const std::vector<vips::VImage>& inputs, int bands,
                     VipsInterpretation interpretation, PixelRow row,
                     VipsBandFormat format = VIPS_FORMAT_FLOAT);

/// A lazy image of `width` × `height` with `bands` float bands and no inputs (`in` is null):
/// each row is drawn by `row` from its position alone.
vips::VImage pixelOp(int width, int height, int bands, VipsInterpretation interpretation,
                     PixelRow row);

/// A blank image in memory, its buffer allocated: `format` pixels of `bands` bands. Full-size
/// buffers ask the kernel for huge pages, since faulting in a few hundred megabytes 4 KiB at a
/// time costs more than filling them.
vips::VImage memoryImage(int width, int height, int bands, VipsBandFormat format,
                         VipsInterpretation interpretation);

/// `image` computed into memory (libvips' copy_memory, into a memoryImage).
vips::VImage inMemory(const vips::VImage& image);

} // namespace velko::app
