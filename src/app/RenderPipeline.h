// The render pipeline: what an edit stack does to the pixels of a photo, in one fixed order.
//
//   develop   white balance (temperature, tint, channel gains) and the colour profile, as gains
//             in linear light
//   tone      exposure, whites, blacks, shadows, highlights, contrast, tone curves, levels:
//             one lookup table per channel, built from tone functions on perceptual values
//   colour    point colour, the eight-band mixer, vibrance, saturation, black and white (LCh),
//             then colour grading (Lab offsets by lightness region)
//   detail    luminance noise reduction, sharpening with edge masking (lightness), colour noise
//             reduction and defringing (a, b)
//   presence  texture, clarity, dehaze (local contrast on lightness at growing radii)
//   look      the .cube look, when the caller passes one (Looks.h), blended by its intensity
//   masks     each enabled local mask renders the image with its own adjustments, blended in
//             through the mask's coverage matte in linear light (Masks.h)
//   geometry  quarter turns, flips, lens distortion, perspective, straighten, crop: done by the
//             caller while sizing (RenderGeometry.h), before everything here
//   effects   vignette (a radial gain in linear light), grain (seeded noise, roughness)
//   frame     done by the caller after everything here (RenderGeometry.h)
//
// docs/rendering.md lists every kind with what it does and how it is approximated.
#pragma once

#include "core/EditStack.h"

#include <functional>
#include <vips/vips8>

namespace velko::app {

/// Applies the stack's develop, tone, colour, detail, presence and effect kinds to `image`, an
/// upright picture already cut and sized for its output (sRGB or grey, 8 or 16 bits, or scRGB;
/// alpha is carried through). Radii of the neighbourhood kinds scale with the image's long
/// edge, so a preview and a full-size export look alike. Lazy: nothing is computed until the
/// result is read. Deterministic: the same image and stack give the same pixels.
///
/// `look`, when given, runs between the presence and the effect stages on 8-bit sRGB pixels.
///
/// Returns `image` unchanged when the stack holds nothing these stages render; otherwise an
/// scRGB float image (linear light, 1.0 = white; values may lie outside 0..1 until encoded),
/// or, with Encoding::Srgb8 and no alpha, 8-bit sRGB encoded by the last pass itself.
using Look = std::function<vips::VImage(const vips::VImage& srgb)>;
enum class Encoding { LinearFloat, Srgb8 };
vips::VImage applyAdjustments(vips::VImage image, const core::EditStack& stack,
                              const Look& look = {}, Encoding encoding = Encoding::LinearFloat);

/// Whether applyAdjustments reads around each pixel (sharpening, texture, clarity, dehaze,
/// noise reduction, defringing).
bool readsNeighbours(const core::EditStack& stack);

/// Whether applyAdjustments reads `image` out of order or more than once, which a decoder
/// streaming from the top of the file does not allow. The neighbourhood stages alone do not:
/// they read the picture once, in order, into the lightness they blur. Masks that read around
/// pixels or read the picture itself do, and so does a picture with alpha beside them.
bool rereadsInput(const vips::VImage& image, const core::EditStack& stack);

} // namespace velko::app
