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

PhotoAIAnnotation decodeAssistantAnnotation(const json::Value& value, const json::Path& path) {
  const json::Object* given = value.if_object();
  if (given == nullptr) {
    json::failExpected(value, "an object", path);
  }
  // Fill in the omitted fields, then let the strict codec check the rest, so both decoders
  // report a wrong type the same way.
  json::Object filled = *given;
  auto fillIfAbsent = [&filled](std::string_view key, json::Value empty) {
    const json::Value* v = filled.if_contains(key);
    if (v == nullptr || v->is_null()) {
      filled[key] = std::move(empty);
    }
  };
  fillIfAbsent("longDescription", json::String());
  fillIfAbsent("keywords", json::Array());
  fillIfAbsent("subjects", json::Array());
  fillIfAbsent("palette", json::Array());
  return json::decodeAs<PhotoAIAnnotation>(filled, path);
}

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
