#include "server/Prompts.h"

#include "json/Writer.h"

#include <gtest/gtest.h>

namespace velko::server {
namespace {

std::vector<std::string> paragraphs(std::string_view text) {
  std::vector<std::string> out;
  std::size_t start = 0;
  for (std::size_t at = text.find("\n\n"); at != std::string_view::npos;
       at = text.find("\n\n", start)) {
    out.emplace_back(text.substr(start, at - start));
    start = at + 2;
  }
  out.emplace_back(text.substr(start));
  return out;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

TEST(Prompts, TextsQuoteTheArgumentOrUseTheDefault) {
  EXPECT_TRUE(startsWith(cullWorkflowText("yesterday"),
                         "Help me cull and deliver \"yesterday\" in velko. Drive the app so I SEE "
                         "each step \u2014 don't just describe it."));
  EXPECT_TRUE(startsWith(cullWorkflowText(""), "Help me cull and deliver the photos I mean (ask if "
                                               "it's unclear) in velko. Drive the app"));
  EXPECT_TRUE(startsWith(cullWorkflowText("  "), "Help me cull and deliver \"  \" in velko."));
  EXPECT_TRUE(startsWith(editWorkflowText("warm film"),
                         "Edit the photo I'm working on in velko to achieve \"warm film\". Follow "
                         "this loop exactly \u2014 do not skip steps"));
  EXPECT_TRUE(startsWith(editWorkflowText(""), "Edit the photo I'm working on in velko to achieve "
                                               "the look the user describes. Follow"));
}

// Paragraphs are separated by one blank line and hold no line feed of their own.
TEST(Prompts, TextsAreParagraphsWithoutTrailingNewline) {
  for (const std::string& text :
       {cullWorkflowText("x"), editWorkflowText("x"), std::string(describeWorkflowText())}) {
    SCOPED_TRACE(text.substr(0, 40));
    EXPECT_NE(text.back(), '\n');
    for (const std::string& p : paragraphs(text)) {
      EXPECT_EQ(p.find('\n'), std::string::npos) << p;
      EXPECT_FALSE(p.empty());
    }
  }
}

TEST(Prompts, RenderReadsArgumentsLeniently) {
  struct Case {
    const char* name;
    const char* prompt;
    const char* arguments; // null: no arguments key
    const char* description;
    std::string text;
  } cases[] = {
      {"cull with scope", "velko_cull", R"({"scope":"yesterday"})",
       "Cull and deliver a shoot end-to-end", cullWorkflowText("yesterday")},
      {"cull without arguments", "velko_cull", nullptr, "Cull and deliver a shoot end-to-end",
       cullWorkflowText("")},
      {"cull with arguments not an object", "velko_cull", R"(["yesterday"])",
       "Cull and deliver a shoot end-to-end", cullWorkflowText("")},
      {"edit with a number look", "velko_edit", R"({"look":5})", "Disciplined velko editing loop",
       editWorkflowText("")},
      {"edit with look", "velko_edit", R"({"look":"moody"})", "Disciplined velko editing loop",
       editWorkflowText("moody")},
      {"describe ignores arguments", "velko_describe", R"({"scope":"x"})",
       "Build the AI photo map (batch-describe loop)", std::string(describeWorkflowText())},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<json::Value> args;
    if (c.arguments != nullptr) {
      args = json::parse(c.arguments);
    }
    std::optional<json::Object> rendered = renderPrompt(c.prompt, args ? &*args : nullptr);
    ASSERT_TRUE(rendered);
    json::Object expected;
    expected.emplace("description", c.description);
    expected.emplace(
        "messages",
        json::Array{json::Object{{"role", "user"},
                                 {"content", json::Object{{"type", "text"}, {"text", c.text}}}}});
    EXPECT_EQ(json::toCompact(*rendered), json::toCompact(expected));
  }
  EXPECT_FALSE(renderPrompt("velko_Cull", nullptr));
  EXPECT_FALSE(renderPrompt("", nullptr));
}

} // namespace
} // namespace velko::server
