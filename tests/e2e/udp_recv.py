# A plain UDP receiver: udp_recv.py ADDR PORT COUNT [CALL].  Prints each
# payload as hex, one a line, until COUNT arrived or none came for 3 s.
# CALL: recv (default), recvmsg, or poll (then recv).
import select
import socket
import sys

addr, port, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
call = sys.argv[4] if len(sys.argv) > 4 else "recv"
s = socket.socket(socket.AF_INET6 if ":" in addr else socket.AF_INET,
                  socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
s.bind((addr, port))
print("ready", file=sys.stderr, flush=True)
s.settimeout(3)
p = select.poll()
p.register(s, select.POLLIN)
for _ in range(count):
    try:
        if call == "poll" and not p.poll(3000):
            break
        if call == "recvmsg":
            data, anc, flags, peer = s.recvmsg(65536)
            assert not anc and flags == 0, (anc, flags)
        else:
            data = s.recv(65536)
    except socket.timeout:
        break
    print(data.hex(), flush=True)
