#pragma once

#include "json/Codec.h"
#include "json/Writer.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace velko::protocol::testing {

// Decodes `text` into T and compares with `expected`, then encodes `expected` and compares with
// `text` character for character, so a mistyped key or a wrong key order shows up.
template <class T> void expectGolden(const char* name, const std::string& text, const T& expected) {
  SCOPED_TRACE(name);
  EXPECT_EQ(json::decodeAs<T>(json::parse(text)), expected);
  EXPECT_EQ(json::toCompact(json::encode(expected)), text);
}

/// The DecodeError message of decoding `text` as T from `root`, or "decoded without error".
template <class T> std::string decodeError(const std::string& text, const char* root = "") {
  try {
    json::decodeAs<T>(json::parse(text), json::Path(root));
  } catch (const json::DecodeError& e) {
    return e.what();
  }
  return "decoded without error";
}

} // namespace velko::protocol::testing
