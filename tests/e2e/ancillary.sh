#!/usr/bin/env bash
# Control data as the kernel gives it: a python3 receiver with IP_PKTINFO
# (IPV6_RECVPKTINFO) and each timestamp option in turn prints cmsgs, packet
# information, MSG_CTRUNC and peeked times; plain and preloaded runs match,
# the latter off the ring.  Both backends, both families.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test

cat >"$NETNS_TMP/anc.py" <<'PY'
import socket, struct, sys, time
addr, port = sys.argv[1], int(sys.argv[2])
v6 = ":" in addr
s = socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM)
s.bind((addr, port))
s.settimeout(5)
def phase(n, opt=None, on=1):
    if opt is not None:
        s.setsockopt(socket.SOL_SOCKET, opt, on)
    print("phase", n, file=sys.stderr, flush=True)
def show(tag, anc=256, flags=0):
    data, cms, fl, _ = s.recvmsg(100, anc, flags)
    out, stamp = [], None
    for level, typ, d in cms:
        out.append("%d/%d/%d" % (level, typ, len(d)))
        if level == socket.SOL_SOCKET and len(d) == 16:
            sec, frac = struct.unpack("qq", d)
            stamp = sec + frac / (1e6 if typ in (29, 63) else 1e9)
            out.append("near=%s" % (abs(stamp - time.time()) < 1))
        elif level == socket.IPPROTO_IP and len(d) == 12:
            i, local, dst = struct.unpack("i4s4s", d)
            out.append("if=%d local=%s dst=%s" % (i, socket.inet_ntoa(local),
                                                socket.inet_ntoa(dst)))
        elif level == socket.IPPROTO_IPV6 and len(d) == 20:
            dst, i = struct.unpack("16sI", d)
            out.append("if=%d dst=%s" % (i, socket.inet_ntop(socket.AF_INET6, dst)))
    print(tag, len(data), " ".join(out), "ctrunc=%s" % (fl & socket.MSG_CTRUNC != 0))
    return stamp
phase(0)
show("none")
if v6:
    s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVPKTINFO, 1)
else:
    s.setsockopt(socket.IPPROTO_IP, 8, 1)  # IP_PKTINFO
phase(1, 35)  # SO_TIMESTAMPNS
peeked = show("peek", flags=socket.MSG_PEEK)
print("same", show("ns") == peeked)
show("cut", socket.CMSG_SPACE(16) + 20)
show("nobuf", 0)
phase(2, 29)  # SO_TIMESTAMP
show("tv")
phase(3, 63)  # SO_TIMESTAMP_NEW
show("tvnew")
phase(4, 29, 0)
show("off")
PY
cat >"$NETNS_TMP/send.py" <<'PY'
import socket, sys
addr, port, n = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
s = socket.socket(socket.AF_INET6 if ":" in addr else socket.AF_INET,
                  socket.SOCK_DGRAM)
for i in range(n):
    s.sendto(bytes([i]) * (10 + i), (addr, port))
PY

# run DST [PRELOAD]: the receiver's observations; datagrams are sent only
# once the options of each phase are set.
run() {
  local dst=$1 pre=${2:-} port pid p n
  port=$((20000 + RANDOM % 20000))
  bg "$NS_B" env ${pre:+LD_PRELOAD=$pre} "$PYTHON3" "$NETNS_TMP/anc.py" \
    "$dst" "$port" >"$NETNS_TMP/out" 2>"$NETNS_TMP/err"
  pid=$BG_PID
  for p in "0 1" "1 3" "2 1" "3 1" "4 1"; do
    set -- $p
    wait_line "$NETNS_TMP/err" "$pid" "phase $1" ||
      fail "receiver $dst: $(cat "$NETNS_TMP/err")"
    in_ns "$NS_A" "$PYTHON3" "$NETNS_TMP/send.py" "$dst" "$port" "$2"
  done
  wait "$pid" || fail "receiver $dst: $(cat "$NETNS_TMP/err")"
  cat "$NETNS_TMP/out"
}

for dst in "$IP4_B" "$IP6_B"; do
  kernel=$(run "$dst")
  echo "$kernel" | grep -q "if=[1-9].*dst=$dst ctrunc=False" ||
    fail "$dst: the kernel run shows no packet information: $kernel"
  for backend in xdp packet; do
    export FRIO_BACKEND=$backend
    like_kernel "$backend $dst" "$kernel" run "$dst"
    echo "ok: $backend $dst: control data as the kernel's"
  done
done
echo "ancillary: passed"
