"""boot.py KERNEL INITRAMFS VBE-MODE PICTURE TOLERANCE DIRECTORY: boots a machine whose display has that mode, waits until
kestal-fb has drawn there, and compares what the display shows with the picture, channel by channel."""
import os
import socket
import subprocess
import sys
import time
import zlib

BOOT_SECONDS = 240  # emulation on a busy machine


def read_png(name):
    """Width, height and RGB bytes of a PNG as kestal-fb writes it: 8 bits, RGB, unfiltered rows."""
    data = open(name, "rb").read()
    at, packed = 8, b""
    while at < len(data):
        size, kind = int.from_bytes(data[at:at + 4], "big"), data[at + 4:at + 8]
        body = data[at + 8:at + 8 + size]
        if zlib.crc32(kind + body) != int.from_bytes(data[at + 8 + size:at + 12 + size], "big"):
            sys.exit(f"{name}: a chunk's CRC is wrong")
        if kind == b"IHDR":
            width, height = int.from_bytes(body[:4], "big"), int.from_bytes(body[4:8], "big")
        if kind == b"IDAT":
            packed += body
        at += 12 + size
    rows = zlib.decompress(packed)
    stride = 1 + 3 * width
    return width, height, b"".join(rows[y * stride + 1:(y + 1) * stride] for y in range(height))


def read_ppm(name):
    magic, size, _, pixels = open(name, "rb").read().split(b"\n", 3)
    if magic != b"P6":
        sys.exit(f"{name}: no screen dump")
    width, height = map(int, size.split())
    return width, height, pixels


def boot(kernel, initramfs, mode, directory):
    """Gives the serial console's text and the name of the screen dump."""
    console, monitor, dump = (os.path.join(directory, name) for name in ("console", "monitor", "screen.ppm"))
    for name in (console, monitor, dump):
        if os.path.exists(name):
            os.remove(name)
    machine = subprocess.Popen(
        ["qemu-system-x86_64", "--accel", "tcg", "-m", "512", "-nodefaults", "-no-reboot", "-display", "none",
         "-vga", "std", "-serial", f"file:{console}", "-monitor", f"unix:{monitor},server,nowait",
         "-kernel", kernel, "-initrd", initramfs, "-append",
         f"console=ttyS0 vga={mode} vt.global_cursor_default=0 fbcon=map:9 consoleblank=0 quiet loglevel=3 panic=-1"],
        stdin=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + BOOT_SECONDS
        text = ""
        while "drawn on" not in text and "ended" not in text:
            if machine.poll() is not None or time.monotonic() > deadline:
                sys.exit(f"the machine never came to drawing; its console:\n{text}")
            time.sleep(0.2)
            if os.path.exists(console):
                text = open(console, errors="replace").read()
        time.sleep(1)  # the display follows its memory
        with socket.socket(socket.AF_UNIX) as control:
            control.connect(monitor)
            control.settimeout(30)
            control.sendall(f"screendump {dump}\nquit\n".encode())
            while control.recv(4096):
                pass
        machine.wait(30)
    except ConnectionResetError:
        machine.wait(30)
    finally:
        if machine.poll() is None:
            machine.kill()
            machine.wait()
    return open(console, errors="replace").read(), dump


def main(kernel, initramfs, mode, picture, tolerance, directory):
    text, dump = boot(kernel, initramfs, mode, directory)
    print(text.replace("\r", ""))
    if "FAILED" in text or "check passed" not in text:
        sys.exit("the check on the machine failed")
    width, height, shown = read_ppm(dump)
    wanted_width, wanted_height, wanted = read_png(picture)
    if (width, height) != (wanted_width, wanted_height):
        sys.exit(f"the display has {width} x {height} pixels, the picture {wanted_width} x {wanted_height}")
    differences = [abs(a - b) for a, b in zip(shown, wanted)]
    wrong = sum(difference > int(tolerance) for difference in differences)
    print(f"{width * height} pixels compared: largest difference of a channel {max(differences)}, allowed {tolerance}")
    if wrong or len(shown) != len(wanted):
        sys.exit(f"{wrong} channels differ: {dump} and {picture}")


main(*sys.argv[1:])
