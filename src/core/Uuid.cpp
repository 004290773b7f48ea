#include "core/Uuid.h"

#include <cstring>
#include <uuid/uuid.h>

namespace velko::core {

Uuid Uuid::random() {
  uuid_t raw;
  uuid_generate_random(raw);
  std::array<std::uint8_t, 16> bytes;
  std::memcpy(bytes.data(), raw, bytes.size());
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  // uuid_parse wants a terminated string of exactly 36 characters and accepts either case.
  if (text.size() != 36) {
    return std::nullopt;
  }
  char buf[37];
  std::memcpy(buf, text.data(), 36);
  buf[36] = '\0';
  uuid_t raw;
  if (uuid_parse(buf, raw) != 0) {
    return std::nullopt;
  }
  std::array<std::uint8_t, 16> bytes;
  std::memcpy(bytes.data(), raw, bytes.size());
  return Uuid(bytes);
}

std::string Uuid::str() const {
  uuid_t raw;
  std::memcpy(raw, bytes_.data(), bytes_.size());
  char buf[37];
  uuid_unparse_upper(raw, buf);
  return std::string(buf, 36);
}

} // namespace velko::core

namespace velko::json {

Value Codec<core::Uuid>::encode(const core::Uuid& id) {
  return Value(id.str());
}

void Codec<core::Uuid>::decode(const Value& v, core::Uuid& out, const Path& path) {
  const String* s = v.if_string();
  if (s == nullptr) {
    failExpected(v, "a UUID string", path);
  }
  std::optional<core::Uuid> id = core::Uuid::parse(std::string_view(*s));
  if (!id) {
    path.fail("expected a UUID, found \"" + std::string(std::string_view(*s)) + "\"");
  }
  out = *id;
}

} // namespace velko::json
