#!/usr/bin/env bash
# Group members, with unmodified python3 programs: two preloaded processes
# in B joined to the same group and port each get every datagram of a
# kernel sender in A; a preloaded publisher in A, with IP_MULTICAST_LOOP
# left on, reaches a plain member in A itself as well as one in B.  Both
# backends, both families.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
netns_pair
ip -n "$NS_A" route add 224.0.0.0/4 dev "$IF_A"
ip -n "$NS_B" route add 224.0.0.0/4 dev "$IF_B"
COUNT=30

cat >"$NETNS_TMP/g.py" <<'PY'
import socket, struct, sys, time
# g.py send|recv GROUP PORT IFNAME COUNT
mode, group, port, ifname, count = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4], int(sys.argv[5])
v6, idx = ":" in group, socket.if_nametoindex(ifname)
s = socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM)
data = lambda i: b"group %d " % i + bytes(range(i * 7 % 256)) * 4
if mode == "send":
    if v6:
        s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, idx)
    else:  # struct ip_mreqn
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, bytes(8) + struct.pack("@i", idx))
    for i in range(count):
        s.sendto(data(i), (group, port))
        time.sleep(0.002)
    sys.exit(0)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("::" if v6 else "0.0.0.0", port))
if v6:
    s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP,
                 socket.inet_pton(socket.AF_INET6, group) + struct.pack("@I", idx))
else:
    s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                 socket.inet_aton(group) + bytes(4) + struct.pack("@i", idx))
print("ready", flush=True)
s.settimeout(3)
for i in range(count):
    got = s.recv(65536)
    if got != data(i):
        sys.exit("datagram %d wrong: %r" % (i, got[:12]))
print("got", count, flush=True)
PY

# members CASE SEND_NS SEND_PRELOAD GROUP MEMBER...: a MEMBER is NS:PRELOAD,
# PRELOAD "pre" or "plain"; every member must get all COUNT datagrams.
members() {
  local name=$1 sns=$2 spre=$3 group=$4 port m ns dev pre i=0 pids=() in0 p
  shift 4
  port=$((20000 + RANDOM % 20000))
  in0=$(udp_counter "$NS_B" InDatagrams)
  for m; do
    IFS=: read -r ns pre <<<"$m"
    [ "$ns" = A ] && ns=$NS_A && dev=$IF_A || { ns=$NS_B; dev=$IF_B; }
    [ "$pre" = pre ] && pre=$OSTREL_LIB || pre=
    bg "$ns" env LD_PRELOAD="$pre" "$PYTHON3" "$NETNS_TMP/g.py" recv "$group" "$port" \
      "$dev" "$COUNT" >"$NETNS_TMP/m$i" 2>&1
    wait_line "$NETNS_TMP/m$i" "$BG_PID" ready || fail "$name: $(cat "$NETNS_TMP/m$i")"
    pids+=("$BG_PID"); i=$((i + 1))
  done
  [ "$spre" = pre ] && spre=$OSTREL_LIB || spre=
  [ "$sns" = A ] && sns=$NS_A
  in_ns "$sns" env LD_PRELOAD="$spre" "$PYTHON3" "$NETNS_TMP/g.py" send "$group" "$port" \
    "$IF_A" "$COUNT" || fail "$name: sender"
  i=0
  for p in "${pids[@]}"; do
    wait "$p" || fail "$FRIO_BACKEND $name $group: member ${*:i+1:1}: $(cat "$NETNS_TMP/m$i")"
    i=$((i + 1))
  done
  echo "ok: $FRIO_BACKEND $name $group: $# members got $COUNT each," \
    "$(($(udp_counter "$NS_B" InDatagrams) - in0)) through B's kernel"
}

for backend in xdp packet; do
  export FRIO_BACKEND=$backend
  for group in 239.7.7.$((RANDOM % 200 + 1)) ff12::7:$((RANDOM % 200 + 1)); do
    members "two preloaded members" A plain "$group" B:pre B:pre
    members "preloaded publisher, loop on" A pre "$group" A:plain B:plain
  done
done
echo "group_members: passed"
