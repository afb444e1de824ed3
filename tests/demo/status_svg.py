#!/usr/bin/python3
"""Prints docs/status.svg: what "vyhotplugctl status" shows of sticks that are plugged in a private world.

VY_BIN=$PWD/build/dev/bin build/dev/bin/world --keep $PWD -- /usr/bin/python3 -B tests/demo/status_svg.py >docs/status.svg
"""

import contextlib
import html
import os
import pty
import re
import subprocess
import sys

import story
import vyworld

COLUMNS = 92
COLOURS = {"0": "", "1": "font-weight:bold", "2": "fill:#8a8a8a", "31": "fill:#ff6b6b", "32": "fill:#7bd88f",
           "33": "fill:#fcd566"}
STICKS = (("sda1", "ext4", "Music", {"full": "root", "comment": "Living room"}, 5000),
          ("sdb1", "ntfs", "Photos", {"guest": "yes", "read-only": "yes"}, 2500),
          ("sdc1", "ext4", "Backup", {}, 300))


def plug(name, filesystem, kilobytes):
    partition = vyworld.Partition(name, SID="AC00" + name)
    image = f"/tmp/{name}.image"
    vyworld.make_image(image, filesystem, {"file": "x" * kilobytes * 1000})
    partition.loop = vyworld.LoopDevice(image)
    partition.lay_node()
    vyworld.send(partition.add_message())
    story.wait_for(f"{name} in the share file",
                   lambda: f"Path={partition.directory}\n" in vyworld.read(vyworld.SHARE_FILE))
    return partition


def on_terminal(*command):
    if not os.path.exists("/dev/pts/ptmx"):
        os.makedirs("/dev/pts", exist_ok=True)
        vyworld.run("mount", "-t", "devpts", "-o", "newinstance,ptmxmode=666", "none", "/dev/pts")
        with contextlib.suppress(FileNotFoundError):
            os.unlink("/dev/ptmx")
        os.symlink("pts/ptmx", "/dev/ptmx")
    parent, child = pty.openpty()
    subprocess.run([os.path.join(story.PROGRAMS, command[0]), *command[1:]], stdin=subprocess.DEVNULL, stdout=child,
                   check=False, env={"COLUMNS": str(COLUMNS), "LC_ALL": "C.UTF-8", "TERM": "xterm"})
    os.close(child)
    text = b""
    with contextlib.suppress(OSError):
        while part := os.read(parent, 65536):
            text += part
    return text.decode().replace("\r\n", "\n")


def svg(command, text):
    lines = [f"\033[2m$\033[0m {command}", *text.rstrip("\n").split("\n")]
    height = 20 * len(lines) + 24
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{COLUMNS * 8 + 24}" height="{height}" role="img" '
           f'aria-label="{command}">', '<rect width="100%" height="100%" rx="6" fill="#1e2127"/>',
           '<g font-family="DejaVu Sans Mono,Menlo,Consolas,monospace" font-size="13.3" fill="#d7dae0" '
           'xml:space="preserve">']
    for row, line in enumerate(lines):
        column, style = 0, ""
        for part in re.split("(\033\\[[0-9;]*m)", line):
            if match := re.fullmatch("\033\\[([0-9;]*)m", part):
                style = COLOURS[match[1]]
            elif part:
                out.append(f'<text x="{12 + column * 8}" y="{26 + row * 20}" textLength="{len(part) * 8}"'
                           + (f' style="{style}"' if style else "") + f">{html.escape(part)}</text>")
                column += len(part)
    return "\n".join([*out, "</g>", "</svg>"])


def main():
    around = story.Surroundings(mountfs="ntfs,ext", fatvolumelabel="disable")  # what the machine that draws may lack
    for name, filesystem, share, settings, kilobytes in STICKS:
        plug(name, filesystem, kilobytes)
        subprocess.run([os.path.join(story.PROGRAMS, "vyhotplugctl"), "set", name, f"share={share}",
                        *(f"{key}={value}" for key, value in settings.items())], check=True, stdout=subprocess.DEVNULL)
        story.wait_for("its name", lambda share=share: f"[{share}]\n" in vyworld.read(vyworld.SHARE_FILE))
    print(svg("vyhotplugctl status", on_terminal("vyhotplugctl", "status")))
    return around.end()


if __name__ == "__main__":
    sys.exit(main())
