#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is missing.
# Safe to run again: it does nothing when everything is present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libboost-json1.81-dev
  libgtest-dev libgmock-dev
  libbenchmark-dev
  uuid-dev
  libvips-dev
  libsqlite3-dev libexif-dev libxxhash-dev
  ffmpeg
  tzdata
  exiv2 mate-backgrounds
  clang libclang-rt-14-dev
)

# The MCP client tests (tests/clients) use npm packages pinned by its lock file; npm ci installs
# exactly those, and runs again only when the lock file is newer than the installed tree.
clients="$(cd "$(dirname "$0")/.." && pwd)/tests/clients"
if ! command -v npm >/dev/null; then
  echo "setup: npm not found; the MCP client tests will be skipped" >&2
elif [[ ! "$clients/node_modules/.package-lock.json" -nt "$clients/package-lock.json" ]]; then
  echo "setup: installing the npm packages of tests/clients" >&2
  (cd "$clients" && npm ci --no-audit --no-fund --loglevel=error) >&2
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]} == 0)); then
  exit 0
fi

sudo=""
if [[ $(id -u) -ne 0 ]]; then
  sudo="sudo"
fi
echo "setup: installing ${missing[*]}" >&2
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
