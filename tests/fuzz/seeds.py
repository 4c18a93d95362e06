#!/usr/bin/python3
"""seeds.py DIR: writes starting inputs for the fuzz targets to DIR/frame,
DIR/netlink and DIR/config."""
import os
import socket
import struct
import sys


def udp_frame(v6, payload, src, dst):
    udp = struct.pack("!HHHH", 5000, 7000, 8 + len(payload), 0) + payload
    mac = bytes.fromhex("020000000001020000000002")
    fam = socket.AF_INET6 if v6 else socket.AF_INET
    addrs = socket.inet_pton(fam, src) + socket.inet_pton(fam, dst)
    if v6:
        return mac + b"\x86\xdd" + struct.pack("!IHBB", 0x60000000, len(udp), 17, 64) + addrs + udp
    return mac + b"\x08\x00" + struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(udp), 0, 0x4000, 64, 17, 0) + addrs + udp


def frame_seeds():
    out = {}
    for v6 in (0, 1):
        src, dst, group = ("2001:db8::2", "2001:db8::1", "ff02::1:3") if v6 else \
            ("192.0.2.2", "192.0.2.1", "224.0.0.251")
        for name, payload in (("hello", b"hello"), ("big", bytes(range(256)) * 12)):
            f = udp_frame(v6, payload, src, dst)
            out[f"{v6}-{name}"] = bytes([v6 | 0x30, 64, 2, 2, 8, 0, 39, 0]) + f
            out[f"{v6}-{name}-connected"] = bytes([v6 | 0x44, 20, 1, 1, 0, 0, 8, 0]) + f
            out[f"{v6}-{name}-engine"] = bytes([v6 | 0x92, 64, 1, 255, 0, 0, 39, 5]) + f
        out[f"{v6}-group"] = bytes([v6 | 0x18, 40, 1, 4, 0, 0, 255, 0]) + udp_frame(v6, b"g", src, group)
        bad = bytearray(udp_frame(v6, b"p", src, dst) + bytes(20))
        bad[20 if v6 else 23] = 6  # TCP
        out[f"{v6}-tcp"] = bytes([v6, 0, 1, 4, 0, 0, 255, 0]) + bad
    return out


def nlmsg(mtype, flags, payload):
    return struct.pack("=IHHII", 16 + len(payload), mtype, flags, 7, 4242) + \
        payload + bytes(-len(payload) % 4)


def rta(atype, data):
    return struct.pack("=HH", 4 + len(data), atype) + data + bytes(-len(data) % 4)


def netlink_seeds():
    out = {}
    for fam, c0, gw, dst in ((socket.AF_INET, 0, "192.0.2.254", "192.0.2.1"),
                             (socket.AF_INET6, 1, "fe80::1", "2001:db8::1")):
        g, d = socket.inet_pton(fam, gw), socket.inet_pton(fam, dst)
        rtm = struct.pack("=BBBBBBBBI", fam, 0, len(g) * 8, 0, 254, 4, 0, 1, 0)
        out[f"route-{fam}"] = bytes([c0]) + nlmsg(24, 0, rtm + rta(4, struct.pack("=I", 2)) + rta(5, g))
        out[f"route-err-{fam}"] = bytes([c0]) + nlmsg(2, 0, struct.pack("=i", -101) + bytes(16))
        ndm = struct.pack("=BxxxiHBB", fam, 2, 0x02, 0, 1)
        entry = nlmsg(28, 2, ndm + rta(1, d) + rta(2, bytes.fromhex("020000000009")))
        out[f"neigh-{fam}"] = bytes([c0 | 2]) + entry + nlmsg(3, 2, struct.pack("=i", 0))
    lo = bytes([1, 1, 0, 6]) + bytes(8) + b"\x00" + b"lo\0\0\0\0\0"
    eth = bytes([2, 1, 1, 6]) + bytes.fromhex("0200000000020000") + b"\x00" + b"veth0:1"
    out["links"] = bytes([6]) + lo + eth
    return out


CONFIG = {"defaults": b"-\n-\n-\n-\n-\n-", "launcher": b"1\n15\n500\n-1\n100\n0",
          "large": b"0\n3000000000\n4294967297\n2147483648\n-99999999999\n1",
          "text": b"yes\n 12abc\n+7\n-0\n\t3\n"}

for target, seeds in (("frame", frame_seeds()), ("netlink", netlink_seeds()), ("config", CONFIG)):
    d = os.path.join(sys.argv[1], target)
    os.makedirs(d, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)
