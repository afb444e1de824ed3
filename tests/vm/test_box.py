"""A whole box: a first filesystem packed as for flash, whose own init starts everything."""

import contextlib
import json
import os

import kit
from media import Filesystem
from state import place_of
from vmtest import VmTest

SCRIPTS = "/etc/init.d"
MADE = "/run/vynas-ksmbd/ksmbd.conf"
LIMIT = 3 << 20  # bytes of flash, without the kernel
CTL_LIMIT = 80500  # bytes of vyhotplugctl
PROGRAMS = {"vyhotplugd", "vyhotplug-agent", "vynas-ksmbd", "syslogd", "klogd", "init"}
SHARES = {"sda1": ("HOLIDAY(A1)", "vfat"), "sda2": ("MUSIC(A2)", "ntfs"), "sda3": ("WORK(A3)", "ext4")}


class Box(VmTest):
    machines = ("box",)

    def configure(self, text):
        """Nothing can be written to the image, and nothing need be."""

    def start_neighbours(self):
        """The image has its own."""

    def start_service(self):
        """Its init does; returns when the last of its scripts has come to its end."""
        self.wait_until("the box has started", lambda state: PROGRAMS <= {process["name"] for process in state.processes}
                        and not [process for process in state.processes if process["name"] in ("rcS", "sleep")])
        self.wait_until("the agent has been told what is there", lambda _: self.status("service_runs"))

    def _keep_traces(self):
        super()._keep_traces()
        with contextlib.suppress(Exception):
            self.vm.attempt(f"logread; cat {MADE}", 20)

    def status(self, name):
        return json.loads(self.vm.attempt("vyhotplugctl status --json")[1])[name]

    def assert_becomes(self, before):
        """All is as it was, once the service has come to rest."""
        with contextlib.suppress(AssertionError):  # what differs is better told below
            self.wait_until("nothing is left", lambda state: state.footprint() == before.footprint(), 60)
        self.assert_same(before, self.vm.state())

    def plug_stick(self):
        self.plug("stick", Filesystem("fat32", "HOLIDAY", {"readme.txt": "hello\n"}), Filesystem("ntfs", "MUSIC"),
                  Filesystem("ext4", "WORK"), serial="AC1")
        self.wait_for_mounts(*SHARES)

    def test_it_starts_within_its_flash(self):
        image = os.path.join(self.vm.kind.build, "image")
        self.assertLess(os.path.getsize(f"{image}/root.squashfs"), LIMIT)
        self.assertLess(os.path.getsize(f"{image}/root/usr/bin/vyhotplugctl"), CTL_LIMIT)
        root, = (mount for mount in self.vm.state().all_mounts if mount.directory == "/")
        self.assertEqual((root.type, root.flags[0]), ("squashfs", "ro"))
        self.assertEqual(self.vm.run(f"stat -c '%u %g %a %n' /etc/vyhotplugd /var/lib/vyhotplugd {SCRIPTS}/S91vyhotplugd"),
                         f"0 0 755 /etc/vyhotplugd\n0 0 755 /var/lib/vyhotplugd\n0 0 755 {SCRIPTS}/S91vyhotplugd\n")
        self.assertIn("share:x:1000:100:Plugged-in storage:/:/bin/false\n", self.vm.run("cat /etc/passwd"))
        for script in ("S91vyhotplugd", "S93vynas-ksmbd"):
            self.assertIn("is running", self.vm.run(f"{SCRIPTS}/{script} status"))
        for program in kit.run("find", f"{image}/root", "-type", "f", "-perm", "/100").splitlines():
            with open(program, "rb") as file:
                if file.read(4) == b"\x7fELF":
                    libraries, loader = kit.needed_by(program)
                    for name in [*libraries, *([os.path.basename(loader)] if loader else [])]:
                        self.assertTrue(os.path.exists(f"{image}/root/lib/{name}"), f"{program} needs {name}")

    def test_a_stick_is_shared_through_a_restart_and_leaves_nothing(self):
        before = self.vm.state()
        self.plug_stick()
        self.assertEqual({item["name"]: (item["share"], item["filesystem"]) for item in self.status("items")}, SHARES)
        self.assert_file("sda1", "hello\n")
        for name in SHARES:
            self.vm.run(f"echo new >{place_of(name)}/new.txt && sync")
        self.wait_until("ksmbd would share it", lambda _: self.shared() == set(SHARES))

        mounts = self.vm.state().mounts
        self.vm.run(f"{SCRIPTS}/S91vyhotplugd restart")
        self.wait_for_mounts(*SHARES)
        self.assertEqual(*(sorted(map(str, each)) for each in (mounts, self.vm.state().mounts)))

        self.vm.pull("stick")
        self.wait_for_mounts()
        self.wait_until("ksmbd would share nothing", lambda _: not self.shared())
        self.assert_becomes(before)
        self.plug_stick()

    def shared(self):
        """The partitions that stand in ksmbd's configuration."""
        made = self.vm.run(f"cat {MADE}")
        return {name for name in SHARES if f"path = {place_of(name)}\n" in made}
