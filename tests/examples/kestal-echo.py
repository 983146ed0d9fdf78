#!/usr/bin/env python3
"""kestal-echo PROGRAM: more than a thousand connections at once with descriptors above 1024, every byte back in order;
a peer that does not read makes the server grow by no more than its buffers; idle peers are dropped; SIGTERM ends it."""
import atexit
import os
import random
import re
import resource
import select
import signal
import socket
import subprocess
import sys
import time

CONNECTIONS = 1200


def memory_of(process):
    """Resident kilobytes."""
    return int(re.search(r"VmRSS:\s+(\d+)", open(f"/proc/{process.pid}/status").read()).group(1))


def is_at_rest(process):
    """Whether it used no more than a third of the processor for a while, and sleeps."""
    def fields():
        return open(f"/proc/{process.pid}/stat").read().split()

    before = fields()
    time.sleep(0.3)
    after = fields()
    return after[2] == "S" and sum(int(after[i]) - int(before[i]) for i in (13, 14)) < 0.1 * os.sysconf("SC_CLK_TCK")


def start(*options):
    process = subprocess.Popen([sys.argv[1], "--tcp", "0", "--udp", "0", *options], stdout=subprocess.PIPE, text=True)
    ports = {kind: int(port) for kind, port in
             (re.match(r"(\w+) \S+ port (\d+)", process.stdout.readline()).groups() for _ in range(2))}
    return process, ports


def receive_all(peer, size):
    data = bytearray()
    while len(data) < size and (part := peer.recv(65536)):
        data += part
    return bytes(data)


def connect(port, receives=None):
    peer = socket.socket()
    peer.settimeout(30)
    if receives:
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receives)
    peer.connect(("127.0.0.1", port))
    return peer


def many_at_once(port):
    peers = [connect(port) for _ in range(CONNECTIONS)]
    for turn in range(3):
        for number, peer in random.sample(list(enumerate(peers)), len(peers)):
            peer.sendall(b"%d %d" % (turn, number))
        for number, peer in random.sample(list(enumerate(peers)), len(peers)):
            expected = b"%d %d" % (turn, number)
            assert receive_all(peer, len(expected)) == expected
    return peers


def under_way(port):
    """Bytes that the kernel holds on their way from this port to the server."""
    rows = [line.split() for line in open("/proc/net/tcp")][1:]
    sent = [row[4][:8] for row in rows if row[1].endswith(f":{port:04X}")]
    received = [row[4][9:] for row in rows if row[2].endswith(f":{port:04X}")]
    return sum(int(queued, 16) for queued in sent + received)


def one_that_does_not_read(process, port):
    before = memory_of(process)
    with connect(port, 65536) as peer:
        peer.setblocking(False)
        writable = select.poll()  # takes descriptors above 1023
        writable.register(peer, select.POLLOUT)
        data = random.randbytes(100000000)
        sent = 0
        while sent < len(data) and (writable.poll(1000) or not is_at_rest(process)):
            sent += peer.send(data[sent:sent + 65536]) if writable.poll(0) else 0
        assert sent < len(data), "nothing held the sender back"
        if not os.environ.get("SANITIZED"):  # a sanitizer keeps what is freed
            assert memory_of(process) - before < 2048, "the server grew"
        taken = sent - under_way(peer.getsockname()[1])
        peer.settimeout(30)
        peer.shutdown(socket.SHUT_WR)
        assert receive_all(peer, sent + 1) == data[:sent], "all of it, then the end"
    with connect(port, 65536) as peer:
        peer.sendall(bytes(taken - 40000))  # the end comes while both of the server's buffers hold something
        peer.shutdown(socket.SHUT_WR)
        deadline = time.monotonic() + 30
        while not is_at_rest(process):  # once it has taken it all
            assert time.monotonic() < deadline, "the server does not wait"


def datagrams(port):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
        peer.settimeout(30)
        for size in (0, 1, 1400, 60000):
            data = random.randbytes(size)
            peer.sendto(data, ("127.0.0.1", port))
            assert peer.recv(65536) == data


def main():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard < 2 * CONNECTIONS:
        print("the limit of descriptors is too low for this test")
        sys.exit(77)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    process, ports = start("--idle", "600")
    atexit.register(process.kill)
    peers = many_at_once(ports["tcp"])
    assert max(map(int, os.listdir(f"/proc/{process.pid}/fd"))) > 1024
    one_that_does_not_read(process, ports["tcp"])
    datagrams(ports["udp"])
    process.send_signal(signal.SIGTERM)
    assert process.wait(30) == 0
    assert peers[0].recv(1) == b"", "connections are closed at the end"

    process, ports = start("--idle", "1", "--most", "1")
    atexit.register(process.kill)
    with connect(ports["tcp"]) as first, connect(ports["tcp"]) as second:
        second.sendall(b"x")
        assert first.recv(1) == b"", "dropped for being idle"
        assert second.recv(1) == b"x", "served once there is room"
    process.send_signal(signal.SIGINT)
    assert process.wait(30) == 0


main()
