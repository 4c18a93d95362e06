# Plain sender and receiver of the mix tests; every payload names its
# sequence number and size and is checked byte for byte.
#   mix.py send DST PORT BASE COUNT SIZE OPT [SPORT]  (OPT: -, bcast, dstopts)
#   mix.py recv ADDR PORT TOTAL PEER WAIT
# The receiver binds ADDR; with PEER (not -) it sends to PEER first, or,
# with WAIT seconds, sleeps while requests queue, then replies to the first.
import socket, struct, sys, time

def payload(seq, size):
    return struct.pack("!II", seq, size) + bytes((seq * 7 + k) & 255 for k in range(size - 8))

def sock(addr):
    return socket.socket(socket.AF_INET6 if ":" in addr else socket.AF_INET, socket.SOCK_DGRAM)

if sys.argv[1] == "send":
    dst, port, base, count, size, opt = sys.argv[2:8]
    s = sock(dst)
    if len(sys.argv) > 8:
        s.bind(("::" if ":" in dst else "0.0.0.0", int(sys.argv[8])))
    s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, opt == "bcast")
    anc = [(socket.IPPROTO_IPV6, socket.IPV6_DSTOPTS, b"\0\0\1\4\0\0\0\0")] * (opt == "dstopts")
    for seq in range(int(base), int(base) + int(count)):
        s.sendmsg([payload(seq, int(size))], anc, 0, (dst, int(port)))
        time.sleep(0.001)
    sys.exit(0)

addr, port, total, peer, wait = sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), sys.argv[5], float(sys.argv[6])
s = sock(addr)
s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
s.bind((addr, port))
def path():  # the library answers its statistics option only on the bypass
    try:
        s.getsockopt(socket.SOL_SOCKET, 0x101b, 64)
        return "bypass"
    except OSError:
        return "kernel"
if peer != "-" and not wait:
    s.sendto(b"hello", (peer, 9))
print("ready", path(), flush=True)
s.settimeout(3)
seen = set()
def take(data):
    seq, size = struct.unpack("!II", data[:8])
    if data != payload(seq, size) or seq >= total or seq in seen:
        sys.exit("bad datagram seq %d size %d len %d" % (seq, size, len(data)))
    seen.add(seq)
if wait:
    time.sleep(wait)
    data, src = s.recvfrom(65536)
    take(data)
    s.sendto(b"reply", src)
    print("replied", path(), flush=True)
while len(seen) < total:
    try:
        take(s.recv(65536))
    except socket.timeout:
        break
print("got %d/%d %s" % (len(seen), total, path()), flush=True)
sys.exit(len(seen) != total)
