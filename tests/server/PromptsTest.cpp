#include "server/Prompts.h"

#include "json/Writer.h"

#include <gtest/gtest.h>

namespace velko::server {
namespace {

// The text quotes the argument, or says what to do without it; arguments of the wrong shape count
// as absent. The descriptions are pinned by docs/tools.md, the message's form by clients.session.
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
      {"velko_edit", R"({"look":"warm film"})",
       "Edit the photo I'm working on in velko to achieve \"warm film\". Follow this loop exactly "
       "\u2014 do not skip steps"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.prompt) + " " + (c.arguments ? c.arguments : "(none)"));
    std::optional<json::Value> args;
    if (c.arguments != nullptr) {
      args = json::parse(c.arguments);
    }
    std::optional<json::Object> rendered = renderPrompt(c.prompt, args ? &*args : nullptr);
    ASSERT_TRUE(rendered);
    const std::string text(rendered->at("messages").at(0).at("content").at("text").as_string());
    EXPECT_EQ(text.rfind(c.opening, 0), 0u) << text.substr(0, 120);
  }
  EXPECT_FALSE(renderPrompt("velko_Cull", nullptr));
}

} // namespace
} // namespace velko::server
