"""What the whole box keeps in memory after device cycles with eight mounts, and does while nothing happens: service,
agent and bridge together, beside udisksd with udiskie."""

import os
import shutil
import subprocess
import sys
import time

import measure
import plug
import resident
import vyworld

PEERS = ("udisksd", "udiskie")
KINDS = ("private", "dirty", "pss")


def start_udiskie(stack):
    """Mounts by itself what comes; raises RuntimeError with the reason where it cannot be run."""
    if shutil.which("udiskie") is None:
        raise RuntimeError("udiskie is not installed")
    vyworld.write("/tmp/udiskie.yml", "device_config:\n- {ignore: false, automount: true}\n")
    os.environ["HOME"] = "/tmp"
    with open("/tmp/udiskie.stderr", "wb") as errors:
        process = subprocess.Popen(["udiskie", "--no-notify", "--no-tray", "--no-file-manager", "--config",
                                    "/tmp/udiskie.yml"], stdin=subprocess.DEVNULL, stdout=errors, stderr=errors)
    stack.callback(measure.end_process, process)
    time.sleep(3)
    if process.poll() is not None:
        raise RuntimeError(f"it ended with {process.returncode}: {vyworld.read('/tmp/udiskie.stderr')[-300:]}")
    return process


def peer_mounts():
    return [line for line in vyworld.read_lines("/proc/self/mounts") if " /media/" in line or " /run/media/" in line]


def mount_by_udisks(loops):
    """Those that udiskie has not mounted."""
    for loop in loops:
        if not any(line.startswith(f"{loop.path} ") for line in peer_mounts()):
            measure.output("udisksctl", "mount", "-b", loop.path)


def start_peers(results, stack, cycles):
    """udisksd with udiskie, and their mounts. Returns the processes' numbers by name; those that can be run."""
    loops = [measure.make_loop(stack, f"peer{number}") for number in range(resident.MOUNTS)]
    pids = {}
    try:
        why = measure.start_bus(stack)
        if why:
            raise RuntimeError(why)
        measure.start_device_manager(stack, loops)
        pids["udisksd"] = measure.start_udisks(stack, loops).pid
        pids["udiskie"] = start_udiskie(stack).pid
        for _ in range(cycles - 1):
            mount_by_udisks(loops)
            for loop in loops:
                measure.output("udisksctl", "unmount", "-b", loop.path)
        mount_by_udisks(loops)
    except (RuntimeError, OSError) as error:
        for name in set(PEERS) - set(pids):
            results.cannot(f"box.private.{name}", str(error))
    return pids


def add(results, kind, unit, values):
    """Of each process, and of each side's together."""
    for name, value in values.items():
        results.add(f"box.{kind}.{name}", value, unit)
    results.add(f"box.{kind}.own", sum(value for name, value in values.items() if name not in PEERS), unit)
    if set(PEERS) <= set(values):
        results.add(f"box.{kind}.both", sum(values[name] for name in PEERS), unit)


def idle(results, pids):
    """One window for all of them without a tracer, then one with tracers."""
    seconds = measure.rounds(60, 6)
    before = {name: measure.activity(pid) for name, pid in pids.items()}
    time.sleep(seconds)
    woken = {name: measure.activity_since(pid, before[name])[0] for name, pid in pids.items()}
    add(results, "wakeups", "/min", {name: count * 60 / seconds for name, count in woken.items()})
    calls = dict(zip(pids, resident.system_calls(pids.values(), seconds)))
    add(results, "calls", "/min", {name: sum(calls[name].values()) * 60 / seconds for name in pids})


def box(results, stack):
    cycles = measure.rounds(10, 2)
    chain = plug.Chain(stack, resident.MOUNTS)
    for _ in range(cycles - 1):
        chain.plug()
        chain.wait_for_shares(resident.MOUNTS)
        chain.pull()
    chain.plug()
    chain.wait_for_shares(resident.MOUNTS)
    peers = start_peers(results, stack, cycles)
    results.cannot("box.private.blockd", "Debian has no package of it")
    pids = {**chain.pids, **peers}
    memory = {name: measure.memory_of(pid) for name, pid in pids.items()}
    for kind in KINDS:
        add(results, kind, "kB", {name: memory[name][kind] for name in pids})
    idle(results, pids)
    for line in peer_mounts():
        vyworld.libc.umount2(line.split(" ")[1].encode(), vyworld.MNT_DETACH)


if __name__ == "__main__":
    sys.exit(measure.main(box))
