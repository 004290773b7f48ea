// libvips for the application: start-up settings, and the plain renders of this program
// (decode with EXIF orientation, resize, encode).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace velko::app {

/// Starts libvips once per process with the cache and concurrency this program wants.
void initImaging();

/// A PNG of the photo with its long edge at `longEdge` pixels (never enlarged), upright.
struct EncodedImage {
  std::string bytes;
  std::int64_t width = 0;
  std::int64_t height = 0;
};
EncodedImage renderPng(const std::string& path, int longEdge);

} // namespace velko::app
