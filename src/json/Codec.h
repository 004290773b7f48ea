// Typed encoding and decoding between JSON values and plain records.
//
// Every wire record is an aggregate with one `jsonFields()` list; the generic codecs walk that
// list in both directions, so a key is spelt exactly once. The rules, written here only:
//   - std::optional members are left out when empty and accept a missing key or null;
//   - every other member is required and must not be null;
//   - integers accept only integral JSON numbers, doubles accept any number;
//   - enumerations go through one table each (EnumNames for string names, EnumValues for
//     integer raw values) and reject what the table does not list.
// Types a field list cannot describe specialise Codec<T> in their owning module.
#pragma once

#include "json/Errors.h"
#include "json/Path.h"
#include "json/Value.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace velko::json {

/// Encoding and decoding of one C++ type. Specialisations provide
///   static Value encode(const T&);
///   static void decode(const Value&, T&, const Path&);
template <class T> struct Codec;

template <class T> Value encode(const T& v) { return Codec<T>::encode(v); }

template <class T> void decode(const Value& v, T& out, const Path& path) {
  Codec<T>::decode(v, out, path);
}

template <class T> T decodeAs(const Value& v, const Path& path = Path()) {
  T out{};
  Codec<T>::decode(v, out, path);
  return out;
}

/// Throws DecodeError "<path>: expected <what>, found <kind of v>".
[[noreturn]] void failExpected(const Value& v, std::string_view what, const Path& path);

// ---- Records -------------------------------------------------------------------------------

/// One member of a record's field list: its JSON key and the member it maps to.
template <class C, class M> struct Field {
  std::string_view key;
  M C::*member;
};

template <class C, class M> constexpr Field<C, M> field(std::string_view key, M C::*member) {
  return Field<C, M>{key, member};
}

template <class T>
concept Record = requires { T::jsonFields(); };

template <class T> struct IsOptional : std::false_type {};
template <class T> struct IsOptional<std::optional<T>> : std::true_type {};

template <Record T> struct Codec<T> {
  static Value encode(const T& record) {
    Object obj;
    std::apply([&](const auto&... f) { (encodeField(obj, record, f), ...); }, T::jsonFields());
    return obj;
  }

  static void decode(const Value& v, T& out, const Path& path) {
    const Object* obj = v.if_object();
    if (obj == nullptr) {
      failExpected(v, "an object", path);
    }
    // Writers of these objects, ours included, usually put the keys in field order, so each
    // field first tries the member after the previous field's before searching the object.
    std::size_t next = 0;
    std::apply([&](const auto&... f) { (decodeField(*obj, out, f, path, next), ...); },
               T::jsonFields());
  }

private:
  template <class M> static void encodeField(Object& obj, const T& record, const Field<T, M>& f) {
    const M& member = record.*(f.member);
    if constexpr (IsOptional<M>::value) {
      if (!member) {
        return;
      }
    }
    obj.emplace(f.key, Codec<M>::encode(member));
  }

  template <class M>
  static void decodeField(const Object& obj, T& out, const Field<T, M>& f, const Path& path,
                          std::size_t& next) {
    M& member = out.*(f.member);
    const Value* v = nullptr;
    if (next < obj.size() && obj.begin()[next].key() == f.key) {
      v = &obj.begin()[next].value();
      ++next;
    } else if (const auto it = obj.find(f.key); it != obj.end()) {
      v = &it->value();
      next = static_cast<std::size_t>(it - obj.begin()) + 1;
    }
    if constexpr (IsOptional<M>::value) {
      if (v == nullptr || v->is_null()) {
        member.reset();
        return;
      }
    } else if (v == nullptr) {
      path.key(f.key).fail("missing required key");
    }
    Codec<M>::decode(*v, member, path.key(f.key));
  }
};

// ---- Enumerations ---------------------------------------------------------------------------

/// Specialise with `static constexpr std::array<std::pair<E, std::string_view>, N> table`
/// for an enumeration whose wire form is a string.
template <class E> struct EnumNames;
/// Specialise with `static constexpr std::array<E, N> table` for an enumeration whose wire form
/// is its underlying integer; only the listed values decode.
template <class E> struct EnumValues;

template <class E>
concept NamedEnum = std::is_enum_v<E> && requires { EnumNames<E>::table; };
template <class E>
concept ValuedEnum = std::is_enum_v<E> && requires { EnumValues<E>::table; };

template <NamedEnum E> constexpr std::string_view enumName(E e) {
  for (const auto& [value, name] : EnumNames<E>::table) {
    if (value == e) {
      return name;
    }
  }
  return {};
}

/// Exact, case-sensitive lookup.
template <NamedEnum E> constexpr std::optional<E> enumFromName(std::string_view name) {
  for (const auto& [value, n] : EnumNames<E>::table) {
    if (n == name) {
      return value;
    }
  }
  return std::nullopt;
}

template <ValuedEnum E> constexpr std::optional<E> enumFromValue(std::int64_t raw) {
  for (E e : EnumValues<E>::table) {
    if (static_cast<std::int64_t>(e) == raw) {
      return e;
    }
  }
  return std::nullopt;
}

[[noreturn]] void failUnknownName(std::string_view name, const Path& path);
[[noreturn]] void failUnknownValue(std::int64_t raw, const Path& path);

template <NamedEnum E> struct Codec<E> {
  static Value encode(E e) { return Value(enumName(e)); }
  static void decode(const Value& v, E& out, const Path& path) {
    const String* s = v.if_string();
    if (s == nullptr) {
      failExpected(v, "a string", path);
    }
    std::optional<E> e = enumFromName<E>(std::string_view(*s));
    if (!e) {
      failUnknownName(std::string_view(*s), path);
    }
    out = *e;
  }
};

template <> struct Codec<std::int64_t> {
  static Value encode(std::int64_t v) { return Value(v); }
  static void decode(const Value& v, std::int64_t& out, const Path& path);
};

template <ValuedEnum E> struct Codec<E> {
  static Value encode(E e) { return Value(static_cast<std::int64_t>(e)); }
  static void decode(const Value& v, E& out, const Path& path) {
    std::int64_t raw = 0;
    Codec<std::int64_t>::decode(v, raw, path);
    std::optional<E> e = enumFromValue<E>(raw);
    if (!e) {
      failUnknownValue(raw, path);
    }
    out = *e;
  }
};

// ---- Primitives and containers --------------------------------------------------------------

template <> struct Codec<std::int32_t> {
  static Value encode(std::int32_t v) { return Value(static_cast<std::int64_t>(v)); }
  static void decode(const Value& v, std::int32_t& out, const Path& path);
};

template <> struct Codec<double> {
  static Value encode(double v) { return Value(v); }
  static void decode(const Value& v, double& out, const Path& path);
};

template <> struct Codec<bool> {
  static Value encode(bool v) { return Value(v); }
  static void decode(const Value& v, bool& out, const Path& path);
};

template <> struct Codec<std::string> {
  static Value encode(const std::string& v) { return Value(std::string_view(v)); }
  static void decode(const Value& v, std::string& out, const Path& path);
};

/// A member that keeps whatever JSON it was given.
template <> struct Codec<Value> {
  static Value encode(const Value& v) { return v; }
  static void decode(const Value& v, Value& out, const Path&) { out = v; }
};

template <class T> struct Codec<std::vector<T>> {
  static Value encode(const std::vector<T>& items) {
    Array arr;
    arr.reserve(items.size());
    for (const T& item : items) {
      arr.push_back(Codec<T>::encode(item));
    }
    return arr;
  }
  static void decode(const Value& v, std::vector<T>& out, const Path& path) {
    const Array* arr = v.if_array();
    if (arr == nullptr) {
      failExpected(v, "an array", path);
    }
    out.clear();
    out.resize(arr->size());
    for (std::size_t i = 0; i < arr->size(); ++i) {
      Codec<T>::decode((*arr)[i], out[i], path.index(i));
    }
  }
};

template <class T> struct Codec<std::optional<T>> {
  static Value encode(const std::optional<T>& v) { return v ? Codec<T>::encode(*v) : Value(); }
  static void decode(const Value& v, std::optional<T>& out, const Path& path) {
    if (v.is_null()) {
      out.reset();
      return;
    }
    T inner{};
    Codec<T>::decode(v, inner, path);
    out = std::move(inner);
  }
};

} // namespace velko::json
