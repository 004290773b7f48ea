// Newline framing of the IPC stream: one message per line, no byte but 0x0A is special.
// encodeFrame turns one compact message into one frame; a LineScanner cuts the bytes of one
// connection into frames as they arrive. The size limit bounds only what is still waiting for
// its newline, so a reader never buffers more than kMaxFrameBytes of an unfinished line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace velko::protocol {

/// The largest payload a frame may carry, not counting its newline (8 MiB).
inline constexpr std::int64_t kMaxFrameBytes = 8'388'608;

/// A frame that cannot be sent or an incoming line that grew past the limit.
class FrameError : public std::runtime_error {
public:
  enum class Kind { FrameTooLarge, InteriorNewline };

  /// "frame too large: <n> bytes (limit 8388608)"
  static FrameError frameTooLarge(std::int64_t byteCount);
  /// "frame payload contains a newline"
  static FrameError interiorNewline();

  Kind kind() const { return kind_; }
  /// The offending size for FrameTooLarge; 0 for InteriorNewline.
  std::int64_t byteCount() const { return byteCount_; }

  /// Same kind and, for FrameTooLarge, the same count.
  friend bool operator==(const FrameError& a, const FrameError& b) {
    return a.kind_ == b.kind_ && (a.kind_ != Kind::FrameTooLarge || a.byteCount_ == b.byteCount_);
  }

private:
  FrameError(Kind kind, std::int64_t byteCount, const std::string& text)
      : std::runtime_error(text), kind_(kind), byteCount_(byteCount) {}

  Kind kind_;
  std::int64_t byteCount_;
};

/// `payload` followed by one 0x0A. Throws InteriorNewline if the payload holds a 0x0A (checked
/// first, over the whole payload), FrameTooLarge if it is longer than kMaxFrameBytes.
std::string encodeFrame(std::string_view payload);

/// The incoming state of one connection. Not shared; discard it after it has thrown.
class LineScanner {
public:
  /// Adds the next chunk read from the stream and returns every frame it completed, in stream
  /// order and without their newlines (an empty line is an empty frame). Bytes already searched
  /// are not searched again. Throws FrameTooLarge when the unterminated remainder is longer than
  /// kMaxFrameBytes; the frames completed by this call are then dropped, the remainder is kept.
  std::vector<std::string> append(std::string_view chunk);

  /// The unterminated remainder held for the next call.
  std::string_view buffered() const { return buffer_; }
  std::size_t bufferedBytes() const { return buffer_.size(); }
  /// How many leading bytes of the remainder are known to hold no newline.
  std::size_t scannedBytes() const { return scanned_; }

private:
  std::string buffer_;
  std::size_t scanned_ = 0;
};

} // namespace velko::protocol
