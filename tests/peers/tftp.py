#!/usr/bin/env python3
"""tftp KESTAL_GET: files of every length from tftpd-hpa and atftpd, block numbers that wrap, refusals that are told, and a
network that loses and doubles packets."""
import os
import random
import select
import socket
import sys
import threading

import peer

SIZES = {"empty": 0, "one": 1, "511": 511, "512": 512, "513": 513, "a b\u00e9": 100000, "long": 40 << 20}

get = sys.argv[1]
in_tftpd, atftpd = peer.need("in.tftpd", "atftpd")
served = f"{peer.folder}/served"


def hpa(port):
    return [in_tftpd, "--foreground", "--address", f"127.0.0.1:{port}", "--secure", "--retransmit", 20000, served]


def atftp(port):
    return [atftpd, "--daemon", "--no-fork", "--port", port, "--bind-address", "127.0.0.1", "--logfile", f"{peer.folder}/log", served]


def fetch(port, name):
    output = peer.run([get, "--output", f"{peer.folder}/copy", f"tftp://127.0.0.1:{port}/{name}"]).decode()
    assert peer.read("copy") == peer.read(f"served/{name}"), f"{name} arrived changed"
    assert f" {SIZES[name]} bytes" in output, output


def check(command):
    port = peer.free_port(socket.SOCK_DGRAM)
    peer.start(command(port))
    peer.wait_for(lambda: peer.bound(port), "a TFTP server")
    for name in SIZES:
        fetch(port, name)
    output = peer.run([get, f"tftp://127.0.0.1:{port}/missing"], status=1).decode()
    assert "/missing" in output and "No such file" in output, output
    return port


def relay(port, requests, count):
    """Between one client and a server, which sends again what nothing came of: some packets are lost, some come twice."""
    chance = random.Random(1)
    transfer, upstream = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
    packet, client = requests.recvfrom(2048)
    upstream.sendto(packet, ("127.0.0.1", port))
    transfer.bind(("127.0.0.1", 0))
    while True:
        for end in select.select([transfer, upstream], [], [])[0]:
            packet, sender = end.recvfrom(2048)
            if end is upstream:
                server = sender
            copies = chance.choices((0, 1, 2), (3, 90, 7))[0]
            count[copies] += 1
            for _ in range(copies):
                if end is upstream:
                    transfer.sendto(packet, client)
                else:
                    upstream.sendto(packet, server)


if os.getuid() != 0:
    print("the servers need root's rights, to give them up")
    sys.exit(peer.SKIPPED)
os.chmod(peer.folder, 0o755)
for number, (file_name, file_size) in enumerate(SIZES.items()):
    os.chmod(peer.write(f"served/{file_name}", peer.noise(file_size, number)), 0o644)
check(atftp)
counts = [0, 0, 0]
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as relayed:
    relayed.bind(("127.0.0.1", 0))
    threading.Thread(target=relay, args=(check(hpa), relayed, counts), daemon=True).start()
    fetch(relayed.getsockname()[1], "a b\u00e9")
assert counts[0] >= 5 and counts[2] >= 5, counts
