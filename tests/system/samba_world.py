"""Base of the tests of the Samba bridge: the bridge and a real Samba in a private world.

Samba finds its configuration, accounts and passwords in the world's own /etc and /tmp, and listens on
the world's own loopback device.
"""

import contextlib
import glob
import os
import pwd
import re
import shutil
import signal
import subprocess
import time

import vyworld
from vyworld import CONFIG, LIMIT, PATH, SERVICE_PID_FILE, SHARE_FILE, SystemTest

BRIDGE = os.path.join(os.environ.get("VY_BIN", ""), "vynas-samba")
KSMBD_BRIDGE = os.path.join(os.environ.get("VY_BIN", ""), "vynas-ksmbd")
SETUP = os.path.join(os.environ.get("VY_BIN", ""), "vynas-samba-setup")
OWN_CONFIG = "/tmp/vynas-samba.conf"
INCLUDE = "/run/vynas-samba/shares.conf"
SMB_CONF = "/etc/samba/smb.conf"
SAMBA = "/tmp/samba"
FIXED = "/tmp/fixed"
NEEDED = ("smbd", "smbclient", "smbcontrol", "smbpasswd", "testparm")

GLOBAL = f"""[global]
server role = standalone server
netbios name = BOX
interfaces = lo
bind interfaces only = yes
smb ports = 445
disable netbios = yes
load printers = no
disable spoolss = yes
passdb backend = tdbsam
map to guest = bad user
logging = file
log file = {SAMBA}/log/samba.log
lock directory = {SAMBA}/lock
state directory = {SAMBA}/state
cache directory = {SAMBA}/cache
private dir = {SAMBA}/private
pid directory = {SAMBA}/pid
ncalrpc dir = {SAMBA}/ncalrpc
"""

# What --version prints: the version in Debian's spelling, and the stamp of the build.
NUMBER = re.sub(r"\.(alpha|beta|rc)", r"~\1", vyworld.read(
    os.path.join(vyworld.FOLDER, "../../VERSION")).strip().removesuffix("-bk"))
BUILD = re.escape(NUMBER) + r"(\+\d{14})?(\.g[0-9a-f]+)?(\.dirty)?"

MS_NOSUID = 2


def names_in(text):
    """The section names of an include file's text, without the last one, [global]."""
    names = re.findall(r"^\[(.*)\]$", text, re.MULTILINE)
    assert names[-1] == "global", text
    return names[:-1]


def share(name, path, **keys):
    """A section of the share file; Read_Only="Enable" stands for a line "Read Only=Enable"."""
    lines = "".join(f"{key.replace('_', ' ')}={value}\n" for key, value in keys.items())
    return f"[{name}]\n{lines}Path={path}\n"


def testparm(conf):
    """The shares that testparm finds in a configuration: parameters by name of the share."""
    done = subprocess.run(["testparm", "-s", conf], stdin=subprocess.DEVNULL, capture_output=True,
                          check=False, timeout=LIMIT, env={"PATH": PATH, "LC_ALL": "C"})
    errors = done.stderr.decode("utf-8", "surrogateescape")
    if done.returncode != 0 or re.search("unknown|ignoring|invalid|warning: ", errors, re.I):
        raise AssertionError(f"testparm: {done.returncode}: {errors}")
    found = {}
    parameters = None
    for line in done.stdout.decode("utf-8", "surrogateescape").split("\n"):
        if line.startswith("["):
            name = line[1:-1]
            assert name not in found, f"testparm lists {name} twice"
            parameters = found[name] = {}
        elif line.startswith("\t"):
            key, value = line[1:].split(" = ", 1)
            parameters[key] = value
    del found["global"]
    return found


class BridgeTest(SystemTest):
    """With the bridge, which replaces the fake share service; without Samba."""

    def setUp(self):
        super().setUp()
        self._end_service()  # the stand-in's place is taken by the bridge
        os.unlink(SERVICE_PID_FILE)
        os.mkdir(FIXED)
        os.chmod(FIXED, 0o777)
        vyworld.write(SHARE_FILE, "")
        self.bridge = None

    def command(self, *options):
        return [BRIDGE, "-f", CONFIG, "-c", OWN_CONFIG, *options]

    def run_bridge(self, *options):
        return vyworld.Finished(subprocess.run(
            self.command(*options), stdin=subprocess.DEVNULL, capture_output=True, check=False,
            timeout=LIMIT, env=vyworld.environment()))

    def start_bridge(self):
        """Starts it as a service manager does, and waits until its first refresh is done."""
        self.bridge = subprocess.Popen(self.command(), stdin=subprocess.DEVNULL, cwd="/",
                                       env=vyworld.environment())
        self.addCleanup(self._end_bridge)
        self.wait_for_log("main(#)start")
        self.wait_until("the bridge waits", self.bridge_waits)

    def _end_bridge(self):
        if self.bridge.poll() is None:
            self.bridge.send_signal(signal.SIGTERM)
            self.assertEqual(self.bridge.wait(LIMIT), 0)

    def bridge_state(self):
        """As proc(5) calls it: S for asleep, T for stopped."""
        return re.search(r"^State:\s*(\w)", vyworld.read(f"/proc/{self.bridge.pid}/status"),
                         re.MULTILINE)[1]

    def bridge_waits(self):
        """Whether it waits for signals, and none is pending."""
        status = vyworld.read(f"/proc/{self.bridge.pid}/status")
        pending = re.search(r"^ShdPnd:\s*(\w+)", status, re.MULTILINE)[1]
        call = vyworld.read(f"/proc/{self.bridge.pid}/syscall").split()
        children = vyworld.read(f"/proc/{self.bridge.pid}/task/{self.bridge.pid}/children")
        without_time_out = len(call) > 3 and call[3] == "0x0"
        return (int(pending, 16) & ~(1 << (signal.SIGCHLD - 1)) == 0 and not children.strip()
                and "State:\tS" in status and without_time_out)

    def set_shares(self, text):
        """Writes the share file as the daemon does, and waits until the bridge is done."""
        vyworld.write(SHARE_FILE + ".new", text)
        os.rename(SHARE_FILE + ".new", SHARE_FILE)
        self.signal_bridge()

    def withdraw(self, name):
        """Marks a share as the daemon does before it unmounts. Returns the seconds that the bridge took."""
        with open(SHARE_FILE, "a", encoding="utf-8") as file:
            file.write(f"[{name}]\n")
        return self.signal_bridge()

    def signal_bridge(self):
        """Has the bridge refresh. Returns the seconds that it took."""
        start = time.monotonic()
        os.kill(int(vyworld.read(SERVICE_PID_FILE)), signal.SIGHUP)
        self.wait_until("the bridge is done", self.bridge_waits)
        return time.monotonic() - start

    def exported(self):
        return names_in(vyworld.read(INCLUDE))


class SambaTest(BridgeTest):
    """With a real Samba and its users: anna, bert, carl and dora, whose password is their name."""

    USERS = {"anna": 5001, "bert": 5002, "carl": 5003, "dora": 5004}

    def setUp(self):
        super().setUp()
        for program in NEEDED:
            if shutil.which(program, path=PATH) is None:
                self.skipTest(f"{program} is not installed")
        for name in ("log", "lock", "state", "cache", "private", "pid", "ncalrpc"):
            os.makedirs(f"{SAMBA}/{name}")
        os.makedirs(os.path.dirname(SMB_CONF))
        os.makedirs("/var/log/samba")  # where it looks before it has read where to look
        self.write_smb_conf()
        for name, uid in self.USERS.items():
            self.add_user(name, uid)
        self.smbd = None

    def write_smb_conf(self, extra="", shares=""):
        vyworld.write(SMB_CONF, f"{GLOBAL}{extra}\ninclude = {INCLUDE}\n{shares}")

    def add_user(self, name, uid):
        with contextlib.suppress(KeyError):
            pwd.getpwnam(name)
            uid = None  # is there
        if uid is not None:
            with open("/etc/passwd", "a", encoding="utf-8") as file:
                file.write(f"{name}:x:{uid}:100::/tmp:/bin/false\n")
        subprocess.run(["smbpasswd", "-s", "-a", name], input=f"{name}\n{name}\n".encode(),
                       stdout=subprocess.DEVNULL, check=True, env={"PATH": PATH})

    def start_samba(self):
        with open(f"{SAMBA}/out", "wb") as out:
            # In a session of its own: at its end smbd signals its whole process group.
            self.smbd = subprocess.Popen(
                ["smbd", "--foreground", "--no-process-group"], stdin=subprocess.DEVNULL,
                stdout=out, stderr=out, env={"PATH": PATH}, start_new_session=True)
        self.addCleanup(self._end_samba)
        self.wait_until("Samba answers", lambda: self.client("-L", "//127.0.0.1").status == 0)

    def _end_samba(self):
        self.smbd.terminate()
        self.smbd.wait()

    # ---- clients ----

    def client(self, *arguments, user=None):
        login = ["-N"] if user is None else ["-U", f"{user}%{user}"]
        return vyworld.Finished(subprocess.run(
            ["smbclient", *login, "-g", *arguments], stdin=subprocess.DEVNULL, check=False,
            capture_output=True, timeout=LIMIT, cwd="/tmp", env={"PATH": PATH, "LC_ALL": "C.UTF-8"}))

    def listing(self, user=None):
        """The shares that a user, or a guest, sees: comments by name."""
        done = self.client("-L", "//127.0.0.1", user=user)
        self.assertEqual(done.status, 0, done.out + done.err)
        rows = [line.split("|") for line in done.out.split("\n") if line.startswith("Disk|")]
        return {row[1]: row[2] for row in rows}

    def do(self, name, commands, user=None):
        return self.client(f"//127.0.0.1/{name}", "-c", commands, user=user)

    def fetch(self, name, file, user=None):
        """A file's content; None when it cannot be read."""
        with contextlib.suppress(FileNotFoundError):
            os.unlink("/tmp/fetched")
        done = self.do(name, f"get {file} /tmp/fetched", user)
        return vyworld.read("/tmp/fetched") if done.status == 0 else None

    def may_write(self, name, user=None):
        vyworld.write("/tmp/to-put", "written\n")
        done = self.do(name, f"put /tmp/to-put by-{user}", user)
        return done.status == 0 and "NT_STATUS" not in done.out + done.err

    def rights(self, name, user=None):
        """The rights of a user: "v" for seen in the listing, "r", "w"."""
        return (("v" if name in self.listing(user) else "")
                + ("r" if self.fetch(name, "who", user) is not None else "")
                + ("w" if self.may_write(name, user) else ""))

    def assert_rights(self, name, **wanted):
        """Rights by user; "guest" has no name."""
        found = {user: self.rights(name, None if user == "guest" else user) for user in wanted}
        self.assertEqual(found, wanted)

    @contextlib.contextmanager
    def held_open(self, name, path, user):
        """A client that has a file of the share open."""
        process = subprocess.Popen(
            ["smbclient", "-U", f"{user}%{user}", f"//127.0.0.1/{name}"], stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env={"PATH": PATH},
            start_new_session=True)
        try:
            process.stdin.write(f"open {os.path.basename(path)}\n".encode())
            process.stdin.flush()
            self.wait_until("the file is open", lambda: path in held_by_samba())
            yield process
        finally:
            process.kill()
            process.wait()
            process.stdin.close()

    # ---- mounts ----

    def mount_disk(self, name):
        """Mounts a filesystem below the mount directory, as the daemon does. Returns where."""
        image = f"/tmp/{name}.image"
        vyworld.make_image(image, "ext4", {"who": f"this is {name}\n"})
        loop = vyworld.LoopDevice(image)
        self.addCleanup(loop.release)
        directory = f"{vyworld.MOUNT_DIR}/{name}"
        os.mkdir(directory)
        result = vyworld.libc.mount(loop.path.encode(), directory.encode(), b"ext4", MS_NOSUID, None)
        self.assertEqual(result, 0)
        self.addCleanup(lambda: vyworld.libc.umount2(directory.encode(), vyworld.MNT_DETACH))
        os.chmod(directory, 0o777)
        return directory


def held_by_samba():
    """The files that smbd has open, and its working directories."""
    found = set()
    for place in glob.glob("/proc/[0-9]*/fd/*") + glob.glob("/proc/[0-9]*/cwd"):
        with contextlib.suppress(OSError):
            if vyworld.read(f"/proc/{place.split('/')[2]}/comm").startswith("smbd"):
                found.add(os.readlink(place))
    return found


def can_unmount(directory):
    return vyworld.libc.umount2(directory.encode(), 0) == 0
