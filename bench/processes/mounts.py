"""One mount: the service's answer to a request, udisksctl, mount(8) and the bare call."""

import contextlib
import os
import sys
import time

import measure
import vyworld


# What the packages' configuration switches on.
DELIVERED = {"strict": "enable", "mountflags": "nosuid,nodev,noexec", "adopt": "enable"}


def request_pair(target):
    """Seconds between two answers: the first request wants nothing, the second is carried out
    right behind it, so that the idle pause that both waited for is not in between."""
    first, second = vyworld.connect(), vyworld.connect()
    with first, second:
        first.sendall(b"ACTION=mount,usb\0")
        second.sendall(f"ACTION=mount,{target}\0".encode())
        vyworld.receive_all(first)
        began = time.perf_counter()
        answer = second.recv(64)
        took = time.perf_counter() - began
    if answer != b"success\0":
        raise RuntimeError(f"answered {answer!r}")
    return took


def service_mount(partition):
    while True:
        if partition.name in vyworld.mounted_names():
            vyworld.request(f"ACTION=unmount,{partition.name}")
            partition.lay_node()
        took = request_pair(partition.name) - measure.CHILD_POLL
        if took < measure.IDLE_PAUSE / 2:  # else the second came too late for the same pause
            return took


def mount_program(loop):
    took = measure.interleaved({"mount": ["mount", "-t", "ext4", loop.path, "/tmp/there"]}, 1)
    measure.output("umount", "/tmp/there")
    return took["mount"][0]


def udisks_mount(loop):
    took = measure.interleaved({"mount": ["udisksctl", "mount", "-b", loop.path]}, 1)
    measure.output("udisksctl", "unmount", "-b", loop.path)
    return took["mount"][0]


def client_alone(stack, count):
    """vymount with somebody who hangs up at once in the daemon's place."""
    listener = measure.start_peer(stack, measure.tool("bare_listener"), "vyhotplugd")
    client = os.path.join(measure.BIN, "vymount")
    runs = measure.interleaved({"vymount": [client, "sda1"]}, count)["vymount"]
    measure.end_process(listener)
    return runs


def mounts_of_service(partition, count, **config):
    """With its own service; yields behind each mount, so that others can be measured in between."""
    with contextlib.ExitStack() as stack:
        service = measure.Service(stack, **config)
        partition.lay_node()
        refreshes = service.refreshes()
        vyworld.send(partition.add_message())
        service.wait_for_refresh(refreshes + 1)
        for _ in range(count):
            yield service_mount(partition)


def mounts(results, stack):
    count = measure.rounds(31, 5)
    results.add("mount.client", client_alone(stack, count), "s")
    os.mkdir("/tmp/there")
    loops = [measure.make_loop(stack, f"peer{number}") for number in range(3)]
    why = measure.start_bus(stack)
    try:
        if why:
            raise RuntimeError(why)
        measure.start_device_manager(stack, loops)
        measure.start_udisks(stack, loops)
    except (RuntimeError, OSError) as error:
        why = str(error)
    own, bare, program, udisks = [], [], [], []
    os.makedirs(vyworld.DEVICE_DIR)
    partition = measure.make_partition(stack, "sda1")
    for took in mounts_of_service(partition, count):
        own.append(took)
        bare.append(int(measure.output(measure.tool("bare_mount"), loops[0].path, "/tmp/there",
                                       "ext4")) / 1e9)
        program.append(mount_program(loops[1]))
        if not why:
            udisks.append(udisks_mount(loops[2]))
    results.add("mount.vyhotplugd", own, "s")
    results.add("mount.delivered", list(mounts_of_service(partition, count, **DELIVERED)), "s")
    results.add("mount.bare", bare, "s")
    results.add("mount.mount8", program, "s")
    if why:
        results.cannot("mount.udisksctl", why)
    else:
        results.add("mount.udisksctl", udisks, "s")


if __name__ == "__main__":
    sys.exit(measure.main(mounts))
