#!/usr/bin/env python3
"""The FTP client, called as a C program calls it, against vsftpd (anonymous) and pure-ftpd (with a user): all streams,
passive and active, over IPv4 and IPv6, restart, abort, and servers that are killed in the middle of a file."""
import ctypes
import os
import signal
import sys

import ftp_peers
import peer
from ftp_peers import root

if os.environ.get("SANITIZED"):
    print("needs a plain build")
    sys.exit(peer.SKIPPED)
library = ctypes.CDLL(sys.argv[1])
library.kestal_open_ftp.restype = ctypes.c_void_p
library.kestal_ftp_get_pwd.restype = ctypes.c_char_p

BIG = peer.noise(3000000)
HUGE = 1 << 25
PASSIVE = 7


class Client:
    def __init__(self, host, port, user=None, password=None):
        self.ftp = ctypes.c_void_p(library.kestal_open_ftp())
        host = f"[{host}]" if ":" in host else host
        assert self.connect(f"ftp://{host}:{port}/".encode(), 0) == 0
        assert self.login(user, password, b"I") == 0

    def __getattr__(self, name):
        return lambda *arguments: getattr(library, f"kestal_ftp_{name}")(self.ftp, *arguments)

    def close(self):
        self.disconnect()
        library.kestal_close_ftp(self.ftp)
        assert library.kestal_get_alloc_count() == 0

    def open(self, mode, path, offset=0):
        assert self.open_stream(ctypes.c_uint64(offset), path, mode) == 0, (mode, path)

    def receive(self, most=1 << 40):
        data, block = bytearray(), ctypes.create_string_buffer(65536)
        while len(data) < most and (count := self.recv_stream(block, ctypes.c_uint64(65536), 10000)) > 0:
            data += block.raw[:count]
        return bytes(data)

    def get(self, *arguments):
        self.open(*arguments)
        data = self.receive()
        assert self.close_stream() == 0
        return data

    def put(self, mode, path, data):
        self.open(mode, path)
        while data:
            count = self.send_stream(data, ctypes.c_uint64(len(data)), 10000)
            assert count > 0
            data = data[count:]
        assert self.close_stream() == 0


def kill_with_children(process):
    """Sessions are not in the group of the server that made them. Some end by themselves meanwhile."""
    try:
        with open(f"/proc/{process}/task/{process}/children", encoding="ascii") as children:
            sessions = children.read().split()
        os.kill(process, signal.SIGKILL)
    except (FileNotFoundError, ProcessLookupError):
        return
    for session in sessions:
        kill_with_children(int(session))


def check(command, host, *user):
    server, port = ftp_peers.start(command, host)
    client = Client(host, port, *user)
    where = b"" if user else b"dir/"
    for passive in (1, 0):
        client.set_option(PASSIVE, passive)
        assert client.get(b"r", where + b"big") == BIG
        assert client.get(b"R", where + b"big", len(BIG) - 5) == BIG[-5:]
        assert client.get(b"r", where + b"empty \xec\x95\x88") == b""
        assert b" 3000000 " in client.get(b"list", None) or where
        assert b"big" in client.get(b"nlst", where or b".")
        client.put(b"w", where + b"up", BIG)
        client.put(b"append", where + b"up", b"tail")
        assert peer.read(f"{root}/dir/up") == BIG + b"tail"
        assert client.rename(where + b"up", where + b"up2") == 0 and client.remove(where + b"up2") == 0
        client.open(b"r", where + b"big")
        client.receive(100000)
        client.abort_stream()
        assert client.get_pwd() == b"/"  # still in step
    local = f"{peer.folder}/made/here/big".encode()
    md5 = ctypes.create_string_buffer(128)
    library.kestal_md5_digest.restype = ctypes.c_char_p
    assert client.download_to_file_with_md5(0x40, where + b"big", local, 0o600, md5) == 0
    assert peer.read(local.decode()) == BIG
    assert library.kestal_md5_digest(md5, None).lower() == peer.hashlib.md5(BIG).hexdigest().encode()
    assert client.download_to_file(0x20, where + b"none", local, 0o600) == -1 and os.path.exists(local)

    client.open(b"r", where + b"huge")
    assert client.receive(100000)
    kill_with_children(server.pid)
    assert len(client.receive()) < HUGE - 200000
    assert client.close_stream() == -1 and client.check() == -1
    client.close()


peer.write("root/dir/big", BIG)
peer.write("root/dir/empty \uc548", b"")
with open(f"{root}/dir/huge", "wb") as huge:
    huge.truncate(HUGE)
library.kestal_init_network()
library.kestal_uninit_network()
for address in ["127.0.0.1"] + ["::1"] * (library.kestal_check_ipv6_support() == 0):
    check(ftp_peers.vsftpd, address)
    check(ftp_peers.pure_ftpd, address, b"joe", b"secret")
