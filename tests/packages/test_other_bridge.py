"""The bridge to ksmbd in the place of the one to Samba, and the way back."""

import json
import os
import pathlib

from debian_world import EXCHANGE
from machine import APT_INSTALL, NONINTERACTIVE, SHARE_SERVICE_PID, Machine, Stick, list_files

MADE = "/run/vynas-ksmbd/ksmbd.conf"
SCRIPT = "/etc/init.d/vynas-ksmbd"


class OtherBridge(Machine):
    """One bridge at a time, whichever comes last; and nothing is left of the one that goes."""

    FILES = "/images/files-before.json"

    def install(self, folder, name, *others):
        package, = (str(path) for path in pathlib.Path(folder).glob(f"{name}_*.deb"))
        return self.run_ok(*APT_INSTALL, package, *others, env=NONINTERACTIVE, limit=600)

    def package_state(self, name):
        return self.run_any("dpkg-query", "-W", "-f", "${db:Status-Abbrev}", name)[1].strip()

    def start_by_hand(self):
        self.shell("vynas-ksmbd >/dev/null 2>&1 </dev/null &")
        self.wait_until("the bridge holds its pid file", lambda: self.read(SHARE_SERVICE_PID).strip())

    def assert_gone(self, name):
        """Neither its process, nor what it has made."""
        self.assertEqual(self.pids_of(name), [])
        self.assertFalse(os.path.exists(f"/run/{name}"))
        self.assertFalse(os.path.exists(SHARE_SERVICE_PID))

    def test_it_takes_the_place_of_the_first(self):
        self.collect_log()
        self.write(self.FILES, json.dumps(list_files()))
        self.start_by_init_scripts()
        self.install(EXCHANGE + "/other", "vynas-ksmbd")
        self.assertEqual((self.package_state("vynas-samba"), self.package_state("vynas-ksmbd")), ("rc", "ii"))
        self.assert_gone("vynas-samba")
        self.assertEqual(self.run_ok("dpkg", "--audit"), "")
        self.assertEqual(self.run_ok("dpkg", "--verify", "vynas-ksmbd"), "")
        self.assertEqual(self.run_ok("vynas-ksmbd", "--version"),
                         f"vynas-ksmbd {self.run_ok('dpkg-query', '-W', '-f', '${Version}', 'vyhotplugd')}\n")
        self.assertIn("/etc/vynas-ksmbd/vynas-ksmbd.conf ",
                      self.run_ok("dpkg-query", "-W", "-f", "${Conffiles}\n", "vynas-ksmbd"))

    def test_it_makes_shares_of_what_is_plugged(self):
        self.run_ok(SCRIPT, "start")
        self.run_ok(SCRIPT, "status")
        self.stick = Stick(self, "a", "STICK1", p1=("ext4", None, {"a.txt": "one\n"}))
        self.stick.put_in()
        self.stick.announce()
        self.wait_for_mounts("sda1")
        self.wait_until("it is shared", lambda: "path = /media/vyhotplug/sda1\n" in self.read(MADE))
        self.run_ok(SCRIPT, "restart")
        self.assertEqual(len(self.pids_of("vynas-ksmbd")), 1)

    def test_a_pull_takes_the_share_away(self):
        self.stick.take_out()
        self.stick.withdraw()
        self.wait_for_mounts()
        self.wait_until("it is not shared", lambda: "/media/vyhotplug" not in self.read(MADE))
        self.run_ok(SCRIPT, "stop")
        self.assertEqual(self.run_any(SCRIPT, "status")[0], 3)

    def test_the_first_comes_back(self):
        self.start_by_hand()
        self.install(EXCHANGE, "vynas-samba", "ksmbd-tools-")  # apt does not remove by itself what stands in Samba's way
        self.assertEqual((self.package_state("vynas-samba"), self.package_state("vynas-ksmbd")), ("ii", "rc"))
        self.assert_gone("vynas-ksmbd")
        self.run_ok("/etc/init.d/vynas-samba", "start")
        self.run_ok("/etc/init.d/vynas-samba", "stop")

    def test_nothing_is_left_of_it(self):
        self.run_ok("apt-get", "-qy", "-o", "Dpkg::Use-Pty=0", "purge", "vynas-ksmbd", "ksmbd-tools", "libnl-3-200",
                    "libnl-genl-3-200", env=NONINTERACTIVE)
        self.assertEqual(self.package_state("vynas-samba"), "ii")
        self.run_ok("/etc/init.d/vyhotplugd", "stop")
        self.run_ok("/etc/init.d/smbd", "stop")
        before, after = json.loads(self.read(self.FILES)), list_files()
        changed = {path: (before.get(path), after.get(path)) for path in before.keys() | after.keys()
                   if before.get(path) != after.get(path)
                   and not path.startswith(("/run/", "/tmp/", "/media/", "/var/lib/samba", "/var/lib/vyhotplugd"))}
        self.assertEqual(changed, {})
        self.assertEqual([name for name in os.listdir("/run") if "ksmbd" in name], [])
