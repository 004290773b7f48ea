#include "protocol/LibraryRecords.h"

#include "json/Writer.h"

#include <functional>
#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

using namespace std::chrono_literals;
using std::chrono::July;
using std::chrono::sys_days;

// Decodes `text` into T and compares with `expected`, then encodes `expected` and compares with
// `text` character for character, so a mistyped key or a wrong key order shows up.
template <class T> void expectGolden(const char* name, const std::string& text, const T& expected) {
  SCOPED_TRACE(name);
  EXPECT_EQ(json::decodeAs<T>(json::parse(text)), expected);
  EXPECT_EQ(json::toCompact(json::encode(expected)), text);
}

std::string decodeError(const std::function<void()>& decode) {
  try {
    decode();
  } catch (const json::DecodeError& e) {
    return e.what();
  }
  return "decoded without error";
}

template <class T> std::function<void()> decoding(const std::string& text, const char* root) {
  return [text, root] {
    json::decodeAs<T>(json::parse(text), json::Path(root));
  };
}

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

TEST(LibraryRecords, PagingAndSelection) {
  expectGolden("empty list params", "{}", ListParams{});
  expectGolden("list params", R"({"limit":50,"cursor":100})", ListParams{50, 100});
  expectGolden("last page", std::string(R"({"photos":[)") + kSummaryJson + "]}",
               ListResult{{summary()}, std::nullopt});
  expectGolden("next page", R"({"photos":[],"nextCursor":100})", ListResult{{}, 100});
  expectGolden("selection", R"({"ids":["a","b"],"primary":"b"})", SelectionResult{{"a", "b"}, "b"});
}

TEST(LibraryRecords, ContextAndOnePhoto) {
  expectGolden("nothing open", R"({"editorOpen":false,"selectionIDs":[]})", ContextResult{});

  core::PhotoAIAnnotation annotation;
  annotation.caption = "A dog";
  core::EditStack stack;
  stack.version = 3;
  ContextResult full{true,
                     "X/L0/001",
                     "X/L0/001",
                     {"X/L0/001"},
                     "X/L0/001",
                     summary(),
                     PhotoMetadataDTO{4, 1, 2, true},
                     stack,
                     annotation};
  expectGolden("editor open",
               std::string(R"({"editorOpen":true,"editorPhotoID":"X/L0/001",)"
                           R"("focusID":"X/L0/001","selectionIDs":["X/L0/001"],)"
                           R"("primarySelectionID":"X/L0/001","focus":)") +
                   kSummaryJson +
                   R"(,"focusMetadata":{"rating":4,"flag":1,"colorLabel":2,"hasEditStack":true},)"
                   R"("focusStack":{"values":{},"version":3},"focusAnnotation":{"caption":"A dog",)"
                   R"("longDescription":"","keywords":[],"subjects":[],"palette":[]}})",
               full);

  expectGolden("get params", R"({"id":"X/L0/001"})", GetParams{"X/L0/001"});
  expectGolden("get result without catalogue data",
               std::string(R"({"photo":)") + kSummaryJson + "}",
               GetResult{summary(), std::nullopt, std::nullopt});
}

TEST(LibraryRecords, ChangesToManyPhotos) {
  expectGolden("rate", R"({"ids":["X/L0/001"],"rating":4})", RateParams{{"X/L0/001"}, 4});
  // Names outside the tool's enumeration are the application's to refuse.
  expectGolden("flag", R"({"ids":[],"flag":"maybe"})", FlagParams{{}, "maybe"});
  expectGolden("label", R"({"ids":["a"],"color":"red"})", LabelParams{{"a"}, "red"});
  expectGolden("favorite", R"({"ids":["a"],"favorite":true})", FavoriteParams{{"a"}, true});
  expectGolden("hide", R"({"ids":["a"],"hidden":false})", HideParams{{"a"}, false});
  expectGolden("delete", R"({"ids":["a"]})", DeleteParams{{"a"}});
  expectGolden("updated", R"({"updated":1,"skipped":["b"]})", UpdatedResult{1, {"b"}});
}

TEST(LibraryRecords, FindingAndShowing) {
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
  // An offset in the input is kept as the same instant and written back in UTC.
  EXPECT_EQ(json::decodeAs<QueryParams>(json::parse(R"({"dateFrom":"2026-07-12T02:00:00+02:00"})"))
                .dateFrom,
            query.dateFrom);

  expectGolden("query result",
               std::string(R"({"ids":["X/L0/001"],"count":1,"sample":[)") + kSummaryJson +
                   R"(],"shown":true})",
               QueryResult{{"X/L0/001"}, 1, {summary()}, true});
  expectGolden("show", R"({"ids":["b","a"]})", ShowParams{{"b", "a"}, std::nullopt});
  expectGolden("show result", R"({"shown":2,"title":"Claude"})", ShowResult{2, "Claude"});
  expectGolden("select", R"({"ids":["a"],"primary":"a"})", SelectParams{{"a"}, "a"});
  expectGolden("select result", R"({"selected":1})", SelectResult{1, std::nullopt});
  expectGolden("close editor", R"({"open":false})", OpenEditorParams{std::nullopt, false});
  expectGolden("editor result", R"({"open":true,"photoID":"a"})", OpenEditorResult{true, "a"});
}

TEST(LibraryRecords, Groups) {
  GroupMembershipParams byName;
  byName.name = "Trip";
  byName.ids = {"a"};
  expectGolden("membership by name", R"({"name":"Trip","ids":["a"]})", byName);
  expectGolden("create nested", R"({"name":"Dogs","parentID":"K1","ids":["a"]})",
               GroupCreateParams{"Dogs", "K1", std::vector<std::string>{"a"}});
  expectGolden(
      "collections",
      R"({"collections":[{"id":"C1","name":"Best","count":3,"isSmart":true},)"
      R"({"id":"C2","name":"Sub","count":0,"isSmart":false,"parentID":"C1"}]})",
      CollectionListResult{{{"C1", "Best", 3, true, std::nullopt}, {"C2", "Sub", 0, false, "C1"}}});
  expectGolden("keywords", R"({"keywords":[{"id":"K2","name":"dog","count":7,"parentID":"K1"}]})",
               KeywordListResult{{{"K2", "dog", 7, "K1"}}});
  expectGolden("albums", R"({"albums":[{"id":"A1","title":"Trip","count":2}]})",
               AlbumListResult{{{"A1", "Trip", 2}}});
}

TEST(LibraryRecords, AnnotationsSimilarityLocationImport) {
  expectGolden("pending", R"({"limit":20})", AnnotatePendingParams{20});
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
  expectGolden("import", R"({"paths":["/x/a.jpg"]})", ImportParams{{"/x/a.jpg"}});
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
  EXPECT_EQ(decodeError([&] { json::decodeAs<AnnotateSetParams>(args, json::Path("params")); }),
            "params.annotation.longDescription: missing required key");

  struct Case {
    const char* name;
    const char* json;
    const char* message;
  } cases[] = {
      {"no annotation", R"({"id":"a"})", "arguments.annotation: missing required key"},
      {"null annotation", R"({"id":"a","annotation":null})",
       "arguments.annotation: expected an object, found null"},
      {"no caption", R"({"id":"a","annotation":{}})",
       "arguments.annotation.caption: missing required key"},
      {"no id", R"({"annotation":{"caption":"c"}})", "arguments.id: missing required key"},
      {"model of the wrong type", R"({"id":"a","annotation":{"caption":"c"},"model":4})",
       "arguments.model: expected a string, found number"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(decodeError([&] {
                decodeAssistantAnnotateSet(json::parse(c.json), json::Path("arguments"));
              }),
              c.message);
  }
}

TEST(LibraryRecords, ReplyDecodeErrorsNameTheKeyPath) {
  const std::string badSample =
      std::string(kSummaryJson).replace(std::string(kSummaryJson).find("4032"), 4, R"("4032")");
  struct Case {
    const char* name;
    std::function<void()> decode;
    std::string message;
  } cases[] = {
      {"summary inside a list",
       decoding<QueryResult>(
           R"({"ids":[],"count":1,"sample":[)" + badSample + R"(],"shown":false})", "result"),
       "result.sample[0].pixelWidth: expected an integer, found string"},
      {"unknown source type deep in a page",
       decoding<ListResult>(std::string(R"({"photos":[)") + kSummaryJson + "," +
                                std::string(kSummaryJson)
                                    .replace(std::string(kSummaryJson).find(R"("sourceType":1)"),
                                             14, R"("sourceType":4)") +
                                "]}",
                            "result"),
       "result.photos[1].sourceType: unknown value 4"},
      {"nested record missing a key",
       decoding<ContextResult>(
           R"({"editorOpen":true,"selectionIDs":[],"focusMetadata":{"rating":1,"flag":0,)"
           R"("hasEditStack":false}})",
           "result"),
       "result.focusMetadata.colorLabel: missing required key"},
      {"list element missing a key",
       decoding<CollectionListResult>(R"({"collections":[{"id":"C","name":"n","count":1}]})",
                                      "result"),
       "result.collections[0].isSmart: missing required key"},
      {"required member null",
       decoding<UpdatedResult>(R"({"updated":null,"skipped":[]})", "result"),
       "result.updated: expected an integer, found null"},
      {"not an object", decoding<ImportResult>("[]", "result"),
       "result: expected an object, found array"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(decodeError(c.decode), c.message);
  }
}

// The tools decode their arguments straight into these records, so the record's field types and
// optionality are the only argument checks the server makes; the assistant reads the messages.
TEST(LibraryRecords, ToolArgumentsDecodeOrNameTheFaultyKey) {
  auto args = [](auto record, const std::string& text) -> std::function<void()> {
    return [text] {
      json::decodeAs<decltype(record)>(json::parse(text), json::Path("arguments"));
    };
  };
  const std::string ok = "decoded without error";
  struct Case {
    const char* name;
    std::function<void()> decode;
    std::string message;
  } cases[] = {
      // Accepted as given: bounds and "one of" rules are the application's.
      {"list without arguments", args(ListParams{}, "{}"), ok},
      {"rating out of range", args(RateParams{}, R"({"ids":[],"rating":9})"), ok},
      {"query with minRating 7", args(QueryParams{}, R"({"minRating":7})"), ok},
      {"close editor without id", args(OpenEditorParams{}, R"({"open":false})"), ok},
      {"membership without id or name", args(GroupMembershipParams{}, R"({"ids":["a"]})"), ok},
      {"latitude without longitude", args(GeotagParams{}, R"({"ids":["a"],"latitude":4})"), ok},
      // Wrong types.
      {"rating as a string", args(RateParams{}, R"({"ids":["a"],"rating":"4"})"),
       "arguments.rating: expected an integer, found string"},
      {"rating with a fraction", args(RateParams{}, R"({"ids":["a"],"rating":3.5})"),
       "arguments.rating: expected an integer, found a number with a fraction or exponent"},
      {"ids as one string", args(DeleteParams{}, R"({"ids":"X/L0/001"})"),
       "arguments.ids: expected an array, found string"},
      {"id inside ids as a number", args(LabelParams{}, R"({"ids":["a",7],"color":"red"})"),
       "arguments.ids[1]: expected a string, found number"},
      {"favorite as a string", args(FavoriteParams{}, R"({"ids":["a"],"favorite":"true"})"),
       "arguments.favorite: expected a boolean, found string"},
      {"optional limit as a string", args(ListParams{}, R"({"limit":"100"})"),
       "arguments.limit: expected an integer, found string"},
      {"coordinate as a string", args(GeotagParams{}, R"({"ids":["a"],"latitude":"4.1"})"),
       "arguments.latitude: expected a number, found string"},
      {"date without a time", args(QueryParams{}, R"({"dateFrom":"2026-07-12"})"),
       "arguments.dateFrom: expected an ISO 8601 date-time with whole seconds, such as "
       "2024-05-01T08:30:00Z, found \"2026-07-12\""},
      {"show flag as a number", args(QueryParams{}, R"({"show":1})"),
       "arguments.show: expected a boolean, found number"},
      {"seed ids as one string", args(GroupCreateParams{}, R"({"name":"n","ids":"a"})"),
       "arguments.ids: expected an array, found string"},
      {"arguments not an object", args(SelectParams{}, R"(["a"])"),
       "arguments: expected an object, found array"},
      // Required keys.
      {"get without id", args(GetParams{}, "{}"), "arguments.id: missing required key"},
      {"rate without rating", args(RateParams{}, R"({"ids":["a"]})"),
       "arguments.rating: missing required key"},
      {"flag without flag", args(FlagParams{}, R"({"ids":["a"]})"),
       "arguments.flag: missing required key"},
      {"label without color", args(LabelParams{}, R"({"ids":["a"]})"),
       "arguments.color: missing required key"},
      {"hide without hidden", args(HideParams{}, R"({"ids":["a"]})"),
       "arguments.hidden: missing required key"},
      {"show without ids", args(ShowParams{}, R"({"title":"t"})"),
       "arguments.ids: missing required key"},
      {"create without name", args(GroupCreateParams{}, R"({"ids":["a"]})"),
       "arguments.name: missing required key"},
      {"membership without ids", args(GroupMembershipParams{}, R"({"name":"n"})"),
       "arguments.ids: missing required key"},
      {"pending limit as null", args(AnnotatePendingParams{}, R"({"limit":null})"), ok},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(decodeError(c.decode), c.message);
  }
}

} // namespace
} // namespace velko::protocol
