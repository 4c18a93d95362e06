#!/usr/bin/python3
"""seeds.py DIR: writes starting inputs for the fuzz targets to DIR/frame,
DIR/netlink and DIR/config.  The netlink seeds include the kernel's own
answers to a route request and a neighbour dump, renumbered to the
sequence and port the target expects."""
import os
import socket
import struct
import sys

SEQ, PORT = 7, 4242


def udp_frame(v6, payload, src, dst, sport=5000, dport=7000):
    udp = struct.pack("!HHHH", sport, dport, 8 + len(payload), 0) + payload
    mac = bytes.fromhex("020000000001" "020000000002")
    if v6:
        ip = struct.pack("!IHBB", 0x60000000, len(udp), 17, 64)
        ip += socket.inet_pton(socket.AF_INET6, src)
        ip += socket.inet_pton(socket.AF_INET6, dst)
        return mac + b"\x86\xdd" + ip + udp
    ip = struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(udp), 0, 0x4000, 64, 17, 0)
    ip += socket.inet_aton(src) + socket.inet_aton(dst)
    return mac + b"\x08\x00" + ip + udp


def frame_seeds():
    out = {}
    for v6 in (False, True):
        src, dst = ("2001:db8::2", "2001:db8::1") if v6 else ("192.0.2.2", "192.0.2.1")
        group = "ff02::1:3" if v6 else "224.0.0.251"
        tag = "v6" if v6 else "v4"
        for name, payload in (("empty", b""), ("hello", b"hello"),
                              ("big", bytes(range(256)) * 12)):
            f = udp_frame(v6, payload, src, dst)
            # direct: two iovecs, room for the sender and both messages
            out[f"{tag}-{name}"] = bytes([v6 | 0x10 | 0x20, 64, 2, 2, 8, 0, 39, 0]) + f
            out[f"{tag}-{name}-connected"] = bytes([v6 | 0x04 | 0x40, 20, 1, 1, 0, 0, 8, 0]) + f
            # engine: aimed at the engine's socket, peek then receive
            out[f"{tag}-{name}-engine"] = bytes([v6 | 0x02 | 0x80 | 0x10, 64, 1, 255, 0, 0, 39, 5]) + f
            out[f"{tag}-{name}-poll"] = bytes([v6 | 0x02 | 0x80 | 0x20, 24, 1, 2, 0, 0, 255, 10]) + f
        out[f"{tag}-group"] = bytes([v6 | 0x08 | 0x10, 40, 1, 4, 0, 0, 255, 0]) + \
            udp_frame(v6, b"g", src, group)
        out[f"{tag}-padded"] = bytes([v6, 0, 1, 4, 0, 0, 255, 0]) + \
            udp_frame(v6, b"p", src, dst) + bytes(20)
        # Known-bad frames, each a byte edit of a good one (or a cut): no
        # UDP header, IP length below the headers or past the end, TCP,
        # IPv4 options (IPv6 of version 4), a fragment (another EtherType),
        # a UDP length that disagrees, a martian sender.
        good, off = udp_frame(v6, b"hello", src, dst), 62 if v6 else 42
        edits = {"short": (off - 1, None), "iplen-low": ((19, 7) if v6 else (17, 27)),
                 "iplen-high": (len(good) - 1, None), "tcp": ((20, 6) if v6 else (23, 6)),
                 "options": (14, 0x40 if v6 else 0x46), "fragment": ((12, 8) if v6 else (20, 0x20)),
                 "udplen": (off - 4, good[off - 4] ^ 1), "martian": ((22, 0xff) if v6 else (26, 127))}
        for name, (at, val) in edits.items():
            f = bytearray(good[:at] if val is None else good)
            if val is not None:
                f[at] = val
            out[f"{tag}-bad-{name}"] = bytes([v6 | 0x10, 64, 1, 8, 0, 0, 39, 0]) + f
    f = bytearray(udp_frame(True, b"", "2001:db8::2", "2001:db8::1") + bytes(100))
    f[58:60] = b"\0\0"
    out["v6-udp-length-engine"] = bytes([0x93, 64, 1, 255, 0, 0, 39, 5]) + f
    f = udp_frame(True, b"m", "::ffff:127.0.0.1", "2001:db8::1")
    out["v6-mapped-source"] = bytes([1, 0, 1, 8, 0, 0, 39, 0]) + f
    return out


def nlmsg(mtype, flags, payload, seq=SEQ, pid=PORT):
    return struct.pack("=IHHII", 16 + len(payload), mtype, flags, seq, pid) + \
        payload + bytes(-len(payload) % 4)


def rta(atype, data):
    return struct.pack("=HH", 4 + len(data), atype) + data + bytes(-len(data) % 4)


def renumber(buf):
    """The kernel's answer, its messages given SEQ and PORT."""
    out, at = bytearray(buf), 0
    while at + 16 <= len(out):
        length = struct.unpack_from("=I", out, at)[0]
        struct.pack_into("=II", out, at + 8, SEQ, PORT)
        if length < 16:
            break
        at += (length + 3) & ~3
    return bytes(out)


def kernel_answer(req):
    s = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
    s.bind((0, 0))
    s.settimeout(1)
    s.send(req)
    try:
        return renumber(s.recv(65536))
    except OSError:
        return None
    finally:
        s.close()


def netlink_seeds():
    RTM_NEWROUTE, RTM_GETROUTE, RTM_NEWNEIGH, RTM_GETNEIGH = 24, 26, 28, 30
    NLMSG_ERROR, NLMSG_DONE = 2, 3
    out = {}
    for fam, dst, c0 in ((socket.AF_INET, "127.0.0.1", 0), (socket.AF_INET6, "::1", 1)):
        a = socket.inet_pton(fam, dst)
        rtm = struct.pack("=BBBBBBBBI", fam, 0, len(a) * 8, 0, 0, 0, 0, 0, 0)
        ans = kernel_answer(nlmsg(RTM_GETROUTE, 1, rtm + rta(1, a), seq=1, pid=0))
        if ans:
            out[f"route-kernel-{fam}"] = bytes([c0]) + ans
        ndm = struct.pack("=BxxxiHBB", fam, 0, 0, 0, 0)
        ans = kernel_answer(nlmsg(RTM_GETNEIGH, 0x301, ndm, seq=1, pid=0))
        if ans:
            out[f"neigh-kernel-{fam}"] = bytes([c0 | 2]) + ans
    for fam, c0, gw, dst in ((socket.AF_INET, 0, "192.0.2.254", "192.0.2.1"),
                             (socket.AF_INET6, 1, "fe80::1", "2001:db8::1")):
        g = socket.inet_pton(fam, gw)
        rtm = struct.pack("=BBBBBBBBI", fam, 0, len(g) * 8, 0, 254, 4, 0, 1, 0)
        attrs = rta(4, struct.pack("=I", 2)) + rta(5, g)
        out[f"route-gw-{fam}"] = bytes([c0]) + nlmsg(RTM_NEWROUTE, 0, rtm + attrs)
        via = rta(4, struct.pack("=I", 2)) + rta(18, struct.pack("=H", fam) + g)
        out[f"route-via-{fam}"] = bytes([c0 | 8]) + nlmsg(RTM_NEWROUTE, 0, rtm + via)
        out[f"route-err-{fam}"] = bytes([c0]) + nlmsg(NLMSG_ERROR, 0, struct.pack("=i", -101) + bytes(16))
        d = socket.inet_pton(fam, dst)
        ndm = struct.pack("=BxxxiHBB", fam, 2, 0x02, 0, 1)
        entry = nlmsg(RTM_NEWNEIGH, 2, ndm + rta(1, d) + rta(2, bytes.fromhex("020000000009")))
        stale = nlmsg(RTM_NEWNEIGH, 2, struct.pack("=BxxxiHBB", fam, 2, 0x01, 0, 1) + rta(1, d))
        done = nlmsg(NLMSG_DONE, 2, struct.pack("=i", 0))
        out[f"neigh-{fam}"] = bytes([c0 | 2]) + stale + entry + done
        out[f"neigh-if-{fam}"] = bytes([c0 | 4 | 8]) + entry + done
    # An interface list: lo, then an Ethernet interface with a label.
    lo = bytes([1, 1, 0, 6]) + bytes(8) + b"\x00" + b"lo\0\0\0\0\0"
    eth = bytes([2, 1, 1, 6]) + bytes.fromhex("0200000000020000") + b"\x00" + b"veth0:1"
    out["links"] = bytes([6]) + lo + eth
    return out


def config_seeds():
    return {
        "defaults": b"-\n-\n-\n-\n-\n-",
        "launcher": b"1\n15\n500\n-1\n100\n0",
        "large": b"0\n3000000000\n4294967297\n2147483648\n-99999999999\n1",
        "text": b"yes\n 12abc\n+7\n-0\n\t3\n",
    }


def main():
    root = sys.argv[1]
    for target, seeds in (("frame", frame_seeds()), ("netlink", netlink_seeds()),
                          ("config", config_seeds())):
        d = os.path.join(root, target)
        os.makedirs(d, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(d, name), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
