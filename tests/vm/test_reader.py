"""A card reader: the drive stays, the medium changes."""

import machine
from media import Filesystem
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


class ReaderAtBoot(Reader):
    def before_boot(self):
        self.vm.plug_reader("reader", "drive")

    def start_service(self):
        self.wait_for_kernel("sda")
        super().start_service()

    def test_media_come_and_go(self):
        """The kernel has told of the empty drive before anybody listened, and tells once until it is opened."""
        self.media_come_and_go()
