"""The daemon is killed between any two calls that make its files: they are whole, old or new.

strace kills it as it enters the n-th call of a name, for every n that a run without a kill has
made. It is put onto the main thread of a daemon that waits, so the counting begins with the work at
hand.
"""

import os
import signal
import subprocess
import time

import vyworld
from vyworld import DEVICE_FILE, LIMIT, MOUNT_TABLE, SHARE_FILE, SystemTest

CALLS = ("write", "close", "rename")
COUNTED = "/tmp/killed.trace"
ATTACHED = "/tmp/killed.attached"
USERS = "".join(f"{number}," for number in range(1000, 1500))  # longer than a stream's buffer
OTHER_LINES = ("/dev/root / ext4 rw 0 0\n"
               "/dev/sdq1 /media/a\\040b vfat rw,uid=0 0 0\n"
               "none /proc proc rw 0 0\n")


def fixed_record(number, comment):
    """A directory's record as an administrator writes it; the daemon writes more lines."""
    return (f"[internal:{number}]\nPath=/tmp/folder{number}\nComment={comment}\n"
            f"Full Access Users={USERS}\n")


class Killed(SystemTest):
    def setUp(self):
        super().setUp()
        self.require_strace()
        os.unlink(vyworld.HOOK)  # nobody to wait for
        self.partition = self.make_partition("sda1")

    # ---- strace on a daemon that runs ----

    def attach(self, call, rest):
        """Puts strace onto the daemon's main thread."""
        rule = f"/^{call}(at2?)?$"
        options = {"trace": ["-e", f"trace={rule}"],
                   "kill": ["-e", f"trace={rule}", "-e", f"inject={rule}:{rest}"]}
        with open(ATTACHED, "wb") as told:
            tracer = subprocess.Popen(
                ["strace", "-o", COUNTED, *options["kill" if rest else "trace"],
                 "-p", str(self.daemon.pid)], stdin=subprocess.DEVNULL, stderr=told)
        self.addCleanup(self.detach, tracer)
        self.wait_until("strace is attached", lambda: "attached" in vyworld.read(ATTACHED))
        return tracer

    @staticmethod
    def detach(tracer):
        if tracer.poll() is None:
            tracer.send_signal(signal.SIGINT)
        tracer.wait(LIMIT)

    def count_calls(self, call, work):
        """How many such calls the work takes: what is to be tried out one by one."""
        tracer = self.attach(call, "")
        work()
        self.detach(tracer)
        count = sum(line.startswith(call) for line in vyworld.read_lines(COUNTED))
        self.assertGreater(count, 0, f"there is no {call} to be killed at")
        return count

    def kill_at(self, call, nth, work):
        """The daemon ends as it enters that call."""
        tracer = self.attach(call, f"signal=KILL:when={nth}")
        work()
        self.wait_until(f"the daemon is killed at its {call} number {nth}",
                        lambda: not self.daemon.is_running())
        self.assertEqual(self.daemon.process.returncode, -signal.SIGKILL)
        tracer.wait(LIMIT)

    # ---- the life around it ----

    def hang_up(self):
        self.daemon.signal(signal.SIGHUP)

    def refresh(self):
        count = self.service.count()
        self.hang_up()
        self.wait_for_refresh(count + 1)

    def forget_mounts(self):
        """What a restart of the machine does after the daemon's end."""
        for mount in vyworld.mounts():
            vyworld.libc.umount2(mount.directory.encode(), vyworld.MNT_DETACH)

    def plug_again(self):
        self.partition.lay_node()
        self.plug(self.partition)
        self.assertEqual(self.partition.read_file("readme.txt"), "this is sda1\n")


class DuringARefresh(Killed):
    """Two directories, a partition and the settings of one that is not there."""

    ABSENT = "[1:2:absent:1]\nShare Name=Absent\n"

    def edit(self, comment):
        """The device file as somebody with an editor leaves it."""
        vyworld.write(DEVICE_FILE, fixed_record(1, comment) + fixed_record(2, comment)
                      + f"[{self.partition.identifier}]\nComment={comment}\n" + self.ABSENT)

    def files(self):
        return vyworld.read(SHARE_FILE), vyworld.read(DEVICE_FILE)

    def check(self, call):
        self.start_daemon()
        self.edit("old")
        self.plug_again()
        old_shares, _ = self.files()
        self.edit("new")
        count = self.count_calls(call, self.refresh)
        new = self.files()
        self.assertEqual(old_shares.replace("=old\n", "=new\n"), new[0])
        self.assertEqual(new[0].count("\n["), 2)
        began = time.monotonic()
        for nth in range(1, count + 1):
            vyworld.log(f"at {call} {nth} of {count}")
            self.edit("old")
            self.refresh()
            self.edit("new")
            old = old_shares, vyworld.read(DEVICE_FILE)
            self.assertEqual(vyworld.read(SHARE_FILE), old_shares)
            self.kill_at(call, nth, self.hang_up)
            self.check_whole(old, new)
            self.check_next_start(new)
        vyworld.log(f"killed at {count} calls of {call}, {time.monotonic() - began:.0f} s")

    def check_whole(self, old, new):
        names = "the share file", "the device file"
        found = self.files()
        ages = []
        for name, file, before, after in zip(names, found, old, new):
            ages.append("old" if file == before else "new" if file == after else "broken")
            self.assertIn(file, (before, after), f"{name} is neither the old nor the new one")
        vyworld.log(f"share file {ages[0]}, device file {ages[1]}")

    def check_next_start(self, new):
        """The first refresh knows no partition, the next one the plugged one again."""
        self.forget_mounts()
        self.start_daemon()
        shares, devices = self.files()
        self.assertEqual(shares, new[0][:new[0].index("[Drive(A1)]")])
        self.assertEqual(devices, new[1])
        self.plug_again()
        self.assertEqual(self.files(), new)
        self.assertFalse(os.path.exists("/tmp/vyhotplug.dev.conf.tmp"))
        self.assertFalse(os.path.exists("/tmp/vyhotplug.dir.conf.tmp"))

    def test_at_every_write_the_files_are_whole(self):
        self.check("write")

    def test_at_every_close_the_files_are_whole(self):
        self.check("close")

    def test_at_every_rename_the_files_are_whole(self):
        self.check("rename")


class DuringAnUnmount(Killed):
    def unmount(self):
        self.assertEqual(vyworld.request("ACTION=unmount,sda1"), b"success\0")

    def check(self, call):
        self.start_daemon()
        vyworld.write(MOUNT_TABLE, OTHER_LINES)
        self.plug_again()
        old = vyworld.read_table()
        self.assertEqual(old, OTHER_LINES + self.partition.table_line())
        count = self.count_calls(call, self.unmount)
        self.assertEqual(vyworld.read_table(), OTHER_LINES)
        self.assertEqual(self.stop_daemon(), 0)
        self.check_next_start()
        began = time.monotonic()
        for nth in range(1, count + 1):
            vyworld.log(f"at {call} {nth} of {count}")
            self.assertEqual(vyworld.read_table(), old)
            self.kill_at(call, nth, lambda: vyworld.send("ACTION=unmount,sda1"))
            table = vyworld.read_table()
            self.assertIn(table, (old, OTHER_LINES), "the mount table is neither old nor new")
            vyworld.log(f"mount table {'old' if table == old else 'new'}")
            self.check_next_start()
        vyworld.log(f"killed at {count} calls of {call}, {time.monotonic() - began:.0f} s")

    def check_next_start(self):
        self.forget_mounts()
        vyworld.write(MOUNT_TABLE, OTHER_LINES)  # it is made anew when the machine starts
        self.start_daemon()
        self.plug_again()

    def test_at_every_write_the_mount_table_is_whole(self):
        self.check("write")

    def test_at_every_close_the_mount_table_is_whole(self):
        self.check("close")

    def test_at_every_rename_the_mount_table_is_whole(self):
        self.check("rename")
