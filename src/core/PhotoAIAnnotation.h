// The AI description of one photo: a caption, longer prose, keyword and subject lists and a few
// structured facts. Free-text queries match against its lower-case `searchText`; keyword lists
// from different authors are merged with the case-insensitive `unionOf`.
#pragma once

#include "json/Codec.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velko::core {

enum class PhotoSetting { Indoor, Outdoor, Unknown };

/// Who wrote an annotation: the on-device baseline or an AI model.
enum class AnnotationSource { Vision, Model };

struct PhotoAIAnnotation {
  static constexpr std::int64_t currentSchemaVersion = 1;

  std::string caption; ///< one grounded sentence
  std::string longDescription;
  std::vector<std::string> keywords;
  std::vector<std::string> subjects;
  std::optional<std::string> scene;
  std::optional<PhotoSetting> setting;
  std::optional<std::int64_t> peopleCount;
  std::vector<std::string> palette; ///< dominant colours
  std::optional<double> keeperScore; ///< 0 to 1
  std::optional<std::string> ocrText;

  static constexpr auto jsonFields() {
    using A = PhotoAIAnnotation;
    return std::tuple{json::field("caption", &A::caption),
                      json::field("longDescription", &A::longDescription),
                      json::field("keywords", &A::keywords),
                      json::field("subjects", &A::subjects),
                      json::field("scene", &A::scene),
                      json::field("setting", &A::setting),
                      json::field("peopleCount", &A::peopleCount),
                      json::field("palette", &A::palette),
                      json::field("keeperScore", &A::keeperScore),
                      json::field("ocrText", &A::ocrText)};
  }
  friend bool operator==(const PhotoAIAnnotation&, const PhotoAIAnnotation&) = default;
};

/// Decodes an annotation written by the assistant, which is told to include only the fields it
/// is confident about: a missing or null `longDescription` reads as "" and missing or null
/// `keywords`, `subjects` and `palette` as empty lists. `caption` stays required and every
/// present field is checked as strictly as by the record codec, which the application's own
/// records keep using. Throws json::DecodeError naming the key path.
PhotoAIAnnotation decodeAssistantAnnotation(const json::Value& value, const json::Path& path);

/// Caption, long description, keywords, subjects, scene and OCR text, empty parts dropped,
/// joined by single spaces and lower-cased.
std::string searchText(const PhotoAIAnnotation& annotation);

/// `a` unchanged, then each entry of `b` whose lower-cased form is neither empty nor already
/// present (first-seen spelling wins, order kept).
std::vector<std::string> unionOf(const std::vector<std::string>& a,
                                 const std::vector<std::string>& b);

} // namespace velko::core

namespace velko::json {

template <> struct EnumNames<core::PhotoSetting> {
  using S = core::PhotoSetting;
  static constexpr std::array<std::pair<S, std::string_view>, 3> table = {
      {{S::Indoor, "indoor"}, {S::Outdoor, "outdoor"}, {S::Unknown, "unknown"}}};
};

} // namespace velko::json
