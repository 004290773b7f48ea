#include "json/Writer.h"

#include "json/Errors.h"

#include <gtest/gtest.h>
#include <limits>

namespace velko::json {
namespace {

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
