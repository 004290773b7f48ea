#include "core/PhotoInfo.h"
#include "core/PhotoSummary.h"
#include "json/Writer.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace velko::core {
namespace {

using namespace std::chrono_literals;
using std::chrono::May;
using std::chrono::sys_days;
using Opt = std::optional<std::string>;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

json::Date may1At0830() {
  return json::Date{sys_days{2024y / May / 1}} + 8h + 30min;
}

TEST(PhotoInfo, ShutterDisplay) {
  struct Case {
    const char* name;
    std::optional<double> seconds;
    Opt expected;
  } cases[] = {
      {"666.67 rounds up", 0.0015, "1/667 s"},
      {"2.5 rounds half away from zero", 0.4, "1/3 s"},
      {"just under a second", 0.9999, "1/1 s"},
      {"one second", 1.0, "1.0 s"},
      {"long exposure", 30.25, "30.2 s"},
      {"absent", std::nullopt, std::nullopt},
      {"zero", 0.0, std::nullopt},
      {"not a number", kNaN, std::nullopt},
      {"reciprocal overflows", 1e-320, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PhotoInfo info;
    info.shutterSeconds = c.seconds;
    EXPECT_EQ(shutterDisplay(info), c.expected);
  }
}

TEST(PhotoInfo, ApertureAndFocalLengthDisplay) {
  struct Case {
    const char* name;
    std::optional<double> value;
    Opt aperture, focalLength;
  } cases[] = {
      {"whole", 8.0, "\u0192/8", "8 mm"},
      {"one decimal place", 35.55, "\u0192/35.5", "35.5 mm"},
      // Focal length has no positivity test, unlike aperture and shutter.
      {"zero", 0.0, std::nullopt, "0 mm"},
      {"negative zero", -0.0, std::nullopt, "0 mm"},
      {"absent", std::nullopt, std::nullopt, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PhotoInfo info;
    info.aperture = c.value;
    info.focalLengthMM = c.value;
    EXPECT_EQ(apertureDisplay(info), c.aperture);
    EXPECT_EQ(focalLengthDisplay(info), c.focalLength);
  }
}

TEST(PhotoInfo, CameraNameAndDimensions) {
  struct Case {
    const char* name;
    Opt make, model;
    std::string expected;
  } cases[] = {
      {"both", "Fujifilm", "X-T5", "Fujifilm X-T5"},
      {"make repeated in model is kept", "Canon", "Canon EOS R5", "Canon Canon EOS R5"},
      {"make only", "Leica", std::nullopt, "Leica"},
      {"model only", std::nullopt, "iPhone 15 Pro", "iPhone 15 Pro"},
      {"neither", std::nullopt, std::nullopt, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PhotoInfo info;
    info.cameraMake = c.make;
    info.cameraModel = c.model;
    EXPECT_EQ(cameraDisplayName(info), c.expected);
  }
  PhotoInfo info;
  info.pixelWidth = 4032;
  info.pixelHeight = 3024;
  EXPECT_EQ(dimensionsDisplay(info), "4032 \u00d7 3024");
}

TEST(PhotoSummary, DurationDisplay) {
  struct Case {
    const char* name;
    double seconds;
    Opt expected;
  } cases[] = {
      {"still", 0, std::nullopt},
      {"infinite", kInf, std::nullopt},
      {"half a second rounds up", 0.5, "0:01"},
      {"59.6 carries into the minute", 59.6, "1:00"},
      {"one hour has no hour field", 3600, "60:00"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PhotoSummary photo;
    photo.durationSeconds = c.seconds;
    EXPECT_EQ(durationDisplay(photo), c.expected);
  }
}

TEST(PhotoSummary, KindFollowsPlaybackStyle) {
  using P = PhotoPlaybackStyle;
  struct Case {
    P style;
    bool video, live;
  } cases[] = {{P::Unsupported, false, false},   {P::Image, false, false},
               {P::ImageAnimated, false, false}, {P::LivePhoto, false, true},
               {P::Video, true, false},          {P::VideoLooping, true, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.style));
    PhotoSummary photo;
    photo.playbackStyle = c.style;
    EXPECT_EQ(isVideo(photo), c.video);
    EXPECT_EQ(isLivePhoto(photo), c.live);
  }
}

const char* const kFullSummary =
    R"({"id":"X/L0/001","pixelWidth":4032,"pixelHeight":3024,)"
    R"("creationDate":"2024-05-01T08:30:00Z","modificationDate":"2024-05-02T00:00:00Z",)"
    R"("formatLabel":"HEIC","latitude":4.142,"longitude":-73.6266,"isFavorite":true,)"
    R"("isHidden":false,"durationSeconds":12.5,"playbackStyle":5,"sourceType":3,)"
    R"("burstIdentifier":"B1","representsBurst":true,"canEditContent":true,)"
    R"("canEditProperties":false,"canDelete":true,"hasAdjustments":true,)"
    R"("cloudIdentifier":"C1"})";

TEST(PhotoSummary, JsonFormMatchesGolden) {
  const json::Date may2 = json::Date(sys_days(2024y / May / 2));
  const PhotoSummary expected{"X/L0/001",
                              4032,
                              3024,
                              may1At0830(),
                              may2,
                              "HEIC",
                              4.1420,
                              -73.6266,
                              true,
                              false,
                              12.5,
                              PhotoPlaybackStyle::VideoLooping,
                              PhotoSourceType::ITunesSynced,
                              "B1",
                              true,
                              true,
                              false,
                              true,
                              true,
                              "C1"};
  EXPECT_EQ(json::decodeAs<PhotoSummary>(json::parse(kFullSummary)), expected);
  EXPECT_EQ(json::toCompact(json::encode(expected)), kFullSummary);

  // A still with no optional data leaves every optional key out.
  const char* minimal = R"({"id":"s","pixelWidth":1,"pixelHeight":2,"isFavorite":false,)"
                        R"("isHidden":true,"durationSeconds":0,"playbackStyle":1,"sourceType":1,)"
                        R"("representsBurst":false,"canEditContent":true,)"
                        R"("canEditProperties":true,"canDelete":false,"hasAdjustments":false})";
  auto still = json::decodeAs<PhotoSummary>(json::parse(minimal));
  EXPECT_FALSE(still.creationDate || still.latitude || still.cloudIdentifier);
  EXPECT_EQ(json::toCompact(json::encode(still)), minimal);
}

TEST(PhotoInfo, JsonFormMatchesGolden) {
  const char* golden = R"({"captureDate":"2024-05-01T08:30:00Z","cameraMake":"Fujifilm",)"
                       R"("cameraModel":"X-T5","lens":"XF 35mm","iso":400,)"
                       R"("shutterSeconds":0.004,"aperture":2.8,"focalLengthMM":35,)"
                       R"("pixelWidth":7728,"pixelHeight":5152,"formatLabel":"RAF",)"
                       R"("originalFilename":"DSCF0001.RAF"})";
  PhotoInfo expected{may1At0830(), "Fujifilm", "X-T5", "XF 35mm", 400,   0.004,
                     2.8,          35.0,       7728,   5152,      "RAF", "DSCF0001.RAF"};
  EXPECT_EQ(json::decodeAs<PhotoInfo>(json::parse(golden)), expected);
  EXPECT_EQ(json::toCompact(json::encode(expected)), golden);

  // Only the dimensions are required; null reads as absent.
  auto bare =
      json::decodeAs<PhotoInfo>(json::parse(R"({"pixelWidth":1,"pixelHeight":1,"iso":null})"));
  EXPECT_EQ(bare, (PhotoInfo{.pixelWidth = 1, .pixelHeight = 1}));
  EXPECT_EQ(json::toCompact(json::encode(bare)), R"({"pixelWidth":1,"pixelHeight":1})");
  EXPECT_THROW(json::decodeAs<PhotoInfo>(json::parse(R"({"pixelWidth":1})")), json::DecodeError);
}

} // namespace
} // namespace velko::core
