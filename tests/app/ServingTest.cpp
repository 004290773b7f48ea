// The request path's error codes, the catalogue lock and the command line (the socket's hostile
// peers are the end-to-end test's, many clients at once the load test's).
#include "app/AppFixture.h"
#include "app/Methods.h"
#include "app/Options.h"

namespace velko::app::testing {
namespace {

using RequestPath = AppFixture;

// Every refusal of the request path and the methods: its code, and the words naming the problem.
TEST_F(RequestPath, RefusalsNameTheProblem) {
  options_.allowSaving = true;
  const std::string still = openOne("a.jpg");
  const json::Value keyword = call("keyword.create", json::Object{{"name", "k"}}).at("id");
  const json::Value album = call("album.create", json::Object{{"name", "Trip"}}).at("id");

  const auto frame = [](std::string_view method, const json::Object& params) {
    return json::toCompact(
        json::Object{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}});
  };
  const json::Array one{still};
  std::vector<std::tuple<std::string, std::int64_t, std::string>> cases = { // frame, code, words
      {"{oops", -32700, "not JSON"},
      {"[1,2]", -32600, "JSON-RPC"},
      {R"({"jsonrpc":"2.0","id":1})", -32600, "method"},
      {R"({"jsonrpc":"2.0","id":1,"method":"photo.get"})", -32602, "params"},
      {frame("photo.paint", {}), -32601, "photo.paint"},
      {frame("photo.get", {{"id", 7}}), -32602, "params.id"},
      {frame("photo.rate", {{"ids", one}, {"rating", 6}}), -32602, "0 to 5"},
      {frame("photo.delete", {{"ids", one}}), -32603, "start velko-headless with --allow-delete"},
      {frame("export.render", {{"id", still}, {"format", "gif"}}), -32602, "tiff16"},
      {frame("snapshot.restore", {{"id", still}, {"name", "Nope"}}), -32602, "\"Nope\""},
      {frame("similar.find", {}), -32602, "exactly one of"},
      {frame("similar.find", {{"imageBase64", "not*base64!"}}), -32602, "not valid base64"},
      {frame("keyword.assign", {{"name", "x"}, {"ids", one}}), -32602, "no keyword named \"x\""},
      {frame("collection.add", {{"id", keyword}, {"ids", one}}), -32602, "no collection with id"},
      {frame("album.remove", {{"ids", one}}), -32602, "params.id or params.name"},
      {frame("keyword.create", {{"name", "x"}, {"parentID", album}}), -32602, "is not a keyword"},
      {frame("photo.geotag", {{"ids", one}, {"latitude", 10}}), -32602,
       "need both latitude and longitude"},
      {frame("photo.geotag", {{"ids", one}, {"place", "Paris"}, {"clear", true}}), -32602,
       "only one of the location forms"},
      {frame("photo.geotag", {{"ids", one}, {"place", "Villavicencio, Colombia"}}), -32602,
       "pass latitude and longitude"},
  };
  for (const char* method : {"photo.get", "edit.set", "edit.commit", "snapshot.restore"}) {
    cases.emplace_back(frame(method, {{"id", "X/L0/001"}, {"ops", json::Array{}}, {"name", "n"}}),
                       -32602, "no photo with id X/L0/001");
  }
  for (const auto& [request, code, says] : cases) {
    SCOPED_TRACE(request);
    const json::Value reply = json::parse(answer(app(), request));
    ASSERT_TRUE(reply.as_object().contains("error")) << json::toCompact(reply);
    EXPECT_EQ(reply.at("error").at("code").as_int64(), code);
    EXPECT_THAT(std::string(reply.at("error").at("message").as_string()), HasSubstr(says));
  }
}

TEST_F(RequestPath, ACatalogueInUseIsNotOpenedTwice) {
  open(false);
  EXPECT_THAT([&] { Catalog second(options_.catalog); },
              ::testing::ThrowsMessage<StoreError>(HasSubstr("in use by another velko-headless")));
}

TEST_F(RequestPath, EveryMethodHasAHandler) {
  for (protocol::IPCMethod m : protocol::allIPCMethods()) {
    EXPECT_NE(MethodTable::all().find(m), nullptr) << protocol::rawValue(m);
  }
}

TEST(CommandLine, ParsesAndRefuses) {
  // The arguments, the exit status, and words of the text ("" for a run).
  const std::tuple<std::vector<std::string>, int, const char*> cases[] = {
      {{"--library", "/p"}, 0, ""},
      {{"--library", "/p", "--allow-delete", "--allow-saving", "--catalog", "/c.db"}, 0, ""},
      {{"--library"}, 2, "--library needs a path"},
      {{"--library", "/p", "--fast"}, 2, "unknown argument \"--fast\""},
      {{"--help"}, 0, "usage: velko-headless"},
  };
  for (const auto& [args, status, says] : cases) {
    const CommandLine cmd = parseCommandLine(args, "/home/u");
    SCOPED_TRACE(args.back());
    EXPECT_EQ(cmd.exitStatus, status);
    EXPECT_THAT(cmd.text, HasSubstr(says));
    EXPECT_EQ(cmd.run.has_value(), std::string_view(says).empty());
  }
  const Options o = *parseCommandLine({"--library", "~/Pictures", "--luts", "/l"}, "/home/u").run;
  EXPECT_EQ(o.library, "/home/u/Pictures");
  EXPECT_EQ(o.catalog, "/home/u/.velko/headless/catalog.sqlite");
  EXPECT_EQ(o.luts, "/l");
}

} // namespace
} // namespace velko::app::testing
