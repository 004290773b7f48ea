#include "protocol/FrameCodec.h"

#include <cstring>
#include <utility>

namespace velko::protocol {

FrameError FrameError::frameTooLarge(std::int64_t byteCount) {
  return FrameError(Kind::FrameTooLarge, byteCount,
                    "frame too large: " + std::to_string(byteCount) + " bytes (limit " +
                        std::to_string(kMaxFrameBytes) + ")");
}

FrameError FrameError::interiorNewline() {
  return FrameError(Kind::InteriorNewline, 0, "frame payload contains a newline");
}

std::string encodeFrame(std::string_view payload) {
  if (std::memchr(payload.data(), '\n', payload.size()) != nullptr) {
    throw FrameError::interiorNewline();
  }
  if (payload.size() > static_cast<std::size_t>(kMaxFrameBytes)) {
    throw FrameError::frameTooLarge(static_cast<std::int64_t>(payload.size()));
  }
  std::string frame;
  frame.reserve(payload.size() + 1);
  frame.append(payload);
  frame.push_back('\n');
  return frame;
}

std::vector<std::string> LineScanner::append(std::string_view chunk) {
  buffer_.append(chunk);
  std::vector<std::string> frames;
  std::size_t lineStart = 0;
  std::size_t searchFrom = scanned_;
  while (searchFrom < buffer_.size()) {
    const void* hit = std::memchr(buffer_.data() + searchFrom, '\n', buffer_.size() - searchFrom);
    if (hit == nullptr) {
      break;
    }
    const std::size_t newline =
        static_cast<std::size_t>(static_cast<const char*>(hit) - buffer_.data());
    const std::size_t tail = buffer_.size() - newline - 1;
    if (lineStart == 0 && tail < newline) {
      // A line at the head of the buffer that is longer than what follows it: hand over the
      // buffer itself and keep a copy of the shorter tail, so a big reply is not copied again.
      std::string rest(buffer_, newline + 1);
      buffer_.resize(newline);
      frames.push_back(std::move(buffer_));
      buffer_ = std::move(rest);
      searchFrom = 0;
      continue;
    }
    frames.emplace_back(buffer_, lineStart, newline - lineStart);
    lineStart = newline + 1;
    searchFrom = lineStart;
  }
  if (lineStart > 0) {
    buffer_.erase(0, lineStart);
  }
  scanned_ = buffer_.size();
  if (scanned_ > static_cast<std::size_t>(kMaxFrameBytes)) {
    throw FrameError::frameTooLarge(static_cast<std::int64_t>(scanned_));
  }
  return frames;
}

} // namespace velko::protocol
