"""Many partitions announced in one burst, beside as many runs of mount(8)."""

import contextlib
import fcntl
import os
import shutil
import subprocess
import sys
import time

import measure
import vyworld
from measure import wait_until

LOOP_CTL_REMOVE = 0x4C81
RANGE = 255  # so that one disk has so many partitions


def loop_numbers():
    return {int(name[4:]) for name in os.listdir("/sys/class/block") if name[:4] == "loop"
            and name[4:].isdigit()}


def remove_new_loops(before):
    """The kernel keeps loop devices that were asked for; those of this run go again."""
    with open("/dev/loop-control", "rb") as control:
        for number in sorted(loop_numbers() - before):
            with contextlib.suppress(OSError):  # somebody else has it by now
                fcntl.ioctl(control, LOOP_CTL_REMOVE, number)


def make_partitions(stack, count):
    image = "/tmp/tiny.ext2"
    with open(image, "wb") as file:
        file.truncate(128 << 10)
    vyworld.run("mkfs.ext2", "-q", "-F", "-b", "1024", "-m", "0", image)
    made = []
    for number in range(1, count + 1):
        partition = vyworld.Partition(f"sda{number}", RANGE=RANGE, SID=f"SERIAL{number}")
        copy = f"/tmp/sda{number}.image"
        shutil.copy(image, copy)
        partition.loop = vyworld.LoopDevice(copy)
        stack.callback(partition.loop.release)
        made.append(partition)
    return made


def burst(partitions, results, report):
    """One daemon's life: all announced at once. Returns its seconds on a processor."""
    count = len(partitions)
    with contextlib.ExitStack() as stack:
        service = measure.Service(stack, log=not os.path.exists("/dev/log"))
        stack.callback(lambda: os.path.exists("/dev/log") and os.unlink("/dev/log"))
        for partition in partitions:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(partition.node)
            partition.lay_node()
        used = measure.cpu_seconds(service.pid)
        refreshes = service.refreshes()
        began = time.monotonic()
        for partition in partitions:
            vyworld.send(partition.add_message())
        service.wait_for_refresh(refreshes + 1)
        time.sleep(2 * measure.IDLE_PAUSE)  # in which a second refresh would come
        used = measure.cpu_seconds(service.pid) - used
        mounted = [line.time for line in service.log.matching(r"^daemon\(#\)mount ")]
        shares = vyworld.read(vyworld.SHARE_FILE).count("\nPath=")
        took = max(mounted) - began
        fixed = measure.ADD_HOLD + (count - 1) * measure.CHILD_POLL
        if report:
            results.add("burst.partitions", count, "")
            results.add("burst.total", took, "s")
            results.add("burst.fixed", fixed, "s")
            results.add("burst.each", (took - fixed) / count, "s")
            results.add("burst.lost", count - min(len(vyworld.mounts()), shares), "")
            results.add("burst.refreshes", service.refreshes() - refreshes, "")
            results.add("burst.peak", measure.peak_memory(service.pid), "kB")
        measure.end_process(service.process)
    vyworld.write(vyworld.DEVICE_FILE, "")
    return used / count


def mount_programs(partitions):
    """Seconds for each of the sequential runs of mount(8), and takes them off again."""
    began = time.monotonic()
    for partition in partitions:
        os.makedirs(partition.directory, exist_ok=True)
        subprocess.run(["mount", "-t", "ext4", partition.loop.path, partition.directory], check=True)
    took = time.monotonic() - began
    for partition in partitions:
        vyworld.libc.umount2(partition.directory.encode(), vyworld.MNT_DETACH)
    return took / len(partitions)


def measure_bursts(results, stack):
    before = loop_numbers()
    stack.callback(remove_new_loops, before)
    count = measure.rounds(200, 40)
    partitions = make_partitions(stack, count)
    few = burst(partitions[:count // 4], results, False)
    all_of_them = burst(partitions, results, True)
    results.add("burst.cpu_each_few", few, "s")
    results.add("burst.cpu_each", all_of_them, "s")
    results.add("burst.cpu_growth", all_of_them / few, "")
    results.add("burst.mount8_each", mount_programs(partitions), "s")


if __name__ == "__main__":
    sys.exit(measure.main(measure_bursts))
