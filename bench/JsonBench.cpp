// Parsing and writing a reply that carries a multi-megabyte base64 string.
#include "json/Value.h"
#include "json/Writer.h"

#include <benchmark/benchmark.h>

namespace {

std::string base64Payload(std::size_t n) {
  const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string s(n, 'A');
  for (std::size_t i = 0; i < n; ++i) {
    s[i] = alphabet[(i * 2654435761u) % 64];
  }
  return s;
}

std::string replyLine(std::size_t n) {
  return R"({"jsonrpc":"2.0","id":1,"result":{"pngBase64":")" + base64Payload(n) +
         R"(","width":1024,"height":768,"appliedStackVersion":3,"basedOnOriginal":false}})";
}

void BM_ParseReply(benchmark::State& state) {
  const std::string line = replyLine(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(velko::json::parse(line));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_ParseReply)->Arg(6 << 20)->Unit(benchmark::kMillisecond);

void BM_WriteCompact(benchmark::State& state) {
  const velko::json::Value v = velko::json::parse(replyLine(static_cast<std::size_t>(state.range(0))));
  std::string out;
  for (auto _ : state) {
    out.clear();
    velko::json::writeCompact(v, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}
BENCHMARK(BM_WriteCompact)->Arg(6 << 20)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
