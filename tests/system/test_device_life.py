"""One device from the add message to its removal: mount, table, hook, files, signals."""

import os
import shutil
import stat
import time

import vyworld
from vyworld import ADD_HOLD, ERR, SystemTest

SHARE = """[Drive(A1)]
Identifier=1234:00ab:SERA:1
Path=/tmp/hotplug/sda1
Comment=USB Storage Device (Acme/FlashKey)
VID=4660
PID=171
Serial=SERA
Manufactuare=Acme
Product=FlashKey
Speed=480
"""

DEVICE = """[1234:00ab:SERA:1]
Share Name=
Comment=
Read Only=Disable
Guest Access=Disable
Guest Hide=Disable
Full Access Users=
Read Only Users=
Block Users=
Hide Users=
"""

INFO = """Share Name=
Comment=
Sync=Disable
ReadOnly=Disable
Guest Access=Disable
Guest Hide=Disable
Administrator=FullAccess
Full Access Users=
Read Only Users=
Block Users=
Hide Users=
Status={status}
Auto Mount Share Name=Drive(A1)
Auto Mount Comment=USB Storage Device (Acme/FlashKey)
File System=DefFS
Manufactuare=Acme
Product=FlashKey
Volume Label=
Path=/tmp/hotplug/sda1
"""


class Arrival(SystemTest):
    def test_nothing_happens_before_two_seconds(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        sent = time.monotonic()
        vyworld.send(partition.add_message())
        while time.monotonic() < sent + ADD_HOLD - 0.3:
            names = vyworld.mounted_names()
            there = os.path.exists(partition.directory)
            if time.monotonic() < sent + ADD_HOLD:
                self.assertEqual((names, there), ([], False))
            time.sleep(0.1)
        line, = self.wait_for_log(f"daemon(#)mount {partition.node} {partition.directory}")
        self.assertGreaterEqual(line.time - sent, ADD_HOLD)

    def test_the_partition_is_mounted_and_its_files_can_be_read(self):
        self.start_daemon()
        partition = self.make_partition("sda1", files={"a.txt": "first\n", "b.txt": "second\n"})
        self.plug(partition)
        mount, = vyworld.mounts()
        self.assertEqual((mount.source, mount.directory), (partition.node, partition.directory))
        self.assertIn("rw", mount.options)
        self.assertIn("nodev", mount.options)
        self.assertEqual(partition.read_file("a.txt"), "first\n")
        self.assertEqual(partition.read_file("b.txt"), "second\n")
        vyworld.write(partition.directory + "/c.txt", "third\n")
        self.assertEqual(partition.read_file("c.txt"), "third\n")

    def test_the_mount_is_noted_in_the_table_and_logged(self):
        vyworld.write(vyworld.MOUNT_TABLE, "proc /proc proc rw 0 0\n")
        self.start_daemon(level=4)
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assertEqual(vyworld.read_table(),
                         "proc /proc proc rw 0 0\n" + partition.table_line())
        line, = self.log.find(f"daemon(#)mount {partition.node} {partition.directory}")
        self.assertEqual(line.priority, ERR)
        line, = self.log.matching(
            rf"^daemon\(#\)action 1 mntpath \(0x\w+\) {partition.directory}$")
        self.assertEqual(line.priority, ERR)

    def test_the_configured_options_reach_the_mount(self):
        self.write_config(extfsoptions="commit=77,nodelalloc")
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        mount, = vyworld.mounts()
        self.assertIn("nodelalloc", mount.options)
        self.assertIn("commit=77", mount.options)

    def test_a_new_mount_directory_is_for_root_only(self):
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="corrupt")
        vyworld.write("/tmp/bin/ntfs-3g", "#!/bin/sh\nstat -c %a $2 > /tmp/mode\n", 0o755)
        refreshes = self.service.count()
        vyworld.send(partition.add_message())
        self.wait_for_refresh(refreshes + 1)
        self.assertEqual(vyworld.read("/tmp/mode"), "700\n")

    def test_the_hook_is_called_once_with_the_directory_after_the_mount(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assertEqual(vyworld.read(vyworld.HOOK_RECORD),
                         f"2 {vyworld.HOOK} mount {partition.directory} mounted\n")

    def test_the_hook_has_no_streams_and_no_descriptor_of_the_daemon(self):
        vyworld.write(vyworld.HOOK, "#!/bin/sh\nexec python3 -c '"
                      "import os\n"
                      "found = {n: os.readlink(\"/proc/self/fd/\" + n)"
                      " for n in os.listdir(\"/proc/self/fd\")"
                      " if os.path.lexists(\"/proc/self/fd/\" + n)}\n"
                      "open(\"/tmp/fds\", \"w\").write(repr(sorted(found.items())))'\n", 0o755)
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.assertEqual(vyworld.read("/tmp/fds"),
                         "[('0', '/dev/null'), ('1', '/dev/null'), ('2', '/dev/null')]")

    def test_without_a_hook_or_with_a_failing_one_all_else_is_the_same(self):
        os.unlink(vyworld.HOOK)
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        vyworld.write(vyworld.HOOK, "#!/bin/sh\nexit 3\n", 0o755)
        self.plug(self.make_partition("sda2"))
        self.assertEqual(vyworld.mounted_names(), ["sda1", "sda2"])
        self.assertIn("[Drive(A1)]\n", vyworld.read(vyworld.SHARE_FILE))
        self.assertIn("[Drive(A2)]\n", vyworld.read(vyworld.SHARE_FILE))


class Files(SystemTest):
    def test_device_file_and_share_file_byte_for_byte(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), SHARE)
        self.assertEqual(vyworld.read(vyworld.DEVICE_FILE), DEVICE)

    def test_no_temporary_file_is_left(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.unplug(partition)
        left = [name for name in os.listdir("/tmp") if name.endswith(".tmp")]
        self.assertEqual(left, [])

    def test_the_share_service_is_told_once_after_the_files_are_written(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.let_it_idle()
        first, second = self.service.signals()
        self.assertEqual((first["shares"], second["shares"]), ("", SHARE))

    def test_without_the_device_information_a_share_has_its_settings_only(self):
        self.write_config(**{"ds/naswork": "disable"})
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), SHARE.split("VID=")[0])

    def test_a_message_with_numbers_only_gives_the_least_share(self):
        self.start_daemon()
        nothing = dict.fromkeys(["VID", "PID", "SID", "VNAME", "PNAME", "SPEED", "DEVTYPE",
                                 "RANGE"])
        partition = self.make_partition("sdb2", **nothing)
        partition.identifier = "0000:0000::2"
        self.plug(partition)
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), """[Drive(B2)]
Identifier=0000:0000::2
Path=/tmp/hotplug/sdb2
Comment=USB Storage Device (0x0000/0x0000)
""")
        self.assertTrue(vyworld.read(vyworld.DEVICE_FILE).startswith("[0000:0000::2]\n"))

    def test_names_are_trimmed_and_a_full_speed_device_is_told_as_12(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1", VNAME="Big Maker   ", PNAME="   ", SPEED="12 Mb/s",
                                      USBPORT="1-2"))
        shares = vyworld.read(vyworld.SHARE_FILE)
        self.assertIn("Comment=USB Storage Device (Big Maker)\n", shares)
        self.assertIn("Manufactuare=Big Maker\nSpeed=12\n", shares)
        self.assertNotIn("Product=", shares)
        self.assertNotIn("USB Port=", shares)


class Information(SystemTest):
    def sizes(self, path):
        status = os.statvfs(path)
        return (f"Max Size={status.f_frsize * status.f_blocks}\n"
                f"Free Size={status.f_frsize * status.f_bfree}\n")

    def test_the_devices_are_listed_in_order_of_arrival(self):
        self.start_daemon()
        self.plug(self.make_partition("sdb1"), self.make_partition("sda1"))
        self.assert_tool("vyhotpluginfo", "-l", out="1234:00ab:SERB:1\n1234:00ab:SERA:1\n")

    def test_a_mounted_device_is_described_byte_for_byte(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assert_tool("vyhotpluginfo", partition.identifier,
                         out=INFO.format(status="Mount") + self.sizes(partition.directory))
        self.assert_tool("vyhotpluginfo", "-f", vyworld.CONFIG, partition.identifier,
                         out=INFO.format(status="Mount") + self.sizes(partition.directory))

    def test_an_unmounted_device_is_described_as_such_without_sizes(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        refreshes = self.service.count()
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.wait_for_refresh(refreshes + 2)
        self.assert_tool("vyhotpluginfo", partition.identifier, out=INFO.format(status="Unmount"))

    def test_a_device_that_was_pulled_out_is_described_as_unplugged(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        vyworld.write(vyworld.DEVICE_FILE, DEVICE.replace("Share Name=", "Share Name=Music"))
        self.unplug(partition)
        known = INFO.split("Status=")[0].replace("Share Name=", "Share Name=Music", 1)
        self.assert_tool("vyhotpluginfo", partition.identifier, out=known + "Status=Unplug\n")


class Removal(SystemTest):
    def test_a_removal_leaves_nothing_behind(self):
        vyworld.write(vyworld.MOUNT_TABLE, "proc /proc proc rw 0 0\n")
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.unplug(partition)
        self.assert_no_trace(partition)
        self.assertEqual(vyworld.read_table(), "proc /proc proc rw 0 0\n")
        self.assertEqual(os.listdir(vyworld.MOUNT_DIR) + os.listdir(vyworld.DEVICE_DIR), [])
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), "")
        self.assertEqual(vyworld.read(vyworld.DEVICE_FILE), "")

    def test_the_hook_is_called_before_and_the_unmount_logged_after(self):
        self.start_daemon(level=4)
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.unplug(partition)
        self.assertEqual(vyworld.read_lines(vyworld.HOOK_RECORD)[1:],
                         [f"2 {vyworld.HOOK} unmount {partition.directory} mounted"])
        texts = [line.split("mntpath")[0] for line in self.log.texts()]
        self.assertEqual(texts[-2:], ["daemon(#)action 2 ",
                                      f"daemon(#)unmount {partition.node} {partition.directory}"])

    def test_a_busy_partition_is_pulled_out_all_the_same(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        with open(partition.directory + "/readme.txt", encoding="ascii") as file:
            self.unplug(partition)
            self.assert_no_trace(partition)
            self.assertEqual(file.read(), "this is sda1\n")

    def test_only_the_removed_partition_goes(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first, second)
        self.unplug(first)
        self.assert_no_trace(first)
        self.assertEqual(vyworld.mounted_names(), ["sda2"])
        self.assertEqual(vyworld.read_table(), second.table_line())
        self.assertEqual(vyworld.read(vyworld.DEVICE_FILE), DEVICE.replace("SERA:1", "SERA:2"))
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE),
                         SHARE.replace("A1", "A2").replace("SERA:1", "SERA:2").replace(
                             "sda1", "sda2"))

    def test_a_removed_device_can_come_back(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.unplug(partition)
        partition.lay_node()
        self.plug(partition)
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")
        self.assertEqual(vyworld.read_table(), partition.table_line())

    def test_a_partition_that_somebody_else_unmounted_is_cleaned_up(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assertEqual(vyworld.libc.umount2(partition.directory.encode(), 0), 0)
        refreshes = self.service.count()
        vyworld.send(partition.remove_message())
        self.wait_for_log(f"daemon(#)faild unmount {partition.node} {partition.directory}")
        self.wait_for_refresh(refreshes + 1)
        self.assertFalse(os.path.exists(partition.directory))
        self.assertFalse(os.path.exists(partition.node))
        self.assertEqual(vyworld.read_table(), "")
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), "")


class MountTable(SystemTest):
    def test_lines_of_others_stay_and_twins_go(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        others = ["proc /proc proc rw 0 0\n",
                  f"{partition.node} /elsewhere ext4 rw 0 0\n",
                  f"/dev/other {partition.directory} ext4 ro 1 2\n"]
        vyworld.write(vyworld.MOUNT_TABLE, others[0] + partition.table_line() + others[1])
        self.plug(partition)
        with open(vyworld.MOUNT_TABLE, "a", encoding="ascii") as table:
            table.write(others[2])
        self.unplug(partition)
        self.assertEqual(vyworld.read_table(), "".join(others))

    def test_a_table_that_is_a_link_to_the_kernels_is_left_alone(self):
        os.unlink(vyworld.MOUNT_TABLE)
        os.symlink("/proc/self/mounts", vyworld.MOUNT_TABLE)
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.unplug(partition)
        self.assertEqual(os.readlink(vyworld.MOUNT_TABLE), "/proc/self/mounts")
        self.assertFalse(os.path.exists("/tmp/mntent.tmp"))
        self.assertFalse(os.path.exists(partition.directory))

    def test_a_missing_table_costs_the_line_only(self):
        os.unlink(vyworld.MOUNT_TABLE)
        os.mkdir(vyworld.MOUNT_TABLE)
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.unplug(partition)
        self.assertTrue(stat.S_ISDIR(os.stat(vyworld.MOUNT_TABLE).st_mode))
        self.assertFalse(os.path.exists(partition.directory))
        shutil.rmtree(vyworld.MOUNT_TABLE)
