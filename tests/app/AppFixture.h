// Test support for the application: JPEGs with real EXIF blocks written through libexif, and a
// fixture holding an App over a temporary home and library, with a call() that goes through the
// same request path as a socket connection.
#pragma once

#include "app/App.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "protocol/Rpc.h"
#include "support/TestPeer.h"

#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace velko::app::testing {

struct PhotoSpec {
  int width = 64;
  int height = 48;
  unsigned char red = 128, green = 128, blue = 128; ///< the fill colour
  bool pattern = false;                             ///< a gradient with a disc instead of a fill
  std::optional<std::string> dateTimeOriginal;      ///< "YYYY:MM:DD HH:MM:SS"
  std::optional<double> latitude, longitude;        ///< signed decimal degrees
  std::optional<std::string> make, model, lens;
  std::optional<int> iso;
  std::optional<double> exposureSeconds, fNumber, focalLength;
  int orientation = 1;
};

/// Writes a JPEG (or, by the extension, PNG/TIFF/WebP) of that shot; EXIF is attached for JPEG.
void writePhoto(const std::string& path, const PhotoSpec& shot);

/// A reply's error, thrown by AppFixture::call.
struct CallError : std::runtime_error {
  CallError(std::int64_t c, const std::string& m) : std::runtime_error(m), code(c) {}
  std::int64_t code;
};

class AppFixture : public ::testing::Test {
protected:
  AppFixture();
  ~AppFixture() override;

  /// Opens (or reopens) the App over the folders; scans the library once when `scan`.
  void open(bool scan = true);
  void close() { app_.reset(); }
  App& app() { return *app_; }

  /// Sends one request frame through the application's request path and returns `result`;
  /// throws CallError with the reply's error.
  json::Value call(std::string_view method, const json::Value& params = nullptr);
  /// The error code and message of a request that must fail.
  CallError callError(std::string_view method, const json::Value& params = nullptr);
  /// The ids of the catalogue, newest first.
  std::vector<std::string> ids();

  std::string libraryFile(std::string_view relative) const { return library_ + "/" + std::string(relative); }

  velko::testing::TempDir root_;
  std::string home_;
  std::string library_;
  Options options_;

private:
  std::unique_ptr<App> app_;
};

} // namespace velko::app::testing
