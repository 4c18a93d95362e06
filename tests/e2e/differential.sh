#!/usr/bin/env bash
# Every row of differential.c on kernel sockets, then preloaded, against a
# plain peer in the other namespace: the output must match line for line.
# Preloaded, every socket must settle on the bypass and "ring" rows must
# leave the kernel's InDatagrams alone.  With AF_XDP the FALLBACK rows run
# again while another process holds the queue: the fallback must not show.
#   differential.sh [ROW...]      VERBOSE=1: also the kernel's output
set -uo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
DIFF=$OSTREL_BUILD/tests/differential
CTL=$NETNS_TMP/ctl
FALLBACK="calls fails"

# Every refused send must get its ICMP error back, however many rows ran.
in_ns "$NS_A" sysctl -qw net.ipv4.icmp_ratelimit=0
# The peer: commands on CTL as differential.c gives them, one a line.
cat >"$NETNS_TMP/peer.py" <<'PY'
import select, socket, sys, time
SELF4, PEER4, CTL, SELF6, PEER6 = sys.argv[1:6]
A4, A6, IP = socket.AF_INET, socket.AF_INET6, socket.IPPROTO_IP
NAMES = {socket.inet_pton(A6 if ":" in a else A4, a): n for a, n in
         ((SELF4, "self"), (PEER4, "peer"), (SELF6, "self6"), (PEER6, "peer6"))}
def sock(fam):
    s = socket.socket(fam, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.setsockopt(socket.SOL_SOCKET, 33, 4 << 20)  # SO_RCVBUFFORCE
    if fam == A4:
        s.setsockopt(IP, 12, 1)  # IP_RECVTTL
        s.setsockopt(IP, socket.IP_RECVTOS, 1)
    s.bind((PEER6 if fam == A6 else PEER4, 6000))
    return s
def fill(d):  # "A*20": length and fill, or "mixed"
    return "mixed" if d.count(d[:1]) != len(d) else "%c*%d" % (d[0], len(d))
def recv(s, ms, echo=False):  # "got FILL from WHO ttl=T tos=T", or "none"
    if s is None or not select.select([s], [], [], ms / 1000)[0]:
        return "none"
    d, anc, _, a = s.recvmsg(65536, 256)
    if echo:
        return s.sendto(d, a)
    opt = {t: x[0] for lvl, t, x in anc if lvl == IP}
    who = NAMES.get(socket.inet_pton(s.family, a[0]), "elsewhere")
    return "got %s from %s:%s ttl=%d tos=%d" % (fill(d), who,
        "fixed" if a[1] == 5000 else "other", opt.get(socket.IP_TTL, -1),
        opt.get(socket.IP_TOS, -1))
u = {"": sock(A4), "6": sock(A6)}
ctl = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
ctl.bind(CTL)
ctl.listen(4)
while True:
    c, seq = ctl.accept()[0], 0
    say = lambda line: c.sendall(line.encode() + b"\n")
    for line in c.makefile():
        cmd, *arg = line.split()
        fam, arg = cmd[-1] if cmd[-1] == "6" else "", [int(x) for x in arg]
        if cmd.startswith("send"):
            say("ok")
            time.sleep(arg[2] / 1000)
            for _ in range(arg[0]):
                u[fam].sendto(bytes([65 + seq % 26]) * arg[1],
                              (SELF6 if fam else SELF4, 5000))
                seq += 1
        elif cmd.startswith("recv"):
            say(recv(u[fam], arg[0]))
        elif cmd == "echo":
            say("ok")
            recv(u[""], arg[0], True)
        elif cmd == "drain":
            n = 0
            while recv(u[""], arg[0]) != "none":
                n += 1
            say("got some" if n else "got none")
        elif cmd == "close":
            u[""] = u[""].close()
            say("ok")
    # The next row starts clean: port open, nothing queued.
    u[""] = u[""] or sock(A4)
    for s in u.values():
        while select.select([s], [], [], 0)[0]:
            s.recv(65536)
PY
bg "$NS_A" "$PYTHON3" "$NETNS_TMP/peer.py" "$IP4_B" "$IP4_A" "$CTL" "$IP6_B" "$IP6_A"
PEER=$BG_PID
for i in $(seq 100); do [ -S "$CTL" ] && break; sleep 0.05; done
[ -S "$CTL" ] || fail "the peer did not start"

# run ROW [PRELOAD]: sets out (output, exit status if not 0), path (where
# its sockets settled) and through (datagrams the kernel took).
run() {
  local st=0 in0
  in0=$(udp_counter "$NS_B" InDatagrams)
  out=$(timeout 10 ip netns exec "$NS_B" env ${2:+LD_PRELOAD=$2} "$DIFF" "$1" \
    "$IP4_B" "$IP4_A" "$CTL" "$IP6_B" "$IP6_A" 2>"$NETNS_TMP/err") || st=$?
  [ $st -eq 0 ] || out+=$'\n'"exit status $st"
  through=$(($(udp_counter "$NS_B" InDatagrams) - in0))
  path=$(sed -n 's/^path: //p' "$NETNS_TMP/err" | sort -u | paste -sd,)
}

# judge ROW HOW AVOID: $kernel against $ours; HOW ring: nothing through
# the kernel; no socket settled on AVOID.
good=0 bad=0
judge() {
  local v=same ok=1
  if [[ $kernel == *"exit status"* ]]; then
    v="BROKEN on kernel sockets" ok=0
  elif [ "$kernel" != "$ours" ]; then
    v=DIFFERS ok=0
  fi
  [ "$2" != ring ] || [ "$through" -eq 0 ] || v="$v, KERNEL PATH" ok=0
  [[ $path != *$3* ]] || v="$v, SETTLED ON $3" ok=0
  [ $ok = 1 ] && good=$((good + 1)) || bad=$((bad + 1))
  printf '%-22s %-28s [%s, %d through the kernel]\n' "$1" "$v" \
    "${path:-no socket settled}" "$through"
  [ -z "${VERBOSE:-}" ] || printf '%s\n' "$kernel" | sed 's/^/    /'
  [ "$kernel" = "$ours" ] ||
    diff <(printf '%s\n' "$kernel") <(printf '%s\n' "$ours") |
    sed -n 's/^< /    kernel:  /p; s/^> /    preload: /p'
}

rows=$("$DIFF" list)
[ $# -eq 0 ] || rows=$(printf '%s\n' "$rows" | grep -wE "^($(IFS='|'; echo "$*"))")
declare -A KERNEL
while read -r row how; do
  run "$row"; kernel=$out
  KERNEL[$row]=$kernel
  run "$row" "$OSTREL_LIB"; ours=$out
  judge "$row" "$how" kernel
done <<<"$rows"

if [ "$FRIO_BACKEND" = xdp ]; then
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" -c 'import socket, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((sys.argv[1], 0))
print("ready", flush=True)
time.sleep(120)' "$IP4_B" >"$NETNS_TMP/holder" 2>&1
  holder=$BG_PID
  wait_line "$NETNS_TMP/holder" "$holder" ready && wait_attached "$holder" ||
    fail "the queue holder did not attach"
  for row in $FALLBACK; do
    [ -n "${KERNEL[$row]+set}" ] || continue
    kernel=${KERNEL[$row]}
    run "$row" "$OSTREL_LIB"; ours=$out
    judge "$row, queue held" - bypass
  done
  kill "$holder"
fi
kill "$PEER"
wait "$PEER" 2>/dev/null
echo "differential: $good same, $bad differ or off their path ($FRIO_BACKEND)"
[ $bad -eq 0 ]
