"""What the tests of the hotplug agent share: a sysfs of files, tables of mounts and swaps, a daemon
that notes what it is told, and the agent."""

import contextlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

import vyworld
from vyworld import PROGRAMS, SystemTest, read_lines, write

AGENT = PROGRAMS + "/vyhotplug-agent"
SYSFS = "/tmp/fakesys"
PROC = "/tmp/fakeproc"
STATE = "/run/vyhotplug-agent.state"
RECORD = "/tmp/agent.record"
AGENT_TRACE = "/tmp/agent.trace"
AGENT_STDERR = "/tmp/agent.stderr"

STICK = {"idVendor": "1234", "idProduct": "00ab", "serial": "ABC", "manufacturer": "Acme",
         "product": "FlashKey", "speed": "480"}
STICK_ITEMS = "VID=1234,PID=00ab,SID=ABC,VNAME=Acme,PNAME=FlashKey,SPEED=480"


def sd_numbers(letters):
    """Major and minor of a disk; sdq and later have other majors."""
    index = 0
    for letter in letters:
        index = index * 26 + ord(letter) - ord("a") + 1
    index -= 1
    return (8, index * 16) if index < 16 else (65 + index // 16 - 1, index % 16 * 16)


class FakeSysfs:
    """A tree that looks like /sys as far as the agent looks."""

    def __init__(self, root=SYSFS):
        self.root = root
        self.ports = 0
        os.makedirs(root + "/block")

    def _put(self, directory, values):
        os.makedirs(directory, exist_ok=True)
        for name, value in values.items():
            if value is not None:
                write(f"{directory}/{name}", f"{value}\n")

    def _add_disk(self, hardware, name, numbers, parts, values):
        disk = f"{hardware}/block/{name}"
        major, minor = numbers
        self._put(disk, {"dev": f"{major}:{minor}", "size": "2048", "range": "16", "ro": "0",
                         "removable": "1", **values})
        os.mkdir(disk + "/holders")
        os.symlink("../..", disk + "/device")
        os.symlink("../" + os.path.relpath(disk, self.root), f"{self.root}/block/{name}")
        for number in parts:
            self.add_partition(name, number)

    def add_stick(self, name, parts=(1,), usb=None, scsi=None, **values):
        """A USB disk: sda, ..."""
        self.ports += 1
        port = f"{self.root}/devices/pci0000:00/usb1/1-{self.ports}"
        self._put(port, STICK if usb is None else usb)
        hardware = f"{port}/1-{self.ports}:1.0/host0/target0:0:0/0:0:0:0"
        self._put(hardware, {"vendor": "SCSIVEND", "model": "ScsiModel       "}
                  if scsi is None else scsi)
        self._add_disk(hardware, name, sd_numbers(name[2:]), parts, values)

    def add_card(self, name, parts=(1,), **values):
        hardware = f"{self.root}/devices/platform/mmc.0/mmc_host/mmc0/{name}:0001"
        self._put(hardware, {"serial": "0x1f2e3d4c", "name": "SD32G"})
        self._add_disk(hardware, name, (179, int(name[6:]) * 8), parts,
                       {"range": "8", "removable": "0", **values})

    def partition(self, disk, number):
        return f"{disk}p{number}" if disk.startswith("mmcblk") else f"{disk}{number}"

    def add_partition(self, disk, number, **values):
        major, minor = vyworld.read(f"{self.root}/block/{disk}/dev").strip().split(":")
        directory = f"{self.root}/block/{disk}/{self.partition(disk, number)}"
        self._put(directory, {"dev": f"{major}:{int(minor) + number}", "ro": "0",
                              "partition": number, "size": "1024", **values})
        os.mkdir(directory + "/holders")

    def set(self, path, value):
        write(f"{self.root}/block/{path}", f"{value}\n")

    def hold(self, path, holder):
        os.mkdir(f"{self.root}/block/{path}/holders/{holder}")

    def remove_partition(self, disk, number):
        shutil.rmtree(f"{self.root}/block/{disk}/{self.partition(disk, number)}")

    def remove(self, disk):
        link = f"{self.root}/block/{disk}"
        hardware = os.path.realpath(link + "/device")
        os.unlink(link)
        shutil.rmtree(hardware)


class FakeDaemon:
    """agent_daemon.py in a process of its own."""

    def __init__(self, test, *arguments, user=None):
        script = os.path.join(vyworld.FOLDER, "agent_daemon.py")
        ready = read_lines(RECORD).count('"ready"')
        other = {} if user is None else {"user": user, "group": user, "extra_groups": []}
        self.process = subprocess.Popen([sys.executable, "-B", script, RECORD, *arguments], **other)
        test.addCleanup(self.kill)
        test.wait_until("the stand-in listens",
                        lambda: read_lines(RECORD).count('"ready"') > ready)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()

    @contextlib.contextmanager
    def stopped(self):
        os.kill(self.process.pid, signal.SIGSTOP)
        try:
            yield
        finally:
            os.kill(self.process.pid, signal.SIGCONT)


class AgentTest(SystemTest):
    """The tree is empty at first, and nothing is mounted."""

    def setUp(self):
        super().setUp()
        shutil.copy(os.path.join(os.environ["VY_BIN"], "vyhotplug-agent"), PROGRAMS)
        self.sysfs = FakeSysfs()
        os.makedirs(PROC + "/self")
        os.makedirs("/run/vyhotplugd", exist_ok=True)
        self.set_mounts()
        self.set_swaps()
        self.agent = None
        self.addCleanup(self._tell_agent)

    def _tell_agent(self):
        for path in (AGENT_STDERR, AGENT_TRACE, RECORD):
            for line in read_lines(path)[-200:]:
                vyworld.log(f"{os.path.basename(path)}: {line}")

    # ---- the machine ----

    def set_mounts(self, **mounts):
        """Numbers by directory: set_mounts(**{"/": "8:1"}), or a pair with the source's name."""
        lines = ["21 1 0:20 / /proc rw - proc proc rw\n"]
        for directory, mount in mounts.items():
            numbers, source = mount if isinstance(mount, tuple) else (mount, "/dev/root")
            lines.append(f"30 1 {numbers} / {directory} rw,relatime shared:1 - ext4 {source} rw\n")
        write(PROC + "/self/mountinfo", "".join(lines))

    def set_swaps(self, *paths):
        write(PROC + "/swaps", "Filename\t\t\t\tType\t\tSize\tUsed\tPriority\n" + "".join(
            f"{path}                               partition\t1024\t0\t-2\n" for path in paths))

    # ---- the agent ----

    def command(self, mode, *options):
        return [AGENT, mode, "--sysfs", SYSFS, "--proc", PROC, "--mounts", vyworld.MOUNT_DIR,
                *options]

    def run_agent(self, mode, *options, event=None):
        """Runs it to its end, with an event in the environment."""
        environment = {**vyworld.environment(), **(event or {})}
        return vyworld.Finished(subprocess.run(
            self.command(mode, *options), stdin=subprocess.DEVNULL, capture_output=True,
            check=False, timeout=vyworld.LIMIT, env=environment))

    def list(self, *options):
        done = self.run_agent("--list", *options)
        self.assertEqual((done.err, done.status), ("", 0))
        return done.out.splitlines()

    def start_agent(self, *options, strace=None):
        """Starts it as a monitor, and returns when it listens to the kernel."""
        command = self.command("--monitor", *options)
        if strace is not None:
            self.require_strace()
            command = ["strace", "-f", "-qq", "-tt", "-s", "600", "-o", AGENT_TRACE, *strace,
                       *command]
        with open(AGENT_STDERR, "ab") as errors:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=errors,
                                       stderr=errors, cwd="/",
                                       env=vyworld.environment(strace is not None))
        self.addCleanup(self._end_agent, process)
        self.agent = process
        self.wait_until("the agent handles signals", self._handles_signals)
        return process

    def signal_mask(self, name):
        """The agent's own: "SigBlk", "SigIgn"; 0 where it does not run yet."""
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # one that strace tries the kernel with
            status = vyworld.read(f"/proc/{self.agent_pid()}/status")
            if "vyhotplug-agent" in status:
                return int(re.search(rf"^{name}:\s*(\w+)", status, re.MULTILINE)[1], 16)
        return 0

    def _handles_signals(self):
        if self.agent.poll() is not None:
            self.fail(f"the agent has ended with {self.agent.returncode}")
        return self.signal_mask("SigBlk") >> (signal.SIGTERM - 1) & 1

    def agent_pid(self, process=None):
        """The agent's own, where strace runs it."""
        pid = (process or self.agent).pid
        if vyworld.read(f"/proc/{pid}/comm").startswith("vyhotplug"):
            return pid  # whatever it runs itself
        children = vyworld.read(f"/proc/{pid}/task/{pid}/children").split()
        return int(children[0]) if children else pid

    def _end_agent(self, process):
        if process.poll() is None:
            self.assertEqual(self.stop_agent(process=process), 0, "the agent's exit status")

    def stop_agent(self, number=signal.SIGTERM, process=None):
        """Ends it with a signal and returns its exit status."""
        process = process or self.agent
        os.kill(self.agent_pid(process), number)
        try:
            return process.wait(vyworld.LIMIT)
        except subprocess.TimeoutExpired:
            process.kill()
            raise

    # ---- what the daemon was told ----

    def connections(self):
        """All connections: the messages with their zero byte, None for empty ones."""
        notes = [json.loads(line) for line in read_lines(RECORD)]
        return [note for note in notes if note != "ready"]

    def messages(self):
        return [note[:-1] for note in self.connections() if note not in (None, "unread")]

    def told(self):
        """The messages in short: "+8:1" and "-8:1"."""
        return [re.sub(r"ACTION=(add|remove),MAJOR=(\d+),MINOR=(\d+).*",
                       lambda match: f"{'+' if match[1] == 'add' else '-'}{match[2]}:{match[3]}",
                       message) for message in self.messages()]

    def wait_for_told(self, *wanted):
        """Waits until so much has been told, which must be this."""
        self.wait_until(f"{len(wanted)} messages", lambda: len(self.told()) >= len(wanted))
        self.assertEqual(self.told(), list(wanted))

    def settle(self):
        """The agent has nothing more to say: what a walk finds now is the last of it."""
        time.sleep(1)

