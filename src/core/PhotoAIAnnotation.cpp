#include "core/PhotoAIAnnotation.h"

#include <algorithm>
#include <unordered_set>

namespace velko::core {
namespace {

std::string lowered(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
  });
  return out;
}

} // namespace

std::string searchText(const PhotoAIAnnotation& a) {
  std::string out;
  auto add = [&out](const std::string& part) {
    if (part.empty()) {
      return;
    }
    if (!out.empty()) {
      out += ' ';
    }
    out += part;
  };
  add(a.caption);
  add(a.longDescription);
  std::for_each(a.keywords.begin(), a.keywords.end(), add);
  std::for_each(a.subjects.begin(), a.subjects.end(), add);
  if (a.scene) {
    add(*a.scene);
  }
  if (a.ocrText) {
    add(*a.ocrText);
  }
  return lowered(out);
}

std::vector<std::string> unionOf(const std::vector<std::string>& a,
                                 const std::vector<std::string>& b) {
  std::vector<std::string> result = a;
  std::unordered_set<std::string> seen;
  for (const std::string& s : a) {
    seen.insert(lowered(s));
  }
  for (const std::string& s : b) {
    std::string key = lowered(s);
    if (key.empty() || !seen.insert(std::move(key)).second) {
      continue;
    }
    result.push_back(s);
  }
  return result;
}

} // namespace velko::core
