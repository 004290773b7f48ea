// Typed values written straight to the pretty, key-sorted text, without building a Value first.
//
// A reply shown to the assistant is a record; encoding it into a Value only to sort and write that
// Value again costs an allocation per member and a sort per object. Here each record type sorts
// its field list's keys once, and members are written from the record itself. The text is
// byte for byte toPretty(encode(v)), and the same EncodeError rules apply.
//
// Types with a hand-written Codec and no PrettyText specialisation are encoded and written as a
// Value, which is always correct, only slower.
#pragma once

#include "json/Codec.h"
#include "json/Date.h"
#include "json/Writer.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <tuple>

namespace velko::json {

template <class T> struct PrettyText {
  static void write(const T& v, PrettyWriter& w, int depth) { w.value(Codec<T>::encode(v), depth); }
};

/// The pretty, key-sorted text of `v`, without a trailing newline.
template <class T> std::string toPrettyText(const T& v) {
  std::string out;
  PrettyWriter w(out);
  PrettyText<T>::write(v, w, 0);
  return out;
}

template <Record T> struct PrettyText<T> {
  static void write(const T& record, PrettyWriter& w, int depth) {
    w.open('{');
    bool first = true;
    const auto fields = T::jsonFields();
    const auto& keys = quotedKeys();
    for (const std::size_t index : kOrder) {
      visit(fields, index,
            [&](const auto& f) { member(record, f, keys[index], w, first, depth); });
    }
    w.close('{', first, depth);
  }

private:
  static constexpr std::size_t kCount = std::tuple_size_v<decltype(T::jsonFields())>;

  static constexpr bool plainKey(std::string_view key) {
    return std::all_of(key.begin(), key.end(), [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
  }
  static_assert(std::apply([](const auto&... f) { return (plainKey(f.key) && ...); },
                           T::jsonFields()),
                "record keys are written without escaping");

  /// Field indices in the order of their keys.
  static constexpr std::array<std::size_t, kCount> kOrder = [] {
    std::array<std::string_view, kCount> keys{};
    std::apply([&](const auto&... f) { keys = {{f.key...}}; }, T::jsonFields());
    std::array<std::size_t, kCount> order{};
    for (std::size_t i = 0; i < kCount; ++i) {
      order[i] = i;
    }
    std::sort(order.begin(), order.end(),
              [&](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });
    return order;
  }();

  template <class Fields, class F, std::size_t I = 0>
  static void visit(const Fields& fields, std::size_t index, F&& fn) {
    if constexpr (I < kCount) {
      if (index == I) {
        fn(std::get<I>(fields));
      } else {
        visit<Fields, F, I + 1>(fields, index, std::forward<F>(fn));
      }
    }
  }

  static std::string quote(std::string_view key) {
    std::string text(1, '"');
    text.append(key);
    text.append("\": ");
    return text;
  }

  /// Each field's key as written, in quotes and followed by ": ", made once per record type.
  static const std::array<std::string, kCount>& quotedKeys() {
    static const auto keys = std::apply(
        [](const auto&... f) {
          return std::array<std::string, kCount>{quote(f.key)...};
        },
        T::jsonFields());
    return keys;
  }

  template <class M>
  static void member(const T& record, const Field<T, M>& f, std::string_view key, PrettyWriter& w,
                     bool& first, int depth) {
    const M& value = record.*(f.member);
    if constexpr (IsOptional<M>::value) {
      if (!value) {
        return;
      }
    }
    w.quotedKey(first, key, depth + 1);
    first = false;
    PrettyText<M>::write(value, w, depth + 1);
  }
};

template <class T> struct PrettyText<std::vector<T>> {
  static void write(const std::vector<T>& items, PrettyWriter& w, int depth) {
    w.open('[');
    for (std::size_t i = 0; i < items.size(); ++i) {
      w.item(i == 0, depth + 1);
      PrettyText<T>::write(items[i], w, depth + 1);
    }
    w.close('[', items.empty(), depth);
  }
};

template <class T> struct PrettyText<std::optional<T>> {
  static void write(const std::optional<T>& v, PrettyWriter& w, int depth) {
    if (v) {
      PrettyText<T>::write(*v, w, depth);
    } else {
      w.null();
    }
  }
};

template <> struct PrettyText<Value> {
  static void write(const Value& v, PrettyWriter& w, int depth) { w.value(v, depth); }
};

template <> struct PrettyText<std::string> {
  static void write(const std::string& s, PrettyWriter& w, int) { w.string(s); }
};

template <> struct PrettyText<bool> {
  static void write(bool b, PrettyWriter& w, int) { w.boolean(b); }
};

template <> struct PrettyText<double> {
  static void write(double d, PrettyWriter& w, int) { w.number(d); }
};

template <> struct PrettyText<std::int64_t> {
  static void write(std::int64_t n, PrettyWriter& w, int) { w.integer(n); }
};

template <> struct PrettyText<std::int32_t> {
  static void write(std::int32_t n, PrettyWriter& w, int) { w.integer(n); }
};

template <NamedEnum E> struct PrettyText<E> {
  static void write(E e, PrettyWriter& w, int) { w.string(enumName(e)); }
};

template <ValuedEnum E> struct PrettyText<E> {
  static void write(E e, PrettyWriter& w, int) { w.integer(static_cast<std::int64_t>(e)); }
};

template <> struct PrettyText<Date> {
  static void write(Date d, PrettyWriter& w, int) { w.string(formatDate(d)); }
};

} // namespace velko::json
