// docs/tools.md must match what the tool table says now.
#include "server/ToolReference.h"

#include "server/ToolTable.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace velko::server {
namespace {

constexpr const char* kRegenerate = "cmake --build build --target velko_tool_reference && "
                                    "build/tests/server/velko_tool_reference > docs/tools.md";

TEST(ToolReference, DocsFileIsCurrent) {
  std::ifstream file(VELKO_SOURCE_DIR "/docs/tools.md", std::ios::binary);
  ASSERT_TRUE(file) << "docs/tools.md is missing; create it from the source tree with: "
                    << kRegenerate;
  const std::string onDisk{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  EXPECT_TRUE(onDisk == renderToolReference())
      << "docs/tools.md is stale; regenerate it from the source tree with: " << kRegenerate;
}

TEST(ToolReference, ListsEveryToolWithItsRequiredArguments) {
  const std::string text = renderToolReference();
  EXPECT_NE(text.find("## Tools (50)"), std::string::npos);
  EXPECT_NE(text.find("## Prompts (3)"), std::string::npos);
  for (const Tool& tool : toolTable()) {
    EXPECT_NE(text.find("### " + std::string(tool.name) + "\n"), std::string::npos) << tool.name;
  }
  EXPECT_NE(text.find("| `ids` | array of string | yes |"), std::string::npos);
  EXPECT_NE(text.find("| `limit` | integer 1\u201350 | no |"), std::string::npos);
}

} // namespace
} // namespace velko::server
