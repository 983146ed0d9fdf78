#!/usr/bin/env python3
"""ftp_server KESTAL-FTPD: the FTP server as curl, lftp and the classic ftp client see it: listings, transfers of all sizes
both ways, appending, resuming, names with blanks and beyond ASCII, active and passive, IPv4 and IPv6, 200 transfers at once;
SIGINT and SIGTERM end it, also in the middle of a transfer."""
import os
import re
import signal
import socket
import subprocess
import sys

import peer

curl, lftp, ftp = peer.need("curl", "lftp", "tnftp")
HOME = os.path.join(peer.folder, "home")
AWKWARD = ["two words.txt", " leading", "가나다 라.txt", "50% & more;#?", "[brackets]", "it's", "quote\"d"]
os.makedirs(HOME)
os.environ["HOME"] = peer.folder  # no settings of the user's


def start():
    server = peer.start([sys.argv[1], "--port", "0", "--user", f"joe:secret:{HOME}"], stdout=subprocess.PIPE)
    return server, int(re.match(rb"port (\d+)", server.stdout.readline()).group(1))


def url(path="", host="127.0.0.1"):
    return f"ftp://joe:secret@{host}:{port}/{path}"


def run_curl(*options, status=0):
    return peer.run([curl, "-sS", "--disable", *options], status)


def run_lftp(*commands, host="127.0.0.1"):
    quiet = "set net:max-retries 1; set net:timeout 20; set cmd:fail-exit yes; set xfer:log no; set net:connection-limit 8"
    return peer.run([lftp, "--norc", "-c", "; ".join([quiet, f"open -u joe,secret -p {port} {host}", *commands])]).decode()


def run_ftp(*commands, mode="passive on"):
    script = "\n".join([f"open 127.0.0.1 {port}", "user joe secret", mode, "prompt off", f"lcd {peer.folder}", *commands, "bye", ""])
    return peer.run([ftp, "-n", "-v"], input=script.encode()).decode()


def by_curl(host):
    for size in (0, 1, 511, 4096, 65537, 5000000):
        data = peer.noise(size)
        path = peer.write("sent", data)
        for active in ([], ["-P", "-"], ["-P", "-", "--disable-eprt"], ["--disable-epsv"]):
            if ":" in host and "--disable-ep" in str(active):
                continue  # PORT and PASV know no IPv6
            run_curl("-T", path, *active, url("received", host))
            assert peer.read("home/received") == data
            assert run_curl(*active, url("received", host)) == data
    run_curl("-T", peer.write("more", b"tail"), "--append", url("received", host))
    assert peer.read("home/received") == data + b"tail"
    head = run_curl("-I", url("received", host)).decode()
    assert f"Content-Length: {len(data) + 4}" in head and "Last-Modified: " in head, head
    run_curl("-T", path, "--ftp-create-dirs", url("made/on/the/way/file", host))
    assert run_curl("-l", url("made/on/the/", host)) .split() == [b"way"]
    run_curl("-C", "10", url("received", host), status=31)  # it insists on 350 to REST
    run_curl("-Q", "-DELE /received", url("made/", host))
    assert not os.path.exists(f"{HOME}/received")
    run_curl(url("gone", host), status=78)
    run_curl("-u", "joe:wrong", f"ftp://{host}:{port}/", status=67)


def by_lftp(host):
    data = peer.noise(3000000, 2)
    peer.write("whole", data)
    peer.write("tree/a/b/deep", b"deep")
    for number, name in enumerate(AWKWARD):
        peer.write(f"tree/{name}", name.encode() * (number + 1))
    for passive in ("on", "off"):
        run_lftp(f"set ftp:passive-mode {passive}", f"mirror -R --no-perms {peer.folder}/tree", f"mirror tree {peer.folder}/back",
                 host=host)
        assert not peer.run(["diff", "-r", f"{peer.folder}/tree", f"{peer.folder}/back"])
        assert not peer.run(["diff", "-r", f"{peer.folder}/tree", f"{HOME}/tree"])
        peer.run(["rm", "-r", f"{peer.folder}/back"])
        run_lftp("rm -r tree", host=host)
        assert not os.path.exists(f"{HOME}/tree")

    peer.write("home/whole", data[:1000000])
    peer.write("part", data[:1234567])
    run_lftp(f"put -c {peer.folder}/whole", f"get -c whole -o {peer.folder}/part", host=host)
    assert peer.read("home/whole") == data and peer.read("part") == data, "both resumed"
    listing = run_lftp("mkdir -p x/y", "mv whole x/y/moved", "cd x/y", "pwd", "ls", "cls -l", host=host)
    assert re.search(r"-rw-r--r-- +1 \S+ +\S+ +3000000 \w{3} +\d+ \d\d:\d\d moved\r?\n", listing), listing
    run_lftp("rm x/y/moved", "rmdir x/y x", host=host)
    assert not os.path.exists(f"{HOME}/x")


def by_ftp():
    data = peer.noise(2000000, 3)
    for mode in ("passive on", "passive off", "epsv4 on", "epsv4 off"):
        peer.write("mine", data)
        for name in ("one.got", "two.got"):
            peer.write(f"home/down/{name}", name.encode())
        said = run_ftp("binary", "mkdir \"new folder\"", "cd \"new folder\"", "put mine", "append mine", "rename mine theirs",
                       "size theirs", "modtime theirs", "ls", "get theirs back", "delete theirs", "cd ..",
                       "rmdir \"new folder\"", "pwd", "cd down", "mget *.got", "rhelp", mode=mode)
        assert re.search(r"theirs\t4000000\ntheirs\t\w{3}, .*Remote directory: /\n", said, re.DOTALL), said
        assert "The following commands are recognized" in said and "Transfer complete" in said, said
        assert peer.read("back") == data + data
        assert peer.read("one.got") + peer.read("two.got") == b"one.gottwo.got"
        assert not os.path.exists(f"{HOME}/new folder")


def many_at_once():
    sizes = [(number * 7919) % 300000 for number in range(200)]
    options = ["--parallel", "--parallel-immediate", "--parallel-max", "200", "--no-progress-meter"]
    for number, size in enumerate(sizes):
        peer.write(f"many/{number}", peer.noise(size, number))
    os.makedirs(f"{HOME}/many")
    uploads = [word for number in range(200) for word in ("-T", f"{peer.folder}/many/{number}", url(f"many/{number}"))]
    downloads = [word for number in range(200) for word in ("-o", f"{peer.folder}/again/{number}", url(f"many/{number}"))]
    os.makedirs(f"{peer.folder}/again")
    run_curl(*options, *uploads)
    run_curl(*options, *downloads)
    for number in range(200):
        sent = peer.digest(peer.read(f"many/{number}"))
        assert peer.digest(peer.read(f"home/many/{number}")) == sent and peer.digest(peer.read(f"again/{number}")) == sent, number


def ends_on(server, number):
    """The server, with one client that waits and one in a transfer that it does not read."""
    with socket.create_connection(("127.0.0.1", port)) as idle:
        assert idle.recv(100).startswith(b"220")
        stalled = peer.start([curl, "-sSN", "--limit-rate", "1k", url("large")], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        assert stalled.stdout.read(1)
        server.send_signal(number)
        assert idle.recv(100) == b""
    assert server.wait(peer.LIMIT) == 0
    peer.end(stalled)


server, port = start()
by_curl("127.0.0.1")
by_lftp("127.0.0.1")
if socket.has_ipv6 and peer.answers(port, "::1"):
    by_curl("[::1]")
    by_lftp("::1")
by_ftp()
many_at_once()
with open(f"{HOME}/large", "wb") as file:
    file.truncate(1 << 30)
if not os.environ.get("SANITIZED"):  # which may bring a thread of its own
    peer.wait_for(lambda: len(os.listdir(f"/proc/{server.pid}/task")) == 1, "the threads' end")
ends_on(server, signal.SIGTERM)
server, port = start()
ends_on(server, signal.SIGINT)
