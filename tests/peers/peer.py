"""What the tests against other people's programs share: free ports, servers that are waited for and ended, files to move."""
import atexit
import hashlib
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SKIPPED = 77
LIMIT = 30  # seconds that anything here may take before it counts as hung

folder = tempfile.mkdtemp(prefix="kestal-peers-")
atexit.register(shutil.rmtree, folder, ignore_errors=True)


def need(*programs):
    """The paths of the programs; ends the test as skipped where one is missing."""
    unpacked = os.path.join(os.path.dirname(__file__), "../../build/peers/usr")
    search = os.pathsep.join([os.environ.get("PATH", ""), "/usr/sbin", "/sbin", f"{unpacked}/sbin", f"{unpacked}/bin"])
    found = [shutil.which(program, path=search) for program in programs]
    for program, path in zip(programs, found):
        if path is None:
            print(f"{program} is not installed")
            sys.exit(SKIPPED)
    return found if len(found) > 1 else found[0]


def free_port(kind=socket.SOCK_STREAM, host="127.0.0.1"):
    """Of those that no system gives to whoever asks for any port, so that it is still free when the server comes."""
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    port = random.randrange(10000, 30000)
    with socket.socket(family, kind) as probe:
        try:
            probe.bind((host, port))
        except OSError:
            return free_port(kind, host)
    return port


def wait_for(condition, what):
    """Waits until condition() holds."""
    end = time.monotonic() + LIMIT
    while not condition():
        assert time.monotonic() < end, f"waited in vain: {what}"
        time.sleep(0.01)


def answers(port, host="127.0.0.1"):
    try:
        socket.create_connection((host, port), timeout=1).close()
        return True
    except OSError:
        return False


def bound(port):
    """Whether a UDP socket of this machine is bound to the port."""
    mark = f":{port:04X} "
    return any(mark in line for name in ("udp", "udp6") for line in open(f"/proc/net/{name}"))


def start(command, **options):
    """A server that is ended with the test, with all that it started."""
    process = subprocess.Popen([str(part) for part in command], start_new_session=True, **options)
    atexit.register(end, process)
    return process


def end(process, number=signal.SIGTERM):
    """Ends a server; its exit status."""
    if process.poll() is None:
        process.send_signal(number)
        try:
            process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            pass
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    return process.wait(LIMIT)


def run(command, status=0, **options):
    """Runs a client to its end, which must have that status (None: any); what it printed."""
    options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "timeout": 4 * LIMIT} | options
    if options.get("input") is not None:
        del options["stdin"]
    done = subprocess.run([str(part) for part in command], **options)
    assert status is None or done.returncode == status, f"{command}: {done.returncode}\n{done.stdout.decode(errors='replace')}"
    return done.stdout


def write(path, data):
    path = os.path.join(folder, path)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(data)
    return path


def read(path):
    with open(os.path.join(folder, path), "rb") as file:
        return file.read()


def noise(size, seed=1):
    """Bytes that no compression or translation leaves as they are."""
    return random.Random(seed).randbytes(size)


def digest(data):
    return hashlib.sha256(data).hexdigest()
