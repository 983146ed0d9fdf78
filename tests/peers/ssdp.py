#!/usr/bin/env python3
"""kestal-ssdp hears the searches of miniupnpc's client over IPv4 and IPv6, in a network of the test's own."""
import os
import re
import signal
import subprocess
import sys

import peer

client = peer.need("upnpc")
program = sys.argv[1]
if "OWN_NETWORK" not in os.environ:
    peer.need("ip", "unshare")
    if subprocess.run(["unshare", "-rn", "true"], check=False, capture_output=True).returncode != 0:
        print("networks of one's own are not allowed here")
        sys.exit(peer.SKIPPED)
    sys.exit(subprocess.run(["unshare", "-rn", sys.executable, *sys.argv], env=os.environ | {"OWN_NETWORK": "1"},
                            check=False).returncode)

for command in ("link set lo up", "link add a0 type veth peer name b0", "link set b0 addrgenmode none up",
                "link set a0 addrgenmode none up", "addr add 10.0.0.1/24 dev a0", "addr add fe80::1/64 dev a0 nodad",
                "addr add fd00::1/64 dev a0 nodad", "route add default via 10.0.0.2", "-6 route add default dev a0"):
    peer.run(["ip", *command.split()])
log = os.path.join(peer.folder, "log")
with open(log, "wb") as output:
    listener = peer.start([program], stdout=output, stderr=subprocess.STDOUT)
peer.wait_for(lambda: b"wake up network interface scan" in peer.read("log"), "the first scan")

for options, bound, sender in ((["-m", "a0"], "0.0.0.0", "10.0.0.1"), (["-6", "-m", "a0"], "::", r"f\w+::1[%\d]*")):
    searching = peer.start([client, *options, "-s"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    expected = re.compile(rb'recv multicast event\. \(method="M-SEARCH", \d+ bytes, bind_address="%b", bind_port=1900, '
                          rb'from_address="%b", from_port=\d+\) \{\nM-SEARCH \* HTTP/1\.1\r\n(\S+: .*\r\n)*'
                          rb'MAN: "ssdp:discover"\r\n(\S+: .*\r\n)*\r\n\}' % (bound.encode(), sender.encode()))
    peer.wait_for(lambda: expected.search(peer.read("log")), f"{bound}: {peer.read('log').decode()}")
    peer.end(searching)
assert peer.end(listener, signal.SIGINT) == 0
