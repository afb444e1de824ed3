"""Every filesystem, disks without a partition table, and what cannot be mounted."""

from media import Filesystem
from state import PLACES, node_of, place_of
from vmtest import VmTest


class Filesystems(VmTest):
    configuration = "vfatoptions = utf8,flush\nextfsoptions = errors=remount-ro\nntfsoptions = noatime\n"
    # The first run fails, as with a disk that was not unmounted where it comes from.
    DRIVER = ('#!/bin/sh\necho "$*" >>/vm/ntfs-3g.runs\n'
              '[ -e /vm/ntfs-3g.failed ] || { touch /vm/ntfs-3g.failed; exit 1; }\nexec /bin/ntfs-3g "$@"\n')

    def test_every_filesystem_is_mounted_and_read(self):
        self.vm.write("/usr/sbin/ntfs-3g", self.DRIVER, 0o755)
        before = self.wait_for_idle()
        self.plug("one", Filesystem("ext2"), Filesystem("ext3"), Filesystem("fat16", "SMALL"),
                  Filesystem("ntfs", "Größe 5"), table="gpt", numbers=(1, 2, 3, 5), serial="ONE")
        self.wait_for_kernel("sda5")
        self.plug("two", Filesystem("fat32", "WHOLE"), table=None, serial="TWO")
        state = self.wait_for_mounts("sda1", "sda2", "sda3", "sda5", "sdb0")
        self.look_at_types(state)
        self.look_at_options(state)
        for name, text in (("sda1", "ext2"), ("sda2", "ext3"), ("sda3", "SMALL"), ("sda5", "Größe 5"),
                           ("sdb0", "WHOLE")):
            self.assert_file(name, f"this is {text}\n")
            self.vm.run(f"echo written on {name} >{place_of(name)}/new.txt && sync")
            self.assert_file(name, f"written on {name}\n", "new.txt")
        self.start_with("mountfs = fat\nfatvolumelabel = disable\n", "sda3", "sdb0")
        self.assertEqual(self.titles(), {"sda3": "Drive(A3)", "sdb0": "Drive(B0)"})
        self.start_with("mountfs = ntfs\n", "sda5")
        self.assertEqual(self.titles(), {"sda5": "Größe 5(A5)"})  # not FAT's, so read nevertheless
        self.vm.pull("one")
        self.vm.pull("two")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def start_with(self, lines, *names):
        """Another daemon, with these lines in its configuration, mounts these and leaves the others alone."""
        self.vm.run("vyunmount all")
        self.stop("vyhotplugd")
        self.configure(lines)
        self.start_daemon()
        self.assert_table(self.wait_for_mounts(*names))  # all disks are told of in one go

    def titles(self):
        state = self.vm.state()
        return {name: state.share(name)[""] for name in state.names}

    def look_at_types(self, state):
        found = {mount.name: mount.type for mount in state.mounts}
        # Here the kernel's ext4 driver serves all three.
        self.assertEqual(found, {"sda1": "ext4", "sda2": "ext4", "sda3": "vfat", "sda5": "fuseblk", "sdb0": "vfat"})
        self.assertEqual({name: state.share(name).get("File System") for name in found},
                         {"sda1": None, "sda2": None, "sda3": "FAT", "sda5": "NTFS", "sdb0": "FAT"})
        self.assertEqual(self.titles(), {"sda1": "Drive(A1)", "sda2": "Drive(A2)", "sda3": "SMALL(A3)",
                                         "sda5": "Größe 5(A5)", "sdb0": "WHOLE(B0)"})
        self.assertEqual(state.share("sdb0")["Identifier"], "46f4:0001:TWO:0")
        self.assertIn(",MINOR=16,DEVTYPE=disk,", "\n".join(state.announcements()))
        self.assertEqual(self.vm.run(f"stat -c '%u %g %a' {PLACES}/sda5 {PLACES}/sda5/readme.txt"),
                         "1000 100 750\n1000 100 640\n")
        self.assert_table(state)  # NTFS is not in it, but its driver's

    def look_at_options(self, state):
        """Those of the configuration came through."""
        for option, names in (("errors=remount-ro", ("sda1", "sda2")), ("flush", ("sda3", "sdb0"))):
            for name in names:
                self.assertIn(option, state.mount(name).options)
        run = f"{node_of('sda5')} {place_of('sda5')} -o uid=1000,gid=100,fmask=0137,dmask=0027,noatime\n"
        self.assertEqual(self.vm.run("cat /vm/ntfs-3g.runs"), 2 * run)

    def test_what_cannot_be_mounted_leaves_nothing_and_hinders_nobody(self):
        before = self.wait_for_idle()
        self.plug("blank", Filesystem("empty"), table=None, serial="BLANK")
        self.wait_for_kernel("sda")
        self.plug("bad", Filesystem("corrupt"), Filesystem("broken-ext4"), Filesystem("broken-fat"),
                  Filesystem("ext4", "GOOD"), Filesystem("signature-exfat"), logical=2, serial="BAD")
        self.wait_for_mounts("sdb5")
        state = self.wait_for_idle()
        self.assertEqual((state.names, state.places, list(state.nodes)), (["sdb5"],) * 3)
        self.assertEqual(state.share("sdb5")["Identifier"], "46f4:0001:BAD:5")
        self.assertEqual(state.hook_calls(), [f"mount {place_of('sdb5')} mounted"])
        self.assert_table(state)
        self.assert_file("sdb5", "this is GOOD\n")
        self.vm.pull("bad")
        self.vm.pull("blank")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())
