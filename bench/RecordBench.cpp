// The record path of a tool call, where the assistant waits most: a library.list reply of 100 or
// 500 photos parsed, decoded into its records, and written as the pretty, key-sorted text the
// assistant reads. Bytes per second are of the reply.
#include "json/Codec.h"
#include "json/Value.h"
#include "json/Writer.h"
#include "protocol/LibraryRecords.h"
#include "protocol/Rpc.h"
#include "server/ToolSupport.h"
#include "server/ToolTable.h"
#include "server/Transport.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <malloc.h>
#include <sstream>

namespace {

using namespace velko;

/// A reply line as velko-headless writes it: photos with every field a camera file gives.
std::string listReply(int photos) {
  protocol::ListResult result;
  for (int i = 0; i < photos; ++i) {
    core::PhotoSummary p;
    char id[64];
    std::snprintf(id, sizeof id, "%08X-1C2D-4E5F-8A9B-%012d/L0/001", 0x3A7F0000 + i, i);
    p.id = id;
    p.pixelWidth = 6000;
    p.pixelHeight = 4000;
    p.creationDate = json::Date(std::chrono::seconds(1'700'000'000 + 3600 * i));
    p.modificationDate = json::Date(std::chrono::seconds(1'700'100'000 + 60 * i));
    p.formatLabel = i % 7 == 0 ? "HEIC" : "JPEG";
    p.latitude = 48.856613 + 0.001 * i;
    p.longitude = 2.352222 - 0.0007 * i;
    p.isFavorite = i % 5 == 0;
    p.canEditContent = p.canEditProperties = p.canDelete = true;
    p.hasAdjustments = i % 3 == 0;
    result.photos.push_back(std::move(p));
  }
  result.nextCursor = photos;
  return json::toCompact(
      json::Object{{"jsonrpc", "2.0"}, {"id", 7}, {"result", json::encode(result)}});
}

void BM_ListReplyToText(benchmark::State& state) {
  // As velko-mcp's main sets them: large buffers stay in the heap from call to call.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  const std::string line = listReply(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    // The path of a tool call: the client's untyped reply, then the handler's records and text.
    auto reply = protocol::rpc::decodeResponse(line);
    const auto records = json::decodeAs<protocol::ListResult>(std::get<json::Value>(reply));
    benchmark::DoNotOptimize(server::jsonTextResult(records));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * line.size()));
  state.counters["replyKiB"] = static_cast<double>(line.size()) / 1024;
}
BENCHMARK(BM_ListReplyToText)->Arg(100)->Arg(500)->Unit(benchmark::kMicrosecond);

/// Answers every call with the result of one prepared reply line, decoded as the IPC client
/// decodes what it reads.
class ReplayCaller final : public ipc::Caller {
public:
  explicit ReplayCaller(std::string line) : line_(std::move(line)) {}
  json::Value call(protocol::IPCMethod, const std::optional<json::Value>&) override {
    return std::get<json::Value>(protocol::rpc::decodeResponse(line_));
  }

private:
  std::string line_;
};

/// Calls the tool `name` with `arguments` for as long as the benchmark runs, each call answered
/// with `line`, and writes each result as the server's output line. Bytes per second are of
/// `payload`.
void runToolOnReply(benchmark::State& state, std::string_view name, std::string_view arguments,
                    std::string line, std::size_t payload) {
  // As velko-mcp's main sets them: large buffers stay in the heap from call to call.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  ReplayCaller caller(std::move(line));
  const server::Tool* tool = server::findTool(name);
  const server::ToolArgs args = json::parse(arguments);
  std::ostringstream sink;
  std::ostringstream log;
  server::Transport transport(sink, log);
  for (auto _ : state) {
    transport.sendResult(json::Value(7), tool->invoke(args, caller));
    sink.str(std::string());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * payload));
}

// A preview's way through the server after the reply line is read: decoded, made into the tool
// result, written as the output line. Bytes per second are of the image's base64.
void BM_PreviewReplyToLine(benchmark::State& state) {
  std::string base64(static_cast<std::size_t>(state.range(0)), 'A');
  for (std::size_t i = 0; i < base64.size(); i += 7) {
    base64[i] = "+/09az"[i % 6];
  }
  runToolOnReply(state, "velko_preview_render", R"({"id":"A/L0/001"})",
                 R"({"jsonrpc":"2.0","id":3,"result":{"pngBase64":")" + base64 +
                     R"(","width":1024,"height":683,"appliedStackVersion":3,)"
                     R"("basedOnOriginal":true}})",
                 base64.size());
}
BENCHMARK(BM_PreviewReplyToLine)->Arg(6 << 20)->Unit(benchmark::kMillisecond);

// velko_list's way through the server after the reply line is read, to the output line. Bytes
// per second are of the reply.
void BM_ListReplyToLine(benchmark::State& state) {
  std::string line = listReply(static_cast<int>(state.range(0)));
  const std::size_t size = line.size();
  runToolOnReply(state, "velko_list", R"({"limit":100})", std::move(line), size);
}
BENCHMARK(BM_ListReplyToLine)->Arg(100)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
