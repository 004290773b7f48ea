// Standard base64 (RFC 4648 alphabet, "=" padding, no line breaks).
#pragma once

#include <string>
#include <string_view>

namespace velko::server {

std::string base64Encode(std::string_view bytes);

} // namespace velko::server
