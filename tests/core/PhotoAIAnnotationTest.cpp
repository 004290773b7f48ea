#include "core/PhotoAIAnnotation.h"

#include <gtest/gtest.h>

namespace velko::core {
namespace {

TEST(PhotoAIAnnotation, AssistantAnnotationErrorsNameTheKeyPath) {
  struct Case {
    const char* name;
    const char* json;
    const char* message;
  } cases[] = {
      {"caption stays required", R"({"keywords":["dog"]})",
       "arguments.annotation.caption: missing required key"},
      {"unknown setting", R"({"caption":"c","setting":"Indoor"})",
       "arguments.annotation.setting: unknown value \"Indoor\""},
      {"not an object", R"("a dog")", "arguments.annotation: expected an object, found string"},
  };
  const json::Path root("arguments");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      decodeAssistantAnnotation(json::parse(c.json), root.key("annotation"));
      ADD_FAILURE() << "decoded without error";
    } catch (const json::DecodeError& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
}

} // namespace
} // namespace velko::core
