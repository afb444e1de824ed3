"""What a user of the machine and a hostile stick can do, without the keys and with those of the packages.

docs/security.md tells of each. Each attack is tried on a daemon that has the keys and on one that has not:
where it does no harm without them, the test would hold nothing.
"""

import os
import subprocess
import time

import vyworld
from test_strict import STRANGER, STRANGERS_SHELL, StrictTest, as_stranger
from vyworld import SystemTest

DELIVERED = {"strict": "enable", "mountflags": "nosuid,nodev,noexec", "extfsoptions": "errors=remount-ro"}

# Many processes, each of which connects again and again; blocking, and so in the kernel's queue of those that wait.
CROWD = """
import os, socket, time
end = time.monotonic() + {seconds}
for _ in range({processes}):
    if os.fork() == 0:
        while time.monotonic() < end:
            try:
                connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                connection.connect("\\0vyhotplugd".ljust(108, "\\0"))
                if os.getpid() % 2:
                    connection.close()  # it has gone before it is looked at
                else:
                    connection.recv(1)
            except OSError:
                pass
        os._exit(0)
print("all run", flush=True)
for _ in range({processes}):
    os.wait()
"""


class Crowd(StrictTest):
    def test_a_thousand_processes_that_connect_keep_root_from_nothing(self):
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        crowd = subprocess.Popen(as_stranger(CROWD.format(seconds=12, processes=1000)), stdout=subprocess.PIPE)
        self.addCleanup(crowd.wait)
        self.addCleanup(crowd.kill)
        crowd.stdout.readline()
        took = []
        for _ in range(3):
            begun = time.monotonic()
            self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
            took.append(time.monotonic() - begun)
            stick.lay_node()
            self.assert_tool("vymount", "sda1", err="mount sda1 - success.\n")
        vyworld.log("unmounted beside a thousand in " + ", ".join(f"{seconds:.2f} s" for seconds in took))
        crowd.wait()
        self.assertLessEqual(len(self.log.matching(r"recieve\(#\)Refused .*")), 2, "they do not fill the log")
        self.assertLess(len(self.daemon.descriptors()), 20, "nothing is left of them")


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
