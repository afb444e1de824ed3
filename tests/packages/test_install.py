"""The packages come, and go."""

import gzip
import json
import os
import pathlib
import re

import debian_world
import links
import vyworld
from debian_world import EXCHANGE, Scenario
from machine import (APT_INSTALL, COMMANDS, FILES_BEFORE, INCLUDED, LIBEXEC, NONINTERACTIVE, PACKAGES,
                     SETTINGS_COPY, Machine, Stick, list_files)

PAGE = {path.name for path in pathlib.Path(debian_world.HERE, "../../web").iterdir()}


class Install(Scenario):
    """What is installed here is what the other scenarios begin with."""

    def test_debian_as_a_newcomer_has_it(self):
        """Samba and what one needs to try it, from Debian; an mtab as every Debian has it."""
        os.symlink("../proc/self/mounts", "/etc/mtab")
        self.run_ok(*APT_INSTALL, "--no-download", "samba", "smbclient", "ntfs-3g", "e2fsprogs", "busybox",
                    "bash-completion", "cockpit-bridge", env=NONINTERACTIVE, limit=600)
        self.run_ok("/etc/init.d/smbd", "stop")
        self.run_any("/etc/init.d/nmbd", "stop")
        self.kill_all()
        self.write(FILES_BEFORE, json.dumps(list_files()))

    def test_packages_install(self):
        packages = sorted(str(path) for path in pathlib.Path(EXCHANGE).glob("*.deb"))
        self.assertEqual(len(packages), len(PACKAGES), packages)
        said = self.run_ok(*APT_INSTALL, *packages, env=NONINTERACTIVE, limit=600)
        self.assertNotRegex(said, r"(?im)^(W|E|warning|error|dpkg: warning):")
        self.assertEqual(self.run_ok("dpkg", "--audit"), "")
        status, wrong = self.run_any("vyhotplugctl", "check")
        self.assertEqual(status, 1, "nothing runs")
        self.assertIn(wrong, said)

    def test_the_other_bridge_is_packed_and_not_beside_this_one(self):
        package, = (str(path) for path in pathlib.Path(EXCHANGE, "other").glob("*.deb"))
        self.assertEqual(self.run_ok("dpkg-deb", "--field", package, "Package", "Conflicts"),
                         "Package: vynas-ksmbd\nConflicts: vynas-samba\n")
        packed = self.run_ok("dpkg-deb", "--contents", package)
        for path in ("/usr/sbin/vynas-ksmbd", "/lib/systemd/system/vynas-ksmbd.service",
                     "/usr/share/man/man8/vynas-ksmbd.8.gz", "/etc/vynas-ksmbd/vynas-ksmbd.conf"):
            self.assertIn(f".{path}\n", packed)

    def test_files_are_as_packed(self):
        for package in PACKAGES:
            self.assertEqual(self.run_ok("dpkg", "--verify", package), "")

    def test_commands_are_there(self):
        for name in COMMANDS:
            self.assertTrue(os.access("/usr/sbin/" + name, os.X_OK), name)
        for name in ("mlabel", "ntfsvlabel", "vyhotplug-prepare"):
            self.assertTrue(os.access(f"{LIBEXEC}/{name}", os.X_OK), name)
        for name in ("vymount", "vyunmount", "vyhotpluginfo"):
            self.assertEqual(os.readlink("/usr/sbin/" + name), "vyhotplugd")
        for name in ("vyhotplugd", "vyhotpluginfo", "vyhotplug-agent", "vyhotplug-prepare", "vynas-samba",
                     "vynas-samba-setup"):
            self.run_ok(f"{LIBEXEC if name.endswith('prepare') else '/usr/sbin'}/{name}", "--help")

    def test_cockpit_has_the_page(self):
        self.assertRegex(self.run_ok("cockpit-bridge", "--packages"), r"(?m)^vyhotplug +.*/usr/share/cockpit/vyhotplug$")
        page = pathlib.Path("/usr/share/cockpit/vyhotplug")
        self.assertEqual({path.name for path in page.iterdir()}, PAGE - {"package.json", "types.d.ts"})
        self.assertLess(sum(path.stat().st_size for path in page.iterdir()), 100_000)

    def test_everything_tells_the_packages_version(self):
        versions = {self.run_ok("dpkg-query", "-W", "-f", "${Version}", name) for name in PACKAGES}
        self.assertEqual(len(versions), 1, versions)
        version, = versions
        self.assertRegex(version, r"^\d+\.\d+\.\d+(~\w+)?\+\d{14}")  # another build has another one
        for path in ("/usr/sbin/vyhotplug-agent", "/usr/sbin/vynas-samba", "/usr/sbin/vynas-samba-setup",
                     f"{LIBEXEC}/vyhotplug-prepare", f"{LIBEXEC}/mlabel", f"{LIBEXEC}/ntfsvlabel"):
            self.assertEqual(self.run_ok(path, "--version"), f"{os.path.basename(path)} {version}\n")
        number = version.split("+")[0]
        self.assertIn(f" version {number.replace('~', '.')}", self.run_ok("vyhotplugd", "-v"))
        pages = [path for folder in ("man1", "man5", "man8") for path in pathlib.Path("/usr/share/man", folder).iterdir()
                 if path.name.startswith(("vy", "hotplug.dev", "mlabel", "ntfsvlabel"))]
        self.assertGreater(len(pages), 10)
        for path in pages:
            with gzip.open(path, "rt", encoding="utf-8") as page:
                self.assertIn(f'"vyhotplugd {number}"', page.read().replace("\\(ti", "~"), path)

    def test_the_pages_lead_to_one_another(self):
        faults, count = links.check(pathlib.Path("/usr/share/doc/vyhotplugd"), named=False)
        self.assertEqual(faults, [])
        self.assertGreater(count, 50)

    def test_configuration_belongs_to_the_administrator(self):
        listed = "".join(self.run_ok("dpkg-query", "-W", "-f", "${Conffiles}\n", name) for name in PACKAGES)
        for path in ("/etc/vyhotplugd/vyhotplugd.conf", "/etc/vyhotplugd/evhook",
                     "/etc/vynas-samba/vynas-samba.conf"):
            self.assertIn(path + " ", listed)
        self.assertTrue(os.access("/etc/vyhotplugd/evhook", os.X_OK))


class Removal(Machine):
    """After the packages are removed and purged the machine is as it was before."""

    def test_everything_is_in_use(self):
        self.collect_log()
        self.start_by_init_scripts()
        self.run_ok("vynas-samba-setup", "enable")
        self.stick = Stick(self, "a", "STICK1", p1=("ext4", None, {"a.txt": "one\n"}),
                           p2=("ntfs", None, {"b.txt": "two\n"}))
        self.stick.put_in()
        self.stick.announce()
        self.wait_for_mounts("sda1", "sda2")
        self.wait_until("two shares", lambda: "sda2" in self.read(INCLUDED))
        self.held = open("/media/vyhotplug/sda1/a.txt", "rb")
        self.addCleanup(self.held.close)

    def test_removing_ends_it_all(self):
        self.run_ok("apt-get", "-qy", "-o", "Dpkg::Use-Pty=0", "remove", *PACKAGES, env=NONINTERACTIVE)
        self.stick.plugged = False
        for name in ("vyhotplugd", "vyhotplug-agent", "vynas-samba", "ntfs-3g", "mount.ntfs-3g"):
            self.wait_until(f"no {name}", lambda name=name: not self.pids_of(name))
        self.assertEqual(self.mounted(), set())
        for folder in ("/tmp", "/run", "/dev", "/media"):
            self.assertEqual([name for name in os.listdir(folder) if name.startswith("vy")], [], folder)
        self.assertEqual(self.assert_testparm(), set())
        self.assertTrue(os.path.exists("/etc/vyhotplugd/vyhotplugd.conf"))
        self.assertTrue(os.path.exists(SETTINGS_COPY))

    def test_purging_leaves_the_machine_as_it_was(self):
        self.held.close()
        self.run_ok("apt-get", "-qy", "-o", "Dpkg::Use-Pty=0", "purge", *PACKAGES, env=NONINTERACTIVE)
        self.run_ok("/etc/init.d/smbd", "stop")
        before, after = json.loads(self.read(FILES_BEFORE)), list_files()
        changed = {path: (before.get(path), after.get(path)) for path in before.keys() | after.keys()
                   if before.get(path) != after.get(path)}
        for path in list(changed):
            others = path.startswith(("/var/lib/samba", "/run/samba", "/run/lock")) or path == "/run/mount"  # Samba's, umount's
            # What Debian's own packages made as they came lies in the /run of the world in which they did.
            if others or (path.startswith("/run/") and path not in after):
                del changed[path]
        self.assertEqual(changed, {})


class RemovalElsewhere(Machine):
    """Where partitions are mounted in another directory, of the administrator's choice."""

    DIRECTORY = "/srv/usb sticks"

    @classmethod
    def before_init(cls):
        vyworld.MOUNT_DIR = cls.DIRECTORY

    @staticmethod
    def mounted():
        return set(re.findall(r" /srv/usb\\040sticks/(\S+) ", vyworld.read("/proc/self/mounts")))

    def test_everything_is_in_use(self):
        self.collect_log()
        with open("/etc/vyhotplugd/vyhotplugd.conf", "a", encoding="utf-8") as file:
            file.write("Mount Path =  /srv/usb sticks/\t\n")
        self.run_ok("/etc/init.d/vyhotplugd", "start")
        self.stick = Stick(self, "a", "STICK1", p1=("ext4", None, {"a.txt": "one\n"}),
                           p2=("ntfs", None, {"b.txt": "two\n"}))
        self.stick.put_in()
        self.stick.announce()
        self.wait_for_mounts("sda1", "sda2")
        for name in ("mine", "sda1x", "sdb"):
            os.mkdir(f"{self.DIRECTORY}/{name}")
        debian_world.mount("mine", self.DIRECTORY + "/mine", "tmpfs")

    def test_removing_unmounts_what_the_service_has_mounted(self):
        self.run_ok("apt-get", "-qy", "-o", "Dpkg::Use-Pty=0", "remove", *PACKAGES, env=NONINTERACTIVE)
        self.stick.plugged = False
        self.assertEqual(self.mounted(), {"mine"})
        self.assertEqual(sorted(os.listdir(self.DIRECTORY)), ["mine", "sda1x", "sdb"])
        self.assertFalse(os.path.exists("/media/vyhotplug"))
        self.run_ok("apt-get", "-qy", "-o", "Dpkg::Use-Pty=0", "purge", *PACKAGES, env=NONINTERACTIVE)
