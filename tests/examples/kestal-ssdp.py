#!/usr/bin/env python3
"""kestal-ssdp PROGRAM: prints a message with its sender, ends cleanly on SIGINT and SIGTERM, and on the keys q and ESC of
its terminal, whose settings come back; refuses what it does not know."""
import atexit
import os
import pty
import select
import signal
import socket
import subprocess
import sys
import termios
import time

PROGRAM = sys.argv[1]
LIMIT = 30
MESSAGE = b"NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNTS: ssdp:alive\r\n\r\n"


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("", 0))
        return probe.getsockname()[1]


def read_until(descriptor, part, text=b""):
    end = time.monotonic() + LIMIT
    while part not in text:
        assert select.select([descriptor], [], [], max(0, end - time.monotonic()))[0], (part, text)
        more = os.read(descriptor, 65536)
        assert more, (part, text)
        text += more
    return text


def ended_by_signal(number):
    port = free_port()
    process = subprocess.Popen([PROGRAM, "-4", "--port", str(port), "--group", "239.1.2.3"], stdout=subprocess.PIPE)
    atexit.register(process.kill)
    output = process.stdout.fileno()
    text = read_until(output, b"wake up network interface scan event")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
        peer.sendto(MESSAGE, ("127.0.0.1", port))
        sender = peer.getsockname()[1]
        text = read_until(output, b"}\n", text)
    expected = (b'recv multicast event. (method="NOTIFY", %d bytes, bind_address="0.0.0.0", bind_port=%d, '
                b'from_address="127.0.0.1", from_port=%d) {\n%b}\n' % (len(MESSAGE), port, sender, MESSAGE))
    assert expected in text, text
    assert b'multicast_zone="239.1.2.3"' in text and b"\x1b" not in text, text
    process.send_signal(number)
    text = process.stdout.read()
    assert process.wait(LIMIT) == 0 and b"closed ssdp." in text, text


def ended_by_key(key):
    child, terminal = pty.fork()
    if child == 0:
        os.execv(PROGRAM, [PROGRAM, "--port", str(free_port()), "--keys"])
    read_until(terminal, b"wake up network interface scan event")
    os.write(terminal, b"x\x1b[A\x01")
    read_until(terminal, b'VT CODE="\x1b[1;32mx\x1b[0m"\r\n'
               b'VT CODE="\x1b[1;33mESC\x1b[0m\x1b[1;32m[\x1b[0m\x1b[1;32mA\x1b[0m"\r\n'
               b'VT CODE="\x1b[1;37m(01H)\x1b[0m"\r\n')
    os.write(terminal, key)
    read_until(terminal, b"closed ssdp.")
    local_modes = termios.tcgetattr(terminal)[3]
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
    assert local_modes & termios.ICANON and local_modes & termios.ECHO, "as they were"
    os.close(terminal)


def refuses(*options):
    return subprocess.run([PROGRAM, *options], capture_output=True, timeout=LIMIT, check=False).returncode == 2


ended_by_signal(signal.SIGTERM)
ended_by_signal(signal.SIGINT)
ended_by_key(b"q")
ended_by_key(b"\x1b")
assert refuses("--port", "70000") and refuses("--port") and refuses("--group", "10.0.0.1") and refuses("-4", "-6")
assert refuses("--interval", "0") and refuses("more")
assert b"--interval" in subprocess.run([PROGRAM, "--help"], capture_output=True, timeout=LIMIT, check=True).stdout
