"""boot.py KERNEL INITRAMFS VBE-MODE PICTURE TOLERANCE DIRECTORY: boots a machine whose display has that mode, waits until
kestal-fb has drawn there, and compares what the display shows with the picture, channel by channel."""
import os
import socket
import subprocess
import sys
import time

BOOT_SECONDS = 240  # emulation on a busy machine


def boot(kernel, initramfs, mode, directory):
    """Gives the serial console's text and the name of the screen dump."""
    console, monitor, dump = (os.path.join(directory, name) for name in ("console", "monitor", "screen.ppm"))
    subprocess.run(["rm", "-f", console, monitor, dump], check=True)
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
        with socket.socket(socket.AF_UNIX) as control:
            control.connect(monitor)
            control.sendall(f"screendump {dump}\nquit\n".encode())
            machine.wait(BOOT_SECONDS)
    finally:
        machine.kill()
        machine.wait()
    return open(console, errors="replace").read(), dump


def main(kernel, initramfs, mode, picture, tolerance, directory):
    text, dump = boot(kernel, initramfs, mode, directory)
    print(text.replace("\r", ""))
    if "FAILED" in text or "check passed" not in text:
        sys.exit("the check on the machine failed")
    *head, shown = open(dump, "rb").read().split(b"\n", 3)
    *wanted_head, wanted = subprocess.check_output(["pngtopnm", picture]).split(b"\n", 3)
    if head != wanted_head or len(shown) != len(wanted):
        sys.exit(f"the display's picture begins with {head}, the other with {wanted_head}")
    differences = [abs(a - b) for a, b in zip(shown, wanted)]
    wrong = sum(difference > int(tolerance) for difference in differences)
    print(f"{len(shown) // 3} pixels compared: largest difference of a channel {max(differences)}, allowed {tolerance}")
    if wrong:
        sys.exit(f"{wrong} channels differ: {dump} and {picture}")


main(*sys.argv[1:])
