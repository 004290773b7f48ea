// Local masks: each enabled mask renders the image again with its own adjustments and blends
// that into the image through a coverage matte, in linear light, after the look and before the
// effects. The matte is one float band, 0 (untouched) to 1 (the mask's full effect), the size of
// the image, built from the mask's shape and then its refinements in list order:
//
//   add        max(a, b)
//   subtract   a · (1 − b)
//   intersect  a · b
//
// Coordinates are fractions of the frame as rendered: after the crop, quarter turns and flips,
// origin top-left, so a mask sits where it is drawn on a preview (a later crop moves the frame
// under it). A brush radius is a fraction of that frame's long edge.
//
// Shapes (feather 0..1, 0 is a hard edge):
//   linear          full effect at `start`, none at `end`, smooth across the line between them
//   radial          ellipse of radii (rx·width, ry·height); full effect inside 1 − feather of
//                   the radius, none outside it
//   luminanceRange  perceptual lightness (Lab L / 100) in [lower, upper], fading to none over
//                   `feather` outside the range
//   colorRange      hue on the colour mixer's wheel within `range` of `hue`, fading over
//                   `feather`; greys (chroma below 4) are left out, having no hue
//   brush           capsules of the stroke's radius along its points; an erase stroke removes
//                   coverage; the edge softens over feather · radius
//   aiSubject       approximated: colour distance from the frame's border, weighted toward the
//                   centre, blurred and normalised (no model runs here)
//   aiPeople        approximated: skin tones in YCbCr, blurred (no model runs here)
//
// Lines, ellipses and ranges are lazy libvips operations at the output size. Brush strokes are
// rasterised by a loop on a canvas of at most 1024 pixels on the long edge; the two
// approximations work on a copy of at most 256 pixels. Both are scaled up bilinearly.
#pragma once

#include "core/EditStack.h"
#include "core/LocalMask.h"

#include <optional>
#include <vector>
#include <vips/vips8>

namespace velko::app {

/// The mask's adjustments as a stack of their own, holding the kinds the mask stage renders:
/// develop, tone (levels included), colour, mixer, grading, detail and presence. Effects,
/// looks, geometry and frame kinds act on the whole frame and are left out, as are values that
/// change nothing (0, or 1 for the channel gains and the white level) and non-numbers.
core::EditStack maskStack(const core::LocalMask& mask);

/// Whether the stack holds an enabled mask with an adjustment the mask stage renders.
bool rendersMasks(const core::EditStack& stack);

/// Whether the mask stage reads around each pixel (an AI shape, or a mask's own sharpening,
/// texture, clarity or dehaze), so that its input must allow reads out of order.
bool masksReadNeighbours(const core::EditStack& stack);

/// The coverage of `mask` on `image` (any colour space the pipeline takes): one float band,
/// 0..1, the image's size. Disabled masks have a matte too; the mask stage skips them.
vips::VImage maskMatte(const core::LocalMask& mask, const vips::VImage& image);

/// The mask stage: blends each enabled mask's rendering into `rgb` (three bands of scRGB
/// float) in list order, out = in · (1 − m) + masked · m, each mask seeing the previous ones'
/// result. Mattes are taken from `rgb` as it enters the stage. Returns scRGB float.
vips::VImage applyMasks(const vips::VImage& rgb, const core::EditStack& stack);

/// A mask whose rendering is a function of each pixel alone: its own stack and its coverage.
struct PixelMask {
  core::EditStack stack;
  vips::VImage coverage; ///< one float band, 0..1
};

/// The stack's enabled masks that render something, with their coverage at `width` × `height`,
/// when every one of them renders pixel by pixel (no kind that reads around a pixel) and is
/// drawn from shapes that do not read the image (linear, radial, brush); nothing otherwise.
/// The pipeline then blends them in the same pass as the effects, with no copy of the image.
std::optional<std::vector<PixelMask>> pixelMasks(const core::EditStack& stack, int width,
                                                 int height);

} // namespace velko::app
