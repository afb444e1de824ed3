"""A card reader: the drive stays, the medium changes."""

import machine
from media import Filesystem
from state import place_of
from vmtest import VmTest, long_on


class Reader(VmTest):
    devices = machine.USB + machine.card_drives("drive")
    append = "block.events_dfl_poll_msecs=500"  # on an appliance udev sets it

    def media_come_and_go(self):
        before = self.wait_for_idle()
        self.assertEqual(before.names, [])
        for text in ("FIRST", "SECOND"):
            image = self.image(Filesystem("fat32", text))
            self.vm.insert("reader", image)
            state = self.wait_for_mounts("sda1")
            self.assertEqual(state.share("sda1")[""], f"{text}(A1)")
            self.assert_file("sda1", f"this is {text}\n")
            self.wait_for_idle()
            self.vm.eject("reader")
            self.wait_for_mounts()
            self.assert_same(before, self.wait_for_idle())

    @long_on()
    def test_media_come_and_go(self):
        self.vm.plug_reader("reader", "drive")
        self.wait_for_kernel("sda")
        self.media_come_and_go()


class Swapped(VmTest):
    """A card is changed for another while it is mounted. What the kernel still writes when it unmounts the first
    one lands on the second: filesystems that lie at the same place have the same form here."""

    devices = machine.USB + machine.card_drives("drive")
    append = "block.events_dfl_poll_msecs=500"

    def swap(self, *filesystems):
        """Between two looks of the kernel's, so that it sees no empty drive."""
        image = self.image(*filesystems)
        self.vm.eject("reader")
        self.vm.insert("reader", image)

    def assert_mounted(self, text, *names):
        """Mounted are these, each once, and the first holds what is its own."""
        self.wait_until(f"the card {text} is mounted and shared", lambda state: state.share("sda1") and self.vm.attempt(
            f"grep -qx 'this is {text}' {place_of('sda1')}/readme.txt")[0] == 0)
        self.wait_for_idle()
        state = self.wait_for_mounts(*names)
        self.assertEqual(sorted(mount.device for mount in state.mounts), [f"8:{name[3:]}" for name in names])

    def test_a_mounted_card_is_changed_for_another(self):
        self.vm.plug_reader("reader", "drive")
        self.wait_for_kernel("sda")
        before = self.wait_for_idle()
        self.vm.insert("reader", self.image(Filesystem("fat16", "FIRST"), Filesystem("ext4"), Filesystem("ext2")))
        self.assert_mounted("FIRST", "sda1", "sda2", "sda3")
        self.swap(Filesystem("fat16", "SECOND"))
        self.assert_mounted("SECOND", "sda1")
        self.swap(Filesystem("fat16", "THIRD"), Filesystem("fat16"))
        self.assert_mounted("THIRD", "sda1", "sda2")
        self.swap(Filesystem("fat16", "FOURTH"), Filesystem("fat16"))
        self.assert_mounted("FOURTH", "sda1", "sda2")
        self.vm.eject("reader")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())


class ReaderAtBoot(Reader):
    def before_boot(self):
        self.vm.plug_reader("reader", "drive")

    def start_service(self):
        self.wait_for_kernel("sda")
        super().start_service()

    def test_media_come_and_go(self):
        """The kernel has told of the empty drive before anybody listened, and tells once until it is opened."""
        self.media_come_and_go()
