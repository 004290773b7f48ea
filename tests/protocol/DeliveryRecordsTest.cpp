#include "protocol/DeliveryRecords.h"

#include "Golden.h"

#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

using namespace std::chrono_literals;
using std::chrono::March;
using std::chrono::sys_days;
using testing::expectGolden;

TEST(DeliveryRecords, RenderingAndCommits) {
  expectGolden("preview params", R"({"id":"A","longEdge":256})", PreviewParams{"A", 256});
  expectGolden("preview result",
               R"({"pngBase64":"iVBO","width":512,"height":384,"appliedStackVersion":7,)"
               R"("basedOnOriginal":false})",
               PreviewResult{"iVBO", 512, 384, 7, false});
  expectGolden("commit", R"({"id":"A"})", CommitParams{"A"});
  expectGolden("commit result", R"({"committed":true,"version":4})", CommitResult{true, 4});
  expectGolden("video, both ends", R"({"id":"V","startSeconds":1.5,"endSeconds":12.25})",
               VideoCommitParams{"V", 1.5, 12.25});
}

TEST(DeliveryRecords, Snapshots) {
  const json::Date created = json::Date{sys_days{2026y / March / 3}} + 14h + 5min + 9s;
  expectGolden("ref", R"({"id":"A","name":"warm"})", SnapshotRefParams{"A", "warm"});
  expectGolden("list", R"({"snapshots":[{"name":"warm","createdAt":"2026-03-03T14:05:09Z"}]})",
               SnapshotListResult{{SnapshotInfo{"warm", created}}});
}

TEST(DeliveryRecords, ExportLooksAndMovies) {
  expectGolden("export, everything",
               R"({"id":"A","format":"heic","longEdge":2048,"quality":0.5,"colorSpace":"sRGB"})",
               ExportRenderParams{"A", "heic", 2048, 0.5, "sRGB"});
  expectGolden("export result",
               R"({"path":"/tmp/r/IMG_1.jpg","format":"jpeg","suggestedFilename":"IMG_1.jpg",)"
               R"("bytes":123456})",
               ExportRenderResult{"/tmp/r/IMG_1.jpg", "jpeg", "IMG_1.jpg", 123456});
  expectGolden("luts", R"({"luts":[{"id":"l1","name":"Film"}]})",
               LUTListResult{{LUTInfo{"l1", "Film"}}});
  expectGolden("make named movie", R"({"ids":["v1"],"name":"Summer Reel"})",
               MovieMakeParams{{"v1"}, "Summer Reel"});
  expectGolden("movies",
               R"({"movies":[{"id":"m","name":"Reel","clipCount":3,"durationSeconds":42.5}]})",
               MovieListResult{{MovieInfo{"m", "Reel", 3, 42.5}}});

  // Required members must be present and not null; optional ones accept null.
  EXPECT_THROW(json::decodeAs<ExportRenderResult>(json::parse(
                   R"({"path":"/p","format":"jpeg","suggestedFilename":null,"bytes":1})")),
               json::DecodeError);
  EXPECT_EQ(json::decodeAs<VideoCommitParams>(
                json::parse(R"({"id":"V","startSeconds":null,"endSeconds":3})")),
            (VideoCommitParams{"V", std::nullopt, 3.0}));
}

} // namespace
} // namespace velko::protocol
