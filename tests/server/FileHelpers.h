// Small file helpers for handler tests that work on real files in temporary folders.
#pragma once

#include "server/Tool.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace velko::server::testing {

/// Writes `content` to `path`, creating its parent folders; returns the path.
inline std::string writeFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline bool fileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::symlink_status(path, ec).type() != std::filesystem::file_type::not_found;
}

/// The names in `folder`, sorted; empty when the folder does not exist.
inline std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// The one text item of a tool result and its error flag.
struct Shown {
  std::string text;
  bool isError;
};

inline Shown shown(const ToolResult& result) {
  const json::Array& content = result.at("content").as_array();
  EXPECT_EQ(content.size(), 1u);
  return {std::string(content.at(0).at("text").as_string()), result.at("isError").as_bool()};
}

} // namespace velko::server::testing
