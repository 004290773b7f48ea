// The JSON layer: the writer, the parser's numbers, dates and the record codec.
#include "json/Codec.h"
#include "json/Date.h"
#include "json/Errors.h"
#include "json/Writer.h"

#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace velko::json {
namespace {

enum class Shade { Light, Dark };
enum class Level : std::int64_t { Low = 1, High = 3 };

} // namespace

template <> struct EnumNames<Shade> {
  static constexpr std::array<std::pair<Shade, std::string_view>, 2> table = {
      {{Shade::Light, "light"}, {Shade::Dark, "dark"}}};
};
template <> struct EnumValues<Level> {
  static constexpr std::array<Level, 2> table = {Level::Low, Level::High};
};

namespace {

struct Inner {
  std::string name;
  std::optional<double> weight;
  static constexpr auto jsonFields() {
    return std::tuple{field("name", &Inner::name), field("weight", &Inner::weight)};
  }
  friend bool operator==(const Inner&, const Inner&) = default;
};

struct Outer {
  std::int64_t count = 0;
  std::int32_t small = 0;
  bool on = false;
  Shade shade = Shade::Light;
  Level level = Level::Low;
  std::vector<Inner> items;
  std::optional<std::string> note;
  static constexpr auto jsonFields() {
    return std::tuple{field("count", &Outer::count), field("small", &Outer::small),
                      field("on", &Outer::on),       field("shade", &Outer::shade),
                      field("level", &Outer::level), field("items", &Outer::items),
                      field("note", &Outer::note)};
  }
  friend bool operator==(const Outer&, const Outer&) = default;
};

TEST(RecordCodec, EncodesInFieldOrderOmittingAbsentOptionalsAndDecodesNullAsAbsent) {
  const Outer o{7, -2, true, Shade::Dark, Level::High, {{"a", 1.5}, {"b", std::nullopt}}, {}};
  EXPECT_EQ(toCompact(encode(o)), R"({"count":7,"small":-2,"on":true,"shade":"dark","level":3,)"
                                  R"("items":[{"name":"a","weight":1.5},{"name":"b"}]})");
  EXPECT_EQ(decodeAs<Outer>(parse(R"({"count":7,"small":-2,"on":true,"shade":"dark","level":3,
      "items":[{"name":"a","weight":1.5},{"name":"b","weight":null}],"note":null,"extra":1})")),
            o);
}

TEST(RecordCodec, ErrorsNameTheKeyPath) {
  const std::string base = R"("count":1,"small":1,"on":true,"shade":"dark","level":1)";
  struct Case {
    const char* name;
    std::string json;
    std::string message;
  } cases[] = {
      {"not an object", "[]", "args: expected an object, found array"},
      {"null required", R"({"count":null})", "args.count: expected an integer, found null"},
      {"int32 overflow", R"({"count":1,"small":4294967296})", "args.small: integer out of range"},
      {"uint64 overflow", R"({"count":18446744073709551615})", "args.count: integer out of range"},
      {"unknown name", R"({"count":1,"small":1,"on":true,"shade":"Dark"})",
       "args.shade: unknown value \"Dark\""},
      {"unknown integer", R"({"count":1,"small":1,"on":true,"shade":"dark","level":2})",
       "args.level: unknown value 2"},
      {"nested element", "{" + base + R"(,"items":[{"name":"x"},{"name":5}]})",
       "args.items[1].name: expected a string, found number"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto decode = [&] { decodeAs<Outer>(parse(c.json), Path("args")); };
    EXPECT_THAT(decode, ::testing::ThrowsMessage<DecodeError>(c.message));
  }
}

TEST(PrimitiveCodec, DoublesAcceptIntegersAndIntegersRejectBooleans) {
  EXPECT_EQ(decodeAs<double>(parse("3")), 3.0);
  EXPECT_EQ(decodeAs<double>(parse("-9007199254740993")), -9007199254740992.0);
  EXPECT_THROW(decodeAs<double>(parse("true")), DecodeError);
  EXPECT_THROW(decodeAs<std::int64_t>(parse("true")), DecodeError);
  EXPECT_EQ(decodeAs<std::int64_t>(parse("9223372036854775807")), INT64_MAX);
}

TEST(Parse, DoublesSurviveWriteAndParseBitForBit) {
  // Boost.JSON's own number parser misrounds about one in ten seventeen-digit decimals.
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> mantissa(0.5, 1.0);
  std::uniform_int_distribution<int> exponent(-1000, 1000);
  for (int i = 0; i < 20000; ++i) {
    const double x = std::ldexp(mantissa(random), exponent(random)) * (i % 2 == 0 ? 1 : -1);
    const Value parsed = parse(toCompact(Value(x)));
    // Integral values are written without a fraction and come back as integers.
    ASSERT_EQ(parsed.to_number<double>(), x) << toCompact(Value(x));
  }
  // A 113-digit integer is read as the nearest double, the same one its shortest form names.
  const Value big = parse("1" + std::string(112, '0'));
  EXPECT_EQ(big.get_double(), 1e112);
  EXPECT_EQ(parse(toCompact(big)).get_double(), big.get_double());
  EXPECT_TRUE(std::signbit(parse("-0.0").get_double()));
  EXPECT_EQ(parse("1e400").get_double(), std::numeric_limits<double>::infinity());
}

TEST(Date, ParsesInternetDateTimesAndFormatsUtc) {
  using namespace std::chrono;
  const Date base = sys_days{2024y / May / 1} + 8h + 30min;
  struct Case {
    const char* text;
    std::optional<Date> expected;
  } cases[] = {
      {"2024-05-01T08:30:00Z", base},         {"2024-05-01T10:30:00+02:00", base},
      {"2024-05-01t08:30:00z", base},         {"2024-05-01T08:30:00.123Z", std::nullopt},
      {"2024-02-30T00:00:00Z", std::nullopt}, {"2024-05-01T08:30:00Zjunk", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(parseDate(c.text), c.expected);
  }
  // Written in UTC with a Z, and read back.
  const Date d = sys_days{1969y / December / 31} + 23h + 59min + 59s;
  EXPECT_EQ(formatDate(d), "1969-12-31T23:59:59Z");
  EXPECT_EQ(parseDate(formatDate(d)), d);
  // The decoder's error quotes the text.
  EXPECT_THAT([] { decodeAs<Date>(parse(R"("2024-05-01T08:30:00.5Z")"), Path("createdAt")); },
              ::testing::ThrowsMessage<DecodeError>(
                  ::testing::AllOf(::testing::StartsWith("createdAt: expected an ISO 8601"),
                                   ::testing::HasSubstr("\"2024-05-01T08:30:00.5Z\""))));
}

TEST(Writer, CompactKeepsInsertionOrderAndPrettySortsKeys) {
  Value v = parse(R"({"b":[1,2.5,{"z":null,"a":true}],"a":"x/y","c":{},"d":[]})");
  EXPECT_EQ(toCompact(v), R"({"b":[1,2.5,{"z":null,"a":true}],"a":"x/y","c":{},"d":[]})");
  EXPECT_EQ(toPretty(v), "{\n"
                         "  \"a\": \"x\\/y\",\n"
                         "  \"b\": [\n"
                         "    1,\n"
                         "    2.5,\n"
                         "    {\n"
                         "      \"a\": true,\n"
                         "      \"z\": null\n"
                         "    }\n"
                         "  ],\n"
                         "  \"c\": {},\n"
                         "  \"d\": []\n"
                         "}");
}

TEST(Writer, EscapesTwoSpecialsAnywhereInThe16ByteScan) {
  // Two special bytes in one 40-byte string, at every pair of mirrored offsets, so a block scan
  // meets a special in its first, middle and last byte and in the tail after the last block.
  struct Special {
    std::string raw, compact, pretty;
  };
  const Special specials[] = {
      {"\"", "\\\"", "\\\""}, {"\\", "\\\\", "\\\\"}, {"\n", "\\n", "\\n"},
      {"\t", "\\t", "\\t"}, {"\r", "\\r", "\\r"}, {"\b", "\\b", "\\b"},
      {"\f", "\\f", "\\f"}, {"\x01", "\\u0001", "\\u0001"}, {"\x1f", "\\u001f", "\\u001f"},
      {"/", "/", "\\/"}, {"\xc3\xa9", "\xc3\xa9", "\xc3\xa9"}};
  for (const Special& sp : specials) {
    for (std::size_t pos = 0; pos < 20; ++pos) {
      const std::string a(pos, 'a');
      const std::string b(40 - 2 * pos - 2, 'b');
      const std::string s = a + sp.raw + b + sp.raw + a;
      SCOPED_TRACE(sp.raw + " at " + std::to_string(pos));
      EXPECT_EQ(toCompact(Value(s)), '"' + a + sp.compact + b + sp.compact + a + '"');
      EXPECT_EQ(toPretty(Value(s)), '"' + a + sp.pretty + b + sp.pretty + a + '"');
    }
  }
}

TEST(Writer, PassesValidUtf8AndRejectsInvalid) {
  EXPECT_EQ(toCompact(Value("ƒ/2.8 × € 😀 0123456789")), "\"ƒ/2.8 × € 😀 0123456789\"");
  for (const char* bad :
       {"abc\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "0123456789\x80"}) {
    EXPECT_THROW(toCompact(Value(bad)), EncodeError);
    EXPECT_THROW(toPretty(Value(bad)), EncodeError);
  }
}

TEST(Writer, NumbersUseShortestFormAndNonFiniteIsRefused) {
  EXPECT_EQ(toCompact(parse("[4.0,0.1,-0.0,1e300,-7,18446744073709551615]")),
            "[4,0.1,-0,1e+300,-7,18446744073709551615]");
  for (double bad :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
    EXPECT_THROW(toCompact(Object{{"x", bad}}), EncodeError);
  }
}

} // namespace
} // namespace velko::json
