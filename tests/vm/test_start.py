"""Starts and ends of the service beside plugged disks."""

import machine
from machine import CONFIG
from media import Filesystem
from vmtest import VmTest, long_on


class ColdPlug(VmTest):
    """Beside two disks of the machine's own: one is mounted, the other used as swap."""

    devices = machine.USB + machine.card_slots("slot")

    def before_boot(self):
        self.plug("system", Filesystem("ext4", "SYSTEM"), Filesystem("ext4"), serial="SYSTEM")
        self.card("slot", Filesystem("ext4", "CARD"))

    def start_service(self):
        """The agent first: it waits for the daemon."""
        self.wait_for_kernel("sda2", "mmcblk0p1")
        self.vm.run("mount -t ext4 /dev/sda1 /mnt")
        self.plug("swap", Filesystem("ext4"), Filesystem("empty"), serial="SWAP")
        self.wait_for_kernel("sdb2")
        self.vm.run("mkswap /dev/sdb2 && swapon /dev/sdb2")
        self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4"), table="gpt", numbers=(5, 7),
                  serial="AC0042")
        self.wait_for_kernel("sdc7")
        self.start_agent()
        self.wait_until("the agent is there", lambda state: state.of("vyhotplug-agent"))
        self.start_daemon()

    def test_what_is_there_before_the_service_is_mounted_but_for_the_machines_own(self):
        names = ("mmcblka1", "sdc5", "sdc7")
        state = self.wait_for_mounts(*names)
        self.assertEqual(state.share("sdc5")[""], "HOLIDAY(C5)")
        self.assert_file("mmcblka1", "this is CARD\n")
        state = self.wait_for_idle()
        self.assertEqual(sorted(state.names), sorted(names))
        # Not even the partitions that are not in use.
        self.assertEqual([text for text in state.announcements() if "SID=AC0042" not in text and "MAJOR=8" in text], [])
        self.assertEqual(self.vm.run("cat /mnt/readme.txt"), "this is SYSTEM\n")
        self.vm.pull("stick")
        self.wait_for_mounts("mmcblka1")
        self.vm.eject("slot")
        self.wait_for_mounts()


class Restart(VmTest):
    def test_a_daemon_that_is_started_again_gets_everything_back(self):
        empty = self.wait_for_idle()
        image = self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4", "WORK"), serial="AC0042")
        self.wait_for_mounts("sda1", "sda2")
        before = self.wait_for_idle()

        self.stop("vyhotplugd")
        left = self.vm.state()
        self.assertEqual(left.names, before.names)  # they stay mounted
        self.assertEqual(left.shares, before.shares)
        self.start_daemon()
        self.wait_for_mounts("sda1", "sda2")
        # A table that is a regular file keeps the lines of a daemon that has ended until the device goes.
        self.assert_same(before, self.wait_for_idle(), without=["table"])
        self.assert_file("sda1", "this is HOLIDAY\n")
        self.vm.pull("stick")
        self.wait_for_mounts()
        self.assert_same(empty, self.wait_for_idle())

        self.vm.plug("stick", image, serial="AC0042")
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_idle()
        self.stop("vyhotplugd")
        self.vm.pull("stick")
        self.wait_until("the disk has gone", lambda state: "sda" not in state.kernel)
        self.start_daemon()
        self.wait_for_mounts()
        # The agent has had nothing to tell this daemon yet, and so no look at it.
        self.assert_same(empty, self.wait_for_idle(), without=["table", "descriptors"])
        self.vm.plug("stick", image, serial="AC0042")
        self.wait_for_mounts("sda1", "sda2")

    @long_on("mips")
    def test_an_agent_that_is_started_again_tells_what_is_new_and_nothing_twice(self):
        empty = self.wait_for_idle()
        self.plug("one", Filesystem("fat32", "ONE"), serial="ONE")
        self.wait_for_mounts("sda1")
        before = self.wait_for_idle()
        self.stop("vyhotplug-agent")
        self.start_agent()
        self.wait_until("the agent is there", lambda state: state.of("vyhotplug-agent"))
        after = self.wait_for_idle()
        self.assertEqual(after.announcements(), before.announcements())
        self.assert_same(before, after)
        self.assertEqual(after.signals, before.signals)

        self.stop("vyhotplug-agent")
        self.vm.pull("one")
        self.wait_until("the disk has gone", lambda state: "sda" not in state.kernel)
        self.plug("two", Filesystem("fat32", "TWO"), serial="TWO")
        self.wait_for_kernel("sdb1")  # sda is still mounted
        self.start_agent()
        self.wait_for_mounts("sdb1")
        self.assert_file("sdb1", "this is TWO\n")
        self.wait_for_idle()
        self.vm.pull("two")
        self.wait_for_mounts()
        self.assert_same(empty, self.wait_for_idle())

    @long_on("mips")
    def test_a_second_daemon_ends_at_once_and_disturbs_nobody(self):
        self.plug("stick", Filesystem("ext4", "WORK"), serial="AC0042")
        self.wait_for_mounts("sda1")
        before = self.wait_for_idle()
        status, _ = self.vm.attempt(f"vyhotplugd -d -f {CONFIG}", 30)
        self.assertEqual(status, 255)
        self.assertNotEqual(self.vm.attempt(f"vyhotplug-prepare -f {CONFIG}")[0], 0)
        self.assert_same(before, self.wait_for_idle())
        self.vm.pull("stick")
        self.wait_for_mounts()
