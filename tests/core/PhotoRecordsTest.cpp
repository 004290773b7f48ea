#include "core/PhotoInfo.h"
#include "core/PhotoSummary.h"
#include "json/Writer.h"

#include <gtest/gtest.h>

namespace velko::core {
namespace {

using namespace std::chrono_literals;
using std::chrono::May;
using std::chrono::sys_days;

json::Date may1At0830() {
  return json::Date{sys_days{2024y / May / 1}} + 8h + 30min;
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
