# An ordinary kernel UDP receiver: udp_recv.py ADDR PORT COUNT.  Prints each
# datagram's payload as hex, one per line, until COUNT arrived or nothing
# came for 3 seconds.
import socket
import sys

addr, port, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
s = socket.socket(socket.AF_INET6 if ":" in addr else socket.AF_INET,
                  socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
s.bind((addr, port))
print("ready", file=sys.stderr, flush=True)
s.settimeout(3)
for _ in range(count):
    try:
        data = s.recv(65536)
    except socket.timeout:
        break
    print(data.hex(), flush=True)
