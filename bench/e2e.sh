#!/bin/sh
# End-to-end figures for velko-mcp, each beside its floor, as a Markdown table on standard output.
# Builds the binary and the measuring program in a Release tree first.
#
#   bench/e2e.sh [build-dir]        (default: build)
#
# The IPC rows run the server in a private mount namespace over a temporary home, which needs
# root (or a user allowed to unshare and mount); without it only the stdio rows are measured.
# With Node and the client tests' packages present, the same calls are also timed through a
# comparison server written with Node and the official SDK (bench/node-reference-server.mjs).
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-"$root/build"}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j2 --target velko-mcp velko_e2e_bench >/dev/null
echo "velko_e2e_bench, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, $(uname -sr)"
echo
# The comparison rows need Node and the SDK that scripts/setup.sh installs for the client tests.
node=$(command -v node || true)
if [ -n "$node" ] && [ -d "$root/tests/clients/node_modules/@modelcontextprotocol/sdk" ]; then
  export VELKO_NODE="$node" VELKO_NODE_REFERENCE="$root/bench/node-reference-server.mjs"
  export VELKO_NODE_MODULES="$root/tests/clients/node_modules"
fi
exec "$build/bench/velko_e2e_bench"
