#!/usr/bin/env bash
# fork() from a threaded preloaded program: each child (the others busy with
# sockets) exits in time; one forked while a lock was held would hang.
#   FORK_CHILDREN=2000 ctest --test-dir build -R e2e.fork_threads
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test fork_threads
# Every socket's first sendto opens a handle: the packet backend's open
# fast enough to keep the records churning.
export FRIO_BACKEND=${FRIO_BACKEND:-packet}
n=${FORK_CHILDREN:-300}
port=$((20000 + RANDOM % 20000))
# The plain run first: the program itself forks and exits cleanly.
out=$(in_ns "$NS_A" "$PROG" 20 "$IP4_B" "$port") || fail "plain: $out"
out=$(preloaded "$NS_A" "$PROG" "$n" "$IP4_B" "$port") || fail "preloaded: $out"
echo "fork_threads: passed, $out ($FRIO_BACKEND)"
