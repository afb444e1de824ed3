"""The information tool and the command for people beside those that others ask about their disks."""

import os
import shutil
import subprocess
import sys

import measure
import vyworld

SECTIONS = 1000


def lookups(results, stack):
    count = measure.rounds(101, 11)
    vyworld.libc.umount2(b"/sys/block", 0)  # the world's own, empty one: the tools look there
    measure.output(measure.tool("refresh_once"), str(SECTIONS), "10")  # makes the two files
    measure.Service(stack)
    loop = measure.make_loop(stack, "disk")
    tool = os.path.join(measure.BIN, "vyhotpluginfo")
    identity = measure.output(tool, "-l").splitlines()[SECTIONS - 1]
    commands = {"list": [tool, "-l"], "one": [tool, identity],
                "status": [os.path.join(measure.BIN, "vyhotplugctl"), "-f", vyworld.CONFIG, "status"],
                "lsblk": ["lsblk"], "lsblk_one": ["lsblk", loop.path],
                "blkid_one": ["blkid", "-p", loop.path], "blkid": ["blkid"]}
    why = measure.start_bus(stack)
    try:
        if why:
            raise RuntimeError(why)
        measure.start_device_manager(stack, [loop])
        measure.start_udisks(stack, [loop])
        commands["udisksctl"] = ["udisksctl", "status"]
    except (RuntimeError, OSError) as error:
        results.cannot("lookup.udisksctl", str(error))
    for name in ("lsblk", "lsblk_one", "blkid", "blkid_one"):
        if shutil.which(commands[name][0]) is None:
            results.cannot(f"lookup.{name}", "not installed")
            del commands[name]
        elif subprocess.call(commands[name], stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL) != 0:
            results.cannot(f"lookup.{name}", "it finds nothing here")
            del commands[name]
    for name, runs in measure.interleaved(commands, count).items():
        results.add(f"lookup.{name}", runs, "s")


if __name__ == "__main__":
    sys.exit(measure.main(lookups))
