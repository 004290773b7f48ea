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
}

} // namespace
} // namespace velko::core
