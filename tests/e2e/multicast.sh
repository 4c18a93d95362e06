#!/usr/bin/env bash
# Multicast with python3: a preloaded sender uses the handle with loop off,
# the kernel with it on; a preloaded receiver gets groups via AF_PACKET's
# handle, via the kernel with AF_XDP; leave, and a join the handle cannot
# follow.  The preloaded side's UDP counters tell the path.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test
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
    elif how.startswith("mreq"):  # struct ip_mreq: the interface is its second field
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                     socket.inet_aton(group) + socket.inet_aton(ifaddr))
    else:
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ifaddr))
    if "noloop" in how:
        s.setsockopt(*((socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_LOOP) if v6
                       else (socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP)), 0)
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

# mc FAM GROUP SENDER CHECK MEMBER...: a sender in A and members of GROUP on
# one port, each of which must get all COUNT datagrams.  SENDER is
# PRELOAD/HOW, a MEMBER NS/PRELOAD/HOW (NS A or B, PRELOAD pre or plain, HOW
# as mc.py takes it).  CHECK is NS:FIELD:PATH: that Udp counter must grow by
# nothing (bypass) or by COUNT at least (kernel); "-" checks nothing.
mc() {
  local fam=$1 group=$2 sender=$3 check=$4 port i=0 m ns pre how lib c0 d pids=() cns cfield cpath v n ifn
  shift 4
  port=$((20000 + RANDOM % 20000))
  IFS=: read -r cns cfield cpath <<<"$check"
  v=NS_$cns
  [ "$check" = - ] || c0=$(udp_counter "${!v}" "$cfield")
  for m; do
    IFS=/ read -r ns pre how <<<"$m"
    [ "$pre" = pre ] && lib=$OSTREL_LIB || lib=
    v=NS_$ns; n=${!v}; v=IF_$ns; ifn=${!v}; v=IP4_$ns
    bg "$n" env LD_PRELOAD="$lib" "$PYTHON3" "$NETNS_TMP/mc.py" recv "$fam" "$group" \
      "$port" "$ifn" "${!v}" "$how" "$COUNT" "x$ifn" >"$NETNS_TMP/m$i" 2>&1
    wait_line "$NETNS_TMP/m$i" "$BG_PID" ready || fail "$group $m: $(cat "$NETNS_TMP/m$i")"
    pids+=("$BG_PID"); i=$((i + 1))
  done
  IFS=/ read -r pre how <<<"$sender"
  [ "$pre" = pre ] && lib=$OSTREL_LIB || lib=
  in_ns "$NS_A" env LD_PRELOAD="$lib" "$PYTHON3" "$NETNS_TMP/mc.py" send "$fam" "$group" \
    "$port" "$IF_A" "$IP4_A" "$how" "$COUNT" || fail "$group: sender $sender"
  for i in "${!pids[@]}"; do
    wait "${pids[i]}" && grep -q "got $COUNT" "$NETNS_TMP/m$i" ||
      fail "$FRIO_BACKEND $group member $i of $*: $(cat "$NETNS_TMP/m$i")"
  done
  [ "$check" = - ] || { v=NS_$cns; d=$(($(udp_counter "${!v}" "$cfield") - c0))
    { [ "$cpath" = bypass ] && [ "$d" -eq 0 ]; } || { [ "$cpath" = kernel ] && [ "$d" -ge "$COUNT" ]; } ||
      fail "$FRIO_BACKEND $group $sender $*: $d $cfield in $cns's kernel, not $cpath"; }
  echo "ok: $FRIO_BACKEND $group: $sender to $* ($check)"
}

r() { echo $((RANDOM % 200 + 1)); }
# The sender's interface as an address or a struct ip_mreq, loop on and off;
# one join form of each family for each backend (AF_XDP leaves groups to the
# kernel; AF_PACKET's socket filter must follow them), a leave, a join on a
# second interface the handle cannot follow; several members of one group.
export FRIO_BACKEND=xdp
mc 4 239.1.2.4 pre/mreq-noloop A:OutDatagrams:bypass B/plain/mreqn
mc 6 ff12::1:2:3 pre/noloop A:OutDatagrams:bypass B/plain/mreqn
mc 4 239.1.2.$(r) plain/- B:InDatagrams:kernel B/pre/mreq
mc 6 ff12::4:5:6 plain/- B:InDatagrams:kernel B/pre/after
mc 4 239.1.3.2 plain/- B:InDatagrams:kernel B/pre/second
export FRIO_BACKEND=packet
mc 4 239.1.2.3 pre/noloop A:OutDatagrams:bypass B/plain/mreqn
mc 6 ff12::1:2:3 pre/noloop A:OutDatagrams:bypass B/plain/mreqn
mc 4 239.1.2.$(r) plain/- B:InDatagrams:bypass B/pre/before-mreqn
mc 6 ff12::4:5:7 plain/- B:InDatagrams:bypass B/pre/before-v6
mc 4 239.1.3.1 plain/- B:InDatagrams:bypass B/pre/leave
for FRIO_BACKEND in xdp packet; do
  for g in "4 239.7.7.$(r)" "6 ff12::7:$(r)"; do
    mc $g plain/loop - B/pre/mreqn B/pre/mreqn
    mc $g pre/loop A:OutDatagrams:kernel A/plain/mreqn B/plain/mreqn
  done
done
echo "multicast: passed"
