#include "app/AppFixture.h"
#include "app/Gazetteer.h"

namespace velko::app::testing {
namespace {

class OrganiseMethods : public AppFixture {
protected:
  /// Opens a library of `n` stills taken a day apart; ids newest first.
  std::vector<std::string> openWith(int n) {
    for (int i = 0; i < n; ++i) {
      writePhoto(libraryFile("p" + std::to_string(i) + ".jpg"),
                 {.dateTimeOriginal = "2024:05:0" + std::to_string(i + 1) + " 10:00:00"});
    }
    open();
    return ids();
  }
};

TEST_F(OrganiseMethods, GroupsByIdAndByNameWithNestingAndCounts) {
  const auto ids = openWith(3);
  json::Value animals = call(
      "keyword.create", json::Object{{"name", " Animals "}, {"ids", json::Array{ids[0], "nope"}}});
  const std::string animalsID(animals.at("id").as_string());
  EXPECT_EQ(animals.at("name"), "Animals");
  EXPECT_EQ(animals.at("count").as_int64(), 1);
  json::Value dogs =
      call("keyword.create", json::Object{{"name", "dogs"}, {"parentID", animalsID}});
  EXPECT_EQ(dogs.at("parentID").as_string(), animalsID);
  // The same name under the same parent is the same keyword, with the new photos added.
  json::Value again =
      call("keyword.create",
           json::Object{{"name", "Dogs"}, {"parentID", animalsID}, {"ids", json::Array{ids[1]}}});
  EXPECT_EQ(again.at("id"), dogs.at("id"));
  EXPECT_EQ(again.at("count").as_int64(), 1);

  json::Value r =
      call("keyword.assign",
           json::Object{{"name", "DOGS"}, {"ids", json::Array{ids[1], ids[2], "nope"}}});
  EXPECT_EQ(r, (json::Object{{"updated", 2}, {"skipped", json::Array{"nope"}}}));
  call("keyword.remove",
       json::Object{{"id", dogs.at("id")}, {"name", "Animals"}, {"ids", json::Array{ids[1]}}});
  json::Value list = call("keyword.list");
  ASSERT_EQ(list.at("keywords").as_array().size(), 2u);
  EXPECT_EQ(list.at("keywords").at(0).at("name"), "Animals");
  EXPECT_EQ(list.at("keywords").at(0).at("count").as_int64(), 1);
  EXPECT_EQ(list.at("keywords").at(1).at("count").as_int64(), 1); // ids[2] left in dogs
}

// Pending puts the selection first, then the newest, and leaves out what is annotated or hidden;
// an annotation is stored tidied, and text queries find it by every word's prefix.
TEST_F(OrganiseMethods, AnnotationsAreTidiedFoundByTextAndNoLongerPending) {
  const auto ids = openWith(4); // newest first
  call("library.select", json::Object{{"ids", json::Array{ids[3], ids[2]}}});
  json::Value r = call("annotate.pending", json::Object{{"limit", 3}});
  EXPECT_EQ(r, (json::Object{{"ids", json::Array{ids[3], ids[2], ids[0]}}, {"remaining", 4}}));

  json::Value stored =
      call("annotate.set",
           json::Object{{"id", ids[3]},
                        {"model", "test-model"},
                        {"annotation",
                         json::Object{{"caption", "  A red kayak on a lake. "},
                                      {"keywords", json::Array{" Kayak", "kayak", "", "Lake "}},
                                      {"subjects", json::Array{"boat", "Boat"}},
                                      {"scene", " "},
                                      {"keeperScore", 1.5}}}})
          .at("annotation");
  EXPECT_EQ(stored.at("caption"), "A red kayak on a lake.");
  EXPECT_EQ(stored.at("keywords"), (json::Array{"Kayak", "Lake"}));
  EXPECT_EQ(stored.at("subjects"), (json::Array{"boat"}));
  EXPECT_FALSE(stored.as_object().contains("scene"));
  EXPECT_EQ(stored.at("keeperScore").to_number<double>(), 1.0);
  EXPECT_EQ(call("photo.get", json::Object{{"id", ids[3]}}).at("annotation"), stored);
  EXPECT_EQ(call("library.query", json::Object{{"text", "Lake KAY"}}).at("ids"),
            json::Array{ids[3]});
  EXPECT_EQ(call("library.query", json::Object{{"text", "kayak cat"}}).at("count").as_int64(), 0);

  call("photo.hide", json::Object{{"ids", json::Array{ids[0]}}, {"hidden", true}});
  r = call("annotate.pending", json::Object{{"limit", 0}});
  EXPECT_EQ(r, (json::Object{{"ids", json::Array{ids[2]}}, {"remaining", 2}}));
}

TEST_F(OrganiseMethods, GeotagNeedsTheFlagThenTakesOneForm) {
  const std::string a = openOne("a.jpg");
  const json::Object clear{{"ids", json::Array{a}}, {"clear", true}};
  const CallError refused = callError("photo.geotag", clear);
  EXPECT_EQ(refused.code, -32603);
  EXPECT_THAT(refused.what(), HasSubstr("--allow-saving"));

  options_.allowSaving = true;
  open(false);
  const auto location = [&] { return call("photo.get", json::Object{{"id", a}}).at("photo"); };
  call("photo.geotag",
       json::Object{{"ids", json::Array{a}}, {"latitude", 4.15}, {"longitude", -73.63}});
  EXPECT_EQ(location().at("longitude").to_number<double>(), -73.63);
  call("photo.geotag", clear);
  EXPECT_FALSE(location().as_object().contains("latitude"));
}

TEST(OrganiseGazetteer, MatchesCitiesAndCountriesLoosely) {
  const Gazetteer g(
      "#codes\tcoordinates\tTZ\n"
      "BR\t-2332-04637\tAmerica/Sao_Paulo\n"
      "AU\t-3133+15905\tAustralia/Lord_Howe\n"
      "AU\t-3157+14127\tAustralia/Broken_Hill\n"
      "AU\t-3455+13835\tAustralia/Adelaide\n"
      "AU\t-3352+15113\tAustralia/Sydney\n"
      "KR\t+3733+12658\tAsia/Seoul\n"
      "US\t+404251-0740023\tAmerica/New_York\n"
      "US\t+415100-0873900\tAmerica/Chicago\n",
      "BR\tBrazil\nAU\tAustralia\nKP\tKorea (North)\nKR\tKorea (South)\nUS\tUnited States\n");
  const std::pair<const char*, const char*> rows[] = {
      {"SÃO PAULO", "America/Sao_Paulo"},
      {"sao_paulo, BR", "America/Sao_Paulo"},
      {"Australia", "Australia/Sydney"},
      {"South Korea", "Asia/Seoul"},
      {"Korea", ""},
      {"New York, USA", "America/New_York"},
      {"Sydney, United States", ""},
      {"Springfield", ""},
  };
  for (const auto& [query, zone] : rows) {
    SCOPED_TRACE(query);
    const auto place = g.find(query);
    EXPECT_EQ(place ? place->zone : "", zone);
  }
  const auto ny = g.find("new york");
  ASSERT_TRUE(ny);
  EXPECT_NEAR(ny->latitude, 40.714, 1e-3); // +404251: degrees, minutes and seconds
  EXPECT_NEAR(ny->longitude, -74.006, 1e-3);
}

} // namespace
} // namespace velko::app::testing
