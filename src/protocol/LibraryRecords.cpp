#include "protocol/LibraryRecords.h"

namespace velko::protocol {
namespace {

// The velko_annotate_set arguments with the annotation kept as given, so that it can be read
// by the lenient decoder once the other keys have been checked.
struct AnnotateSetArguments {
  std::string id;
  json::Value annotation;
  std::optional<std::string> model;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("id", &AnnotateSetArguments::id),
                      json::field("annotation", &AnnotateSetArguments::annotation),
                      json::field("model", &AnnotateSetArguments::model)};
  }
};

} // namespace

AnnotateSetParams decodeAssistantAnnotateSet(const json::Value& arguments, const json::Path& path) {
  auto given = json::decodeAs<AnnotateSetArguments>(arguments, path);
  return AnnotateSetParams{
      std::move(given.id),
      core::decodeAssistantAnnotation(given.annotation, path.key("annotation")),
      std::move(given.model)};
}

} // namespace velko::protocol
