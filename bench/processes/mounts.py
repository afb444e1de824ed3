"""One mount: the service's answer to a request, udisksctl, mount(8) and the bare call."""

import contextlib
import os
import statistics
import subprocess
import sys
import time

import measure
import vyworld


# What the packages' configuration switches on.
DELIVERED = {"strict": "enable", "mountflags": "nosuid,nodev,noexec", "adopt": "enable"}
ALONE = "--alone"  # KEY=VALUE...: this script with one service and nothing else, see Elsewhere
WORLD = os.path.join(os.path.dirname(measure.TOOLS), "bin", "world")


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


def unmount(partition):
    """Returns when the refresh behind it has written the share file: else that would be measured with what comes."""
    while partition.name in vyworld.mounted_names():  # who looks at it meanwhile keeps it busy
        vyworld.request(f"ACTION=unmount,{partition.name}")
    partition.lay_node()
    measure.wait_until("a refresh", lambda: "\nStatus=Unmount\n" in vyworld.read(vyworld.SHARE_FILE))


def service_mount(service, partition):
    """Seconds that a mount request took, and those that the service was on a processor for both requests."""
    while True:
        if partition.name in vyworld.mounted_names():
            unmount(partition)
        used = measure.cpu_seconds(service.pid)
        took = request_pair(partition.name) - measure.CHILD_POLL
        used = measure.cpu_seconds(service.pid) - used
        if took < measure.IDLE_PAUSE / 2:  # else the second came too late for the same pause
            return took, used


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


class Elsewhere:
    """A service of its own, in a world of its own: the two that are compared take turns, each with a fresh
    image, and none is measured behind the other's work."""

    def __init__(self, stack, name, config):
        root = os.path.realpath(os.path.join(measure.FOLDER, "..", ".."))
        kept = [word for folder in (root, measure.TOOLS, measure.BIN) for word in ("--keep", folder)]
        self.process = subprocess.Popen(
            [WORLD, *kept, "--", sys.executable, "-B", os.path.abspath(__file__), ALONE,
             *(f"{key}={value}" for key, value in config.items())],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        stack.callback(self.end)
        self.name = name
        self.runs, self.used = [], []
        if self._answer() != "ready":
            raise RuntimeError(f"{name}: no service")

    def _answer(self):
        return self.process.stdout.readline().strip()

    def mount(self):
        self.process.stdin.write("mount\n")
        self.process.stdin.flush()
        answer = self._answer()
        if not answer:
            raise RuntimeError(f"{self.name}: ended")
        took, used = answer.split()
        self.runs.append(float(took))
        self.used.append(float(used))

    def end(self):
        self.process.stdin.close()
        self.process.wait(measure.LIMIT)


def service_with_mount(stack, **config):
    """The service and a partition that it has mounted and shared."""
    service = measure.Service(stack, **config)
    partition = measure.make_partition(stack, "sda1")
    refreshes = service.refreshes()
    vyworld.send(partition.add_message())
    service.wait_for_refresh(refreshes + 1)
    return service, partition


def calls_of_request(**config):
    """The system calls of the service, both its threads, while it carries one mount request out; those of the
    hook, and that it waited, are not among them."""
    record = "/tmp/request.trace"
    with contextlib.ExitStack() as stack:
        service, partition = service_with_mount(stack, **config)
        unmount(partition)
        vyworld.write(record, "")
        main, receiver = sorted((os.path.basename(task) for task in measure.tasks(service.pid)), key=int)
        tracer = subprocess.Popen(["strace", "-f", "-q", "-o", record, "-p", str(service.pid)],
                                  stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        measure.wait_until("the tracer", lambda: "select" in "".join(vyworld.read_lines(record)))
        vyworld.request(f"ACTION=mount,{partition.name}")
        measure.interrupt(tracer)
    calls = [line.split(maxsplit=1) for line in vyworld.read_lines(record)]
    return (calls_between(calls, receiver, "accept", "recvfrom")
            + calls_between(calls, main, "mknod", "sendto"))


def calls_between(calls, task, first, last):
    """How many a thread makes from the one that it begins with to the one that it ends with."""
    names = [call for who, call in calls if who == task and not call.startswith(("<...", "---", "restart", "pselect"))]
    begin = next(at for at, call in enumerate(names) if call.startswith(first))
    end = next(at for at, call in enumerate(names) if at > begin and call.startswith(last))
    return end + 1 - begin


def count_calls(results):
    """What a request costs on any machine under any load: with the keys it looks at the sender, and once at the
    way to the hook."""
    plain, delivered = calls_of_request(), calls_of_request(**DELIVERED)
    results.add("mount.calls.vyhotplugd", plain, "")
    results.add("mount.calls.delivered", delivered, "")
    results.add("mount.calls.more", delivered - plain, "")


def serve_alone(config):
    """What Elsewhere starts: a mount for each line that it is sent."""
    with contextlib.ExitStack() as stack:
        service, partition = service_with_mount(stack, **config)
        print("ready", flush=True)
        for _ in sys.stdin:
            print(*service_mount(service, partition), flush=True)


def take_turns(turn, lanes):
    """One mount of each, the first of a turn being the last of the next."""
    for lane in lanes if turn % 2 == 0 else reversed(lanes):
        lane.mount()


def more_with_keys(plain, delivered):
    """The median of the differences within a turn."""
    return statistics.median(with_keys - without for without, with_keys in zip(plain, delivered))


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
    plain = Elsewhere(stack, "mount.vyhotplugd", {})
    delivered = Elsewhere(stack, "mount.delivered", DELIVERED)
    bare, program, udisks = [], [], []
    for turn in range(count):
        take_turns(turn, [plain, delivered])
        bare.append(int(measure.output(measure.tool("bare_mount"), loops[0].path, "/tmp/there",
                                       "ext4")) / 1e9)
        program.append(mount_program(loops[1]))
        if not why:
            udisks.append(udisks_mount(loops[2]))
    for lane in (plain, delivered):
        results.add(lane.name, lane.runs, "s")
    results.add("mount.keys", more_with_keys(plain.runs, delivered.runs) / statistics.median(plain.runs), "")
    results.add("mount.cpu.vyhotplugd", plain.used, "s")
    results.add("mount.cpu.delivered", delivered.used, "s")
    results.add("mount.cpu.more", more_with_keys(plain.used, delivered.used), "s")
    results.add("mount.bare", bare, "s")
    results.add("mount.mount8", program, "s")
    if why:
        results.cannot("mount.udisksctl", why)
    else:
        results.add("mount.udisksctl", udisks, "s")


if __name__ == "__main__":
    if sys.argv[1] == ALONE:
        sys.exit(serve_alone(dict(word.split("=", 1) for word in sys.argv[2:])))
    sys.exit(measure.main(mounts))
