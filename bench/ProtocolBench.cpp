// The protocol layer on the largest replies it sees: an 8 MiB line arriving in 64 KiB reads,
// and a preview reply carrying a 6 MiB base64 image decoded into its record.
#include "json/Codec.h"
#include "protocol/FrameCodec.h"
#include "protocol/Rpc.h"

#include <benchmark/benchmark.h>

namespace {

using namespace velko;

// The shape of the preview.render result.
struct PreviewReply {
  std::string pngBase64;
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::int64_t appliedStackVersion = 0;
  bool basedOnOriginal = false;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("pngBase64", &PreviewReply::pngBase64),
                      json::field("width", &PreviewReply::width),
                      json::field("height", &PreviewReply::height),
                      json::field("appliedStackVersion", &PreviewReply::appliedStackVersion),
                      json::field("basedOnOriginal", &PreviewReply::basedOnOriginal)};
  }
};

std::string base64Payload(std::size_t n) {
  const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string s(n, 'A');
  for (std::size_t i = 0; i < n; ++i) {
    s[i] = alphabet[(i * 2654435761u) % 64];
  }
  return s;
}

void BM_LineScannerChunked(benchmark::State& state) {
  const std::size_t chunkBytes = 64 << 10;
  std::string stream = base64Payload(static_cast<std::size_t>(protocol::kMaxFrameBytes));
  stream.push_back('\n');
  for (auto _ : state) {
    protocol::LineScanner scanner;
    std::size_t frames = 0;
    for (std::size_t at = 0; at < stream.size(); at += chunkBytes) {
      frames += scanner.append(std::string_view(stream).substr(at, chunkBytes)).size();
    }
    benchmark::DoNotOptimize(frames);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_LineScannerChunked)->Unit(benchmark::kMillisecond);

void BM_DecodePreviewResponse(benchmark::State& state) {
  const std::string line = R"({"jsonrpc":"2.0","id":1,"result":{"pngBase64":")" +
                           base64Payload(6u << 20) +
                           R"(","width":1024,"height":768,"appliedStackVersion":3,)"
                           R"("basedOnOriginal":false}})";
  for (auto _ : state) {
    auto outcome = protocol::rpc::decodeResponse<PreviewReply>(line);
    benchmark::DoNotOptimize(std::get_if<PreviewReply>(&outcome));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_DecodePreviewResponse)->Unit(benchmark::kMillisecond);

// The path the client takes: untyped decode, then the record from the result value.
void BM_DecodePreviewThroughValue(benchmark::State& state) {
  const std::string line = R"({"jsonrpc":"2.0","id":1,"result":{"pngBase64":")" +
                           base64Payload(6u << 20) +
                           R"(","width":1024,"height":768,"appliedStackVersion":3,)"
                           R"("basedOnOriginal":false}})";
  for (auto _ : state) {
    auto outcome = protocol::rpc::decodeResponse(line);
    auto reply = json::decodeAs<PreviewReply>(std::get<json::Value>(outcome), json::Path("result"));
    benchmark::DoNotOptimize(reply.pngBase64.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_DecodePreviewThroughValue)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
