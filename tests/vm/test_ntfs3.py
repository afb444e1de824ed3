"""NTFS by the kernel itself, where it has a module for it."""

import media
from media import Filesystem
from state import PLACES
from test_others import Mutants, OtherTest
from vmtest import long_on


class WithoutModule(OtherTest):
    machines = ("x86",)
    prepared = "true"
    configuration = "mountfs = fat\notherfs = ntfs3\n"

    def test_it_is_said_and_the_driver_helps_where_it_is_wanted(self):
        self.plug("windows", Filesystem("ntfs", "WINDOWS"), serial="WIN")
        lines = self.wait_for_lines("sda1")
        self.assertEqual(lines["sda1"][1:], ["no-module", "ntfs", "sda1 holds ntfs, which this kernel has no module for", "-"])
        self.stop("vyhotplugd")
        self.configure("mountfs = fat,ntfs\n")
        self.start_daemon()
        state = self.wait_for_mounts("sda1")
        self.assertEqual([mount.type for mount in state.mounts], ["fuseblk"])
        self.wait_for_lines()


class WithModule(OtherTest):
    machines = ("server",)
    configuration = "mountfs = fat\notherfs = ntfs3\nlabels = all\n"

    def test_a_stick_is_mounted_written_and_pulled(self):
        before = self.wait_for_idle()
        self.plug("windows", Filesystem("ntfs", "Größe"), serial="WIN")
        self.wait_for_mounts("sda1")
        state = self.wait_for_idle()
        self.assertEqual([mount.type for mount in state.mounts], ["ntfs3"])
        self.assert_table(state)
        self.assertEqual(state.share("sda1")[""], "Größe(A1)")
        self.assert_file("sda1", "this is Größe\n")
        self.assertEqual(self.vm.run(f"stat -c '%u %g %a' {PLACES}/sda1 {PLACES}/sda1/readme.txt"),
                         "1000 100 777\n1000 100 640\n")  # the kernel masks nothing in the first
        self.vm.run(f"rm {PLACES}/sda1/readme.txt")
        self.use_files("sda1")
        self.assertEqual(self.lines(), {})
        self.vm.pull("windows")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_one_that_was_not_unmounted_is_refused_until_that_is_mended(self):
        image = self.image(Filesystem("ntfs", "DIRTY"), table=None)
        media.run("ntfsfix", image)  # it asks Windows for a check
        self.vm.plug("windows", image, serial="WIN")
        lines = self.wait_for_lines("sda")
        self.assertEqual(lines["sda"][1:], ["refused", "ntfs", "sda holds ntfs, but the kernel refused it: ntfs3(sda): "
                                            'volume is dirty and "force" flag is not set!', "ntfsfix -d /dev/sda"])
        self.vm.pull("windows")
        self.wait_for_lines()
        media.run("ntfsfix", "-d", image)
        self.vm.plug("again", image, serial="WIN")
        self.wait_for_mounts("sda0")
        self.assert_file("sda0", "this is DIRTY\n")


@long_on("server")
class ManyMutants(Mutants):
    machines = ("server",)
    configuration = "mountfs = fat\notherfs = ntfs3\n"
    named = {"vfat", "ntfs"}

    def test_of_ntfs(self):
        self.go_through("ntfs")
