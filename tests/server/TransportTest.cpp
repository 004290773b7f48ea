#include "server/Transport.h"

#include "json/Writer.h"

#include <gtest/gtest.h>
#include <sstream>

namespace velko::server {
namespace {

std::vector<std::string> readAll(const std::string& input) {
  std::istringstream in(input);
  std::vector<std::string> lines;
  std::string line;
  while (readLine(in, line)) {
    lines.push_back(line);
  }
  return lines;
}

TEST(Transport, ReadLineStripsOnlyTheTerminator) {
  const std::string big(3'000'000, 'x');
  struct Case {
    const char* name;
    std::string input;
    std::vector<std::string> lines;
  } cases[] = {
      {"carriage return plus line feed", "a\r\nb\r\n", {"a", "b"}},
      {"final line without terminator", "a\nb", {"a", "b"}},
      {"empty lines are delivered", "\n\r\nx\n", {"", "", "x"}},
      {"inner carriage return kept", "a\rb\n", {"a\rb"}},
      {"only the last carriage return goes", "a\r\r\n", {"a\r"}},
      {"lone carriage return at end of input kept", "a\r", {"a\r"}},
      {"no length limit", big + "\r\n" + big, {big, big}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(readAll(c.input), c.lines);
  }
}

TEST(Transport, ParseMessageKeepsOnlyObjects) {
  EXPECT_TRUE(parseMessage(" {} "));
  const std::string deep = "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}";
  EXPECT_TRUE(parseMessage(deep));
  for (const char* line : {"[{\"id\":1}]", "5", "null", "{", "   ", "{\"a\":1}x"}) {
    SCOPED_TRACE(line);
    EXPECT_FALSE(parseMessage(line));
  }
  // Invalid UTF-8 is repaired, not refused.
  std::optional<json::Object> m = parseMessage("{\"method\":\"a\xFFz\"}");
  ASSERT_TRUE(m);
  EXPECT_EQ(m->at("method"), "a\xEF\xBF\xBDz");
}

TEST(Transport, UnencodableMessageIsLoggedAndDropped) {
  std::ostringstream out, log;
  Transport transport(out, log);
  json::Object result;
  result.emplace("value", json::Value("\xC3\x28")); // invalid UTF-8
  transport.sendResult(json::Value(1), result);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(log.str(), "velko-mcp: FATAL: unencodable outgoing message\n");
  transport.sendResult(json::Value(2), json::Object());
  EXPECT_EQ(out.str(), "{\"jsonrpc\":\"2.0\",\"id\":2,\"result\":{}}\n");
}

} // namespace
} // namespace velko::server
