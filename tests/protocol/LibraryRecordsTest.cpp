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

TEST(LibraryRecords, PagingSelectionAndContext) {
  expectGolden("list params", R"({"limit":50,"cursor":100})", ListParams{50, 100});
  expectGolden("last page", withSummary(R"({"photos":[)", "]}"),
               ListResult{{summary()}, std::nullopt});
  expectGolden("next page", R"({"photos":[],"nextCursor":100})", ListResult{{}, 100});
  expectGolden("selection", R"({"ids":["a","b"],"primary":"b"})", SelectionResult{{"a", "b"}, "b"});
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

TEST(LibraryRecords, ChangesFindingAndShowing) {
  expectGolden("rate", R"({"ids":["X/L0/001"],"rating":4})", RateParams{{"X/L0/001"}, 4});
  // Names outside the tool's enumeration are the application's to refuse.
  expectGolden("flag", R"({"ids":[],"flag":"maybe"})", FlagParams{{}, "maybe"});
  expectGolden("updated", R"({"updated":1,"skipped":["b"]})", UpdatedResult{1, {"b"}});

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
  expectGolden("show result", R"({"shown":2,"title":"Claude"})", ShowResult{2, "Claude"});
  expectGolden("select result", R"({"selected":1})", SelectResult{1, std::nullopt});
  expectGolden("close editor", R"({"open":false})", OpenEditorParams{std::nullopt, false});
}

TEST(LibraryRecords, GroupsAnnotationsSimilarityLocationImport) {
  expectGolden("create nested", R"({"name":"Dogs","parentID":"K1","ids":["a"]})",
               GroupCreateParams{"Dogs", "K1", std::vector<std::string>{"a"}});
  expectGolden(
      "collections",
      R"({"collections":[{"id":"C1","name":"Best","count":3,"isSmart":true},)"
      R"({"id":"C2","name":"Sub","count":0,"isSmart":false,"parentID":"C1"}]})",
      CollectionListResult{{{"C1", "Best", 3, true, std::nullopt}, {"C2", "Sub", 0, false, "C1"}}});
  expectGolden("albums", R"({"albums":[{"id":"A1","title":"Trip","count":2}]})",
               AlbumListResult{{{"A1", "Trip", 2}}});
  expectGolden("pending result", R"({"ids":["a"],"remaining":12})",
               AnnotatePendingResult{{"a"}, 12});
  core::PhotoAIAnnotation annotation;
  annotation.caption = "A dog";
  annotation.keywords = {"dog"};
  annotation.setting = core::PhotoSetting::Outdoor;
  expectGolden("annotate",
               R"({"id":"a","annotation":{"caption":"A dog","longDescription":"",)"
               R"("keywords":["dog"],"subjects":[],"setting":"outdoor","palette":[]},)"
               R"("model":"m"})",
               AnnotateSetParams{"a", annotation, "m"});
  expectGolden("similar", R"({"id":"a","limit":5})", SimilarFindParams{std::nullopt, "a", 5});
  expectGolden("similar result", R"({"matches":[{"id":"b","distance":0.25}],"indexed":40})",
               SimilarFindResult{{{"b", 0.25}}, 40});
  expectGolden("geotag latitude only", R"({"ids":["a"],"latitude":4.5})",
               GeotagParams{{"a"}, 4.5, std::nullopt, std::nullopt, std::nullopt});
  expectGolden("geotag result", R"({"updated":1,"skipped":[],"latitude":4.5,"longitude":-73})",
               GeotagResult{1, {}, 4.5, -73.0});
  expectGolden("import result", R"({"importedIDs":["N1"],"failed":["/x/b.txt"]})",
               ImportResult{{"N1"}, {"/x/b.txt"}});
  expectGolden("ping",
               R"({"appVersion":"2.1","buildStamp":"b7","protocolVersion":1,)"
               R"("libraryAuthorized":true,"photoCount":1200})",
               PingResult{"2.1", "b7", 1, true, 1200});
}

TEST(LibraryRecords, AssistantAnnotateSetReadsTheAnnotationLeniently) {
  const json::Value args =
      json::parse(R"({"id":"a","annotation":{"caption":"A dog","scene":"beach"}})");
  core::PhotoAIAnnotation annotation;
  annotation.caption = "A dog";
  annotation.scene = "beach";
  EXPECT_EQ(decodeAssistantAnnotateSet(args, json::Path("arguments")),
            (AnnotateSetParams{"a", annotation, std::nullopt}));
  // The record codec itself stays strict.
  EXPECT_EQ(decodeError<AnnotateSetParams>(json::toCompact(args), "params"),
            "params.annotation.longDescription: missing required key");

  struct Case {
    const char* json;
    const char* message;
  } cases[] = {
      {R"({"id":"a"})", "arguments.annotation: missing required key"},
      {R"({"id":"a","annotation":null})", "arguments.annotation: expected an object, found null"},
      {R"({"id":"a","annotation":{}})", "arguments.annotation.caption: missing required key"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    try {
      decodeAssistantAnnotateSet(json::parse(c.json), json::Path("arguments"));
      ADD_FAILURE() << "decoded without error";
    } catch (const json::DecodeError& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
}

// Replies and tool arguments decode straight into these records, so field types and optionality
// are the only checks the server makes; the messages name the faulty key path.
TEST(LibraryRecords, DecodeErrorsNameTheKeyPath) {
  std::string badWidth = kSummaryJson;
  badWidth.replace(badWidth.find("4032"), 4, R"("4032")");
  std::string badSource = kSummaryJson;
  badSource.replace(badSource.find(R"("sourceType":1)"), 14, R"("sourceType":4)");
  const std::string ok = "decoded without error";
  struct Case {
    const char* name;
    std::string message;
    std::string expected;
  } cases[] = {
      {"summary inside a list",
       decodeError<QueryResult>(R"({"ids":[],"count":1,"sample":[)" + badWidth + "]}", "result"),
       "result.sample[0].pixelWidth: expected an integer, found string"},
      {"unknown source type deep in a page",
       decodeError<ListResult>(withSummary(R"({"photos":[)", "," + badSource + "]}"), "result"),
       "result.photos[1].sourceType: unknown value 4"},
      {"nested record missing a key",
       decodeError<ContextResult>(R"({"editorOpen":true,"selectionIDs":[],"focusMetadata":)"
                                  R"({"rating":1,"flag":0,"hasEditStack":false}})",
                                  "result"),
       "result.focusMetadata.colorLabel: missing required key"},
      // Bounds and "one of" rules are the application's.
      {"rating out of range", decodeError<RateParams>(R"({"ids":[],"rating":9})"), ok},
      {"id inside ids as a number",
       decodeError<LabelParams>(R"({"ids":["a",7],"color":"red"})", "arguments"),
       "arguments.ids[1]: expected a string, found number"},
      {"coordinate as a string",
       decodeError<GeotagParams>(R"({"ids":["a"],"latitude":"4.1"})", "arguments"),
       "arguments.latitude: expected a number, found string"},
      {"date without a time", decodeError<QueryParams>(R"({"dateFrom":"2026-07-12"})", "arguments"),
       "arguments.dateFrom: expected an ISO 8601 date-time with whole seconds, such as "
       "2024-05-01T08:30:00Z, found \"2026-07-12\""},
      {"show without ids", decodeError<ShowParams>(R"({"title":"t"})", "arguments"),
       "arguments.ids: missing required key"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.message, c.expected);
  }
}

} // namespace
} // namespace velko::protocol
