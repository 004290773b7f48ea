#include "server/Transport.h"

#include "json/Errors.h"
#include "json/Writer.h"

#include <istream>
#include <ostream>

namespace velko::server {
namespace {

/// Length of the valid UTF-8 sequence at the start of `s`, or 0 when it is not one.
std::size_t utf8SequenceLength(std::string_view s) {
  const auto c = static_cast<unsigned char>(s[0]);
  if (c < 0x80) {
    return 1;
  }
  std::size_t len = 0;
  std::uint32_t cp = 0;
  std::uint32_t min = 0;
  if (c >= 0xC2 && c <= 0xDF) {
    len = 2, cp = c & 0x1F, min = 0x80;
  } else if (c >= 0xE0 && c <= 0xEF) {
    len = 3, cp = c & 0x0F, min = 0x800;
  } else if (c >= 0xF0 && c <= 0xF4) {
    len = 4, cp = c & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (len > s.size()) {
    return 0;
  }
  for (std::size_t i = 1; i < len; ++i) {
    const auto b = static_cast<unsigned char>(s[i]);
    if ((b & 0xC0) != 0x80) {
      return 0;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    return 0;
  }
  return len;
}

/// `text` with every byte that starts no valid UTF-8 sequence replaced by U+FFFD; absent when
/// the text was valid already.
std::optional<std::string> repairUtf8(std::string_view text) {
  std::string out;
  bool repaired = false;
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t len = utf8SequenceLength(text.substr(i));
    if (len == 0) {
      out += "\xEF\xBF\xBD";
      repaired = true;
      ++i;
    } else {
      out.append(text.substr(i, len));
      i += len;
    }
  }
  if (!repaired) {
    return std::nullopt;
  }
  return out;
}

std::optional<json::Value> parseValue(std::string_view text) {
  try {
    return json::parse(text);
  } catch (const json::DecodeError&) {
    return std::nullopt;
  }
}

} // namespace

bool readLine(std::istream& in, std::string& line) {
  if (!std::getline(in, line)) {
    return false;
  }
  // Only a terminated line can end in "\r\n"; a lone "\r" at the end of input is kept.
  if (!in.eof() && !line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return true;
}

std::optional<json::Object> parseMessage(std::string_view line) {
  std::optional<json::Value> v = parseValue(line);
  if (!v) {
    if (std::optional<std::string> repaired = repairUtf8(line)) {
      v = parseValue(*repaired);
    }
  }
  if (!v || !v->is_object()) {
    return std::nullopt;
  }
  return std::move(v->get_object());
}

json::Value resultMessage(const json::Value& id, json::Object result) {
  json::Object message;
  message.emplace("jsonrpc", "2.0");
  message.emplace("id", id);
  message.emplace("result", std::move(result));
  return message;
}

json::Value errorMessage(const json::Value& id, std::int64_t code, std::string_view text) {
  json::Object error;
  error.emplace("code", code);
  error.emplace("message", text);
  json::Object message;
  message.emplace("jsonrpc", "2.0");
  message.emplace("id", id);
  message.emplace("error", std::move(error));
  return message;
}

void Transport::logErr(std::string_view message) {
  std::string line = "velko-mcp: ";
  line += message;
  line += '\n';
  log_.write(line.data(), static_cast<std::streamsize>(line.size()));
  log_.flush();
}

void Transport::sendMessage(const json::Value& message) {
  buffer_.clear();
  try {
    json::writeCompact(message, buffer_);
  } catch (const json::EncodeError&) {
    logErr("FATAL: unencodable outgoing message");
    return;
  }
  buffer_ += '\n';
  out_.write(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
  out_.flush();
}

} // namespace velko::server
