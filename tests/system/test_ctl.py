"""vyhotplugctl beside a real service with real filesystems."""

import json
import os
import shutil
import subprocess

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
