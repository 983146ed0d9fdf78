#!/usr/bin/env python3
"""ftp_stream KESTAL_GET LIBRARY: ftp:// locations from vsftpd and pure-ftpd: anonymous and with a user, passive and active,
from an offset; refusals that are told. The library's FTP-only plugin, loaded as an application loads it."""
import ctypes
import os
import re
import sys

import peer

get, library = sys.argv[1:]
vsftpd, pure_ftpd, pure_pw, openssl = peer.need("vsftpd", "pure-ftpd", "pure-pw", "openssl")
content = peer.noise(5 << 20)
if os.geteuid() != 0:
    print("the servers need root's rights")
    sys.exit(peer.SKIPPED)


def start_vsftpd():
    port = peer.free_port()
    settings = {"listen": "YES", "listen_address": "127.0.0.1", "listen_port": port, "run_as_launching_user": "NO",
                "background": "NO", "anonymous_enable": "YES", "anon_root": os.path.join(peer.folder, "home"),
                "local_enable": "NO", "secure_chroot_dir": os.path.join(peer.folder, "empty"), "seccomp_sandbox": "NO",
                "connect_from_port_20": "NO", "xferlog_enable": "NO", "isolate": "NO", "isolate_network": "NO"}
    os.mkdir(os.path.join(peer.folder, "empty"), 0o555)
    path = peer.write("vsftpd.conf", "".join(f"{name}={value}\n" for name, value in settings.items()).encode())
    os.chmod(path, 0o600)
    peer.start([vsftpd, path])
    peer.wait_for(lambda: peer.answers(port), "vsftpd")
    return port


def start_pure_ftpd():
    port = peer.free_port()
    database = os.path.join(peer.folder, "accounts.db")
    quick_hash = peer.run([openssl, "passwd", "-1", "pass word"]).decode().strip()  # the server's own takes seconds
    accounts = peer.write("accounts", f"me:{quick_hash}:65534:65534::{peer.folder}/home/./::::::::::::\n".encode())
    peer.run([pure_pw, "mkdb", database, "-f", accounts])
    peer.start([pure_ftpd, "-S", f"127.0.0.1,{port}", "-l", f"puredb:{database}", "-E", "-H", "-u", "1", "-g",
                os.path.join(peer.folder, "pid")])
    peer.wait_for(lambda: peer.answers(port), "pure-ftpd")
    return port


def fetch(location, *options, start=0):
    output = peer.run([get, "--output", os.path.join(peer.folder, "copy"), *options, location]).decode()
    assert peer.read("copy") == content[start:], f"{location} arrived changed"
    assert re.search(rf"^size +{len(content) - start} bytes$", output, re.MULTILINE), output


def refuse(location, cause):
    output = peer.run([get, location], status=1).decode()
    assert location in output and cause in output, output


def through_the_plugin(location):
    """Reads with the plugin, and appends."""
    ulx = ctypes.CDLL(library)
    ulx.kestal_get_ctx_plugin_name.restype = ctypes.c_char_p
    ulx.kestal_ctx_read.restype = ulx.kestal_ctx_write.restype = ctypes.c_int64
    ulx.kestal_load_plugin(None, None, None)
    ulx.kestal_load_plugin(library.encode(), b"kestal_plugin_initialize_builtin_ftp_plugin",
                           b"kestal_plugin_uninitialize_builtin_ftp_plugin")
    stream = ulx.kestal_open_ctx_stream(f"{location}/file".encode(), b"rb", 0)
    assert ulx.kestal_get_ctx_plugin_name(stream) == os.path.basename(library).encode()
    block, data = ctypes.create_string_buffer(65536), bytearray()
    while (length := ulx.kestal_ctx_read(stream, block, ctypes.c_uint64(65536))) > 0:
        data += memoryview(block)[:length]
    assert length == 0 and data == content
    ulx.kestal_destroy_ctx(stream)
    for mode, part in ((b"wb", b"first "), (b"ab", b"second")):
        stream = ulx.kestal_open_ctx_stream(f"{location}/in/file".encode(), mode, 0)
        assert stream != -1, f"{mode} was refused"
        assert ulx.kestal_ctx_write(stream, part, ctypes.c_uint64(len(part))) == len(part)
        ulx.kestal_destroy_ctx(stream)
    assert peer.read("home/in/file") == b"first second"
    ulx.kestal_unload_all_plugin()


os.chmod(peer.folder, 0o755)
os.chmod(peer.write("home/file", content), 0o644)
os.mkdir(os.path.join(peer.folder, "home/in"))
os.chmod(os.path.join(peer.folder, "home/in"), 0o777)
anonymous, user = f"127.0.0.1:{start_vsftpd()}", f"me:pass%20word@127.0.0.1:{start_pure_ftpd()}"
for location in (anonymous, user):
    fetch(f"ftp://{location}/file")
    fetch(f"ftp@active://{location}/file")
    fetch(f"ftp://{location}/file", "--offset", 1000001, start=1000001)
    refuse(f"ftp://{location}/missing", "No such file")
refuse(f"ftp://{user.replace('%20', '')}/file", "Permission denied")
refuse(f"ftp://127.0.0.1:{peer.free_port()}/file", "Connection refused")
if not os.environ.get("SANITIZED"):
    through_the_plugin(f"ftp://{user}")
