// Key paths for decode errors. A Path is a chain of stack values, one per nesting level, so
// walking into a member costs nothing; the text is only built when a decode error is thrown.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace velko::json {

class Path {
public:
  /// A root named `root` ("arguments", "result"); an empty root leaves paths unprefixed.
  explicit Path(std::string_view root = {}) : segment_(root) {}

  /// The member `key` of this path; `key` must outlive the returned path.
  Path key(std::string_view key) const { return Path(this, key); }
  /// The element `i` of this path.
  Path index(std::size_t i) const { return Path(this, i); }

  /// "arguments.ops[2].value"; empty for an unnamed root.
  std::string str() const;

  /// Throws DecodeError "<path>: <problem>" (just the problem at an unnamed root).
  [[noreturn]] void fail(std::string_view problem) const;

private:
  Path(const Path* parent, std::string_view key) : parent_(parent), segment_(key) {}
  Path(const Path* parent, std::size_t i) : parent_(parent), index_(i), isIndex_(true) {}
  void append(std::string& out) const;

  const Path* parent_ = nullptr;
  std::string_view segment_;
  std::size_t index_ = 0;
  bool isIndex_ = false;
};

} // namespace velko::json
