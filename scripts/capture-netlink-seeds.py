#!/usr/bin/env python3
"""Captures real rtnetlink datagrams as seeds of the netlink fuzz target.

    scripts/capture-netlink-seeds.py [folder]     (root; default fuzz/corpus/netlink)

Runs itself again in a private network namespace (unshare --net), makes a
veth pair and a bridge with IPv4/IPv6 addresses and routes there, and
writes every datagram of the link, address and route dumps and of the
notifications those changes send, one file each, exactly as received.
"""
import os
import socket
import struct
import subprocess
import sys

RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE = 18, 22, 26
NLM_F_REQUEST, NLM_F_DUMP = 0x1, 0x300
NLMSG_DONE = 3
GROUPS = 0x1 | 0x10 | 0x100 | 0x40  # link, IPv4 address, IPv6 address, IPv4 route
SETUP = [
    "link add va type veth peer name vb",
    "link add br0 type bridge",
    "link set va up", "link set vb up", "link set br0 up",
    "link set va mtu 1400",
    "addr add 10.7.0.1/24 dev va",
    "addr add 10.7.1.1/24 dev br0",
    "addr add fd00:7::1/64 dev va",
    "route add 10.9.0.0/16 via 10.7.0.2 metric 50",
    "route add blackhole 10.66.0.0/16",
    "link set vb down",
    "addr del 10.7.1.1/24 dev br0",
]


def ip(cmd):
    subprocess.run(["ip"] + cmd.split(), check=True)


def dump(kind, family, fixed):
    s = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
    s.bind((0, 0))
    body = bytes([family]) + bytes(fixed - 1)
    s.send(struct.pack("=IHHII", 16 + fixed, kind, NLM_F_REQUEST | NLM_F_DUMP, 1, 0) + body)
    datagrams = []
    while True:
        data = s.recv(65536)
        datagrams.append(data)
        if any(struct.unpack_from("=H", data, off + 4)[0] == NLMSG_DONE for off in offsets(data)):
            return datagrams


def offsets(data):
    off = 0
    while off + 16 <= len(data):
        yield off
        length = struct.unpack_from("=I", data, off)[0]
        if length < 16:
            return
        off += (length + 3) & ~3


def inside(folder):
    os.makedirs(folder, exist_ok=True)
    watch = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
    watch.bind((0, GROUPS))
    for cmd in SETUP:
        ip(cmd)
    watch.setblocking(False)
    seeds = []
    try:
        while True:
            seeds.append(("notify", watch.recv(65536)))
    except BlockingIOError:
        pass
    for name, kind, family, fixed in (("link", RTM_GETLINK, 0, 16), ("addr", RTM_GETADDR, 0, 8),
                                      ("route", RTM_GETROUTE, socket.AF_INET, 12)):
        seeds += [(name, d) for d in dump(kind, family, fixed)]
    counts = {}
    for name, data in seeds:
        counts[name] = counts.get(name, 0) + 1
        with open(os.path.join(folder, "%s-%02d.bin" % (name, counts[name])), "wb") as f:
            f.write(data)
    print("wrote", counts)


if __name__ == "__main__":
    if len(sys.argv) > 2 and sys.argv[1] == "--inside":
        inside(sys.argv[2])
    else:
        folder = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "fuzz/corpus/netlink")
        sys.exit(subprocess.call(["unshare", "--net", sys.executable, __file__, "--inside", folder]))
