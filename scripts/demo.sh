#!/usr/bin/env bash
# A session a person can watch: the official MCP SDK client culls and edits the demo library's
# photographs through velko-mcp and a velko-headless it starts itself, both in a private mount
# namespace whose home is a temporary folder (so the real ~/.velko is never touched; this needs
# root). Each step's tool, arguments and outcome are printed and logged, and every preview the
# server returns is written as a PNG.
#
# usage: scripts/demo.sh [output folder]   (default ./demo-output)
# The programs come from ./build (built with scripts/build.sh when missing), or from the build
# folder named by VELKO_BUILD_DIR.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
output=${1:-demo-output}

if [[ $(id -u) != 0 ]]; then
  echo "demo: run this as root; it replaces the home directory in a private mount namespace" >&2
  exit 1
fi
if [[ ! -e $root/tests/clients/node_modules/.package-lock.json ]]; then
  echo "demo: the npm packages of tests/clients are missing; run scripts/setup.sh first" >&2
  exit 1
fi

build=${VELKO_BUILD_DIR:-$root/build}
mcp=$build/src/server/velko-mcp
headless=$build/src/app/velko-headless
if [[ ! -x $mcp || ! -x $headless ]]; then
  if [[ -n ${VELKO_BUILD_DIR:-} ]]; then
    echo "demo: $VELKO_BUILD_DIR has no velko-mcp and velko-headless; build them there first" >&2
    exit 1
  fi
  echo "demo: building velko-mcp and velko-headless into $build" >&2
  "$root/scripts/build.sh" -DVELKO_BUILD_TESTS=OFF -DVELKO_BUILD_BENCHMARKS=OFF >&2
fi

exec node "$root/scripts/demo.mjs" "$mcp" "$headless" "$output"
