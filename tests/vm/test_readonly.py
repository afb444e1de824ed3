"""Media that refuse writing."""

import machine
from media import Filesystem
from state import node_of, place_of
from vmtest import VmTest, long_on


class WriteProtection(VmTest):
    devices = machine.USB + machine.card_slots("slot")

    def look_at(self, state, name, flags):
        mount = state.mount(name)
        self.assertEqual(sorted(mount.flags), flags)
        self.assertEqual(state.share(name).get("Read Only"), "Enable")
        self.assertIn(f"{node_of(name)} {place_of(name)} {mount.type} ro 0 0\n", state.table)
        status, text = self.vm.attempt(f"echo no >{place_of(name)}/new.txt")
        self.assertNotEqual(status, 0)
        self.assertIn("Read-only file system", text)
        self.assert_file(name, f"this is {state.mount(name).type}\n")

    def partitions(self):
        return Filesystem("fat32", files={"readme.txt": "this is vfat\n"}), Filesystem("ext4")

    def test_a_disk_that_is_write_protected_is_announced_so(self):
        self.plug("stick", *self.partitions(), serial="AC0042", readonly=True)
        self.wait_for_mounts("sda1", "sda2")
        state = self.wait_for_idle()
        said = [line.text for line in state.log if line.text.startswith("recieve(#)ACTION=add")]
        self.assertTrue(said and all(",RO=1" in text for text in said), said)
        self.look_at(state, "sda1", ["relatime", "ro"])
        self.look_at(state, "sda2", ["nodev", "relatime", "ro"])

    def test_what_nobody_knew_to_be_protected_is_mounted_at_the_second_attempt(self):
        """The flags show which attempt it was: the second has no nodev."""
        self.vm.run("mkdir /mnt/try")
        self.card("slot", *self.partitions())
        self.wait_until("the card is announced", lambda state: len(
            [line for line in state.log if line.text.startswith("recieve(#)ACTION=add,")]) >= 3)
        self.vm.run("echo 1 >/sys/block/mmcblk0/force_ro")
        self.assertEqual(self.vm.run("/vm/guest mount /dev/mmcblk0p2 /mnt/try ext4 0"), "EACCES\n")
        self.wait_for_mounts("mmcblka1", "mmcblka2")

        self.stop("vyhotplug-agent")
        self.plug("stick", *self.partitions(), serial="AC0042", readonly=True)
        self.wait_for_kernel("sda2")
        self.assertEqual(self.vm.run("/vm/guest mount /dev/sda2 /mnt/try ext4 0"), "EROFS\n")
        for minor in (1, 2):
            self.vm.run(f"/vm/guest send ACTION=add,MAJOR=8,MINOR={minor},RO=0")
        self.wait_for_mounts("mmcblka1", "mmcblka2", "sda1", "sda2")
        state = self.wait_for_idle()
        for name in state.names:
            self.look_at(state, name, ["relatime", "ro"])


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
