"""vyhotplugctl with real USB disks: what it says was done has been done to the hardware."""

from media import Filesystem
from state import place_of
from vmtest import VmTest

CTL = "vyhotplugctl"


class Ctl(VmTest):
    def plug_stick(self):
        self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4", "WORK"), serial="AC0042",
                  vendor="Acme", product="FlashKey")
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_idle()

    def test_a_busy_disk_stays_whole(self):
        self.plug_stick()
        user = self.use("sda2")
        status, shown = self.vm.attempt(f"{CTL} eject sda 2>&1")
        self.assertEqual(status, 4, shown)
        self.assertRegex(shown, rf"(?m)^sda2 is busy:\n.* \(process {user} of .*, file\) {place_of('sda2')}/readme.txt$")
        self.wait_for_mounts("sda1", "sda2")
        self.assertEqual(self.vm.run("ls -d /sys/block/sd*"), "/sys/block/sda\n")
        self.assert_file("sda1", "this is HOLIDAY\n")

    def test_a_disk_is_pulled_while_an_eject_waits(self):
        self.plug_stick()  # so that what is compared has its agent
        self.vm.pull("stick")
        self.wait_for_mounts()
        before = self.wait_for_idle()
        self.plug_stick()
        user = self.use("sda2")
        self.start("eject", f"sh -c '{CTL} eject sda --wait 600 >/vm/told 2>&1; echo $? >/vm/status'")
        # It sleeps between its looks, and has nothing else to wait for.
        self.vm.run("until pid=$(pidof vyhotplugctl) && "
                    "[ $(grep ^voluntary /proc/$pid/status | cut -f 2) -gt 10 ]; do sleep 0.05; done")
        self.assertEqual(self.vm.run("cat /vm/status 2>/dev/null || true"), "")
        self.vm.pull("stick")
        self.wait_for_mounts()
        self.vm.run("until [ -s /vm/status ]; do sleep 0.05; done")
        self.assertEqual(self.vm.run("cat /vm/status /vm/told"), "0\nsda is unmounted: safe to pull\n")
        self.vm.run(f"kill {user}")
        self.assert_same(before, self.wait_for_idle())
        self.plug_stick()  # the service goes on

    def test_eject_takes_the_disk_away(self):
        self.plug_stick()
        device = self.vm.run("readlink -f /sys/block/sda/device/../../../..").strip()
        status, shown = self.vm.attempt(f"{CTL} eject HOLIDAY 2>/tmp/err")
        self.assertEqual((status, shown), (0, "sda is unmounted and switched off: safe to pull\n"))
        self.wait_for_mounts()
        self.assertEqual(self.vm.run("ls /sys/block | grep ^sd || true"), "")
        self.assertEqual(self.vm.run(f"cat {device}/bConfigurationValue 2>/dev/null || true").strip(), "")
        self.vm.pull("stick")
        self.plug_stick()  # the port works again

    def test_settings_hold(self):
        self.plug_stick()
        status, shown = self.vm.attempt(f"{CTL} set HOLIDAY share=Music guest=yes 2>/tmp/err")
        self.assertEqual((status, shown), (0, "46f4:0001:AC0042:1 is set\n"))
        self.wait_until("it is shared so", lambda _: "[Music]" in self.vm.run("cat /run/vyhotplugd/files/vynas.dir.conf"))
        self.assertIn("sda1", self.vm.run(f"{CTL} status; true"))
