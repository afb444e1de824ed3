"""What stays in memory after device cycles with eight mounts, and what happens while nothing happens."""

import os
import re
import subprocess
import sys
import time

import measure
import vyworld
from measure import wait_until

MOUNTS = 8
# What attaching a tracer interrupts is restarted, which is a call of its own.
POLLS = {"select", "pselect6", "clock_nanosleep", "nanosleep", "restart_syscall"}


class Mounts:
    """Eight partitions that come and go."""

    def __init__(self, stack):
        self.service = measure.Service(stack)
        self.partitions = [measure.make_partition(stack, f"sda{number}", SID=f"SERIAL{number}")
                           for number in range(1, MOUNTS + 1)]

    def plug(self):
        for partition in self.partitions:
            partition.lay_node()
            measure.deliver(partition.add_message())
        wait_until("all mounted", lambda: len(vyworld.mounts()) == MOUNTS)

    def pull(self):
        for partition in self.partitions:
            measure.deliver(partition.remove_message())
        wait_until("none mounted", lambda: not vyworld.mounts())
        # The refresh behind it forgets them; before that, what has the same numbers is not told apart from them.
        self.service.wait_for_refresh(self.service.refreshes() + 1)


def udisks_cycle(loops, last):
    for loop in loops:
        measure.output("udisksctl", "mount", "-b", loop.path)
    if not last:
        for loop in loops:
            measure.output("udisksctl", "unmount", "-b", loop.path)


def note_memory(results, name, pid):
    for key, value in measure.memory_of(pid).items():
        results.add(f"memory.{key}.{name}", value, "kB")


def start_peers(results, stack, cycles):
    """The others, each after as many cycles as it can have. Returns the processes by name."""
    running = {}
    loops = [measure.make_loop(stack, f"peer{number}") for number in range(MOUNTS)]
    why = measure.start_bus(stack)
    try:
        running["udevd"] = measure.start_device_manager(stack, loops)
    except (RuntimeError, OSError) as error:
        for key in ("rss", "pss", "dirty"):
            results.cannot(f"memory.{key}.udevd", str(error))
    try:
        if why or "udevd" not in running:
            raise RuntimeError(why or "it needs the device manager")
        running["udisksd"] = measure.start_udisks(stack, loops)
        for number in range(cycles):
            udisks_cycle(loops, number == cycles - 1)
    except (RuntimeError, OSError) as error:
        running.pop("udisksd", None)
        for key in ("rss", "pss", "dirty"):
            results.cannot(f"memory.{key}.udisksd", str(error))
    try:  # last, for it makes and removes nodes that the others use
        running["mdev"] = measure.start_peer(stack, "busybox", "mdev", "-df")
    except (RuntimeError, OSError) as error:
        for key in ("rss", "pss", "dirty"):
            results.cannot(f"memory.{key}.mdev", str(error))
    for _ in range(cycles):
        for loop in loops:
            measure.announce(loop)
        time.sleep(0.2)
    time.sleep(2)
    return running


def system_calls(pids, seconds):
    """Calls by name, of all threads, for each of the processes in the same so many seconds."""
    tracers = [subprocess.Popen(["strace", "-f", "-c", "-q", "-o", f"/tmp/calls.{pid}", "-p", str(pid)],
                                stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL) for pid in pids]
    time.sleep(seconds)
    for tracer in tracers:
        measure.interrupt(tracer)
    return [read_calls(f"/tmp/calls.{pid}") for pid in pids]


def read_calls(record):
    calls = {}
    for line in vyworld.read_lines(record):
        match = re.match(r"\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(?:\d+\s+)?(\w+)$", line)
        if match and match[2] != "total":
            calls[match[2]] = int(match[1])
    return calls


def add_other_calls(results, calls):
    others = {call: count for call, count in calls.items() if call not in POLLS}
    print(f"   calls: {calls}", file=sys.stderr)
    results.add("idle.other_calls.vyhotplugd", sum(others.values()), "")


def idle(results, running):
    """One window for all of them without a tracer, then one with tracers."""
    seconds = measure.rounds(60, 12)
    before = {name: measure.activity(pid) for name, pid in running.items()}
    began = time.monotonic()
    time.sleep(seconds)
    span = time.monotonic() - began
    for name, pid in running.items():
        woken, used = measure.activity_since(pid, before[name])
        results.add(f"idle.wakeups.{name}", woken * 60 / span, "/min")
        results.add(f"idle.cpu.{name}", used * 3600 / span, "s/h")
    for name, calls in zip(running, system_calls(running.values(), seconds)):
        results.add(f"idle.calls.{name}", sum(calls.values()) * 60 / seconds, "/min")
        if name == "vyhotplugd":
            add_other_calls(results, calls)


def resident(results, stack):
    cycles = measure.rounds(30, 2)
    mounts = Mounts(stack)
    for number in range(cycles):
        mounts.plug()
        if number < cycles - 1:
            mounts.pull()
    refreshes = mounts.service.refreshes()
    mounts.service.wait_for_refresh(refreshes + 1)
    results.add("memory.cycles", cycles * MOUNTS, "device cycles")
    peers = start_peers(results, stack, cycles)
    running = {"vyhotplugd": mounts.service.pid,
               **{name: process.pid for name, process in peers.items()}}
    for name, pid in running.items():
        note_memory(results, name, pid)
    idle(results, running)
    for mount in vyworld.read("/proc/self/mounts").splitlines():
        directory = mount.split(" ")[1]
        if directory.startswith("/media/"):
            vyworld.libc.umount2(directory.encode(), vyworld.MNT_DETACH)


if __name__ == "__main__":
    sys.exit(measure.main(resident))
