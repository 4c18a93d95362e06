#!/usr/bin/env bash
# Unmodified programs under the preload behave exactly as without it: exit
# codes, output, UDP across namespaces, fork, exec, vfork and spawn.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
require_root
[ -f "$OSTREL_LIB" ] || fail "no $OSTREL_LIB"
netns_pair

# 1. Programs that never touch a socket.
in_ns "$NS_A" env LD_PRELOAD="$OSTREL_LIB" /bin/true || fail "/bin/true"
if preloaded "$NS_A" /bin/false; then fail "/bin/false succeeded"; fi
maps=$(preloaded "$NS_A" sh -c 'cat /proc/$$/maps')
grep -q ostrel.so.1 <<<"$maps" || fail "ostrel.so.1 was not loaded"
# The frame-access library is loaded only when a handle is opened.
if grep -q libfrio <<<"$maps"; then fail "libfrio loaded without a handle"; fi
out=$(preloaded "$NS_A" "$PYTHON3" -c 'print(sum(range(10)))')
[ "$out" = 45 ] || fail "python3 printed '$out'"

# 2. UDP both ways between the namespaces, python3 with timeouts and
#    non-blocking sockets (ioctl FIONBIO), IPv4 and IPv6.
cat >"$NETNS_TMP/echo.py" <<'PY'
import socket, sys
fam = socket.AF_INET6 if ":" in sys.argv[1] else socket.AF_INET
s = socket.socket(fam, socket.SOCK_DGRAM)
s.bind((sys.argv[1], int(sys.argv[2])))
s.settimeout(10)
for _ in range(int(sys.argv[3])):
    data, peer = s.recvfrom(2048)
    s.sendto(data.upper(), peer)
PY
cat >"$NETNS_TMP/client.py" <<'PY'
import socket, sys
fam = socket.AF_INET6 if ":" in sys.argv[1] else socket.AF_INET
s = socket.socket(fam, socket.SOCK_DGRAM)
s.settimeout(5)
for i in range(int(sys.argv[3])):
    s.sendto(b"hello %d" % i, (sys.argv[1], int(sys.argv[2])))
    print(s.recv(2048).decode())
s.setblocking(False)
try:
    s.recv(10)
    print("unexpected data")
except BlockingIOError:
    print("would block")
PY
for dst in "$IP4_B" "$IP6_B"; do
  port=$((20000 + RANDOM % 10000))
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" "$NETNS_TMP/echo.py" "$dst" "$port" 3
  wait_udp_port "$NS_B" "$port"
  out=$(preloaded "$NS_A" "$PYTHON3" "$NETNS_TMP/client.py" "$dst" "$port" 3)
  [ "$out" = "$(printf 'HELLO 0\nHELLO 1\nHELLO 2\nwould block')" ] ||
    fail "python3 UDP echo to $dst: '$out'"
done

# 3. socat, both ends preloaded.
port=$((30000 + RANDOM % 10000))
bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" socat -u "UDP4-RECV:$port,bind=$IP4_B" \
  "OPEN:$NETNS_TMP/socat.out,creat,append"
wait_udp_port "$NS_B" "$port"
echo "through socat" | preloaded "$NS_A" socat -u - "UDP4-SENDTO:$IP4_B:$port"
for _ in $(seq 50); do [ -s "$NETNS_TMP/socat.out" ] && break; sleep 0.05; done
[ "$(cat "$NETNS_TMP/socat.out")" = "through socat" ] || fail "socat"

# 4. fork with a live UDP socket: both processes keep using it, and exec
#    from the child starts the new image without the library.
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
out=$(preloaded "$NS_A" "$PYTHON3" "$NETNS_TMP/fork.py")
blank=$(printf '[%*s]' ${#OSTREL_LIB} '')
[ "$out" = "$(printf '%s\nfrom child\nparent still works' "$blank")" ] ||
  fail "fork/exec: '$out'"

# 5. subprocess (vfork or posix_spawn inside python), and C's vfork and
#    list-form execs.
out=$(preloaded "$NS_A" "$PYTHON3" -c 'import subprocess; print(subprocess.run(["echo", "spawned"], capture_output=True).stdout.decode().strip())')
[ "$out" = spawned ] || fail "subprocess: '$out'"
out=$(preloaded "$NS_A" "$OSTREL_BUILD/tests/vfork_probe" vfork fork execle execlp)
grep -qx 'vfork: 7' <<<"$out" || fail "vfork+exec: '$out'"
grep -qx 'fork: 7' <<<"$out" || fail "fork+execl: '$out'"
grep -qx 'execle: 5' <<<"$out" && grep -qx execle <<<"$out" || fail "execle: '$out'"
grep -qx 'execlp a b c' <<<"$out" && grep -qx 'execlp: 0' <<<"$out" || fail "execlp: '$out'"

# 6. The debug log: _OSTREL_DEBUG=0 creates the empty per-process file.
pid=$(in_ns "$NS_A" env LD_PRELOAD="$OSTREL_LIB" _OSTREL_DEBUG=0 sh -c 'echo $$')
[ -f "/tmp/ost_debug.$pid" ] && [ ! -s "/tmp/ost_debug.$pid" ] ||
  fail "no empty /tmp/ost_debug.$pid"
rm -f "/tmp/ost_debug.$pid"

echo "preload_programs: all programs behaved as without the preload"
