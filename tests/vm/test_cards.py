"""SD cards."""

import machine
from media import Filesystem
from vmtest import VmTest, long_on


class Cards(VmTest):
    devices = machine.card_slots("left", "right", "third")

    def slots_and_a_swap(self, minors, second, third):
        """`second`, `third`: what a partition in that slot is called; None for one that has no name."""
        before = self.wait_for_idle()
        left = self.card("left", Filesystem("fat32", "LEFT"), Filesystem("ext4"))
        self.wait_for_kernel("mmcblk0p2")
        right = self.card("right", Filesystem("fat16", "RIGHT"))
        state = self.wait_for_mounts("mmcblka1", "mmcblka2", second)
        self.assertEqual(state.nodes, {"mmcblka1": [1, 179, 1], "mmcblka2": [1, 179, 2],
                                       second: [1, 179, minors + 1]})
        self.assertEqual(state.share("mmcblka1")[""], "LEFT(MMCA1)")
        self.assertEqual(state.share(second)[""], f"RIGHT({self.title(second)})")
        self.look_at_identity(state, "mmcblka1")
        self.assert_file("mmcblka1", "this is LEFT\n")
        self.assert_file(second, "this is RIGHT\n")

        self.vm.eject("right")
        self.wait_for_mounts("mmcblka1", "mmcblka2")
        self.vm.eject("left")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

        self.vm.insert("left", right)
        self.wait_for_kernel("mmcblk0p1")
        self.vm.insert("right", left)
        self.wait_for_kernel("mmcblk1p2")
        self.card("third", Filesystem("ext4", "WHOLE"), table=None)
        names = ["mmcblka1", second, second[:-1] + "2"] + ([third] if third else [])
        state = self.wait_for_mounts(*names)
        self.assertEqual(state.share("mmcblka1")[""], "RIGHT(MMCA1)")
        self.assertEqual(state.share(second)[""], f"LEFT({self.title(second)})")
        state = self.wait_for_idle()
        self.assertEqual(sorted(state.names), sorted(names))
        self.look_at_third(state, third)
        for slot in ("left", "right", "third"):
            self.vm.eject(slot)
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def look_at_third(self, state, third):
        """A card without a partition table is mounted as a whole, where it is in range."""
        if third:
            self.assertEqual(state.share(third)[""], f"Drive({self.title(third)})")
            self.assert_file(third, "this is WHOLE\n")
        else:
            self.assertEqual(len(state.said("daemon(#)Out of Device Range(32)")), 1)

    def look_at_identity(self, state, name):
        """What the card says of itself."""
        serial, product = self.vm.run("cd /sys/block/mmcblk0/device && cat serial name").splitlines()
        share = state.share(name)
        self.assertTrue(serial and product)
        self.assertEqual({key: share.get(key) for key in ("Identifier", "Serial", "Product", "Comment")},
                         {"Identifier": f"0000:0000:{serial}:1", "Serial": serial, "Product": product,
                          "Comment": f"MMC Block Device ({product})"})

    def title(self, name):
        return "MMC" + name.removeprefix("mmcblk").upper()

    @long_on("mips")
    def test_three_slots_and_a_swap(self):
        """256 is more than an add message can say, so the other cards' letters go by 16 minors a device."""
        self.slots_and_a_swap(256, "mmcblkq1", None)


class CardsOfEightMinors(Cards):
    append = "mmc_block.mmcblk.perdev_minors=8"

    @long_on("x86")
    def test_three_slots_and_a_swap(self):
        self.slots_and_a_swap(8, "mmcblkb1", "mmcblkc0")
