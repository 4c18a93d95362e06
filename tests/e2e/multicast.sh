#!/usr/bin/env bash
# Multicast through the frame-access library, with unmodified python3
# programs: a preloaded sender reaches kernel receivers after choosing its
# interface (through the handle once it turns IP_MULTICAST_LOOP off, through
# the kernel, which loops a copy back to this host, while it is on); a
# preloaded receiver gets a kernel sender's groups whichever way it joined,
# through the handle with AF_PACKET, which sees copies, and through the
# kernel with AF_XDP, which would take them from every other member; a
# leave stops delivery through the handle, and a join the handle cannot
# follow leaves the socket to the kernel, which delivers.  Two preloaded
# members of one group and port each get every datagram, and a preloaded
# publisher with IP_MULTICAST_LOOP left on reaches a plain member on its
# own host as well as one in B.  The kernel's UDP counters of the preloaded
# side tell which path was used.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
netns_pair
# A second link between the namespaces, for the join on another interface.
ip link add "x$IF_A" netns "$NS_A" type veth peer name "x$IF_B" netns "$NS_B"
ip -n "$NS_A" link set "x$IF_A" up
ip -n "$NS_B" link set "x$IF_B" up
ip -n "$NS_A" route add 224.0.0.0/4 dev "$IF_A"
ip -n "$NS_B" route add 224.0.0.0/4 dev "$IF_B"
COUNT=20

cat >"$NETNS_TMP/mc.py" <<'PY'
import socket, struct, sys, time
# mc.py send|recv FAMILY GROUP PORT IFNAME IFADDR HOW COUNT
mode, fam, group, port, ifname, ifaddr, how, count = sys.argv[1:9]
port, count = int(port), int(count)
v6 = fam == "6"
s = socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)  # for group members
idx = socket.if_nametoindex(ifname)
if mode == "send":
    if v6:
        s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, idx)
    elif how == "mreq":  # struct ip_mreq: the interface is its second field
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                     socket.inet_aton(group) + socket.inet_aton(ifaddr))
    else:
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ifaddr))
    if "noloop" in how:
        if v6:
            s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_LOOP, 0)
        else:
            s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
    for i in range(count):
        s.sendto(b"mc %d %s" % (i, b"x" * i), (group, port))
        time.sleep(0.002)
    sys.exit(0)

def join(g, i, how):
    if v6:
        mreq = socket.inet_pton(socket.AF_INET6, g) + struct.pack("@I", i)
        s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, mreq)
    elif how == "mreq":
        s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                     socket.inet_aton(g) + socket.inet_aton(ifaddr))
    elif how == "mreqn":
        s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                     socket.inet_aton(g) + socket.inet_aton("0.0.0.0") + struct.pack("@i", i))
    else:  # MCAST_JOIN_GROUP = 42, struct group_req
        sin = struct.pack("=HH4s8x", socket.AF_INET, 0, socket.inet_aton(g))
        greq = struct.pack("@I4x", i) + sin + b"\0" * (128 - len(sin))
        s.setsockopt(socket.IPPROTO_IP, 42, greq)

before = how.startswith("before-")
how = how.replace("before-", "")
if before:
    join(group, idx, how)
s.bind(("::" if v6 else "0.0.0.0", port))
if not before:
    join(group, idx, how)
if how == "second":
    # A second group on another interface: the handle cannot follow.
    other = sys.argv[9]
    join("239.9.9.9", socket.if_nametoindex(other), "mreqn")
print("ready", flush=True)
s.settimeout(3)
got = 0
for i in range(count):
    try:
        data = s.recv(2048)
    except socket.timeout:
        break
    want = b"mc %d %s" % (i, b"x" * i)
    if data != want:
        print("wrong datagram %r" % data[:20]); sys.exit(1)
    got += 1
print("got %d" % got, flush=True)
if how == "leave":
    s.setsockopt(socket.IPPROTO_IP, socket.IP_DROP_MEMBERSHIP,
                 socket.inet_aton(group) + socket.inet_aton(ifaddr))
    print("left", flush=True)
    s.settimeout(2)
    try:
        s.recv(2048); print("received after leave"); sys.exit(1)
    except socket.timeout:
        pass
PY

# recv_case HOW FAMILY GROUP: a preloaded receiver in B, a kernel sender in A.
recv_case() {
  local how=$1 fam=$2 group=$3 expect=${4:-bypass} port in0 in1 out
  port=$((20000 + RANDOM % 20000))
  in0=$(udp_counter "$NS_B" InDatagrams)
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" "$NETNS_TMP/mc.py" recv \
    "$fam" "$group" "$port" "$IF_B" "$IP4_B" "$how" "$COUNT" "x$IF_B" \
    >"$NETNS_TMP/recv.out" 2>&1
  local pid=$BG_PID
  wait_line "$NETNS_TMP/recv.out" "$pid" ready || true
  in_ns "$NS_A" "$PYTHON3" "$NETNS_TMP/mc.py" send "$fam" "$group" "$port" \
    "$IF_A" "$IP4_A" - "$COUNT"
  wait "$pid" || fail "receiver $how $group: $(cat "$NETNS_TMP/recv.out")"
  out=$(cat "$NETNS_TMP/recv.out")
  in1=$(udp_counter "$NS_B" InDatagrams)
  grep -q "got $COUNT" <<<"$out" || fail "receiver $how $group: $out"
  if [ "$expect" = bypass ]; then
    [ $((in1 - in0)) -eq 0 ] || fail "receiver $how $group: $((in1 - in0)) through the kernel"
  else
    [ $((in1 - in0)) -ge "$COUNT" ] || fail "receiver $how $group: not through the kernel"
  fi
  echo "ok: $FRIO_BACKEND receive $how $group ($expect)"
}

# send_case FAMILY GROUP [HOW]: a preloaded sender in A, a kernel receiver
# in B; HOW "mreq" names the interface with a struct ip_mreq, "noloop"
# turns IP_MULTICAST_LOOP off, which lets the datagrams take the bypass.
send_case() {
  local fam=$1 group=$2 how=${3:-noloop} port out0 out1 out
  port=$((20000 + RANDOM % 20000))
  bg "$NS_B" "$PYTHON3" "$NETNS_TMP/mc.py" recv "$fam" "$group" "$port" \
    "$IF_B" "$IP4_B" mreqn "$COUNT" >"$NETNS_TMP/recv.out" 2>&1
  local pid=$BG_PID
  wait_line "$NETNS_TMP/recv.out" "$pid" ready || true
  out0=$(udp_counter "$NS_A" OutDatagrams)
  in_ns "$NS_A" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" "$NETNS_TMP/mc.py" send \
    "$fam" "$group" "$port" "$IF_A" "$IP4_A" "$how" "$COUNT"
  out1=$(udp_counter "$NS_A" OutDatagrams)
  wait "$pid" || true
  out=$(cat "$NETNS_TMP/recv.out")
  grep -q "got $COUNT" <<<"$out" || fail "sender $group: receiver says $out"
  if [[ $how == *noloop* ]]; then
    [ $((out1 - out0)) -eq 0 ] || fail "sender $group: $((out1 - out0)) through the kernel"
  else
    [ $((out1 - out0)) -ge $COUNT ] || fail "sender $group $how: looping datagrams not through the kernel"
  fi
  echo "ok: $FRIO_BACKEND send $group $how"
}

# members NAME SENDER FAMILY GROUP MEMBER...: a sender in A, preloaded when
# SENDER is "pre", with IP_MULTICAST_LOOP on; a MEMBER is NS:PRELOAD (A or
# B, "pre" or "plain").  Every member must get all COUNT datagrams.
members() {
  local name=$1 spre=$2 fam=$3 group=$4 port m ns pre i=0 in0 pids=(); shift 4
  port=$((20000 + RANDOM % 20000))
  in0=$(udp_counter "$NS_B" InDatagrams)
  for m; do
    IFS=: read -r ns pre <<<"$m"
    [ "$pre" = pre ] && pre=$OSTREL_LIB || pre=
    if [ "$ns" = A ]; then set -- "$NS_A" "$IF_A" "$IP4_A"; else set -- "$NS_B" "$IF_B" "$IP4_B"; fi
    bg "$1" env LD_PRELOAD="$pre" "$PYTHON3" "$NETNS_TMP/mc.py" recv "$fam" "$group" \
      "$port" "$2" "$3" mreqn "$COUNT" >"$NETNS_TMP/m$i" 2>&1
    wait_line "$NETNS_TMP/m$i" "$BG_PID" ready || fail "$name: $(cat "$NETNS_TMP/m$i")"
    pids+=("$BG_PID"); i=$((i + 1))
  done
  [ "$spre" = pre ] && spre=$OSTREL_LIB || spre=
  in_ns "$NS_A" env LD_PRELOAD="$spre" "$PYTHON3" "$NETNS_TMP/mc.py" send "$fam" "$group" \
    "$port" "$IF_A" "$IP4_A" loop "$COUNT" || fail "$name: sender"
  for i in "${!pids[@]}"; do
    wait "${pids[i]}" || true
    grep -q "got $COUNT" "$NETNS_TMP/m$i" || fail "$FRIO_BACKEND $name $group: member $i: $(cat "$NETNS_TMP/m$i")"
  done
  echo "ok: $FRIO_BACKEND $name $group: ${#pids[@]} members got $COUNT each," \
    "$(($(udp_counter "$NS_B" InDatagrams) - in0)) through B's kernel"
}

# Every way to name the interface and join, with AF_XDP, whose steering
# program must follow the groups; AF_PACKET, whose socket filter must, with
# a group of each family and a leave.
export FRIO_BACKEND=xdp
send_case 4 239.1.2.3
send_case 4 239.1.2.4 mreq-noloop
send_case 4 239.1.2.5 loop
send_case 6 ff12::1:2:3
for how in mreq mreqn mcast before-mreq before-mreqn; do
  recv_case "$how" 4 239.1.2.$((RANDOM % 200 + 1)) kernel
done
recv_case after 6 ff12::4:5:6 kernel
recv_case second 4 239.1.3.2 kernel
export FRIO_BACKEND=packet
send_case 4 239.1.2.3
send_case 6 ff12::1:2:3
recv_case mreqn 4 239.1.2.200
recv_case before-mreqn 4 239.1.2.201
recv_case before-v6 6 ff12::4:5:7
recv_case leave 4 239.1.3.1
recv_case after 6 ff12::4:5:6
for FRIO_BACKEND in xdp packet; do
  for g in "4 239.7.7.$((RANDOM % 200 + 1))" "6 ff12::7:$((RANDOM % 200 + 1))"; do
    members "two preloaded members" plain $g B:pre B:pre
    members "preloaded publisher, loop on" pre $g A:plain B:plain
  done
done
echo "multicast: passed"
