#include "server/ToolSupport.h"

#include "json/Date.h"
#include "json/Errors.h"
#include "json/Writer.h"

#include <cmath>
#include <gtest/gtest.h>

namespace velko::server {
namespace {

using namespace std::chrono;

TEST(ToolSupport, IntArgReadsNumbersOnly) {
  struct Case {
    const char* json;
    std::optional<std::int64_t> expected;
  } cases[] = {
      {"3", 3},
      {"3.9", 3},
      {"-3.9", -3},
      {"true", 1},
      {"\"3\"", std::nullopt},
      {"null", std::nullopt},
      {"18446744073709551615", INT64_MAX},
      {"-1e300", INT64_MIN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    const json::Value v = json::parse(c.json);
    EXPECT_EQ(intArg(&v), c.expected);
  }
  EXPECT_EQ(intArg(nullptr), std::nullopt);
}

TEST(ToolSupport, DoubleArgReadsNumbersOnly) {
  struct Case {
    const char* json;
    std::optional<double> expected;
  } cases[] = {
      {"2", 2.0},    {"-0.25", -0.25},       {"false", 0.0},
      {"true", 1.0}, {"null", std::nullopt}, {"\"2\"", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    const json::Value v = json::parse(c.json);
    EXPECT_EQ(doubleArg(&v), c.expected);
  }
}

TEST(ToolSupport, ArgumentReadersTreatAbsentAndNonObjectArgumentsAsEmpty) {
  const ToolArgs args = json::parse(R"({"limit": 4.5, "id": "p1", "n": 2})");
  EXPECT_EQ(intArg(args, "limit"), 4);
  EXPECT_EQ(stringArg(args, "id"), "p1");
  EXPECT_EQ(stringArg(args, "n"), std::nullopt);
  EXPECT_EQ(intArg(ToolArgs(), "limit"), std::nullopt);
  EXPECT_EQ(intArg(ToolArgs(json::parse("[1]")), "limit"), std::nullopt);
}

struct Stamped {
  json::Date when;
  std::string path;
  double score = 0;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("when", &Stamped::when), json::field("path", &Stamped::path),
                      json::field("score", &Stamped::score)};
  }
};

TEST(ToolSupport, JsonTextResultIsPrettySortedWithIsoDates) {
  const Stamped record{sys_days{2026y / 7 / 12}, "a/b", 0.5};
  EXPECT_EQ(json::toCompact(jsonTextResult(record)),
            json::toCompact(textResult("{\n  \"path\": \"a\\/b\",\n  \"score\": 0.5,\n"
                                       "  \"when\": \"2026-07-12T00:00:00Z\"\n}",
                                       false)));
}

TEST(ToolSupport, JsonTextResultReportsEncodingFailure) {
  const Stamped record{sys_days{2026y / 7 / 12}, "x", std::nan("")};
  EXPECT_EQ(json::toCompact(jsonTextResult(record)),
            R"({"content":[{"type":"text","text":"encoding failed"}],"isError":true})");
  json::Object invalid;
  invalid.emplace("s", "\xFF");
  EXPECT_EQ(jsonTextResult(invalid).at("isError"), true);
}

struct NeedsId {
  std::string id;
  std::optional<std::int64_t> limit;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &NeedsId::id), json::field("limit", &NeedsId::limit)};
  }
};

TEST(ToolSupport, DecodeArgumentsNamesTheKeyPath) {
  struct Case {
    const char* name;
    ToolArgs args;
    const char* error;
  } cases[] = {
      {"absent arguments read as {}", std::nullopt, "arguments.id: missing required key"},
      {"not an object", json::parse("[]"), "arguments: expected an object, found array"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      decodeArguments<NeedsId>(c.args);
      ADD_FAILURE() << "decoded";
    } catch (const json::DecodeError& e) {
      EXPECT_STREQ(e.what(), c.error);
    }
  }
  // A whole number reads as an integer however it is written.
  EXPECT_EQ(decodeArguments<NeedsId>(json::parse(R"({"id":"a","limit":-2e3})")).limit, -2000);
  EXPECT_EQ(wholeNumbersAsIntegers(json::parse(R"({"a":[1.0,1.5,{"b":-0.0}],"c":"2.0"})")),
            json::parse(R"({"a":[1,1.5,{"b":0}],"c":"2.0"})"));
}

} // namespace
} // namespace velko::server
