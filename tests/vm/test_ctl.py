"""vyhotplugctl with real USB disks: what it says was done has been done to the hardware."""

from media import Filesystem
from vmtest import VmTest

CTL = "vyhotplugctl"


class Ctl(VmTest):
    def plug_stick(self):
        self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4", "WORK"), serial="AC0042",
                  vendor="Acme", product="FlashKey")
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_idle()

    def test_eject_takes_the_disk_away(self):
        self.plug_stick()
        self.assertIn("/sys/block/sda\n", self.vm.run("ls -d /sys/block/sd* || true"))
        self.use("sda2")
        status, shown = self.vm.attempt(f"{CTL} eject sda 2>&1")
        self.assertEqual(status, 4, shown)
        self.assertIn("sda2 is busy:", shown)
        self.wait_for_mounts("sda1", "sda2")

    def test_a_free_disk_is_gone_behind_it(self):
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
