#!/usr/bin/env bash
# Sets up, builds and runs every test.
#  1. One clang++ build with AddressSanitizer, UndefinedBehaviorSanitizer and libFuzzer's
#     coverage hooks serves two stages: the fuzz targets run for a bounded time from their seed
#     corpora, and the whole suite runs under the sanitizers (its ctest summary is the closing
#     line).
#  2. The programs as run.sh ships them (g++, Release) run the application's tests too, since
#     another compiler and optimiser can expose what the first build does not; the load test's
#     throughput and latency figures come from this build.
# Benchmarks are not built here.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"

sanitized="$root/build-test"
cmake -S "$root" -B "$sanitized" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DVELKO_SANITIZE=ON -DVELKO_FUZZ=ON -DVELKO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$sanitized" -j"$(nproc)"

release="$root/build-release"
cmake -S "$root" -B "$release" -DCMAKE_BUILD_TYPE=Release -DVELKO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$release" -j"$(nproc)" --target velko_app_tests velko_app_e2e_tests velko_app_load_tests
"$release/tests/app/velko_app_tests" --gtest_brief=1
"$release/tests/app/velko_app_e2e_tests" --gtest_brief=1
"$release/tests/app/velko_app_load_tests" --gtest_brief=1

"$root/fuzz/run.sh" --build "$sanitized"

cd "$sanitized"
ctest --output-on-failure -j"$(nproc)"
