"""/tmp is full, and the files that are made there are to be replaced: nothing is lost.

/tmp becomes a small filesystem of its own with the two files on it. What else the harness keeps in
/tmp stays where it was, behind links and bind mounts.
"""

import os
import signal

import vyworld
from vyworld import DEVICE_FILE, MOUNT_TABLE, SHARE_FILE, SystemTest

WIDE = "/var/wide"
PAGES = 32
PAGE = 4096
FILLER = "/tmp/filler"
MS_BIND = 4096
TEMPORARY_FILES = ("/tmp/vyhotplug.dir.conf.tmp", "/tmp/vyhotplug.dev.conf.tmp")
USERS = "".join(f"{number}," for number in range(1000, 1300))


def mount(source, target, kind, flags, data):
    result = vyworld.libc.mount(source.encode(), target.encode(), kind and kind.encode(), flags,
                                data and data.encode())
    if result != 0:
        raise OSError(vyworld.ctypes.get_errno(), target)


def record(identifier, name, path, users):
    """An administrator's settings, as the daemon writes them."""
    return (f"[{identifier}]\nShare Name={name}\n{path}Comment=old\nRead Only=Disable\n"
            f"Guest Access=Enable\nGuest Hide=Disable\nFull Access Users={users}\n"
            "Read Only Users=\nBlock Users=\nHide Users=\n")


def directories(count, users):
    """Directories, each of which is a share."""
    return "".join(record(f"internal:{number}", f"Folder {number}", f"Path=/tmp/folder{number}\n",
                          users) for number in range(count))


def absent_devices(count):
    """Devices that are not plugged: they are in the device file only."""
    return "".join(record(f"1:2:absent:{number}", f"Absent {number}", "", USERS)
                   for number in range(count))


def sections(text):
    return ["[" + part for part in ("\n" + text).split("\n[")[1:]]


class FullTmp(SystemTest):
    DIRECTORIES = 6
    DEVICES = directories(DIRECTORIES, "") + absent_devices(8)

    def setUp(self):
        super().setUp()
        self.start_daemon()
        self.make_tmp_small()
        self.partition = self.make_partition("sda1")
        vyworld.write(DEVICE_FILE, self.DEVICES)
        self.plug(self.partition)
        self.old = self.files()
        self.assertEqual(len(sections(self.old[0])), self.DIRECTORIES + 1)

    def make_tmp_small(self):
        os.mkdir(WIDE)
        mount("/tmp", WIDE, None, MS_BIND, None)
        mount("small", "/tmp", "tmpfs", 0, f"size={PAGES * PAGE},nr_inodes=60,mode=1777")
        for folder in ("bin", "hotdev", "hotplug", "vynasmira"):
            os.mkdir(f"/tmp/{folder}")
            mount(f"{WIDE}/{folder}", f"/tmp/{folder}", None, MS_BIND, None)
        for name in ("daemon.stderr", "hook.record", "label.record", "share-service.record",
                     "sda1.image", "sdb1.image", "vyhotplugd-evhook.sh"):
            os.symlink(f"{WIDE}/{name}", f"/tmp/{name}")
        self.addCleanup(self.show_wide_tmp)

    @staticmethod
    def show_wide_tmp():
        """For what the harness looks at in the end, such as a sanitizer's report."""
        for name in os.listdir("/tmp"):
            if name.startswith(os.path.basename(vyworld.SANITIZER_LOG)):
                with open(f"{WIDE}/{name}", "w", encoding="utf-8") as copy:
                    copy.write(vyworld.read(f"/tmp/{name}"))
        for folder in ("bin", "hotdev", "hotplug", "vynasmira", ""):
            vyworld.libc.umount2(f"/tmp/{folder}".encode(), vyworld.MNT_DETACH)

    # ---- room ----

    def fill(self, pages_left=0):
        """Takes all the room that /tmp has, but so much."""
        with open(FILLER, "wb", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(PAGE))
            except OSError as error:
                self.assertEqual(error.errno, 28)  # ENOSPC
            filler.truncate(filler.tell() - pages_left * PAGE)
        self.assertEqual(os.statvfs("/tmp").f_bfree, pages_left)

    def take_all_names(self):
        """Room for bytes is there, but no further file can be made."""
        os.mkdir("/tmp/names")
        for number in range(os.statvfs("/tmp").f_ffree):
            vyworld.write(f"/tmp/names/{number}", "")
        self.assertEqual(os.statvfs("/tmp").f_ffree, 0)

    def give_names_back(self):
        for name in os.listdir("/tmp/names"):
            os.unlink(f"/tmp/names/{name}")

    # ---- refreshes ----

    def files(self):
        return vyworld.read(SHARE_FILE), vyworld.read(DEVICE_FILE)

    def refresh(self):
        count = self.service.count()
        self.daemon.signal(signal.SIGHUP)
        self.wait_for_refresh(count + 1)

    def edit(self):
        """Another comment everywhere: what the next refresh takes in. The length is the same."""
        text = self.old[1].replace("=old\n", "=new\n")
        self.assertNotEqual(text, self.old[1])
        with open(DEVICE_FILE, "r+b") as file:  # in its place: it takes no more room
            file.write(text.encode())
        self.new = self.old[0].replace("=old\n", "=new\n"), text

    def assert_no_temporary_file(self):
        for path in TEMPORARY_FILES:
            self.assertFalse(os.path.exists(path), path)

    def assert_settings_are_kept(self):
        self.assertEqual(vyworld.read(DEVICE_FILE), self.new[1])
        self.assert_no_temporary_file()
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assert_alive_without_mounting()

    def assert_alive_without_mounting(self):
        self.assertEqual(vyworld.request("ACTION=mount,mmcblk"), b"success\0")

    def assert_next_refresh_writes_all(self):
        self.refresh()
        self.assertEqual(self.files(), self.new)
        self.assert_no_temporary_file()


class NoRoom(FullTmp):
    """The share file takes little room: what its emptying sets free is not enough for the other."""

    def test_without_any_room_the_settings_stay_and_are_written_later(self):
        self.edit()
        self.fill()
        self.refresh()
        self.assert_settings_are_kept()
        # A share that cannot be written whole is left out: here it is all of them.
        self.assertEqual(vyworld.read(SHARE_FILE), "")
        os.unlink(FILLER)
        self.assert_next_refresh_writes_all()

    def test_where_no_file_can_be_made_both_stay(self):
        self.edit()
        self.take_all_names()
        self.refresh()
        self.assertEqual(self.files(), (self.old[0], self.new[1]))
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.give_names_back()
        self.assert_next_refresh_writes_all()

    def test_a_restart_meanwhile_loses_nothing(self):
        self.edit()
        self.fill()
        self.assertEqual(self.stop_daemon(), 0)
        self.start_daemon()
        self.assertEqual(vyworld.read(DEVICE_FILE), self.new[1])
        os.unlink(FILLER)
        self.refresh()
        self.assertEqual(vyworld.read(DEVICE_FILE), self.new[1])
        self.assertEqual(len(sections(vyworld.read(SHARE_FILE))), self.DIRECTORIES)

    def test_devices_come_and_go_meanwhile(self):
        self.edit()
        other = self.make_partition("sdb1")
        self.fill()
        count = self.service.count()
        vyworld.send(other.add_message())
        self.wait_for_refresh(count + 1)
        self.assertEqual(vyworld.mounted_names(), ["sda1", "sdb1"])
        self.assertEqual(other.read_file("readme.txt"), "this is sdb1\n")
        self.assertEqual(vyworld.read(DEVICE_FILE), self.new[1])
        count = self.service.count()
        vyworld.send(other.remove_message())
        self.wait_for_refresh(count + 1)
        self.assert_settings_are_kept()
        os.unlink(FILLER)
        self.assert_next_refresh_writes_all()

    def test_a_device_that_came_meanwhile_is_told_of_with_the_next_one(self):
        other = self.make_partition("sdb1")
        self.fill()
        count = self.service.count()
        vyworld.send(other.add_message())
        self.wait_for_refresh(count + 1)
        os.unlink(FILLER)
        self.unplug(self.partition)
        self.partition.lay_node()
        self.plug(self.partition)
        shares, devices = self.files()
        for partition in (self.partition, other):
            self.assertIn(f"[{partition.identifier}]\n", devices)
            self.assertIn(f"Path={partition.directory}\n", shares)

    def test_an_unmount_meanwhile_leaves_the_mount_table_whole(self):
        lines = "/dev/root / ext4 rw 0 0\n"
        table = lines + self.partition.table_line()
        vyworld.write(MOUNT_TABLE, table)
        self.fill()
        self.assertEqual(vyworld.request("ACTION=unmount,sda1"), b"success\0")
        self.assertEqual(vyworld.mounts(), [])
        self.assertEqual(vyworld.read_table(), table)  # a stale line is all that it costs
        self.assertEqual(vyworld.read(DEVICE_FILE), self.old[1])


class SomeRoom(FullTmp):
    DEVICES = directories(FullTmp.DIRECTORIES, USERS)

    def test_with_room_for_a_part_every_share_that_is_told_of_is_whole(self):
        self.edit()
        told = set()
        for pages in range(1, 9):
            with self.subTest(pages=pages):
                self.fill(pages)
                self.refresh()
                self.assert_settings_are_kept()
                found = sections(vyworld.read(SHARE_FILE))
                wanted = sections(self.new[0])
                self.assertEqual([section for section in found if section not in wanted], [])
                told.add(len(found))
                os.unlink(FILLER)
                self.assert_next_refresh_writes_all()
        vyworld.log(f"shares told of: {sorted(told)} of {self.DIRECTORIES + 1}")
        self.assertGreater(len(told), 1, "the room made no difference")
