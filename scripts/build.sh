#!/usr/bin/env bash
# build.sh [DIR [SANITIZER]]: configures and builds into DIR (default build).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
san=${2:-}
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTREL_SANITIZE="$san" >/dev/null
cmake --build "$dir" -j "$(nproc)" 2>&1 | grep -vE '^\[ *[0-9]+%\]|^-- ' || true
test "${PIPESTATUS[0]}" -eq 0
