"""What the system tests share: a private world with the programs in it, the daemon, its neighbours.

A test is a method of a class derived from SystemTest and has a world to itself
(tests/support/world.cpp), so it may use fixed paths. No test waits for a fixed time to pass except
where nothing is to happen: wait_until() looks until its limit, which only a hanging program reaches.
"""

import contextlib
import ctypes
import fcntl
import json
import os
import re
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import threading
import time
import unittest

FOLDER = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(FOLDER), "support"))
import testkit  # noqa: E402

LIMIT = 90  # seconds; nothing takes this long unless it hangs
SLACK = 60  # seconds for what follows at once on something that was waited for
IDLE_PAUSE = 1.2  # seconds between the daemon's looks at an empty queue
ADD_HOLD = 2.0  # seconds before an add message is handled

PROGRAMS = "/tmp/bin"
CONFIG_DIR = "/tmp/vynasmira"
CONFIG = CONFIG_DIR + "/vyhotplugd.conf"
DEVICE_DIR = "/tmp/hotdev"
MOUNT_DIR = "/tmp/hotplug"
DEVICE_FILE = "/tmp/hotplug.dev.conf"
SHARE_FILE = "/tmp/vynas.dir.conf"
MOUNT_TABLE = "/etc/mtab"
PID_FILE = "/var/run/vyhotplugd.pid"
SERVICE_PID_FILE = "/var/run/vynas-fssd.pid"
HOOK = "/tmp/vyhotplugd-evhook.sh"
HOOK_RECORD = "/tmp/hook.record"
LABEL = "/tmp/volume.label"
LABEL_RECORD = "/tmp/label.record"
STDERR = "/tmp/daemon.stderr"
TRACE = "/tmp/daemon.trace"
SANITIZER_LOG = "/tmp/sanitizer-report"
PATH = PROGRAMS + ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

ERR, NOTICE, INFO, DEBUG = 3, 5, 6, 7  # syslog priorities
FACILITY_DAEMON = 3

libc = ctypes.CDLL(None, use_errno=True)
MNT_DETACH = 2


def log(text):
    print(text, file=sys.stderr, flush=True)


# ---- files ----


def read(path):
    with open(path, "rb") as file:
        return file.read().decode("utf-8", "surrogateescape")


def write(path, text, mode=None):
    with open(path, "wb") as file:
        file.write(text.encode("utf-8", "surrogateescape"))
    if mode is not None:
        os.chmod(path, mode)


def read_lines(path):
    return read(path).splitlines() if os.path.exists(path) else []


def read_table():
    """The mount table; fields that a C library sets apart by tabs are by blanks."""
    return read(MOUNT_TABLE).replace("\t", " ")


# ---- log lines ----


class LogLine:
    """One line as the daemon sent it; `text` has "#" in place of the module's line number.

    Behind it some C libraries send a zero byte or a line feed; before openlog(3) some name no program.
    """

    FORM = re.compile(rb"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]*)(?:\[(\d+)\])?: (.*)",
                      re.DOTALL)

    def __init__(self, datagram):
        self.time = time.monotonic()
        match = self.FORM.fullmatch(datagram)
        if match is None:
            raise ValueError(f"no syslog line: {datagram!r}")
        self.facility, self.priority = divmod(int(match[1]), 8)
        self.program = match[2].decode()
        self.pid = int(match[3]) if match[3] else None
        self.raw = match[4].rstrip(b"\0\n").decode("utf-8", "surrogateescape")
        self.text = re.sub(r"^(\w+)\(\d+\)", r"\1(#)", self.raw, count=1)

    def __str__(self):
        return f"{self.time:.2f} <{self.priority}> {self.program}[{self.pid}] {self.raw}"


class SystemLog:
    """Collects what is sent to /dev/log."""

    def __init__(self):
        self.lines = []
        self.bad = []
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        os.chmod("/dev/log", 0o666)
        threading.Thread(target=self._collect, daemon=True).start()

    def _collect(self):
        while True:
            datagram = self.socket.recv(65536)
            try:
                self.lines.append(LogLine(datagram))
            except ValueError as error:
                self.bad.append(str(error))

    def find(self, text):
        """The lines with exactly that text."""
        return [line for line in list(self.lines) if line.text == text]

    def matching(self, pattern):
        return [line for line in list(self.lines) if re.search(pattern, line.text)]

    def texts(self):
        return [line.text for line in list(self.lines)]


# ---- loop devices ----

LOOP_CONFIGURE = 0x4C0A
LOOP_CTL_GET_FREE = 0x4C82
LO_FLAGS_READ_ONLY = 1
LO_FLAGS_AUTOCLEAR = 4
LOOP_MAJOR = 7


class LoopDevice:
    """An image as a block device, detached when its last user has closed it."""

    def __init__(self, image, readonly=False):
        backing = os.open(image, os.O_RDONLY if readonly else os.O_RDWR)
        try:
            while not self._attach(backing, readonly):
                pass  # somebody else was quicker
        finally:
            os.close(backing)

    def _attach(self, backing, readonly):
        with open("/dev/loop-control", "rb") as control:
            number = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
        self.device = os.makedev(LOOP_MAJOR, number)
        self.path = f"/dev/loop{number}"
        if not os.path.exists(self.path):
            os.mknod(self.path, stat.S_IFBLK | 0o600, self.device)
        flags = LO_FLAGS_AUTOCLEAR | (LO_FLAGS_READ_ONLY if readonly else 0)
        info = struct.pack("=5Q4I64s64s32s2Q", 0, 0, 0, 0, 0, 0, 0, 0, flags, b"", b"", b"", 0, 0)
        config = struct.pack("=2I", backing, 0) + info + bytes(64)
        setter = os.open(self.path, os.O_RDONLY if readonly else os.O_RDWR)
        try:
            fcntl.ioctl(setter, LOOP_CONFIGURE, config)
            self.holder = os.open(self.path, os.O_RDONLY)
        except BlockingIOError:
            return False
        except OSError as error:
            if error.errno == 16:  # EBUSY
                return False
            raise
        finally:
            os.close(setter)
        return True

    def release(self):
        if self.holder >= 0:
            os.close(self.holder)
            self.holder = -1


def run(*command, **options):
    """Runs another program that must succeed."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False,
                          env={"PATH": PATH, "LC_ALL": "C"}, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{command}: {done.stdout.decode(errors='replace')}")


SIZES = {"btrfs": 128, "xfs": 320}  # MiB, the least that these take


def make_image(path, filesystem, files, label=None):
    """An image of 8 MiB or more that holds `files` (name to text); "corrupt", "empty" and "xfs" hold none."""
    with open(path, "wb") as file:
        if filesystem == "empty":
            return
        file.truncate(SIZES.get(filesystem, 8) << 20)
    if filesystem == "corrupt":
        return
    if filesystem == "xfs":
        return run("mkfs.xfs", "-q", "-f", *(["-L", label] if label else []), path)
    content = path + ".content"
    os.mkdir(content)
    for name, text in files.items():
        write(os.path.join(content, name), text)
    if filesystem == "ntfs":
        run("mkntfs", "-F", "-Q", "-q", "-s", "512", "-p", "0", "-H", "0", "-S", "0",
            *(["-L", label] if label else []), path)
        for name in files:
            run("ntfscp", "-q", "-f", path, os.path.join(content, name), name)
    elif filesystem == "btrfs":
        run("mkfs.btrfs", "-q", "-f", "--rootdir", content, *(["-L", label] if label else []), path)
    else:
        run("mkfs." + filesystem, "-q", "-F", "-m", "0", "-d", content,
            *(["-L", label] if label else []), path)
    shutil.rmtree(content)


# ---- mounts ----


class Mount:
    def __init__(self, line):
        self.source, self.directory, self.type, options = line.split(" ")[:4]
        self.options = options.split(",")


def mounts():
    """What is mounted below the mount directory, oldest first."""
    with open("/proc/self/mounts", encoding="utf-8", errors="surrogateescape") as table:
        found = [Mount(line) for line in table]
    return [mount for mount in found if mount.directory.startswith(MOUNT_DIR + "/")]


def mounted_names():
    return [os.path.basename(mount.directory) for mount in mounts()]


# ---- messages ----


def socket_address(name="vyhotplugd"):
    """The whole path field: a zero byte, the name, zero bytes up to its 108th."""
    return (b"\0" + name.encode()).ljust(108, b"\0")


def connect():
    """Waits for its turn where many connect at once, which a socket with Python's own limit does not."""
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", LIMIT, 0))
    connection.connect(socket_address())
    connection.settimeout(LIMIT)
    return connection


def receive_all(connection):
    """Everything up to the peer's close."""
    answer = b""
    while True:
        try:
            part = connection.recv(4096)
        except ConnectionResetError:  # closed with bytes unread
            return answer
        if not part:
            return answer
        answer += part


def to_bytes(message):
    return message.encode() + b"\0" if isinstance(message, str) else message


def send(message):
    """Sends as the hotplug agent does: no answer is waited for."""
    with connect() as connection:
        connection.sendall(to_bytes(message))


def request(message):
    """Sends and returns all that comes back until the daemon closes the connection."""
    with connect() as connection:
        connection.sendall(to_bytes(message))
        return receive_all(connection)


def request_all(messages):
    """Sends each over a connection of its own, all at once, and returns the answers."""
    connections = []
    for message in messages:
        connections.append(connect())
        connections[-1].sendall(to_bytes(message))
    answers = [receive_all(connection) for connection in connections]
    for connection in connections:
        connection.close()
    return answers


MAJORS = {"sd": 8, "mmcblk": 179}
RANGES = {"sd": 16, "mmcblk": 8}


def usb_id(text):
    return int(text, 16) if re.fullmatch("[0-9a-f]+", text or "") else 0


class Partition:
    """A partition by its name, such as sda1 or mmcblkb1: its numbers, places and message."""

    def __init__(self, name, **items):
        kind, letter, number = re.fullmatch(r"(sd|mmcblk)([a-z])(\d+)", name).groups()
        self.name = name
        self.major = MAJORS[kind]
        self.range = RANGES[kind]
        self.minor = (ord(letter) - ord("a")) * self.range + int(number)
        self.node = f"{DEVICE_DIR}/{name}"
        self.directory = f"{MOUNT_DIR}/{name}"
        self.loop = None
        self.items = {"DEVTYPE": "partition", "RANGE": self.range, "VID": "1234", "PID": "00ab",
                      "SID": "SER" + letter.upper(), "VNAME": "Acme", "PNAME": "FlashKey",
                      "SPEED": "480"}
        self.items.update(items)
        vid, pid = (usb_id(self.items[key]) for key in ("VID", "PID"))
        self.identifier = f"{vid:04x}:{pid:04x}:{self.items.get('SID') or ''}:{number}"

    def add_message(self):
        items = {"MAJOR": self.major, "MINOR": self.minor, **self.items}
        return "ACTION=add" + "".join(f",{key}={value}" for key, value in items.items()
                                      if value is not None)

    def remove_message(self):
        return f"ACTION=remove,MAJOR={self.major},MINOR={self.minor}"

    def lay_node(self):
        """The daemon accepts a node that is there: this one leads to the loop device."""
        if not os.path.exists(self.node):
            os.mknod(self.node, stat.S_IFBLK | 0o600, self.loop.device)

    def table_line(self, filesystem="ext4", options="rw"):
        return f"{self.node} {self.directory} {filesystem} {options} 0 0\n"

    def read_file(self, name):
        return read(os.path.join(self.directory, name))


# ---- processes ----


class Daemon:
    """A daemon that was started in the foreground, perhaps under strace, or detached."""

    def __init__(self, process, pid):
        self.process = process  # None for a detached one
        self.pid = pid

    def is_running(self):
        if self.process is not None:
            return self.process.poll() is None
        return os.path.exists(f"/proc/{self.pid}")

    def signal(self, number):
        os.kill(self.pid, number)

    def descriptors(self):
        folder = f"/proc/{self.pid}/fd"
        found = []
        for name in os.listdir(folder):
            with contextlib.suppress(FileNotFoundError):
                target = os.readlink(f"{folder}/{name}")
                found.append((int(name), re.sub(r"\[\d+\]", "", target)))
        return sorted(found)

    def children(self):
        found = []
        for task in os.listdir(f"/proc/{self.pid}/task"):
            found += read(f"/proc/{self.pid}/task/{task}/children").split()
        return found

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def catches(self, number):
        mask = re.search(r"^SigCgt:\s*(\w+)", read(f"/proc/{self.pid}/status"), re.MULTILINE)[1]
        return bool(int(mask, 16) >> (number - 1) & 1)


class Finished:
    """The outcome of a program that has ended."""

    def __init__(self, done):
        self.status = done.returncode
        self.out = done.stdout.decode("utf-8", "surrogateescape")
        self.err = done.stderr.decode("utf-8", "surrogateescape")


class ShareService:
    """The stand-in that the daemon tells to reload."""

    RECORD = "/tmp/share-service.record"

    def __init__(self):
        script = os.path.join(FOLDER, "share_service.py")
        self.process = subprocess.Popen(
            [sys.executable, "-B", script, SERVICE_PID_FILE, SHARE_FILE, self.RECORD])

    def signals(self):
        return [json.loads(line) for line in read_lines(self.RECORD)]

    def count(self):
        return len(self.signals())


SUPPRESSIONS = "thread-sanitizer.supp"  # copied, for the project may lie where only root may look
SANITIZER_OPTIONS = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")


def environment(traced=False):
    """The environment of the programs under test. Sanitizers, when built in, write to a file."""
    result = {"PATH": PATH, "LC_ALL": "C"}
    for name in SANITIZER_OPTIONS:
        options = [os.environ.get(name), f"log_path={SANITIZER_LOG}"]
        if traced:
            options.append("detect_leaks=0")  # the leak check does not work under strace
        if name == "TSAN_OPTIONS":
            options.append(f"suppressions={PROGRAMS}/{SUPPRESSIONS}")
        result[name] = ":".join(filter(None, options))
    return result


# ---- the test case ----


class SystemTest(unittest.TestCase):
    """Sets the world up: programs, log, folders, configuration, hook, the share service."""

    HOOK_SCRIPT = f"""#!/bin/sh
state=unmounted
while read -r source directory rest; do
    [ "$directory" = "$2" ] && state=mounted
done < /proc/mounts
echo "$# $0 $1 $2 $state" >> {HOOK_RECORD}
"""
    LABEL_SCRIPT = f"""#!/bin/sh
echo "${{0##*/}} $*" >> {LABEL_RECORD}
[ -e {LABEL} ] && cat {LABEL}
"""

    def setUp(self):
        if os.environ.get("VY_WORLD") != "1" or os.path.exists(PROGRAMS):
            self.fail("a test runs in a private world of its own: start it with ctest")
        self.addCleanup(self._tell)
        self.log = SystemLog()
        self._install_programs()
        for folder in (CONFIG_DIR, DEVICE_DIR, MOUNT_DIR):
            os.mkdir(folder)
        self.write_config()
        write(HOOK, self.HOOK_SCRIPT, 0o755)
        self.service = ShareService()
        self.addCleanup(self._end_service)
        self.wait_until("the share service is there", lambda: os.path.exists(SERVICE_PID_FILE))
        self.partitions = []
        self.daemon = None

    def _install_programs(self):
        os.mkdir(PROGRAMS)
        binaries = os.environ["VY_BIN"]
        shutil.copy(os.path.join(binaries, "vyhotplugd"), PROGRAMS)
        shutil.copy(os.path.join(FOLDER, SUPPRESSIONS), PROGRAMS)
        for name in ("vymount", "vyunmount", "vyhotpluginfo"):
            self.assertEqual(os.readlink(os.path.join(binaries, name)), "vyhotplugd")
            os.symlink("vyhotplugd", os.path.join(PROGRAMS, name))
        for name in ("mlabel", "ntfsvlabel"):
            write(os.path.join(PROGRAMS, name), self.LABEL_SCRIPT, 0o755)

    def _end_service(self):
        self.service.process.kill()
        self.service.process.wait()

    def _tell(self):
        """What happened, for the reader of a failure. A sanitizer must have had nothing to say."""
        for line in self.log.lines:
            log(f"log: {line}")
        for path in (STDERR, TRACE):
            for line in read_lines(path):
                if not line.startswith("vyhotplugd["):  # those are the log's
                    log(f"{os.path.basename(path)}: {line}")
        reports = [read(os.path.join("/tmp", name)) for name in os.listdir("/tmp")
                   if name.startswith(os.path.basename(SANITIZER_LOG))]
        self.assertEqual(reports, [], "\n".join(reports))
        self.assertEqual(self.log.bad, [])

    def write_config(self, **changes):
        """Keys by name; None leaves a key out."""
        keys = {"smbconfigpath": SHARE_FILE, "deviceconfigpath": DEVICE_FILE,
                "mountpath": MOUNT_DIR, "devicepath": DEVICE_DIR, **changes}
        write(CONFIG, "".join(f"{key} = {value}\n" for key, value in keys.items()
                              if value is not None))

    # ---- waiting ----

    def wait_until(self, what, condition, limit=LIMIT):
        """Returns the condition's first true value."""
        return testkit.wait_until(what, condition, limit)

    def wait_for_log(self, text, count=1):
        """Waits for so many lines of exactly that text and returns them."""
        return self.wait_until(f"log line {text!r}",
                               lambda: len(self.log.find(text)) >= count and self.log.find(text))

    def wait_for_refresh(self, count):
        """Waits until the share service has been told so often, from the start on."""
        self.wait_until(f"{count} signals to the share service",
                        lambda: self.service.count() >= count)

    def let_it_idle(self):
        """Time in which one more refresh would come, were there one."""
        time.sleep(IDLE_PAUSE + 0.5)

    # ---- the daemon ----

    def start_daemon(self, level=DEBUG, options=("-d",), strace=None, settled=True):
        """Starts it in the foreground. Settled: its first refresh is over."""
        command = [PROGRAMS + "/vyhotplugd", "-f", CONFIG, "-l", str(level), *options]
        if strace is not None:
            command = ["strace", "-f", "-qq", "-s", "512", "-o", TRACE, *strace, *command]
        before = self.service.count()
        started = len(self.log.find("recieve(#)start recieve loop"))
        with open(STDERR, "ab") as errors:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=errors,
                                       stderr=errors, cwd="/", env=environment(strace is not None))
        self.addCleanup(self._end_process, process)
        self.wait_for_log("recieve(#)start recieve loop", started + 1)
        self.daemon = Daemon(process, int(read(PID_FILE)))
        if settled:
            self.wait_for_refresh(before + 1)
        return self.daemon

    def _end_process(self, process):
        """An orderly end of a daemon that still runs, which must succeed."""
        if process.poll() is None:
            os.kill(int(read(PID_FILE)), signal.SIGTERM)
            try:
                process.wait(LIMIT)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
            self.assertEqual(process.returncode, 0, "the daemon's exit status")
        for mount in mounts():
            libc.umount2(mount.directory.encode(), MNT_DETACH)

    def stop_daemon(self, number=signal.SIGTERM):
        """Ends it with a signal and returns its exit status."""
        self.daemon.signal(number)
        self.wait_until("the daemon's end", lambda: not self.daemon.is_running())
        return self.daemon.process.returncode

    @contextlib.contextmanager
    def stopped(self):
        """The daemon stands still; what is sent meanwhile it finds all at once."""
        self.daemon.signal(signal.SIGSTOP)
        try:
            yield
        finally:
            self.daemon.signal(signal.SIGCONT)

    def assert_alive(self):
        """It still takes requests."""
        self.assertEqual(request("ACTION=mount,usb"), b"faild\0")

    # ---- the hook ----

    def hold_hook(self):
        """From here on the hook runs until let_hook_go()."""
        write("/tmp/hold", "")
        write(HOOK, "#!/bin/sh\nwhile [ -e /tmp/hold ]; do sleep 0.05; done\n", 0o755)

    def let_hook_go(self):
        os.unlink("/tmp/hold")

    # ---- devices ----

    def make_partition(self, name, filesystem="ext4", files=None, readonly=False, label=None,
                       **items):
        """A partition on a loop device, with its node laid; nobody has told the daemon yet."""
        partition = Partition(name, **items)
        self.require_filesystem(filesystem)
        image = f"/tmp/{name}.image"
        files = {"readme.txt": f"this is {name}\n"} if files is None else files
        make_image(image, filesystem, files, label)
        partition.loop = LoopDevice(image, readonly)
        self.addCleanup(partition.loop.release)
        partition.lay_node()
        self.partitions.append(partition)
        return partition

    def require_filesystem(self, filesystem):
        needed = {"ntfs": ["fuse", "fuseblk"], "corrupt": [], "empty": []}
        known = read("/proc/filesystems").split()
        for name in needed.get(filesystem, [filesystem]):
            if name not in known and subprocess.call(
                    ["modprobe", "-q", name], stdin=subprocess.DEVNULL) != 0:
                self.skipTest(f"this kernel has no {name}")
        program = f"mkfs.{filesystem}"
        if filesystem in SIZES and shutil.which(program, path=PATH) is None:
            self.skipTest(f"{program} is not installed")
        if filesystem == "ntfs" and shutil.which("ntfs-3g", path=PATH) is None:
            self.skipTest("ntfs-3g is not installed")

    def plug(self, *partitions):
        """Sends the add messages and waits until all are mounted and in the share file."""
        refreshes = self.service.count()
        for partition in partitions:
            send(partition.add_message())
        self.wait_for_refresh(refreshes + 1)
        for partition in partitions:
            self.wait_until(f"{partition.name} is mounted and told of",
                            lambda: partition.name in mounted_names()
                            and f"Path={partition.directory}\n" in read(SHARE_FILE), SLACK)

    def unplug(self, *partitions):
        refreshes = self.service.count()
        for partition in partitions:
            send(partition.remove_message())
        self.wait_for_refresh(refreshes + 1)
        for partition in partitions:
            self.wait_until(f"{partition.name} is neither mounted nor told of",
                            lambda: partition.name not in mounted_names()
                            and f"Path={partition.directory}\n" not in read(SHARE_FILE), SLACK)

    def assert_no_trace(self, partition):
        """No mount, table line, directory, node, share or device record of it."""
        self.assertNotIn(partition.name, mounted_names())
        self.assertNotIn(partition.node, read_table())
        self.assertFalse(os.path.exists(partition.directory), partition.directory)
        self.assertFalse(os.path.lexists(partition.node), partition.node)
        self.assertNotIn(partition.directory, read(SHARE_FILE))
        self.assertNotIn(partition.identifier, read(DEVICE_FILE))

    # ---- tools ----

    def tool(self, name, *arguments, user=None, cwd="/"):
        options = {} if user is None else {"user": user, "group": user, "extra_groups": []}
        return Finished(subprocess.run(
            [f"{PROGRAMS}/{name}", *arguments], stdin=subprocess.DEVNULL, capture_output=True,
            check=False, timeout=LIMIT, cwd=cwd, env=environment(), **options))

    def assert_tool(self, name, *arguments, out="", err="", status=0, **options):
        """Runs a program and holds its output and exit status against what is expected."""
        done = self.tool(name, *arguments, **options)
        self.assertEqual((done.out, done.err, done.status), (out, err, status))

    # ---- system calls ----

    def require_strace(self):
        if shutil.which("strace", path=PATH) is None:
            self.skipTest("strace is not installed")

    def trace(self, *inject):
        """strace options: the calls that change the file system, with injected results."""
        self.require_strace()
        calls = "mount,umount2,mknod,mkdir,rmdir,unlink"
        options = ["-e", f"trace=/^({calls.replace(',', '|')}|mknodat|mkdirat|unlinkat)$",
                   "-e", "signal=none"]
        for rule in inject:
            options += ["-e", f"inject={rule}"]
        return options

    def traced_calls(self, *about):
        """The daemon's own traced calls that name one of the paths: "call(arguments) = result"."""
        calls = []
        for line in read_lines(TRACE):
            match = re.fullmatch(r"(\d+) +(\w+)\((.*)\) += (-?\w+)(.*)", line)
            if match is None or int(match[1]) != self.daemon.pid:
                continue
            _, name, arguments, result, rest = match.groups()
            if name.endswith("at"):  # the same call by its newer name
                name, arguments = name.removesuffix("at"), arguments.removeprefix("AT_FDCWD, ")
            if not any(f'"{path}"' in arguments for path in about):
                continue
            error = re.match(r" (E\w+)", rest)
            calls.append(f"{name}({arguments}) = {error[1] if error else result}")
        return calls
