#!/usr/bin/env bash
# Sets up, builds once and runs every test. One clang++ build with AddressSanitizer,
# UndefinedBehaviorSanitizer and libFuzzer's coverage hooks serves both stages: the fuzz targets
# run for a bounded time from their seed corpora, then the whole suite runs under the sanitizers
# (its ctest summary is the closing line). Benchmarks are not built here.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-test"
"$root/scripts/setup.sh"
cmake -S "$root" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DVELKO_SANITIZE=ON -DVELKO_FUZZ=ON -DVELKO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"

"$root/fuzz/run.sh" --build "$build"

cd "$build"
ctest --output-on-failure -j"$(nproc)"
