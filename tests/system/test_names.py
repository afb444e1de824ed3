"""Which device gets which name, and which gets none."""

import os

import vyworld
from vyworld import ERR, SystemTest


class Names(SystemTest):
    def setUp(self):
        super().setUp()
        self.start_daemon()

    def handle(self, message):
        """Sends an add message and waits until it has been handled. Whatever is tried succeeds."""
        vyworld.write(vyworld.PROGRAMS + "/ntfs-3g", "#!/bin/sh\nexit 0\n", 0o755)
        count = self.service.count()
        vyworld.send(message)
        self.wait_for_refresh(count + 1)

    def assert_nothing_made(self):
        self.assertEqual(vyworld.mounts(), [])
        self.assertEqual(os.listdir(vyworld.DEVICE_DIR) + os.listdir(vyworld.MOUNT_DIR), [])
        self.assertEqual(vyworld.read(vyworld.DEVICE_FILE) + vyworld.read(vyworld.SHARE_FILE), "")
        self.assertFalse(os.path.exists(vyworld.HOOK_RECORD))

    def test_what_is_tried_here_succeeds(self):
        self.handle(vyworld.Partition("sda1").add_message())
        self.assertIn("[Drive(A1)]\n", vyworld.read(vyworld.SHARE_FILE))

    def test_a_card_is_named_by_letter_and_partition(self):
        card = self.make_partition("mmcblkb1", VID=None, PID=None, SID=None, VNAME=None,
                                   PNAME=None, SPEED=None)
        self.assertEqual((card.major, card.minor, card.range), (179, 9, 8))
        self.plug(card)
        self.assertEqual(card.read_file("readme.txt"), "this is mmcblkb1\n")
        self.assertEqual(vyworld.read_table(), card.table_line())
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), """[Drive(MMCB1)]
Identifier=0000:0000::1
Path=/tmp/hotplug/mmcblkb1
Comment=MMC Block Device (0x0000/0x0000)
""")

    def test_a_whole_disk_with_partitions_is_ignored(self):
        os.makedirs("/sys/block/sda/sda1")
        disk = vyworld.Partition("sda0")
        self.handle(disk.add_message())
        self.assert_nothing_made()

    def test_a_whole_disk_whose_last_partition_is_there_is_ignored(self):
        os.makedirs("/sys/block/sdb/sdb15")
        self.handle(vyworld.Partition("sdb0").add_message())
        self.assert_nothing_made()

    def test_a_whole_disk_without_partitions_is_mounted(self):
        os.makedirs("/sys/block/sda/sda16")  # beyond its range: not its own
        os.makedirs("/sys/block/sdb/sdb1")
        disk = self.make_partition("sda0")
        self.plug(disk)
        self.assertEqual(disk.read_file("readme.txt"), "this is sda0\n")
        self.assertIn("[Drive(A0)]\n", vyworld.read(vyworld.SHARE_FILE))

    def test_a_whole_card_is_mounted_whatever_partitions_it_has(self):
        os.makedirs("/sys/block/mmcblka/mmcblka1")
        os.makedirs("/sys/block/mmcblk0/mmcblk0p1")
        card = self.make_partition("mmcblka0")
        self.plug(card)
        self.assertEqual(card.read_file("readme.txt"), "this is mmcblka0\n")

    def test_the_27th_disk_is_out_of_range(self):
        self.handle("ACTION=add,MAJOR=8,MINOR=416,RANGE=16,VID=1,PID=1,SID=x")
        line, = self.wait_for_log("daemon(#)Out of Device Range(26)")
        self.assertEqual(line.priority, ERR)
        self.assert_nothing_made()

    def test_the_26th_disk_is_in_range(self):
        disk = self.make_partition("sdz15")
        self.assertEqual(disk.minor, 415)
        self.plug(disk)
        self.assertIn("[Drive(Z15)]\n", vyworld.read(vyworld.SHARE_FILE))

    def test_another_kind_of_device_is_passed_over_silently(self):
        self.handle("ACTION=add,MAJOR=22,MINOR=1,RANGE=64")
        self.assert_nothing_made()
        self.assertEqual(self.log.matching(r"^daemon\(#\)(mount|Error|Out|action)"), [])

    def test_the_range_decides_letter_and_number(self):
        disk = self.make_partition("sdb1", RANGE=4)
        disk.minor = 5
        self.plug(disk)
        self.assertEqual(vyworld.mounted_names(), ["sdb1"])

    def test_each_number_has_one_identity_and_equal_devices_share_a_record(self):
        first = self.make_partition("sda1", SID="TWIN")
        second = self.make_partition("sdb1", SID="TWIN")
        self.plug(first, second)
        self.assert_tool("vyhotpluginfo", "-l", out="1234:00ab:TWIN:1\n")
        sections = [line for line in vyworld.read_lines(vyworld.SHARE_FILE) if line[0] == "["]
        self.assertEqual(sections, ["[Drive(A1)]", "[Drive(B1)]"])
