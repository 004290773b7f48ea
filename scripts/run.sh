#!/usr/bin/env bash
# Sets up and builds both programs, prepares the demo library, starts velko-headless over it in
# the background (unless an application already serves ~/.velko/ipc.sock), then runs velko-mcp
# on this terminal's standard input and output.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" -DVELKO_BUILD_TESTS=OFF -DVELKO_BUILD_BENCHMARKS=OFF >&2

home=$(getent passwd "$(id -u)" | cut -d: -f6)
demo="$home/.velko/demo"
library=$("$root/scripts/demo-library.sh" "$demo/Photos")
log="$demo/velko-headless.log"
endpoint="$home/.velko/ipc-endpoint.json"

# The demo library is a copy, so saving and deleting are allowed: every tool does real work.
"$root/build/src/app/velko-headless" --library "$library" --catalog "$demo/catalog.sqlite" \
  --allow-saving --allow-delete >>"$log" 2>&1 &
app=$!
for _ in $(seq 100); do
  if ! kill -0 "$app" 2>/dev/null; then
    if grep -q "already serving" <(tail -n 3 "$log"); then
      echo "run.sh: an application already serves $home/.velko/ipc.sock; using it" >&2
    else
      echo "run.sh: velko-headless did not start; the end of $log:" >&2
      tail -n 5 "$log" >&2
      exit 1
    fi
    break
  fi
  if grep -q "\"pid\":$app[,}]" "$endpoint" 2>/dev/null; then
    echo "run.sh: velko-headless (pid $app) serves $library; its log is $log" >&2
    break
  fi
  sleep 0.1
done

echo 'run.sh: velko-mcp reads MCP requests here, one per line. Try:' >&2
echo '{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"velko_ping","arguments":{}}}' >&2
exec "$root/build/src/server/velko-mcp"
