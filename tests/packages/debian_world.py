"""A Debian of its own for each scenario, and what the scenarios share.

A scenario is a class; its methods test_* run in the order in which they stand, each builds upon those before
it, and each is counted as a test. A scenario has a world to itself: namespaces for mounts, processes and
network, and a root directory laid over the cached Debian, so that everything in it can be changed and nothing
outside is. /sys is an empty one, /dev has what every machine has and loop devices; there is no udev.

Nothing waits for a fixed time unless nothing is to happen: wait_until() looks again and again.
"""

import contextlib
import ctypes
import fcntl
import json
import linecache
import os
import signal
import socket
import stat
import struct
import subprocess
import sys
import time
import traceback
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(os.path.dirname(HERE), folder) for folder in ("system", "lint")]
import vyworld  # noqa: E402
from vyworld import testkit  # noqa: E402

LIMIT = 120  # seconds; nothing takes this long unless it hangs
SCENARIO_LIMIT = 900  # seconds, for all of a scenario
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
EXCHANGE = "/exchange"  # the packages, and what one scenario leaves for others
READER_POLL = "/sys/module/block/parameters/events_dfl_poll_msecs"  # as the kernel has it by itself
PLACES = ("/tmp", "/run", "/dev", "/sys")  # made anew when the machine starts

vyworld.DEVICE_DIR = "/dev/vyhotplug"
vyworld.MOUNT_DIR = "/media/vyhotplug"
vyworld.PATH = PATH

libc = ctypes.CDLL(None, use_errno=True)
MS_RDONLY, MS_NOSUID, MS_NODEV, MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 1, 2, 4, 32, 4096, 16384, 1 << 18
CLONE_NEWNS, CLONE_NEWCGROUP = 0x20000, 0x2000000


def mount(source, target, kind, flags=0, data=None):
    arguments = [None if text is None else text.encode() for text in (source, target, kind, data)]
    if libc.mount(arguments[0], arguments[1], arguments[2], flags, arguments[3]) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"mount {target}: {os.strerror(number)}")


def unmount(target):
    if libc.umount2(target.encode(), vyworld.MNT_DETACH) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"unmount {target}: {os.strerror(number)}")


# ---- the world ----


def make_dev(root):
    """The nodes that a machine has without udev."""
    folder = root + "/dev"
    mount("dev", folder, "tmpfs", MS_NOSUID, "mode=755")
    for name, major, minor in (("null", 1, 3), ("zero", 1, 5), ("full", 1, 7), ("random", 1, 8),
                               ("urandom", 1, 9), ("tty", 5, 0), ("fuse", 10, 229),
                               ("loop-control", 10, 237)):
        os.mknod(f"{folder}/{name}", stat.S_IFCHR | 0o666, os.makedev(major, minor))
        os.chmod(f"{folder}/{name}", 0o666)
    for number in range(64):
        os.mknod(f"{folder}/loop{number}", stat.S_IFBLK | 0o660, os.makedev(vyworld.LOOP_MAJOR, number))
    os.mkdir(folder + "/pts")
    mount("devpts", folder + "/pts", "devpts", 0, "newinstance,ptmxmode=0666,mode=620")
    os.symlink("pts/ptmx", folder + "/ptmx")
    os.mkdir(folder + "/shm", 0o1777)
    for number, name in enumerate(("stdin", "stdout", "stderr")):
        os.symlink(f"/proc/self/fd/{number}", f"{folder}/{name}")
    os.symlink("/proc/self/fd", folder + "/fd")


def make_sys(root):
    mount("sys", root + "/sys", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755")
    for name in ("block", "bus", "class/block", "dev/block", "devices", "fs", "kernel", "module"):
        os.makedirs(f"{root}/sys/{name}")
    os.makedirs(os.path.dirname(root + READER_POLL))
    vyworld.write(root + READER_POLL, "0\n")


def make_places(root):
    """What a machine has anew at each start: /run, /tmp, /dev and /sys."""
    mount("run", root + "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755")
    os.mkdir(root + "/run/lock", 0o1777)
    os.chmod(root + "/run/lock", 0o1777)
    mount("tmp", root + "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")
    make_dev(root)
    make_sys(root)


def close_kernel_settings(root):
    """/proc/sys is one for all worlds."""
    path = root + "/proc/sys"
    mount(path, path, None, MS_BIND)
    mount(None, path, None, MS_REMOUNT | MS_BIND | MS_RDONLY)


def raise_loopback():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        up = 0x1 | 0x40
        fcntl.ioctl(control, 0x8914, struct.pack("16sh", b"lo", up))


def make_world(layers, upper, exchange, scratch):
    """Lays a root directory over the layers, the first one uppermost, and makes it this process's."""
    mount(None, "/", None, MS_REC | MS_PRIVATE)
    mount("scratch", scratch, "tmpfs", 0, "mode=755")
    upper = upper or scratch + "/upper"
    work = os.path.dirname(upper) + "/work"
    root = scratch + "/root"
    for folder in (upper, work, root):
        os.makedirs(folder, exist_ok=True)
    mount("root", root, "overlay", 0, f"lowerdir={':'.join(layers)},upperdir={upper},workdir={work}")
    mount("proc", root + "/proc", "proc")
    close_kernel_settings(root)
    make_places(root)
    for name in (EXCHANGE, "/images"):
        os.makedirs(root + name, exist_ok=True)
    mount(exchange, root + EXCHANGE, None, MS_BIND)
    mount("images", root + "/images", "tmpfs")
    raise_loopback()
    os.chroot(root)
    os.chdir("/")


# ---- control groups, for an init system ----


def has_cgroups():
    return "cgroup2" in vyworld.read("/proc/filesystems").split()


def with_cgroups(folder, work):
    """Calls work(directory) with the machine's control groups mounted there, seen by nobody else."""
    child = os.fork()
    if child == 0:
        libc.unshare(CLONE_NEWNS)
        mount(None, "/", None, MS_REC | MS_PRIVATE)
        mount("groups", folder, "cgroup2")
        work(folder)
        os._exit(0)
    return os.waitpid(child, 0)[1] == 0


def enter_cgroup(folder, name):
    """Puts this process into a new control group, which then is the root of all that it sees."""
    number = os.getpid()
    mount(None, "/", None, MS_REC | MS_PRIVATE)
    mount("groups", folder, "cgroup2")
    os.makedirs(f"{folder}/{name}", exist_ok=True)
    vyworld.write(f"{folder}/{name}/cgroup.procs", str(number))
    unmount(folder)
    if libc.unshare(CLONE_NEWCGROUP) != 0:
        raise OSError(ctypes.get_errno(), "unshare the control groups")


def remove_cgroup(folder, name):
    def remove(groups):
        end = time.monotonic() + 10  # what was killed is there for a moment still
        while os.path.isdir(f"{groups}/{name}") and time.monotonic() < end:
            for directory, _, _ in os.walk(f"{groups}/{name}", topdown=False):
                try:
                    os.rmdir(directory)
                except OSError:
                    time.sleep(0.05)

    with_cgroups(folder, remove)


# ---- scenarios ----


class Scenario(unittest.TestCase):
    """What scenarios do: run programs, read files, wait."""

    init = None  # the command that becomes the world's first process, with its environment; none: a plain one
    cgroups = False  # whether it needs control groups of its own
    log = None  # where to tell, a stream

    def runTest(self):
        """unittest wants one."""

    @classmethod
    def before_init(cls):
        """In the world, before anything runs there."""

    # ---- programs ----

    def tell(self, text):
        print(text, file=self.log, flush=True)

    def run_any(self, *command, env=None, stdin="", limit=LIMIT, **options):
        """Runs a program; returns its status and what it said on both streams."""
        environment = {"PATH": PATH, "HOME": "/root", "LC_ALL": "C.UTF-8", **(env or {})}
        said = os.memfd_create("said")  # not a pipe: what goes to the background may hold it open
        try:
            done = subprocess.run(command, input=stdin.encode("utf-8", "surrogateescape"), check=False,
                                  stdout=said, stderr=said, env=environment, timeout=limit, **options)
            text = vyworld.read(f"/proc/self/fd/{said}")
        finally:
            os.close(said)
        self.tell(f"{time.strftime('%T')} $ {' '.join(command)}\n{text}[{done.returncode}]")
        return done.returncode, text

    def run_ok(self, *command, **options):
        """Runs a program that must succeed; returns what it said."""
        status, text = self.run_any(*command, **options)
        self.assertEqual(status, 0, f"{command}: {text}")
        return text

    def shell(self, text, **options):
        return self.run_ok("sh", "-euc", text, **options)

    # ---- files ----

    @staticmethod
    def read(path):
        return vyworld.read(path) if os.path.exists(path) else ""

    @staticmethod
    def write(path, text, mode=None):
        vyworld.write(path, text, mode)

    # ---- waiting ----

    def wait_until(self, what, condition, limit=LIMIT):
        """Returns the condition's first true value."""
        return testkit.wait_until(what, condition, limit, 0.05)

    # ---- processes and mounts ----

    @staticmethod
    def processes():
        """Name by process id, of all that run here but the test's own two."""
        found = {}
        for entry in os.listdir("/proc"):
            if not entry.isdigit() or int(entry) in (1, os.getpid()):
                continue
            try:
                state = vyworld.read(f"/proc/{entry}/stat").rpartition(") ")[2][0]
                if state != "Z":
                    found[int(entry)] = vyworld.read(f"/proc/{entry}/comm").strip()
            except (FileNotFoundError, ProcessLookupError):
                pass
        return found

    def pids_of(self, name):
        return [pid for pid, other in self.processes().items() if other == name]

    def kill_all(self):
        """As at the end of a machine's shutdown."""
        for number in (signal.SIGTERM, signal.SIGKILL):
            for pid in self.processes():
                try:
                    os.kill(pid, number)
                except ProcessLookupError:
                    pass
            end = time.monotonic() + (5 if number == signal.SIGTERM else LIMIT)
            while self.processes() and time.monotonic() < end:
                time.sleep(0.05)
        self.assertEqual(self.processes(), {})

    def start_machine_anew(self):
        """Everything ends; /tmp, /run, /dev and /sys come back empty."""
        self.kill_all()
        for point in reversed([line.split()[1] for line in vyworld.read_lines("/proc/self/mounts")]):
            if point.startswith("/media/") or any(
                    point == place or point.startswith(place + "/") for place in PLACES):
                unmount(point)
        make_places("")


# ---- running them ----


def step_names(scenario):
    return [name for name in vars(scenario) if name.startswith("test_")]


def run_steps(scenario, tell):
    """Runs the scenario's tests in order; after one has failed the others are not run."""
    failed = False
    for name in step_names(type(scenario)):
        if failed:
            tell(name, "notrun", 0, "a test before it failed")
            continue
        scenario.tell(f"\n==== {name}")
        begun = time.monotonic()
        try:
            getattr(scenario, name)()
            tell(name, "run", time.monotonic() - begun, "")
        except unittest.SkipTest as reason:
            tell(name, "notrun", time.monotonic() - begun, str(reason))
        except Exception:  # whatever it is, it is the test's result
            failed = True
            text = traceback.format_exc()
            scenario.tell(text)
            tell(name, "fail", time.monotonic() - begun, text)
    return not failed


def keep_sources():
    """For tracebacks: the sources will be out of reach."""
    for module in list(sys.modules.values()):
        if (getattr(module, "__file__", None) or "").endswith(".py"):
            linecache.getlines(module.__file__)
    linecache.checkcache = lambda filename=None: None


def unmount_drivers():
    """Takes off what NTFS drivers serve, while they live. One that is killed as the last in its world unmounts by
    its end, waits for its own answer, and every sync(2) on the machine with it."""
    for line in reversed(vyworld.read_lines("/proc/self/mounts")):
        _, point, kind = line.split(" ")[:3]
        if kind.startswith("fuse"):
            with contextlib.suppress(OSError):
                unmount(point.replace("\\040", " "))


def skip_all(scenario, results):
    for name in step_names(scenario):
        results.write(json.dumps({"name": name, "status": "notrun", "time": 0,
                                  "message": "this kernel has no control groups of version 2"}) + "\n")
    results.write("\n")
    results.flush()


def run_tests(scenario, results, log):
    """Writes a line of JSON for each test, and an empty one at the end."""

    def tell(name, status, seconds, message):
        results.write(json.dumps({"name": name, "status": status, "time": round(seconds, 2),
                                  "message": message}) + "\n")
        results.flush()

    case = scenario()
    case.log = log
    try:
        run_steps(case, tell)
        case.doCleanups()
    finally:
        unmount_drivers()
        results.write("\n")
        results.flush()


def run_scenario(scenario, order):
    """In the new namespaces, as their first process: makes the world, has a child run the tests, and becomes
    the scenario's init, or reaps what ends here. Does not return: whoever started it ends it."""
    keep_sources()
    log = open(order["log"], "a", encoding="utf-8", errors="backslashreplace")
    results = open(order["results"], "a", encoding="utf-8")
    os.dup2(log.fileno(), 1)
    os.dup2(log.fileno(), 2)
    if scenario.cgroups and not has_cgroups():
        skip_all(scenario, results)
        signal.pause()
    if scenario.cgroups:
        enter_cgroup(order["scratch"], order["cgroup"])
    make_world(order["layers"], order["upper"], order["exchange"], order["scratch"])
    scenario.before_init()
    if os.fork() == 0:
        try:
            run_tests(scenario, results, log)
        except BaseException:
            traceback.print_exc(file=log)
        finally:
            os._exit(0)
    if scenario.init is not None:
        results.close()
        os.execve(scenario.init[0][0], *scenario.init)
    while True:
        try:
            os.wait()
        except ChildProcessError:
            signal.pause()


class Running:
    """A scenario in namespaces of its own."""

    def __init__(self, script, scenario, order, folder):
        name = scenario.__name__
        self.scenario = scenario
        self.results_path = f"{folder}/{name}.jsonl"
        self.scratch = f"{folder}/{name}.world"
        self.cgroup = f"vyhotplugd-test-{os.getpid()}-{name}"
        self.begun = time.monotonic()
        order = {**order, "results": self.results_path, "log": f"{folder}/{name}.log",
                 "scratch": self.scratch, "cgroup": self.cgroup}
        os.makedirs(self.scratch)
        self.process = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--net", "--ipc", "--uts", "--fork", "--kill-child",
             sys.executable, "-B", script, "--scenario", name, json.dumps(order)], stdin=subprocess.DEVNULL)

    def seconds(self):
        return time.monotonic() - self.begun

    def _lines(self):
        return vyworld.read(self.results_path).split("\n") if os.path.exists(self.results_path) else []

    def is_over(self):
        """Whether the tests are; if so, the world is ended."""
        if self.process.poll() is None and "" not in self._lines()[:-1] and self.seconds() < SCENARIO_LIMIT:
            return False
        self.process.kill()
        self.process.wait()
        if self.scenario.cgroups:
            remove_cgroup(self.scratch, self.cgroup)
        return True

    def results(self):
        """What is missing did not come that far; the first of these counts as failed."""
        found = [json.loads(line) for line in self._lines() if line]
        return found + missing_results(self.scenario, {result["name"] for result in found})


def missing_results(scenario, known):
    missing = [step for step in step_names(scenario) if step not in known]
    return [{"name": step, "status": "notrun" if number else "fail", "time": 0,
             "message": "the scenario ended before"} for number, step in enumerate(missing)]
