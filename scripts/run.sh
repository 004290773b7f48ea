#!/usr/bin/env bash
# Sets up, builds and starts the server on this terminal's standard input and output.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" >&2
exec "$root/build/src/server/velko-mcp"
