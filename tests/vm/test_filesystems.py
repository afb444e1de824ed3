"""Every filesystem, disks without a partition table, and what cannot be mounted."""

from media import Filesystem
from state import PLACES, place_of
from vmtest import VmTest


class Filesystems(VmTest):
    def test_every_filesystem_is_mounted_and_read(self):
        before = self.wait_for_idle()
        self.plug("one", Filesystem("ext2"), Filesystem("ext3"), Filesystem("fat16", "SMALL"),
                  Filesystem("ntfs", "Größe 5"), serial="ONE")
        self.wait_for_kernel("sda4")
        self.plug("two", Filesystem("fat32", "WHOLE"), table=None, serial="TWO")
        state = self.wait_for_mounts("sda1", "sda2", "sda3", "sda4", "sdb0")
        self.look_at_types(state)
        for name, text in (("sda1", "ext2"), ("sda2", "ext3"), ("sda3", "SMALL"), ("sda4", "Größe 5"),
                           ("sdb0", "WHOLE")):
            self.assert_file(name, f"this is {text}\n")
            self.vm.run(f"echo written on {name} >{place_of(name)}/new.txt && sync")
            self.assert_file(name, f"written on {name}\n", "new.txt")
        self.vm.pull("one")
        self.wait_for_mounts("sdb0")
        self.vm.pull("two")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def look_at_types(self, state):
        found = {mount.name: mount.type for mount in state.mounts}
        # Here the kernel's ext4 driver serves all three.
        self.assertEqual(found, {"sda1": "ext4", "sda2": "ext4", "sda3": "vfat", "sda4": "fuseblk", "sdb0": "vfat"})
        self.assertEqual({name: state.share(name).get("File System") for name in found},
                         {"sda1": None, "sda2": None, "sda3": "FAT", "sda4": "NTFS", "sdb0": "FAT"})
        self.assertEqual({name: state.share(name)[""] for name in found},
                         {"sda1": "Drive(A1)", "sda2": "Drive(A2)", "sda3": "SMALL(A3)", "sda4": "Größe 5(A4)",
                          "sdb0": "WHOLE(B0)"})
        self.assertEqual(state.share("sdb0")["Identifier"], "46f4:0001:TWO:0")
        self.assertEqual(self.vm.run(f"stat -c '%u %g %a' {PLACES}/sda4 {PLACES}/sda4/readme.txt"),
                         "1000 100 750\n1000 100 640\n")
        self.assertNotIn("sda4", state.table)  # NTFS is its driver's

    def test_what_cannot_be_mounted_leaves_nothing_and_hinders_nobody(self):
        before = self.wait_for_idle()
        self.plug("blank", Filesystem("empty"), table=None, serial="BLANK")
        self.wait_for_kernel("sda")
        self.plug("bad", Filesystem("corrupt"), Filesystem("broken-ext4"), Filesystem("broken-fat"),
                  Filesystem("ext4", "GOOD"), serial="BAD")
        state = self.wait_for_mounts("sdb4")
        self.assertEqual(state.share("sdb4")["Identifier"], "46f4:0001:BAD:4")
        self.assert_file("sdb4", "this is GOOD\n")
        self.vm.pull("bad")
        self.vm.pull("blank")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())
