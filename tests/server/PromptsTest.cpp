#include "server/Prompts.h"

#include "json/Writer.h"

#include <gtest/gtest.h>

namespace velko::server {
namespace {

// One user message whose text quotes the argument, or says what to do without it; arguments of
// the wrong shape count as absent. The descriptions are pinned by docs/tools.md.
TEST(Prompts, RenderQuotesTheArgumentOrUsesTheDefault) {
  struct Case {
    const char* prompt;
    const char* arguments; // null: no arguments key
    const char* opening;
  } cases[] = {
      {"velko_cull", R"({"scope":"yesterday"})",
       "Help me cull and deliver \"yesterday\" in velko. Drive the app so I SEE each step \u2014 "
       "don't just describe it."},
      {"velko_cull", nullptr,
       "Help me cull and deliver the photos I mean (ask if it's unclear) in velko. Drive the app"},
      {"velko_cull", R"(["yesterday"])", "Help me cull and deliver the photos I mean (ask if"},
      {"velko_cull", R"({"scope":"  "})", "Help me cull and deliver \"  \" in velko."},
      {"velko_edit", R"({"look":"warm film"})",
       "Edit the photo I'm working on in velko to achieve \"warm film\". Follow this loop exactly "
       "\u2014 do not skip steps"},
      {"velko_edit", R"({"look":5})",
       "Edit the photo I'm working on in velko to achieve the look the user describes. Follow"},
      {"velko_describe", R"({"scope":"x"})", "Build the AI photo map: give every photo"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.prompt) + " " + (c.arguments ? c.arguments : "(none)"));
    std::optional<json::Value> args;
    if (c.arguments != nullptr) {
      args = json::parse(c.arguments);
    }
    std::optional<json::Object> rendered = renderPrompt(c.prompt, args ? &*args : nullptr);
    ASSERT_TRUE(rendered);
    const json::Array& messages = rendered->at("messages").as_array();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].at("role"), "user");
    EXPECT_EQ(messages[0].at("content").at("type"), "text");
    const std::string text(messages[0].at("content").at("text").as_string());
    EXPECT_EQ(text.rfind(c.opening, 0), 0u) << text.substr(0, 120);
  }
  EXPECT_FALSE(renderPrompt("velko_Cull", nullptr));
  EXPECT_FALSE(renderPrompt("", nullptr));
}

// Paragraphs are separated by one blank line and hold no line feed of their own.
TEST(Prompts, TextsAreParagraphsWithoutTrailingNewline) {
  for (const std::string& text :
       {cullWorkflowText("x"), editWorkflowText("x"), std::string(describeWorkflowText())}) {
    SCOPED_TRACE(text.substr(0, 40));
    EXPECT_NE(text.back(), '\n');
    std::size_t start = 0;
    for (std::size_t end = 0; end != std::string::npos; start = end + 2) {
      end = text.find("\n\n", start);
      const std::string paragraph = text.substr(start, end - start);
      EXPECT_FALSE(paragraph.empty());
      EXPECT_EQ(paragraph.find('\n'), std::string::npos) << paragraph;
    }
  }
}

} // namespace
} // namespace velko::server
