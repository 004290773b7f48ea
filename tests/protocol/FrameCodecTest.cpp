#include "protocol/FrameCodec.h"
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velko::protocol {
namespace {

/// Matches a call that throws exactly `error`.
auto throwsError(const FrameError& error) {
  return ::testing::Throws<FrameError>(::testing::Eq(error));
}

TEST(FrameCodec, EncodeAppendsOneNewlineWithinTheLimit) {
  EXPECT_EQ(encodeFrame("{\"a\":1}\r"), "{\"a\":1}\r\n");
  const std::string atLimit(kMaxFrameBytes, 'a');
  EXPECT_EQ(encodeFrame(atLimit).size(), atLimit.size() + 1);

  std::string overLimit(kMaxFrameBytes + 1, 'a');
  const auto encodeOverLimit = [&] { encodeFrame(overLimit); };
  EXPECT_THAT(encodeOverLimit, throwsError(FrameError::frameTooLarge(8388609)));
  EXPECT_THAT(encodeOverLimit, ::testing::ThrowsMessage<FrameError>(
                                   "frame too large: 8388609 bytes (limit 8388608)"));

  EXPECT_THAT([] { encodeFrame("a\nb"); }, throwsError(FrameError::interiorNewline()));
  // The newline test runs first, over the whole payload.
  overLimit.back() = '\n';
  EXPECT_THAT(encodeOverLimit, throwsError(FrameError::interiorNewline()));
}

// fuzz_line_scanner checks the splitting for any chunking, and the client's hostile-application
// test a reply at and one byte past the limit.
TEST(FrameCodec, ScannerLimitsOnlyTheUnterminatedRemainder) {
  // A line far past the limit whose newline is in the same chunk is returned whole.
  const std::string nineMiB(9u << 20, 'z');
  LineScanner scanner;
  const std::vector<std::string> frames = scanner.append(nineMiB + "\n");
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].size(), nineMiB.size());

  // A completed line in the chunk that overflows is consumed with the error; the remainder stays.
  LineScanner dropping;
  const std::string overflowing = "done\n" + std::string(kMaxFrameBytes + 10, 'r');
  EXPECT_THAT([&] { dropping.append(overflowing); },
              throwsError(FrameError::frameTooLarge(kMaxFrameBytes + 10)));
  EXPECT_EQ(dropping.bufferedBytes(), static_cast<std::size_t>(kMaxFrameBytes + 10));
  EXPECT_EQ(dropping.scannedBytes(), dropping.bufferedBytes());
}

} // namespace
} // namespace velko::protocol
