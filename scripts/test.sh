#!/usr/bin/env bash
# Sets up, builds and runs every test.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh"
cd "$root/build"
ctest --output-on-failure -j"$(nproc)"
