#!/usr/bin/env python3
"""tftp KESTAL_GET: files of every length from tftpd-hpa and atftpd, block numbers that wrap, refusals that are told, and a
network that loses and doubles packets."""
import os
import random
import re
import select
import socket
import sys
import threading

import peer

SIZES = {"empty": 0, "one": 1, "511": 511, "512": 512, "513": 513, "a b\u00e9": 100000, "long": 40 << 20}
LOSSES = 30
MOST_LATE = 20000  # microseconds until the server sends a block again

get = sys.argv[1]
in_tftpd, atftpd = peer.need("in.tftpd", "atftpd")
served = os.path.join(peer.folder, "served")


def hpa(port):
    return [in_tftpd, "--foreground", "--address", f"127.0.0.1:{port}", "--secure", "--retransmit", MOST_LATE, served]


def atftp(port):
    return [atftpd, "--daemon", "--no-fork", "--port", port, "--bind-address", "127.0.0.1", "--logfile",
            os.path.join(peer.folder, "log"), served]


def fetch(location, name):
    """The output of kestal-get, whose copy has to be the file."""
    output = peer.run([get, "--output", os.path.join(peer.folder, "copy"), f"{location}/{name}"])
    assert peer.read("copy") == peer.read(os.path.join("served", name)), f"{location}/{name} arrived changed"
    return output.decode()


def check(command):
    port = peer.free_port(socket.SOCK_DGRAM)
    peer.start(command(port))
    peer.wait_for(lambda: peer.bound(port), "a TFTP server")
    location = f"tftp://127.0.0.1:{port}"
    for name, size in SIZES.items():
        assert re.search(rf"^size +{size} bytes$", fetch(location, name), re.MULTILINE)
    output = peer.run([get, f"{location}/missing"], status=1).decode()
    assert f"{location}/missing" in output and "No such file" in output, output
    return port


class lossy_relay(threading.Thread):
    """Between one client and a server: of the packets that the server sends again when nothing comes of them, some are lost;
    any may come twice."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.server = ("127.0.0.1", port)
        self.ends = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(3)]
        for end in self.ends[:2]:
            end.bind(("127.0.0.1", 0))
        self.port = self.ends[0].getsockname()[1]
        self.lost = self.doubled = 0
        self.start()

    def pass_on(self, end, packet, to, may_be_lost):
        chance = self.random.random()
        if may_be_lost and chance < 0.03 and self.lost < LOSSES:
            self.lost += 1
            return
        end.sendto(packet, to)
        if chance > 0.95:
            self.doubled += 1
            end.sendto(packet, to)

    def run(self):
        self.random = random.Random(1)
        requests, transfer, upstream = self.ends
        client = server = None
        while True:
            for end in select.select(self.ends, [], [])[0]:
                packet, sender = end.recvfrom(2048)
                if end is requests:
                    client = sender
                    upstream.sendto(packet, self.server)
                elif end is transfer:
                    self.pass_on(upstream, packet, server, True)
                else:
                    server = sender
                    self.pass_on(transfer, packet, client, True)


if os.geteuid() != 0:
    print("the servers can give up root's rights only when they have them")
    sys.exit(peer.SKIPPED)
os.chmod(peer.folder, 0o755)
os.mkdir(served, 0o755)
for number, (file_name, file_size) in enumerate(SIZES.items()):
    os.chmod(peer.write(os.path.join(served, file_name), peer.noise(file_size, number)), 0o644)
check(atftp)
relay = lossy_relay(check(hpa))
fetch(f"tftp://127.0.0.1:{relay.port}", "a b\u00e9")
assert relay.lost >= 5 and relay.doubled >= 5, f"{relay.lost} lost, {relay.doubled} doubled"
