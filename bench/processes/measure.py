"""What the measuring scripts share: results, the daemon in its surroundings, the peers' surroundings.

Each script of this folder but report.py, targets.py and bench.py measures one group of rows. It is started
by bench.py in a private world (tests/support/world.cpp), takes the file for its results, and writes what it
measured there as JSON: a key, and either runs with their median, or why there are none.
"""

import contextlib
import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import time

FOLDER = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(FOLDER, "..", "..", "tests", "system"))
import vyworld  # noqa: E402

BIN = os.environ.get("VY_BIN", "")  # the release build's programs
TOOLS = os.environ.get("VY_BENCH_TOOLS", "")  # the benchmarks' own
QUICK = os.environ.get("VY_BENCH_QUICK") == "1"
DAEMON = os.path.join(BIN, "vyhotplugd")
LIMIT = 120

# What the service waits for by design. It is subtracted where it is named, and never shortened.
ADD_HOLD = 2.0  # before an add message is handled
IDLE_PAUSE = 1.2  # between two looks at an empty queue
CHILD_POLL = 0.2  # between two looks at a child: once for each run of the hook
RELEASE_WAIT = 0.4  # before an unmount that was asked for

UDISKSD = "/usr/libexec/udisks2/udisksd"
UDEVD = "/lib/systemd/systemd-udevd"


def rounds(full, quick):
    return quick if QUICK else full


class Results:
    """Measured values by key."""

    def __init__(self):
        self.values = {}

    def add(self, key, runs, unit):
        """One value, or the runs whose median is it."""
        runs = list(runs) if isinstance(runs, (list, tuple)) else [runs]
        self.values[key] = {"value": statistics.median(runs), "unit": unit, "runs": len(runs),
                            "low": min(runs), "high": max(runs)}
        print(f"   {key}: {self.values[key]['value']:.6g} {unit}", file=sys.stderr, flush=True)

    def add_bound(self, key, value, unit):
        """What was given up: it is less than the value."""
        self.values[key] = {"value": value, "unit": unit, "bound": True}
        print(f"   {key}: less than {value:.6g} {unit}", file=sys.stderr, flush=True)

    def cannot(self, key, why):
        self.values[key] = {"why": why}
        print(f"   {key}: not runnable: {why}", file=sys.stderr, flush=True)

    def save(self, path):
        with open(path, "w", encoding="utf-8") as file:
            json.dump(self.values, file, indent=1)


def main(measure):
    """The whole of a script: measure(results), then the file that the command line names."""
    results = Results()
    with contextlib.ExitStack() as stack:
        measure(results, stack)
    results.save(sys.argv[1])


def tool(name):
    return os.path.join(TOOLS, name)


def output(*command, **options):
    """What a program that must succeed prints."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, check=False, timeout=options.pop("timeout", LIMIT),
                          **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stderr.decode(errors='replace').strip()}")
    return done.stdout.decode()


def wait_until(what, condition, limit=LIMIT, pause=0.01):
    return vyworld.testkit.wait_until(what, condition, limit, pause)


def end_process(process):
    if process.poll() is None:
        process.kill()
    process.wait()


def interleaved(commands, count):
    """Seconds of each command's runs, by name, one after the other, so many times."""
    arguments = [word for command in commands.values() for word in ["--", *command]]
    lines = output(tool("interleave"), str(count), *arguments).splitlines()
    return {name: [int(word) / 1e9 for word in line.split()]
            for name, line in zip(commands, lines)}


# ---- a process from outside ----


def memory_of(pid):
    """Rss, Pss and private dirty pages in kB; all private ones, written or not."""
    text = vyworld.read(f"/proc/{pid}/smaps_rollup")
    found = {key: int(re.search(rf"^{name}:\s*(\d+) kB", text, re.MULTILINE)[1])
             for key, name in (("rss", "Rss"), ("pss", "Pss"), ("dirty", "Private_Dirty"),
                               ("private", "Private_Clean"))}
    found["private"] += found["dirty"]
    return found


def peak_memory(pid):
    return int(re.search(r"^VmHWM:\s*(\d+) kB", vyworld.read(f"/proc/{pid}/status"), re.MULTILINE)[1])


def tasks(pid):
    return [f"/proc/{pid}/task/{task}" for task in os.listdir(f"/proc/{pid}/task")]


def cpu_seconds(pid):
    """Time on a processor, of all threads."""
    return sum(int(vyworld.read(f"{task}/schedstat").split()[0]) for task in tasks(pid)) / 1e9


def activity(pid):
    """By thread: how often it went to sleep by itself, and its seconds on a processor."""
    found = {}
    for task in tasks(pid):
        slept = re.search(r"^voluntary_ctxt_switches:\s*(\d+)", vyworld.read(f"{task}/status"),
                          re.MULTILINE)
        found[task] = (int(slept[1]), int(vyworld.read(f"{task}/schedstat").split()[0]) / 1e9)
    return found


def activity_since(pid, before):
    """Sums over the threads that were there before and still are: some keep spare ones for a while."""
    both = [(before[task], now) for task, now in activity(pid).items() if task in before]
    return [sum(now[kind] - then[kind] for then, now in both) for kind in (0, 1)]


# ---- the service ----


class Service:
    """The daemon with a configuration, a hook and whoever is told to reload."""

    def __init__(self, stack, level=vyworld.ERR, told=True, log=False, **config):
        for folder in (vyworld.CONFIG_DIR, vyworld.DEVICE_DIR, vyworld.MOUNT_DIR):
            os.makedirs(folder, exist_ok=True)
        keys = {"smbconfigpath": vyworld.SHARE_FILE, "deviceconfigpath": vyworld.DEVICE_FILE,
                "mountpath": vyworld.MOUNT_DIR, "devicepath": vyworld.DEVICE_DIR, "mountfs": "ext",
                **config}
        vyworld.write(vyworld.CONFIG, "".join(f"{key} = {value}\n" for key, value in keys.items()))
        vyworld.write(vyworld.HOOK, "#!/bin/sh\nexit 0\n", 0o755)
        self.log = vyworld.SystemLog() if log else None
        self.told = None
        if told:
            for path in (vyworld.SERVICE_PID_FILE, vyworld.ShareService.RECORD):
                with contextlib.suppress(FileNotFoundError):  # an earlier one's
                    os.unlink(path)
            self.told = vyworld.ShareService()
            stack.callback(end_process, self.told.process)
            wait_until("the share service", lambda: os.path.exists(vyworld.SERVICE_PID_FILE))
        self.process = subprocess.Popen([DAEMON, "-d", "-l", str(level), "-f", vyworld.CONFIG],
                                        stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd="/")
        stack.callback(self._end)
        self.pid = self.process.pid
        wait_until("the daemon's socket", self._accepts)
        if told:
            self.wait_for_refresh(1)

    @staticmethod
    def _accepts():
        try:
            vyworld.connect().close()
        except ConnectionRefusedError:
            return False
        return True

    def _end(self):
        end_process(self.process)
        for mount in vyworld.mounts():
            vyworld.libc.umount2(mount.directory.encode(), vyworld.MNT_DETACH)

    def refreshes(self):
        return self.told.count()

    def wait_for_refresh(self, count):
        wait_until(f"{count} refreshes", lambda: self.refreshes() >= count)


def make_partition(stack, name, **items):
    """A partition of the service's on a loop device, its node laid."""
    partition = vyworld.Partition(name, **items)
    partition.loop = make_loop(stack, name)
    partition.lay_node()
    return partition


def make_loop(stack, name):
    """A loop device with an ext4 filesystem of its own."""
    image = f"/tmp/{name}.loop-image"
    vyworld.make_image(image, "ext4", {"who": "text\n"})
    loop = vyworld.LoopDevice(image)
    stack.callback(loop.release)
    return loop


def deliver(message):
    """Sends as the hotplug agent does: once more what was closed without having been read, as happens where
    the number of a connection is closed a second time."""
    while True:
        with vyworld.connect() as connection:
            connection.sendall(vyworld.to_bytes(message))
            with contextlib.suppress(ConnectionResetError):
                connection.recv(1)
                return


# ---- the peers ----

BUS_CONFIG = """<busconfig><type>system</type><listen>unix:path=/run/dbus/system_bus_socket</listen>
<auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
<allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/></policy></busconfig>
"""


def start_bus(stack):
    """A message bus of the world's own. Returns why there is none."""
    program = shutil.which("dbus-daemon")
    if program is None:
        return "dbus-daemon is not installed"
    os.makedirs("/run/dbus", exist_ok=True)
    os.makedirs("/var/lib/dbus", exist_ok=True)
    vyworld.write("/etc/machine-id", "0123456789abcdef0123456789abcdef\n")
    vyworld.write("/tmp/bus.conf", BUS_CONFIG)
    process = subprocess.Popen([program, "--config-file=/tmp/bus.conf", "--nofork", "--nopidfile"],
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    stack.callback(end_process, process)
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/run/dbus/system_bus_socket"
    wait_until("the bus", lambda: os.path.exists("/run/dbus/system_bus_socket"))
    return None


def prepare_udisks():
    """What it wants to find. Returns why it cannot be run."""
    if not os.path.exists(UDISKSD):
        return "udisksd is not installed"
    for folder in ("/run/udisks2", "/var/lib/udisks2", "/run/mount", "/etc/udisks2"):
        os.makedirs(folder, exist_ok=True)
    if not os.path.exists("/etc/fstab"):
        vyworld.write("/etc/fstab", "")
    return None


def start_device_manager(stack, loops):
    """Runs the device manager and has it look at the loop devices, as it would at plugged ones."""
    process = start_peer(stack, UDEVD)
    for loop in loops:
        announce(loop)
        name = f"/run/udev/data/b{os.major(loop.device)}:{os.minor(loop.device)}"
        wait_until("the device manager", lambda: os.path.exists(name)
                   and "ID_FS_USAGE=filesystem" in vyworld.read(name))
    return process


def announce(loop, action="change"):
    vyworld.write(f"/sys/class/block/{os.path.basename(loop.path)}/uevent", action)


def start_udisks(stack, loops):
    """Returns the process, which knows the loop devices; raises RuntimeError with the reason when
    there is none."""
    why = prepare_udisks()
    if why:
        raise RuntimeError(why)
    with open("/tmp/udisks.stderr", "wb") as errors:
        process = subprocess.Popen([UDISKSD], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=errors)
    stack.callback(end_process, process)
    try:
        wait_until("udisksd answers", lambda: subprocess.call(
            ["udisksctl", "status"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL) == 0, 30)
        for loop in loops:
            wait_until(f"udisksd knows {loop.path}", lambda: knows(loop), 30, 0.5)
    except RuntimeError as error:
        raise RuntimeError(f"{error}; {vyworld.read('/tmp/udisks.stderr')[-300:]}") from error
    return process


def knows(loop):
    """Whether udisksd could mount it; has the device manager tell it once more otherwise."""
    done = subprocess.run(["udisksctl", "info", "-b", loop.path], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    if b"UDisks2.Filesystem" in done.stdout:
        return True
    announce(loop)
    return False


def start_peer(stack, *command):
    """Another daemon in the foreground; raises RuntimeError when it ends at once."""
    with open("/tmp/peer.stderr", "wb") as errors:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=errors, stderr=errors)
    stack.callback(end_process, process)
    time.sleep(1)
    if process.poll() is not None:
        text = vyworld.read("/tmp/peer.stderr").strip()
        raise RuntimeError(f"it ended with {process.returncode}: {text[-200:]}")
    return process


def interrupt(process):
    process.send_signal(signal.SIGINT)
    process.wait(LIMIT)
