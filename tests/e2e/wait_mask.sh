#!/usr/bin/env bash
# ppoll and pselect on a bypass socket honour their signal masks exactly
# as on a kernel socket: the same program (wait_mask.c) runs plain and
# preloaded and must print the same, and the preloaded run's datagrams
# come from the ring.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
oracle "ppoll and pselect" fed "$OSTREL_BUILD/tests/wait_mask" "$IP4_B"
echo "wait_mask: passed ($FRIO_BACKEND)"
