#!/usr/bin/env bash
# Builds the libFuzzer targets with clang++ in build-fuzz and runs each one for a bounded time
# from its seed corpus in fuzz/corpus/<name>. Fails on the first crash, leak, time-out or
# out-of-memory; the input that caused it is left in build-fuzz/artifacts/.
#
#   fuzz/run.sh [--time SECONDS (20)] [--seed N (1; 0 is random)] [--build DIR] [TARGET…]
#   build-fuzz/fuzz/fuzz_mcp_line build-fuzz/artifacts/crash-…   replay one input
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-fuzz"
seconds=20
seed=1
targets=()
while (($#)); do
  case "$1" in
  --time) seconds="$2"; shift 2 ;;
  --seed) seed="$2"; shift 2 ;;
  --build) build=$(cd "$2" && pwd); shift 2 ;;
  *) targets+=("${1#fuzz_}"); shift ;;
  esac
done
if ((${#targets[@]} == 0)); then
  targets=(line_scanner rpc_response edit_stack edit_patch mcp_line app_request)
fi

[[ -f "$build/CMakeCache.txt" ]] ||
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DVELKO_FUZZ=ON -DVELKO_BUILD_TESTS=OFF -DVELKO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

mkdir -p "$build/artifacts"
for t in "${targets[@]}"; do
  # New inputs go to a scratch corpus; the seeds in the tree are only read.
  work="$build/corpus/$t"
  mkdir -p "$work"
  echo "fuzz: $t for ${seconds}s" >&2
  # A fixed seed makes a run repeatable: the same tree mutates the same inputs in the same order.
  if ! "$build/fuzz/fuzz_$t" -seed="$seed" -max_total_time="$seconds" -rss_limit_mb=2048 \
    -timeout=30 -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" \
    "$work" "$root/fuzz/corpus/$t" 2>"$build/fuzz_$t.log"; then
    tail -n 60 "$build/fuzz_$t.log" >&2
    echo "fuzz: $t failed; the input is in $build/artifacts/" >&2
    exit 1
  fi
  grep -aE '^stat::number_of_executed_units|^Done' "$build/fuzz_$t.log" >&2 || true
done
