"""Media that refuse writing."""

import machine
from media import Filesystem
from state import node_of, place_of
from vmtest import VmTest, long_on


class WriteProtection(VmTest):
    devices = machine.USB + machine.card_slots("slot")

    def look_at(self, state, name, kind, flags=None):
        mount = state.mount(name)
        if flags:
            self.assertEqual((mount.type, sorted(mount.flags)), (kind, flags))
        self.assertIn("ro", mount.flags)
        self.assertEqual(state.share(name).get("Read Only"), "Enable")
        status, text = self.vm.attempt(f"echo no >{place_of(name)}/new.txt")
        self.assertNotEqual(status, 0)
        self.assertIn("Read-only file system", text)
        self.assert_file(name, f"this is {kind}\n")

    def partitions(self, *kinds):
        return [Filesystem({"vfat": "fat32"}.get(kind, kind), files={"readme.txt": f"this is {kind}\n"})
                for kind in kinds]

    def test_a_disk_that_is_write_protected_is_announced_so(self):
        before = self.wait_for_idle()
        self.plug("stick", *self.partitions("vfat", "ext4", "ntfs"), serial="AC0042", readonly=True, removable=True)
        self.wait_for_mounts("sda1", "sda2", "sda3")
        state = self.wait_for_idle()
        said = state.announcements()
        self.assertTrue(len(said) == 4 and all(",RM=1,RO=1," in text for text in said), said)
        self.look_at(state, "sda1", "vfat", ["relatime", "ro"])
        self.look_at(state, "sda2", "ext4", ["nodev", "relatime", "ro"])
        self.look_at(state, "sda3", "ntfs")
        self.assert_table(state)
        self.vm.pull("stick")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_what_nobody_knew_to_be_protected_is_mounted_at_the_second_attempt(self):
        """The flags show which attempt it was: the second has no nodev. A disk that could be written, but is said
        to be protected, is mounted read-only at the first."""
        before = self.wait_for_idle()
        self.vm.run("mkdir /mnt/try")
        self.card("slot", *self.partitions("vfat", "ext4"))
        self.wait_until("the card is announced", lambda state: len(state.announcements()) >= 3)
        self.vm.run("echo 1 >/sys/block/mmcblk0/force_ro")
        self.assertEqual(self.vm.run("/vm/guest mount /dev/mmcblk0p2 /mnt/try ext4 0"), "EACCES\n")
        self.wait_for_mounts("mmcblka1", "mmcblka2")

        self.stop("vyhotplug-agent")
        self.plug("stick", *self.partitions("vfat", "ext4"), serial="AC0042", readonly=True)
        self.wait_for_kernel("sda2")
        self.plug("other", *self.partitions("vfat", "ext4", "ntfs"), serial="OTHER")
        self.wait_for_kernel("sdb3")
        self.assertEqual(self.vm.run("/vm/guest mount /dev/sda2 /mnt/try ext4 0"), "EROFS\n")
        for minor, protected in ((1, 0), (2, 0), (17, 1), (18, 1), (19, 1)):
            self.vm.run(f"/vm/guest send ACTION=add,MAJOR=8,MINOR={minor},RO={protected}")
        self.wait_for_mounts("mmcblka1", "mmcblka2", "sda1", "sda2", "sdb1", "sdb2", "sdb3")
        state = self.wait_for_idle()
        for name in ("mmcblka", "sda"):
            self.look_at(state, name + "1", "vfat", ["relatime", "ro"])
            self.look_at(state, name + "2", "ext4", ["relatime", "ro"])
        self.look_at(state, "sdb1", "vfat", ["relatime", "ro"])
        self.look_at(state, "sdb2", "ext4", ["nodev", "relatime", "ro"])
        self.look_at(state, "sdb3", "ntfs")
        self.assert_table(state)

        self.start_agent()  # which must listen before what it was not told of goes
        self.wait_until("the agent listens", lambda state: any(
            "knows what it was told before" in line.text for line in state.log))
        self.wait_for_idle()
        self.vm.pull("stick")
        self.vm.pull("other")
        self.vm.eject("slot")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())


@long_on("mips")
class MountTable(VmTest):
    def test_a_table_that_is_a_link_into_proc_is_left_alone(self):
        self.vm.run("ln -sfn /proc/self/mounts /etc/mtab")
        before = self.wait_for_idle()
        self.plug("stick", Filesystem("ext4"), serial="AC0042", readonly=True)
        state = self.wait_for_mounts("sda1")
        self.assertEqual(state.table_link, "/proc/self/mounts")
        self.assertIn(f"{node_of('sda1')} {place_of('sda1')} ext4 ro,nodev,relatime 0 0\n", state.table)
        self.vm.pull("stick")
        self.wait_for_mounts()
        after = self.wait_for_idle()
        self.assertEqual(after.table_link, "/proc/self/mounts")
        self.assert_same(before, after)
