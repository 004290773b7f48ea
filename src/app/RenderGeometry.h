// Geometry and frame of a render: where each output pixel comes from, how large everything is,
// and where the photo sits in its frame. renderStack (Imaging.cpp) plans the sizes from the
// photo's upright size before it decodes anything, so the decode shrinks on load to what the
// output needs; the warp, the cut and the frame then work at output size.
//
// Order, from the upright decoded picture: quarter turns, flips, lens distortion, perspective,
// straighten with its auto-crop, crop, the cut of a filling frame; then, after the pixel stages
// of RenderPipeline.h, the frame's border.
#pragma once

#include "core/EditStack.h"

#include <optional>
#include <vips/vips8>

namespace velko::app {

/// The geometry kinds of a stack, read once and clamped to their ranges.
struct GeometrySettings {
  int quarterTurns = 0; ///< clockwise, 0..3
  bool flipHorizontal = false;
  bool flipVertical = false;
  core::Rect crop{0, 0, 1, 1}; ///< of the straightened picture, inside the unit square, not empty
  double straighten = 0;       ///< degrees clockwise, -45..45
  double perspectiveVertical = 0;   ///< -1..1; positive widens the top
  double perspectiveHorizontal = 0; ///< -1..1; positive widens the right side
  double lensDistortion = 0;        ///< -1..1; positive corrects barrel, negative pincushion

  explicit GeometrySettings(const core::EditStack& stack);
  /// Whether pixels move other than by quarter turns, flips and a rectangular cut.
  bool warps() const;
};

/// The map from the straightened picture back to the turned and flipped frame it is resampled
/// from, for a frame of aspect `aspect` (width / height). The inverse of: lens correction
/// (radial, r·(1 − k·r²)), then a keystone homography, then a rotation about the centre, then
/// the auto-crop, which scales the centred rectangle of the frame's own aspect down until every
/// point of it comes from inside the frame.
class Warp {
public:
  Warp(const GeometrySettings& geometry, double aspect);

  /// The side of the auto-cropped rectangle relative to the frame's: 1 when nothing warps, or
  /// when the warp leaves no part of the frame empty.
  double autoCrop() const { return autoCrop_; }

  /// Where a point of the straightened picture (0..1 both ways, top left first) comes from in
  /// the frame (0..1 both ways).
  core::Point source(core::Point straightened) const;

  /// `frame` (the turned and flipped picture, at any size) resampled through the warp, cut by
  /// `crop` (of the straightened picture), to exactly `width` × `height` pixels. Bicubic; the
  /// frame is held in memory, since the map reads it out of order.
  vips::VImage apply(const vips::VImage& frame, const core::Rect& crop, int width,
                     int height) const;

private:
  template <class T> std::pair<T, T> toFrame(T x, T y) const;
  bool fits(double scale) const;

  double aspect_;
  double cos_ = 1, sin_ = 0;     ///< of the straightening angle
  double tiltY_ = 0, tiltX_ = 0; ///< keystone terms of the homography's last row
  double lens_ = 0;              ///< k of r·(1 − k·r²), r = 1 at the corners
  bool rotates_ = false, tilts_ = false, bends_ = false;
  double autoCrop_ = 1;
};

/// The frame kinds of a stack. Insets are fractions of the frame's short edge.
struct FrameSettings {
  double aspect = 0;        ///< width / height of the framed picture; 0 when there is no frame
  bool matchSource = false; ///< the frame takes the aspect of the photo as cut
  bool fill =
      false; ///< the photo covers the inner area (and is cut to it) instead of fitting in it
  core::FrameColorRGBA color = core::FrameColorRGBA::white;
  core::FrameInsets insets;

  explicit FrameSettings(const core::EditStack& stack);
  bool any() const { return aspect > 0 || matchSource; }
};

/// The sizes of one render, in output pixels unless said otherwise.
struct RenderPlan {
  /// The long edge to decode the upright picture to (shrink-on-load); the full size when the
  /// output needs every pixel.
  int decodeLongEdge = 0;
  /// The photo after the geometry kinds, before a filling frame cuts it.
  int contentWidth = 0, contentHeight = 0;
  /// The photo as it lands in the frame: the content, or its centre when the frame fills.
  int photoWidth = 0, photoHeight = 0;
  /// The framed picture and the photo's top left corner in it; the photo's size and (0, 0)
  /// when there is no frame.
  int canvasWidth = 0, canvasHeight = 0;
  int photoLeft = 0, photoTop = 0;
};

/// Plans a render of a picture whose upright, turned frame is `frameWidth` × `frameHeight`
/// pixels. The long edge asked for belongs to the final result, frame included; nothing is
/// ever enlarged, so a small original gives a smaller result.
RenderPlan planRender(int frameWidth, int frameHeight, const GeometrySettings& geometry,
                      const Warp& warp, const FrameSettings& frame, std::optional<int> longEdge);

/// The decoded, upright picture through every geometry kind, at exactly the plan's photo size.
vips::VImage applyGeometry(vips::VImage image, const GeometrySettings& geometry, const Warp& warp,
                           const RenderPlan& plan);

/// The rendered photo (the plan's photo size, any interpretation) placed on the frame's canvas
/// in the frame colour. A translucent colour gives the result an alpha band.
vips::VImage applyFrame(vips::VImage photo, const RenderPlan& plan,
                        const core::FrameColorRGBA& color);

} // namespace velko::app
