#include "server/Transport.h"

#include "json/Errors.h"
#include "json/Utf8.h"
#include "json/Writer.h"

#include <istream>
#include <ostream>

namespace velko::server {
namespace {


/// `text` with every byte that starts no valid UTF-8 sequence replaced by U+FFFD; absent when
/// the text was valid already.
std::optional<std::string> repairUtf8(std::string_view text) {
  std::string out;
  bool repaired = false;
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t len = json::decodeUtf8(text.substr(i)).length;
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
