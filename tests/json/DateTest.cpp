#include "json/Date.h"

#include <gtest/gtest.h>

namespace velko::json {
namespace {

using namespace std::chrono;

TEST(Date, ParsesInternetDateTimesAndFormatsUtc) {
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
}

TEST(Date, DecodeErrorQuotesTheText) {
  try {
    decodeAs<Date>(parse(R"("2024-05-01T08:30:00.5Z")"), Path("createdAt"));
    FAIL();
  } catch (const DecodeError& e) {
    EXPECT_NE(std::string(e.what()).find("createdAt: expected an ISO 8601"), std::string::npos);
    EXPECT_NE(std::string(e.what()).find("\"2024-05-01T08:30:00.5Z\""), std::string::npos);
  }
}

} // namespace
} // namespace velko::json
