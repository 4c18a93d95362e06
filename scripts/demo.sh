#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs the same
# unmodified sockperf ping-pong between two network namespaces through the
# kernel and through ostrel, beside the raw frame-access floor, in one
# table.  Options go to scripts/bench.sh main (-t SECONDS, -m BYTES,
# -b BACKEND, -6).  Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build
exec scripts/bench.sh main "$@"
