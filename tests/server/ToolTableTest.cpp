#include "server/ToolTable.h"

#include "server/ToolSchemaChecks.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace velko::server {
namespace {

TEST(ToolTable, EveryListedToolHasExactlyOneRowInListingOrder) {
  std::multiset<std::string_view> names;
  for (const Tool& row : collectToolRows()) {
    names.insert(row.name);
  }
  EXPECT_EQ(names, std::multiset<std::string_view>(kToolOrder.begin(), kToolOrder.end()));

  const std::vector<std::string_view> ordered = testing::toolNames(toolTable());
  ASSERT_EQ(ordered.size(), 50u);
  EXPECT_TRUE(std::equal(ordered.begin(), ordered.end(), kToolOrder.begin()));
  EXPECT_EQ(ordered.front(), "velko_ping");
  auto lutList = std::find(ordered.begin(), ordered.end(), "velko_lut_list");
  ASSERT_NE(lutList, ordered.end());
  EXPECT_EQ(*(lutList - 1), "velko_video_commit");
}

TEST(ToolTable, EverySchemaFollowsTheConventions) {
  for (const Tool& tool : toolTable()) {
    testing::expectSchemaFollowsConventions(tool);
    EXPECT_FALSE(tool.description.empty()) << tool.name;
    EXPECT_TRUE(tool.invoke) << tool.name;
  }
}

TEST(ToolTable, OrderingDropsUnlistedAndRepeatedRows) {
  auto row = [](std::string_view name, std::string_view description) {
    return Tool{name, description, json::Object(), {}};
  };
  std::vector<Tool> rows;
  rows.push_back(row("velko_list", "first list"));
  rows.push_back(row("velko_other", "unlisted"));
  rows.push_back(row("velko_ping", "ping"));
  rows.push_back(row("velko_list", "second list"));
  const std::vector<Tool> table = orderToolRows(std::move(rows));
  ASSERT_EQ(table.size(), 2u);
  EXPECT_EQ(table[0].name, "velko_ping");
  EXPECT_EQ(table[1].description, "first list");
}

} // namespace
} // namespace velko::server
