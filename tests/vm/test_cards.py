"""SD cards."""

import machine
from media import Filesystem
from vmtest import VmTest, long_on


class Cards(VmTest):
    devices = machine.card_slots("left", "right")

    def two_slots_and_a_swap(self, minors, second):
        before = self.wait_for_idle()
        self.card("left", Filesystem("fat32", "LEFT"), Filesystem("ext4"))
        self.wait_for_kernel("mmcblk0p2")
        right = self.card("right", Filesystem("fat16", "RIGHT"))
        state = self.wait_for_mounts("mmcblka1", "mmcblka2", second)
        self.assertEqual(state.nodes, {"mmcblka1": [1, 179, 1], "mmcblka2": [1, 179, 2],
                                       second: [1, 179, minors + 1]})
        self.assertEqual(state.share("mmcblka1")[""], "LEFT(MMCA1)")
        letter = second.removeprefix("mmcblk")[0].upper()
        self.assertEqual(state.share(second)[""], f"RIGHT(MMC{letter}1)")
        self.assertIn("MMC Block Device", state.share(second)["Comment"])
        self.assert_file("mmcblka1", "this is LEFT\n")
        self.assert_file(second, "this is RIGHT\n")

        self.vm.eject("right")
        self.wait_for_mounts("mmcblka1", "mmcblka2")
        self.vm.eject("left")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

        self.vm.insert("left", right)
        state = self.wait_for_mounts("mmcblka1")
        self.assertEqual(state.share("mmcblka1")[""], "RIGHT(MMCA1)")
        self.vm.eject("left")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    @long_on("mips")
    def test_two_slots_and_a_swap(self):
        """256 is more than an add message can say, so the second card's letter goes by 16 minors a device."""
        self.two_slots_and_a_swap(256, "mmcblkq1")


class CardsOfEightMinors(Cards):
    append = "mmc_block.mmcblk.perdev_minors=8"

    @long_on("x86")
    def test_two_slots_and_a_swap(self):
        self.two_slots_and_a_swap(8, "mmcblkb1")
