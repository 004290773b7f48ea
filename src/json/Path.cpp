#include "json/Path.h"

#include "json/Errors.h"

namespace velko::json {

void Path::append(std::string& out) const {
  if (parent_ != nullptr) {
    parent_->append(out);
  }
  if (isIndex_) {
    out += '[';
    out += std::to_string(index_);
    out += ']';
  } else if (!segment_.empty()) {
    if (!out.empty()) {
      out += '.';
    }
    out += segment_;
  }
}

std::string Path::str() const {
  std::string out;
  append(out);
  return out;
}

void Path::fail(std::string_view problem) const {
  std::string text = str();
  if (!text.empty()) {
    text += ": ";
  }
  text += problem;
  throw DecodeError(text);
}

} // namespace velko::json
