#include "protocol/LibraryRecords.h"

#include "Golden.h"

#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

using namespace std::chrono_literals;
using std::chrono::July;
using std::chrono::sys_days;
using testing::decodeError;
using testing::expectGolden;

const char* const kSummaryJson =
    R"({"id":"X/L0/001","pixelWidth":4032,"pixelHeight":3024,)"
    R"("creationDate":"2026-07-12T09:15:00Z","isFavorite":false,"isHidden":false,)"
    R"("durationSeconds":0,"playbackStyle":1,"sourceType":1,"representsBurst":false,)"
    R"("canEditContent":true,"canEditProperties":true,"canDelete":true,"hasAdjustments":false})";

core::PhotoSummary summary() {
  core::PhotoSummary s;
  s.id = "X/L0/001";
  s.pixelWidth = 4032;
  s.pixelHeight = 3024;
  s.creationDate = json::Date{sys_days{2026y / July / 12}} + 9h + 15min;
  s.playbackStyle = core::PhotoPlaybackStyle::Image;
  s.sourceType = core::PhotoSourceType::UserLibrary;
  s.canEditContent = s.canEditProperties = s.canDelete = true;
  return s;
}

std::string withSummary(const std::string& before, const std::string& after) {
  return before + kSummaryJson + after;
}

TEST(LibraryRecords, PagingAndContext) {
  expectGolden("last page", withSummary(R"({"photos":[)", "]}"),
               ListResult{{summary()}, std::nullopt});
  expectGolden("next page", R"({"photos":[],"nextCursor":100})", ListResult{{}, 100});
  expectGolden("nothing open", R"({"editorOpen":false,"selectionIDs":[]})", ContextResult{});

  core::PhotoAIAnnotation annotation;
  annotation.caption = "A dog";
  core::EditStack stack;
  stack.version = 3;
  const std::string id = "X/L0/001";
  expectGolden(
      "editor open",
      withSummary(R"({"editorOpen":true,"editorPhotoID":"X/L0/001","focusID":"X/L0/001",)"
                  R"("selectionIDs":["X/L0/001"],"primarySelectionID":"X/L0/001","focus":)",
                  R"(,"focusMetadata":{"rating":4,"flag":1,"colorLabel":2,"hasEditStack":true},)"
                  R"("focusStack":{"values":{},"version":3},"focusAnnotation":{"caption":"A dog",)"
                  R"("longDescription":"","keywords":[],"subjects":[],"palette":[]}})"),
      ContextResult{
          true, id, id, {id}, id, summary(), PhotoMetadataDTO{4, 1, 2, true}, stack, annotation});
  expectGolden("get result without catalogue data", withSummary(R"({"photo":)", "}"),
               GetResult{summary(), std::nullopt, std::nullopt});
}

TEST(LibraryRecords, FindingGroupsAndLocation) {
  QueryParams query;
  query.dateFrom = json::Date{sys_days{2026y / July / 12}};
  query.dateTo = json::Date{sys_days{2026y / July / 12}} + 23h + 59min + 59s;
  query.latitude = 4.142;
  query.longitude = -73.6266;
  query.radiusMeters = 500;
  query.minRating = 4;
  query.flag = "pick";
  query.videoOnly = false;
  query.text = "dog beach";
  query.show = true;
  query.title = "Photos from yesterday";
  expectGolden("query",
               R"({"dateFrom":"2026-07-12T00:00:00Z","dateTo":"2026-07-12T23:59:59Z",)"
               R"("latitude":4.142,"longitude":-73.6266,"radiusMeters":500,"minRating":4,)"
               R"("flag":"pick","videoOnly":false,"text":"dog beach","show":true,)"
               R"("title":"Photos from yesterday"})",
               query);
  expectGolden("query result",
               withSummary(R"({"ids":["X/L0/001"],"count":1,"sample":[)", R"(],"shown":true})"),
               QueryResult{{"X/L0/001"}, 1, {summary()}, true});
  expectGolden("create nested", R"({"name":"Dogs","parentID":"K1","ids":["a"]})",
               GroupCreateParams{"Dogs", "K1", std::vector<std::string>{"a"}});
  expectGolden(
      "collections",
      R"({"collections":[{"id":"C1","name":"Best","count":3,"isSmart":true},)"
      R"({"id":"C2","name":"Sub","count":0,"isSmart":false,"parentID":"C1"}]})",
      CollectionListResult{{{"C1", "Best", 3, true, std::nullopt}, {"C2", "Sub", 0, false, "C1"}}});
  expectGolden("similar", R"({"id":"a","limit":5})", SimilarFindParams{std::nullopt, "a", 5});
  expectGolden("similar result", R"({"matches":[{"id":"b","distance":0.25}],"indexed":40})",
               SimilarFindResult{{{"b", 0.25}}, 40});
  expectGolden("geotag result", R"({"updated":1,"skipped":[],"latitude":4.5,"longitude":-73})",
               GeotagResult{1, {}, 4.5, -73.0});
}

// Bounds and "one of" rules are the application's; the records check only types and presence.
TEST(LibraryRecords, DecodeChecksTypesAndPresenceOnly) {
  EXPECT_EQ(decodeError<RateParams>(R"({"ids":[],"rating":9})"), "decoded without error");
  EXPECT_EQ(decodeError<ContextResult>(R"({"editorOpen":true,"selectionIDs":[],"focusMetadata":)"
                                       R"({"rating":1,"flag":0,"hasEditStack":false}})",
                                       "result"),
            "result.focusMetadata.colorLabel: missing required key");
}

} // namespace
} // namespace velko::protocol
