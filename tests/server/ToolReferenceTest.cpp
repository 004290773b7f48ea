// docs/tools.md must match what the tool table says now.
#include "server/ToolReference.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace velko::server {
namespace {

constexpr const char* kRegenerate = "cmake --build build --target velko_tool_reference && "
                                    "build/src/server/velko_tool_reference > docs/tools.md";

TEST(ToolReference, DocsFileIsCurrent) {
  std::ifstream file(VELKO_SOURCE_DIR "/docs/tools.md", std::ios::binary);
  ASSERT_TRUE(file) << "docs/tools.md is missing; create it from the source tree with: "
                    << kRegenerate;
  const std::string onDisk{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  EXPECT_TRUE(onDisk == renderToolReference())
      << "docs/tools.md is stale; regenerate it from the source tree with: " << kRegenerate;
}

} // namespace
} // namespace velko::server
