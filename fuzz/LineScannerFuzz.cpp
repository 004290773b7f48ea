// Feeds the input to a LineScanner in chunks of fuzzer-chosen sizes and checks that the frames
// and the remainder together give back exactly the bytes that went in, split at every newline.
#include "FuzzCheck.h"
#include "protocol/FrameCodec.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <string>
#include <vector>

using velko::protocol::LineScanner;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider provider(data, size);
  // The chunk sizes come from the front of the input, the stream from the rest.
  std::vector<std::size_t> chunkSizes;
  const std::size_t chunkCount = provider.ConsumeIntegralInRange<std::size_t>(1, 16);
  for (std::size_t i = 0; i < chunkCount; ++i) {
    chunkSizes.push_back(provider.ConsumeIntegralInRange<std::size_t>(0, 64));
  }
  const std::string stream = provider.ConsumeRemainingBytesAsString();

  LineScanner scanner;
  std::string delivered; // every frame followed by its newline, in order
  std::size_t offset = 0;
  for (std::size_t i = 0; offset < stream.size(); ++i) {
    const std::size_t n = i < chunkSizes.size() ? chunkSizes[i] : stream.size() - offset;
    const std::size_t take = std::min(n, stream.size() - offset);
    for (const std::string& frame : scanner.append(std::string_view(stream).substr(offset, take))) {
      velko::fuzz::check(frame.find('\n') == std::string::npos, "a frame holds its newline", frame);
      delivered += frame;
      delivered += '\n';
    }
    offset += take;
    velko::fuzz::check(scanner.scannedBytes() == scanner.bufferedBytes() &&
                           std::memchr(scanner.buffered().data(), '\n', scanner.bufferedBytes()) ==
                               nullptr,
                       "the remainder is not fully searched or holds a newline");
  }
  velko::fuzz::check(delivered + std::string(scanner.buffered()) == stream,
                     "the frames and the remainder do not add up to the input");
  return 0;
}
