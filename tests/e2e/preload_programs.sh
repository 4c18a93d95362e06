#!/usr/bin/env bash
# Unmodified programs under the preload behave exactly as without it: exit
# codes, output, a UDP socket across fork, exec, vfork and spawn.  (UDP
# between namespaces through unmodified programs: unmodified_programs.sh.)
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
[ -f "$OSTREL_LIB" ] || fail "no $OSTREL_LIB"
netns_add A; NS_A=$NETNS_NEW

# 1. Programs that never touch a socket.
in_ns "$NS_A" env LD_PRELOAD="$OSTREL_LIB" /bin/true || fail "/bin/true"
if preloaded "$NS_A" /bin/false; then fail "/bin/false succeeded"; fi
maps=$(preloaded "$NS_A" sh -c 'cat /proc/$$/maps')
grep -q ostrel.so.1 <<<"$maps" || fail "ostrel.so.1 was not loaded"
# The frame-access library is loaded only when a handle is opened.
if grep -q libfrio <<<"$maps"; then fail "libfrio loaded without a handle"; fi
out=$(preloaded "$NS_A" "$PYTHON3" -c 'print(sum(range(10)))')
[ "$out" = 45 ] || fail "python3 printed '$out'"

# 2. fork with a live UDP socket: both processes keep using it, and exec
#    from the child starts the new image without the library, but with the
#    other library preloaded beside it.
cat >"$NETNS_TMP/fork.py" <<'PY'
import os, socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("127.0.0.1", 0))
s.settimeout(5)
me = s.getsockname()
pid = os.fork()
if pid == 0:
    s.sendto(b"from child", me)
    os.execv("/bin/sh", ["sh", "-c", 'printf "[%s]\n" "$LD_PRELOAD"'])
os.waitpid(pid, 0)
print(s.recv(100).decode())
s.sendto(b"parent still works", me)
print(s.recv(100).decode())
PY
out=$(in_ns "$NS_A" env LD_PRELOAD="libm.so.6:$OSTREL_LIB" "$PYTHON3" \
  "$NETNS_TMP/fork.py")
[ "$out" = "$(printf '[libm.so.6]\nfrom child\nparent still works')" ] ||
  fail "fork/exec: '$out'"

# 3. subprocess (vfork or posix_spawn inside python), and C's vfork and
#    list-form execs.
out=$(preloaded "$NS_A" "$PYTHON3" -c 'import subprocess; print(subprocess.run(["echo", "spawned"], capture_output=True).stdout.decode().strip())')
[ "$out" = spawned ] || fail "subprocess: '$out'"
out=$(preloaded "$NS_A" "$OSTREL_BUILD/tests/vfork_probe" vfork fork execle execlp)
grep -qx 'vfork: 7' <<<"$out" || fail "vfork+exec: '$out'"
grep -qx 'fork: 7' <<<"$out" || fail "fork+execl: '$out'"
grep -qx 'execle: 5' <<<"$out" && grep -qx execle <<<"$out" || fail "execle: '$out'"
grep -qx 'execlp a b c' <<<"$out" && grep -qx 'execlp: 0' <<<"$out" || fail "execlp: '$out'"

echo "preload_programs: all programs behaved as without the preload"
