#include "server/ToolTable.h"

#include "server/ToolSchemaChecks.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace velko::server {
namespace {

TEST(ToolTable, EveryListedToolHasExactlyOneRow) {
  const std::vector<Tool> rows = collectToolRows();
  std::multiset<std::string_view> names;
  for (const Tool& row : rows) {
    names.insert(row.name);
  }
  for (std::string_view name : kToolOrder) {
    EXPECT_EQ(names.count(name), 1u) << name;
  }
  for (const Tool& row : rows) {
    EXPECT_NE(std::find(kToolOrder.begin(), kToolOrder.end(), row.name), kToolOrder.end())
        << "unlisted row " << row.name;
  }
  EXPECT_EQ(rows.size(), 50u);
}

TEST(ToolTable, ListingOrder) {
  const std::vector<Tool>& table = toolTable();
  ASSERT_EQ(table.size(), 50u);
  const std::vector<std::string_view> names = testing::toolNames(table);
  EXPECT_TRUE(std::equal(names.begin(), names.end(), kToolOrder.begin()));
  EXPECT_EQ(names.front(), "velko_ping");
  EXPECT_EQ(names.back(), "velko_movie_list");
  auto lutList = std::find(names.begin(), names.end(), "velko_lut_list");
  ASSERT_NE(lutList, names.end());
  EXPECT_EQ(*(lutList - 1), "velko_video_commit");
  EXPECT_EQ(*(lutList + 1), "velko_lut");
  EXPECT_EQ(std::set<std::string_view>(names.begin(), names.end()).size(), 50u);
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
