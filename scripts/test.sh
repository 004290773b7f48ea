#!/usr/bin/env bash
# Sets up, builds and runs every test: the Release suite, the fuzz targets for a bounded time,
# then the whole suite again under the sanitizers (its ctest summary is the closing line).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
cd "$root/build"
ctest --output-on-failure -j"$(nproc)"

# Every fuzz target for a bounded time from its seed corpus (clang++ with libFuzzer).
"$root/fuzz/run.sh"

# The whole suite again with AddressSanitizer and UndefinedBehaviorSanitizer: any finding fails.
cmake -S "$root" -B "$root/build-asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELKO_SANITIZE=ON \
  -DVELKO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$root/build-asan" -j"$(nproc)"
cd "$root/build-asan"
ctest --output-on-failure -j"$(nproc)"
