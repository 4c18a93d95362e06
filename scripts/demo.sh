#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs sockperf
# ping-pong between two network namespaces through the kernel and through
# ostrel, side by side.  Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build
exec scripts/bench.sh "${1:-5}" "${2:-64}"
