"""What a user of the machine and a hostile stick can do, without the keys and with those of the packages.

docs/security.md tells of each. Each attack is tried on a daemon that has the keys and on one that has not:
where it does no harm without them, the test would hold nothing.
"""

import os
import signal
import statistics
import subprocess
import time

import vyworld
from test_strict import STRANGER, STRANGERS_SHELL, StrictTest, as_stranger
from vyworld import SystemTest

DELIVERED = {"strict": "enable", "mountflags": "nosuid,nodev,noexec", "extfsoptions": "errors=remount-ro"}

# Many processes, each of which connects again and again; blocking, and so in the kernel's queue of those that wait.
# They go on until standard input ends, and tell then how often they were let in or turned away.
CROWD = """
import mmap, os, socket, struct, sys, time
PROCESSES = {processes}
SIZE = struct.calcsize("q")
shared = mmap.mmap(-1, (PROCESSES + 1) * SIZE)  # how often each has connected, and whether it is over
def connect(number):
    count = 0
    while not shared[PROCESSES * SIZE]:
        try:
            connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            connection.connect("\\0vyhotplugd".ljust(108, "\\0"))
            count += 1
            struct.pack_into("q", shared, number * SIZE, count)
            if number % 2:
                connection.close()  # it has gone before it is looked at
            else:
                connection.recv(1)
        except OSError:
            pass
for number in range(PROCESSES):
    if os.fork() == 0:
        connect(number)
        os._exit(0)
print("all run", flush=True)
sys.stdin.read()
shared[PROCESSES * SIZE] = 1
for _ in range(PROCESSES):
    os.wait()
counts = struct.unpack_from(f"{{PROCESSES}}q", shared)
print(sum(counts), min(counts), flush=True)
"""
ROUNDS = int(os.environ.get("VY_CROWD_ROUNDS", "3"))


def told(seconds):
    return f"median {statistics.median(seconds):.2f} s, {min(seconds):.2f} to {max(seconds):.2f} s"


class Crowd(StrictTest):
    def unmount_and_mount(self):
        """Seconds of each of some unmounts by request."""
        took = []
        for _ in range(ROUNDS):
            begun = time.monotonic()
            self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
            took.append(time.monotonic() - begun)
            self.stick.lay_node()
            self.assert_tool("vymount", "sda1", err="mount sda1 - success.\n")
        return took

    def test_a_thousand_processes_that_connect_keep_root_from_nothing(self):
        self.start_strict()
        self.stick = self.make_partition("sda1")
        self.plug(self.stick)
        alone = self.unmount_and_mount()
        crowd = subprocess.Popen(as_stranger(CROWD.format(processes=1000)), stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, start_new_session=True)
        self.addCleanup(crowd.stdout.close)
        self.addCleanup(crowd.wait)
        self.addCleanup(lambda: crowd.poll() is None and os.killpg(crowd.pid, signal.SIGKILL))
        crowd.stdout.readline()
        began = time.monotonic()
        beside = self.unmount_and_mount()
        seconds, load = time.monotonic() - began, os.getloadavg()[0]
        crowd.stdin.close()
        count, fewest = (int(word) for word in crowd.stdout.readline().split())
        vyworld.log(f"unmounted alone: {told(alone)}; beside a thousand, who connected {count} times in "
                    f"{seconds:.0f} s: {told(beside)}; load {load:.0f}")
        self.assertGreater(fewest, 0, "each of them was there")
        self.assertLessEqual(len(self.log.matching(r"recieve\(#\)Refused .*")), 2 + seconds // 60,
                             "they do not fill the log")
        self.wait_until("nothing is left of them", lambda: len(self.daemon.descriptors()) < 20)


class Stick(SystemTest):
    """A filesystem that keeps owners and permissions, and brings what is dangerous to have."""

    def plug_armed(self, **config):
        self.write_config(**config)
        self.start_daemon()
        # What the stick brings was put there elsewhere.
        self.stick = self.make_partition("sda1")
        mount = f"/tmp/elsewhere.{os.getpid()}"
        os.mkdir(mount)
        vyworld.run("mount", self.stick.loop.path, mount)
        vyworld.run("cp", "/usr/bin/id", mount + "/id")
        os.chmod(mount + "/id", 0o4755)
        os.mknod(mount + "/disk", 0o666 | 0o60000, self.stick.loop.device)
        os.chmod(mount + "/disk", 0o666)
        vyworld.write(mount + "/script", "#!/bin/sh\necho runs\n", 0o755)
        vyworld.run("umount", mount)
        self.plug(self.stick)

    def as_stranger(self, *command):
        return subprocess.run([*STRANGERS_SHELL, *command], capture_output=True, check=False, text=True)

    def user_of_the_program(self):
        return self.as_stranger(self.stick.directory + "/id", "-u").stdout.strip()

    def reads_the_disk(self):
        return self.as_stranger("head", "-c", "1", self.stick.directory + "/disk").returncode == 0

    def test_without_the_key_a_program_of_the_stick_is_root(self):
        self.plug_armed()
        self.assertEqual(self.user_of_the_program(), "0")

    def test_nosuid_alone_takes_the_rights_away(self):
        self.plug_armed(mountflags="nosuid")
        self.assertEqual(self.user_of_the_program(), str(STRANGER))

    def test_as_delivered_nothing_of_the_stick_runs(self):
        self.plug_armed(**DELIVERED)
        self.assertEqual(self.user_of_the_program(), "")
        self.assertEqual(self.as_stranger(self.stick.directory + "/script").stdout, "")

    def test_a_device_node_of_the_stick_opens_nothing(self):
        self.plug_armed(**DELIVERED)
        self.assertTrue(os.path.exists(self.stick.directory + "/disk"))
        self.assertFalse(self.reads_the_disk())

    def test_without_the_key_the_second_attempt_leaves_device_nodes_open(self):
        self.write_config()
        self.start_armed_read_only()
        self.assertTrue(self.reads_the_disk())

    def test_with_the_key_the_second_attempt_closes_them_too(self):
        self.write_config(**DELIVERED)
        self.start_armed_read_only()
        self.assertFalse(self.reads_the_disk())

    def start_armed_read_only(self):
        """Mounted for writing, refused, and mounted again: as with a card whose switch nobody asked for."""
        self.stick = self.make_partition("sda1")
        mount = f"/tmp/elsewhere.{os.getpid()}"
        os.mkdir(mount)
        vyworld.run("mount", self.stick.loop.path, mount)
        os.mknod(mount + "/disk", 0o666 | 0o60000, self.stick.loop.device)
        os.chmod(mount + "/disk", 0o666)
        vyworld.run("umount", mount)
        self.start_daemon(strace=self.trace("mount:error=EROFS:when=2"))
        self.plug(self.stick)

    def test_a_superblock_that_wants_a_panic_is_overruled(self):
        for config, wanted in (({}, "errors=panic"), (DELIVERED, "errors=remount-ro")):
            self.write_config(**config)
            self.start_daemon()
            stick = self.make_partition("sda1")
            vyworld.run("tune2fs", "-e", "panic", stick.loop.path)
            self.plug(stick)
            options = vyworld.read_lines(f"/proc/fs/ext4/{os.path.basename(stick.loop.path)}/options")
            self.assertIn(wanted, options)
            self.unplug(stick)
            self.stop_daemon()


class Lock(StrictTest):
    def test_a_strangers_lock_on_the_pid_file_keeps_nobody_from_starting(self):
        vyworld.write(vyworld.PID_FILE, "", 0o644)
        holder = subprocess.Popen(as_stranger(
            f"import fcntl, time; fcntl.flock(open('{vyworld.PID_FILE}'), fcntl.LOCK_EX); print(flush=True); "
            "time.sleep(1000)"), stdout=subprocess.PIPE)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        holder.stdout.readline()
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
