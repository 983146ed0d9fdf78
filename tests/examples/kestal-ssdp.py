#!/usr/bin/env python3
"""kestal-ssdp PROGRAM: joins the group that it is told, ends on SIGTERM and on the keys q and ESC of its terminal, whose
settings come back, and refuses what it does not know. What it prints of messages is peers.ssdp's to see."""
import os
import pty
import select
import signal
import socket
import subprocess
import sys
import termios

PROGRAM = sys.argv[1]
# Nobody but listeners, who share theirs, gets the port while this is open.
kept = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
kept.bind(("", 0))
kept.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)


def read_until(descriptor, part):
    text = b""
    while part not in text:
        assert select.select([descriptor], [], [], 60)[0], (part, text)
        text += os.read(descriptor, 1)  # what follows is for the next
    return text


def ends(end):
    child, terminal = pty.fork()
    if child == 0:
        os.execv(PROGRAM, [PROGRAM, "-4", "--port", str(kept.getsockname()[1]), "--group", "239.1.2.3", "--keys"])
    read_until(terminal, b"wake up network interface scan event")
    read_until(terminal, b'multicast_zone="\x1b[1;37m239.1.2.3')
    os.write(terminal, b"x\x1b[A\x01")
    read_until(terminal, b'VT CODE="\x1b[1;32mx\x1b[0m"\r\n'
               b'VT CODE="\x1b[1;33mESC\x1b[0m\x1b[1;32m[\x1b[0m\x1b[1;32mA\x1b[0m"\r\n'
               b'VT CODE="\x1b[1;37m(01H)\x1b[0m"\r\n')
    end(child, terminal)
    read_until(terminal, b"closed ssdp.")
    local_modes = termios.tcgetattr(terminal)[3]
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
    assert local_modes & termios.ICANON and local_modes & termios.ECHO, "as they were"
    os.close(terminal)


ends(lambda child, terminal: os.kill(child, signal.SIGTERM))
ends(lambda child, terminal: os.write(terminal, b"q"))
ends(lambda child, terminal: os.write(terminal, b"\x1b"))
for wrong in (["--port", "70000"], ["--port"], ["--group", "10.0.0.1"], ["-4", "-6"], ["--interval", "0"]):
    assert subprocess.run([PROGRAM, *wrong], capture_output=True, check=False).returncode == 2, wrong
