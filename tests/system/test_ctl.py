"""vyhotplugctl beside a real service with real filesystems."""

import contextlib
import json
import os
import shutil
import subprocess
import threading

import vyworld
from vyworld import SystemTest, read, write

DONE, FAILED, WRONG_CALL, NO_SERVICE, BUSY, NO_DISK = range(6)
SYSFS = "/tmp/sysfs"
RUN = "/tmp/agent"


class CtlTest(SystemTest):
    def setUp(self):
        super().setUp()
        shutil.copy(os.path.join(os.environ["VY_BIN"], "vyhotplugctl"), vyworld.PROGRAMS)
        for folder in (SYSFS, SYSFS + "/block", RUN):
            os.mkdir(folder)

    def ctl(self, *arguments, **options):
        return self.tool("vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, "--run", RUN, *arguments,
                         **options)

    def ask(self, *arguments, status=DONE, **options):
        """What it prints with --json."""
        done = self.ctl(*arguments, "--json", **options)
        self.assertEqual((done.err, done.status), ("", status), done.out)
        return json.loads(done.out)

    def assert_ctl(self, *arguments, status=DONE, out=None, err="", **options):
        done = self.ctl(*arguments, **options)
        self.assertEqual((done.status, done.err), (status, err), done.out)
        if out is not None:
            self.assertEqual(done.out, out)
        return done

    def item(self, name):
        found = [item for item in self.ask("status", "--all")["items"] if name in (item["name"], item["identity"])]
        self.assertEqual(len(found), 1, name)
        return found[0]


class Status(CtlTest):
    def test_a_table_of_what_is_plugged(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"), self.make_partition("sdb2"))
        lines = self.assert_ctl("status").out.splitlines()
        self.assertEqual(lines[0].split(), "PARTITION SHARE STATE SIZE USED FILESYSTEM MODE WHO".split())
        self.assertEqual([line.split()[:3] for line in lines[1:3]],
                         [["sda1", "Drive(A1)", "shared"], ["sdb2", "Drive(B2)", "shared"]])
        self.assertEqual(self.ctl().out.splitlines(), lines)

    def test_json_of_what_is_plugged(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        told = self.ask("status")
        self.assertEqual((told["call"], told["version"], told["service_runs"]), ("status", 1, True))
        item = told["items"][0]
        self.assertEqual((item["name"], item["identity"], item["state"], item["share"], item["directory"]),
                         ("sda1", stick.identifier, "shared", "Drive(A1)", stick.directory))
        room = os.statvfs(stick.directory)
        self.assertEqual(item["size_bytes"], room.f_frsize * room.f_blocks)
        self.assertEqual(item["free_bytes"], room.f_frsize * room.f_bavail)

    def test_nothing_is_plugged(self):
        self.start_daemon()
        self.assert_ctl("status", out="Nothing is plugged.\n")

    def test_no_service(self):
        done = self.ctl("status")
        self.assertEqual(done.status, NO_SERVICE)
        self.assertIn("The service is not running", done.out)

    def test_everybody_may_look(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.assertEqual(self.ask("status", user=65534)["items"][0]["state"], "shared")

    def test_states_of_a_partition(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        count = self.service.count()
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.wait_for_refresh(count + 2)
        self.wait_until("it is unmounted", lambda: self.item("sda1")["state"] == "unmounted")
        self.unplug(stick)
        self.assertEqual(self.ask("status", "--all")["items"], [])

    def test_who_holds_a_file(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        with open(stick.directory + "/readme.txt", encoding="utf-8"):
            held = self.ask("who", "sda1")["holders"]
            self.assertEqual([(holder["pid"], holder["file"], holder["use"]) for holder in held],
                             [(os.getpid(), stick.directory + "/readme.txt", "file")])
        self.assertEqual(self.ask("who", "sda1")["holders"], [])


class Requests(CtlTest):
    def test_unmount_and_mount(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assert_ctl("unmount", "sda1", out="sda1 is unmounted\n")
        self.assertEqual(vyworld.mounts(), [])
        self.assert_ctl("unmount", "sda1", out="sda1 is not mounted\n")
        stick.lay_node()
        self.assert_ctl("mount", "Drive(A1)", out=f"sda1 is mounted: {stick.directory}\n")
        self.assert_ctl("mount", "sda1", out=f"sda1 is mounted already: {stick.directory}\n")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])

    def test_a_busy_one_tells_who_holds_it(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        with open(stick.directory + "/readme.txt", encoding="utf-8"):
            done = self.ctl("unmount", "sda1")
            self.assertEqual(done.status, BUSY)
            self.assertIn(f"(process {os.getpid()} of root, file) {stick.directory}/readme.txt\n", done.err)
            self.assertEqual(vyworld.mounted_names(), ["sda1"])
            done = self.ctl("unmount", "sda1", "--force")
            self.assertEqual((done.status, done.out), (DONE, "sda1 is unmounted\n"))
        self.assertEqual(vyworld.mounts(), [])

    def test_it_waits_until_it_is_free(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        with subprocess.Popen(["sleep", "3"], cwd=stick.directory):
            self.assertEqual(self.ctl("unmount", "sda1", "--wait", "1").status, BUSY)
            self.assertEqual(self.ctl("unmount", "sda1", "--wait", "60").out, "sda1 is unmounted\n")

    def test_what_is_not_there(self):
        self.start_daemon()
        for call in ("unmount", "mount", "eject", "show", "who"):
            done = self.ctl(call, "sdq1")
            self.assertEqual((done.status, done.out), (NO_DISK, ""), call)
            self.assertIn("nothing here is called sdq1", done.err)

    def test_without_a_service(self):
        for call in ("unmount", "mount", "eject"):
            self.assert_ctl(call, "sda1", status=NO_SERVICE, err="vyhotplugctl: the service is not running\n")

    def test_only_root(self):
        for call in ("unmount", "mount", "eject"):
            self.assert_ctl(call, "sda1", status=FAILED, user=65534, err=f"vyhotplugctl: only root can {call}; try: "
                            f"sudo vyhotplugctl {call} ...\n")


class Eject(CtlTest):
    @contextlib.contextmanager
    def nodes_laid(self, partition):
        """The service takes the node away when it unmounts; meanwhile it comes again."""
        over = threading.Event()

        def lay():
            while not over.wait(0.01):
                partition.lay_node()

        layer = threading.Thread(target=lay)
        layer.start()
        try:
            yield
        finally:
            over.set()
            layer.join()

    def test_all_partitions_of_a_disk(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"), self.make_partition("sda2"), self.make_partition("sdb1"))
        self.assert_ctl("eject", "sda", out="sda is unmounted: safe to pull\n")
        self.assertEqual(vyworld.mounted_names(), ["sdb1"])

    def test_a_busy_disk_stays_whole(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first, second)
        with open(second.directory + "/readme.txt", encoding="utf-8"):
            done = self.ctl("eject", "sda1")
            self.assertEqual((done.status, done.out), (BUSY, ""))
            self.assertIn("sda2 is busy:\n", done.err)
        self.assertEqual(vyworld.mounted_names(), ["sda1", "sda2"])

    def test_a_disk_that_only_the_kernel_holds_stays_whole(self):
        """Nobody is to be seen, and unmounting fails: the first partition is mounted again."""
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first, second)
        vyworld.run("mount", "-t", "tmpfs", "none", second.directory + "/lost+found")
        with self.nodes_laid(first):
            done = self.ctl("eject", "sda")
        self.assertEqual(done.status, BUSY, done.err)
        self.assertIn("sda stays mounted\n", done.err)
        self.assertEqual(sorted(vyworld.mounted_names()), ["lost+found", "sda1", "sda2"])
        vyworld.run("umount", second.directory + "/lost+found")
