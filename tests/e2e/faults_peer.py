# faults_peer.py BIND_ADDR PORT PEER_ADDR PEER_PORT PHASE_FILE [QUIET]: one
# end of faults.sh's two-way stream.  Sends every 2 ms (40 to 1399 bytes
# tagged with the phase in PHASE_FILE and a sequence number; in phase QUIET
# only reads) until the phase is negative, reads 0.5 s more, then prints
# per phase "PHASE SENT GOT DUPLICATES".
import socket
import sys
import time

bind_addr, port, peer, peer_port, phase_file = sys.argv[1:6]
quiet = int(sys.argv[6]) if len(sys.argv) > 6 else None
fam = socket.AF_INET6 if ":" in bind_addr else socket.AF_INET
s = socket.socket(fam, socket.SOCK_DGRAM)
s.bind((bind_addr, int(port)))
s.setblocking(False)
dst = (peer, int(peer_port))
sent, got, dup = {}, {}, {}


def phase():
    try:
        with open(phase_file) as f:
            return int(f.read().strip() or 0)
    except (OSError, ValueError):
        return 0


def drain():
    while True:
        try:
            data = s.recv(2048)
        except BlockingIOError:
            return
        except OSError:
            return  # an ICMP error the kernel queued: not a datagram
        p, q = (int(x) for x in data.split(b" ", 2)[:2])
        seen = got.setdefault(p, set())
        if q in seen:
            dup[p] = dup.get(p, 0) + 1
        seen.add(q)


print("ready", file=sys.stderr, flush=True)
seq = 0
while True:
    p = phase()
    if p < 0:
        break
    if p == quiet:
        drain()
        time.sleep(0.002)
        continue
    data = ("%d %d " % (p, seq)).encode()
    data += b"x" * (40 + seq * 53 % 1360 - len(data))
    seq += 1
    try:
        s.sendto(data, dst)
        sent[p] = sent.get(p, 0) + 1
    except OSError:
        pass  # the kernel refused it (no route, interface down)
    drain()
    time.sleep(0.002)
end = time.monotonic() + 0.5
while time.monotonic() < end:
    drain()
    time.sleep(0.005)
for p in sorted(set(sent) | set(got)):
    print(p, sent.get(p, 0), len(got.get(p, ())), dup.get(p, 0))
