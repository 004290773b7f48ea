// Errors of the JSON layer: one for reading values into records, one for writing text.
#pragma once

#include <stdexcept>

namespace velko::json {

/// A value did not have the shape a record expects, or text was not JSON.
/// The text reads "<key path>: <problem>", for example "annotation.caption: expected a string,
/// found number"; the path is left out when the problem is at the root.
class DecodeError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// A value cannot be written as JSON text: a non-finite number or a string that is not UTF-8.
class EncodeError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

} // namespace velko::json
