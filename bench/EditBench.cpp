// Edit-model costs on the paths the application and the tools take: reading and writing a full
// stored stack (every kind set, 20 masks) and applying a 50-operation patch.
#include "core/EditPatch.h"
#include "core/EditStack.h"
#include "json/Value.h"
#include "json/Writer.h"

#include <benchmark/benchmark.h>

namespace {

using namespace velko;
using core::AdjustmentKind;

const json::Date kAt =
    json::Date(std::chrono::sys_days(std::chrono::year{2024} / 5 / 1)) + std::chrono::hours(10);

core::AdjustmentPayload payloadFor(AdjustmentKind k, int i) {
  switch (core::payloadType(k)) {
  case core::PayloadType::Boolean:
    return i % 2 == 0;
  case core::PayloadType::Curve:
    return core::identityToneCurvePoints;
  case core::PayloadType::Rect:
    return core::Rect{0.05, 0.1, 0.9, 0.8};
  case core::PayloadType::PointColors:
    return std::vector<core::PointColorTarget>(4, {0.1, 0.5, 0.5, 0.05, -0.1, 0.2, 0.3});
  case core::PayloadType::String:
    return std::string("#FFFFFF");
  case core::PayloadType::Scalar:
    break;
  }
  return 0.01 * i - 0.4;
}

core::EditStack fullStack() {
  core::EditStack s;
  int i = 0;
  for (AdjustmentKind k : core::allAdjustmentKinds()) {
    s.set(k, payloadFor(k, i++), core::AiOrigin{"claude-mcp", "bench"}, kAt);
  }
  for (int m = 0; m < 20; ++m) {
    core::LocalMask mask;
    mask.id = core::Uuid::random();
    mask.name = "Mask " + std::to_string(m);
    mask.shape =
        m % 2 == 0
            ? core::MaskShape(core::RadialShape{{0.5, 0.5}, {0.3, 0.2}, 0.4, false})
            : core::MaskShape(core::BrushShape{
                  {core::BrushStroke{{{0.1, 0.1}, {0.2, 0.3}, {0.4, 0.4}}, 0.05, false}}, 0.2});
    mask.adjustments = {{AdjustmentKind::Exposure, 0.3}, {AdjustmentKind::Saturation, -0.2}};
    s.addMask(std::move(mask));
  }
  return s;
}

void BM_DecodeFullStack(benchmark::State& state) {
  const std::string bytes = core::AdjustmentDataCodec::encode(fullStack());
  for (auto _ : state) {
    std::optional<core::EditStack> s = core::AdjustmentDataCodec::decode(bytes);
    benchmark::DoNotOptimize(s);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
  state.counters["bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_DecodeFullStack);

void BM_EncodeFullStack(benchmark::State& state) {
  const core::EditStack s = fullStack();
  for (auto _ : state) {
    std::string bytes = core::AdjustmentDataCodec::encode(s);
    benchmark::DoNotOptimize(bytes);
  }
}
BENCHMARK(BM_EncodeFullStack);

void BM_DecodeAndReencodeFullStack(benchmark::State& state) {
  const std::string bytes = core::AdjustmentDataCodec::encode(fullStack());
  for (auto _ : state) {
    std::string again =
        core::AdjustmentDataCodec::encode(*core::AdjustmentDataCodec::decode(bytes));
    benchmark::DoNotOptimize(again);
  }
}
BENCHMARK(BM_DecodeAndReencodeFullStack);

void BM_Apply50OpPatch(benchmark::State& state) {
  const core::EditStack base = fullStack();
  std::vector<core::EditPatchOp> ops;
  for (int i = 0; i < 50; ++i) {
    core::EditPatchOp op;
    op.kind = core::adjustmentKindAt(3 + i);
    if (i % 10 == 9) {
      op.remove = true;
    } else {
      op.scalar = 0.02 * i;
    }
    ops.push_back(op);
  }
  const core::EditOrigin origin = core::AiOrigin{"claude-mcp", "bench"};
  for (auto _ : state) {
    core::EditStack s = base;
    auto created = core::applyAtomically(s, ops, {}, origin, kAt, s.version);
    benchmark::DoNotOptimize(created);
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Apply50OpPatch);

} // namespace
BENCHMARK_MAIN();
