#!/usr/bin/env bash
# Leaving the bypass loses nothing: datagrams waiting in the ring when the
# receiver sets IP_RECVTOS, connects to AF_UNSPEC, dups or forks are still
# read, in order, with their sender.  Both backends, both families.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test
MIX=$(dirname "$0")/mix.py
K=50 SPORT=4321

cat >"$NETNS_TMP/leave.py" <<'PY'
import ctypes, os, socket, struct, sys, time
def payload(seq, size):  # as mix.py sends it
    return struct.pack("!II", seq, size) + bytes((seq * 7 + k) & 255 for k in range(size - 8))
addr, port, k, action, src, sport, go = sys.argv[1:8]
fam = socket.AF_INET6 if ":" in addr else socket.AF_INET
s = socket.socket(fam, socket.SOCK_DGRAM)
s.bind((addr, int(port)))
s.getsockopt(socket.SOL_SOCKET, 0x101b, 64)  # fails unless on the bypass
print("ready", flush=True)
while not os.path.exists(go):
    time.sleep(0.01)
r = s
if action == "recvtos" and fam == socket.AF_INET:
    s.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
elif action == "recvtos":
    s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVTCLASS, 1)
elif action == "unspec":
    if ctypes.CDLL(None).connect(s.fileno(), bytes(28), 28) != 0:
        sys.exit("connect(AF_UNSPEC) failed")
elif action == "dup":
    r = socket.socket(fileno=os.dup(s.fileno()))
elif action == "dup2":
    os.dup2(s.fileno(), 100)
elif action == "fork":
    pid = os.fork()
    if pid == 0:
        os._exit(0)
    os.waitpid(pid, 0)
r.settimeout(3)
for seq in range(int(k)):
    data, peer = r.recvfrom(65536)
    if data != payload(seq, 200) or peer[:2] != (src, int(sport)):
        sys.exit("%s: datagram %d wrong: %r from %s" % (action, seq, data[:8], peer))
print("got", k, flush=True)
PY

for backend in xdp packet; do
  export FRIO_BACKEND=$backend
  for dst in "$IP4_B" "$IP6_B"; do
    [ "$dst" = "$IP4_B" ] && src=$IP4_A || src=$IP6_A
    for action in recvtos unspec dup dup2 fork; do
      port=$((20000 + RANDOM % 20000))
      rm -f "$NETNS_TMP/go"
      bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" "$NETNS_TMP/leave.py" "$dst" \
        "$port" "$K" "$action" "$src" "$SPORT" "$NETNS_TMP/go" >"$NETNS_TMP/out" 2>&1
      pid=$BG_PID
      wait_line "$NETNS_TMP/out" "$pid" ready || fail "$action: $(cat "$NETNS_TMP/out")"
      in0=$(udp_counter "$NS_B" InDatagrams)
      in_ns "$NS_A" "$PYTHON3" "$MIX" send "$dst" "$port" 0 "$K" 200 - "$SPORT"
      sleep 0.2
      [ "$(udp_counter "$NS_B" InDatagrams)" -eq "$in0" ] ||
        fail "$backend $action $dst: datagrams took the kernel path before the change"
      touch "$NETNS_TMP/go"
      wait "$pid" || fail "$backend $action $dst: $(cat "$NETNS_TMP/out")"
      echo "ok: $backend $action $dst: $K read, $(($(udp_counter "$NS_B" InDatagrams) - in0)) handed back to the kernel"
    done
  done
done
echo "leave: passed"
