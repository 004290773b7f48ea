#include "json/Writer.h"

#include "json/Errors.h"
#include "json/Utf8.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velko::json {
namespace {

/// ASCII bytes written as they are in both forms ("/" is escaped in the pretty one only).
constexpr auto kPlainAscii = [] {
  std::array<bool, 0x80> plain{};
  for (int c = 0x20; c < 0x80; ++c) {
    plain[static_cast<std::size_t>(c)] = c != '"' && c != '\\' && c != '/';
  }
  return plain;
}();

/// The letter after the backslash of each ASCII byte's escape; 'u' for \u00XX. Only bytes that
/// plainRun stops at are looked up.
constexpr auto kEscapes = [] {
  std::array<char, 0x80> escapes{};
  for (int c = 0; c < 0x20; ++c) {
    escapes[static_cast<std::size_t>(c)] = 'u';
  }
  escapes['\n'] = 'n';
  escapes['\r'] = 'r';
  escapes['\t'] = 't';
  escapes['\b'] = 'b';
  escapes['\f'] = 'f';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  escapes['/'] = '/';
  return escapes;
}();

constexpr char kHex[] = "0123456789abcdef";

#if defined(__SSE2__)
/// How many bytes at the start of `p` need neither an escape nor a UTF-8 check, looking at whole
/// 16-byte blocks only: a multi-megabyte base64 payload goes through at close to memory speed.
std::size_t plainPrefix(const unsigned char* p, std::size_t n, bool escapeSolidus) {
  std::size_t i = 0;
  while (i + 16 <= n) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
    // A signed compare: bytes from 0x80 up are negative, so they count as special along with
    // the control characters.
    __m128i special = _mm_or_si128(_mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20)),
                                   _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                                                _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))));
    if (escapeSolidus) {
      special = _mm_or_si128(special, _mm_cmpeq_epi8(bytes, _mm_set1_epi8('/')));
    }
    if (const auto mask = static_cast<unsigned>(_mm_movemask_epi8(special)); mask != 0) {
      return i + static_cast<std::size_t>(__builtin_ctz(mask));
    }
    i += 16;
  }
  return i;
}
#endif


class TextWriter {
public:
  TextWriter(std::string& out, bool pretty) : out_(out), pretty_(pretty) {}

  void value(const Value& v, int depth) {
    switch (v.kind()) {
    case boost::json::kind::null:
      out_ += "null";
      return;
    case boost::json::kind::bool_:
      out_ += v.get_bool() ? "true" : "false";
      return;
    case boost::json::kind::int64:
      number(v.get_int64());
      return;
    case boost::json::kind::uint64:
      number(v.get_uint64());
      return;
    case boost::json::kind::double_:
      number(v.get_double());
      return;
    case boost::json::kind::string: {
      const String& s = v.get_string();
      string(std::string_view(s.data(), s.size()));
      return;
    }
    case boost::json::kind::array:
      array(v.get_array(), depth);
      return;
    case boost::json::kind::object:
      object(v.get_object(), depth);
      return;
    }
  }

  /// How many bytes at the start of `p` are copied as they are: ASCII that needs no escape.
  std::size_t plainRun(const unsigned char* p, std::size_t n) const {
    std::size_t i = 0;
#if defined(__SSE2__)
    i = plainPrefix(p, n, pretty_);
    if (i + 16 <= n) {
      return i; // the SIMD scan stopped at a byte that needs attention
    }
#endif
    while (i < n && p[i] < 0x80 && (kPlainAscii[p[i]] || (p[i] == '/' && !pretty_))) {
      ++i;
    }
    return i;
  }

  void string(std::string_view s) {
    out_.reserve(out_.size() + s.size() + 2);
    out_ += '"';
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const std::size_t n = s.size();
    std::size_t runStart = 0; // the first byte not yet copied to out_
    std::size_t i = 0;
    for (;;) {
      i += plainRun(p + i, n - i);
      if (i == n) {
        break;
      }
      const unsigned char c = p[i];
      if (c >= 0x80) {
        const std::size_t len = decodeUtf8(s.substr(i)).length;
        if (len == 0) {
          throw EncodeError("string is not valid UTF-8");
        }
        i += len;
        continue;
      }
      out_.append(s.data() + runStart, i - runStart);
      const char escape[6] = {'\\', kEscapes[c], '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      out_.append(escape, kEscapes[c] == 'u' ? 6 : 2);
      runStart = ++i;
    }
    out_.append(s.data() + runStart, n - runStart);
    out_ += '"';
  }

  template <class N> void number(N n) {
    if constexpr (std::is_floating_point_v<N>) {
      if (!std::isfinite(n)) {
        throw EncodeError("non-finite number");
      }
    }
    char buf[32];
    auto res = std::to_chars(buf, buf + sizeof buf, n);
    out_.append(buf, res.ptr);
  }

  void newline(int depth) {
    // A line feed and up to 32 levels of indentation in one copy.
    static constexpr std::string_view kIndented =
        "\n                                                                ";
    const std::size_t width = static_cast<std::size_t>(depth) * 2;
    if (width < kIndented.size()) {
      out_.append(kIndented.data(), width + 1);
    } else {
      out_ += '\n';
      out_.append(width, ' ');
    }
  }

private:
  void array(const Array& arr, int depth) {
    if (arr.empty()) {
      out_ += "[]";
      return;
    }
    out_ += '[';
    bool first = true;
    for (const Value& item : arr) {
      if (!first) {
        out_ += ',';
      }
      first = false;
      if (pretty_) {
        newline(depth + 1);
      }
      value(item, depth + 1);
    }
    if (pretty_) {
      newline(depth);
    }
    out_ += ']';
  }

  void member(std::string_view key, const Value& v, int depth) {
    string(key);
    out_ += pretty_ ? ": " : ":";
    value(v, depth);
  }

  void object(const Object& obj, int depth) {
    if (obj.empty()) {
      out_ += "{}";
      return;
    }
    out_ += '{';
    if (pretty_) {
      std::vector<const boost::json::key_value_pair*> members;
      members.reserve(obj.size());
      for (const auto& kv : obj) {
        members.push_back(&kv);
      }
      std::sort(members.begin(), members.end(),
                [](const auto* a, const auto* b) { return a->key() < b->key(); });
      for (std::size_t i = 0; i < members.size(); ++i) {
        out_ += i == 0 ? "" : ",";
        newline(depth + 1);
        member(members[i]->key(), members[i]->value(), depth + 1);
      }
      newline(depth);
    } else {
      bool first = true;
      for (const auto& kv : obj) {
        if (!first) {
          out_ += ',';
        }
        first = false;
        member(kv.key(), kv.value(), depth);
      }
    }
    out_ += '}';
  }

  std::string& out_;
  bool pretty_;
};

} // namespace

void writeCompact(const Value& v, std::string& out) { TextWriter(out, false).value(v, 0); }

std::string toCompact(const Value& v) {
  std::string out;
  writeCompact(v, out);
  return out;
}

std::string toPretty(const Value& v) {
  std::string out;
  TextWriter(out, true).value(v, 0);
  return out;
}

void PrettyWriter::value(const Value& v, int depth) { TextWriter(out_, true).value(v, depth); }
void PrettyWriter::string(std::string_view s) { TextWriter(out_, true).string(s); }
void PrettyWriter::integer(std::int64_t n) { TextWriter(out_, true).number(n); }
void PrettyWriter::number(double d) { TextWriter(out_, true).number(d); }
void PrettyWriter::newline(int depth) { TextWriter(out_, true).newline(depth); }

void PrettyWriter::close(char bracket, bool empty, int depth) {
  if (!empty) {
    newline(depth);
  }
  out_ += bracket == '{' ? '}' : ']';
}

void PrettyWriter::item(bool first, int depth) {
  if (!first) {
    out_ += ',';
  }
  newline(depth);
}

void PrettyWriter::key(bool first, std::string_view key, int depth) {
  item(first, depth);
  string(key);
  out_ += ": ";
}

void PrettyWriter::quotedKey(bool first, std::string_view quoted, int depth) {
  item(first, depth);
  out_ += quoted;
}

} // namespace velko::json
