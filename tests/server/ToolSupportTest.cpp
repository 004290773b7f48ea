#include "server/ToolSupport.h"

#include "json/Errors.h"
#include "json/Writer.h"

#include <cmath>
#include <gtest/gtest.h>

namespace velko::server {
namespace {

TEST(ToolSupport, NumberArgumentsReadNumbersAndBooleansOnly) {
  struct Case {
    const char* json;
    std::optional<std::int64_t> integer;
    std::optional<double> number;
  } cases[] = {
      {"-0.25", 0, -0.25},
      {"-3.9", -3, -3.9},
      {"true", 1, 1.0},
      {"\"3\"", std::nullopt, std::nullopt},
      {"18446744073709551615", INT64_MAX, 18446744073709551615.0},
      {"-1e300", INT64_MIN, -1e300},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    const json::Value v = json::parse(c.json);
    EXPECT_EQ(intArg(&v), c.integer);
    EXPECT_EQ(doubleArg(&v), c.number);
  }
  EXPECT_EQ(intArg(nullptr), std::nullopt);
}

TEST(ToolSupport, JsonTextResultReportsEncodingFailure) {
  json::Object record;
  record.emplace("x", std::nan(""));
  EXPECT_EQ(json::toCompact(jsonTextResult(record)),
            R"({"content":[{"type":"text","text":"encoding failed"}],"isError":true})");
}

struct NeedsId {
  std::string id;
  std::optional<std::int64_t> limit;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &NeedsId::id), json::field("limit", &NeedsId::limit)};
  }
};

TEST(ToolSupport, DecodeArgumentsReadsWholeNumbersAsIntegersAndNeedsAnObject) {
  EXPECT_EQ(wholeNumbersAsIntegers(json::parse(R"({"a":[1.0,1.5,{"b":-0.0}],"c":"2.0"})")),
            json::parse(R"({"a":[1,1.5,{"b":0}],"c":"2.0"})"));
  try {
    decodeArguments<NeedsId>(json::parse("[]"));
    ADD_FAILURE() << "decoded";
  } catch (const json::DecodeError& e) {
    EXPECT_STREQ(e.what(), "arguments: expected an object, found array");
  }
}

} // namespace
} // namespace velko::server
