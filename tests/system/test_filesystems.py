"""Each filesystem on a real medium: ext2, ext3, ext4, NTFS; what cannot be written or read."""

import os

import vyworld
from vyworld import SystemTest


def share(filesystem_line, extra=""):
    return f"""[Drive(A1)]
Identifier=1234:00ab:SERA:1
Path=/tmp/hotplug/sda1
Comment=USB Storage Device (Acme/FlashKey)
{filesystem_line}VID=4660
PID=171
Serial=SERA
Manufactuare=Acme
Product=FlashKey
Speed=480
{extra}"""


class Ext(SystemTest):
    # Today's ext4 driver takes all three; the older ones are reached where it refuses, as the
    # drivers of older kernels do.
    REFUSE_EXT4 = "mount:error=EINVAL:when=2"  # the second call: FAT is tried first

    def check(self, image, mounted_as, line, strace):
        self.start_daemon(strace=strace)
        partition = self.make_partition("sda1", filesystem=image)
        self.plug(partition)
        mount, = vyworld.mounts()
        self.assertEqual((mount.source, mount.type), (partition.node, mounted_as))
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")
        self.assertEqual(vyworld.read_table(), partition.table_line(mounted_as))
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), share(line))
        self.unplug(partition)
        self.assert_no_trace(partition)

    def test_an_ext4_medium_is_mounted_as_ext4(self):
        self.check("ext4", "ext4", "", None)

    def test_an_ext3_medium_is_mounted_by_the_ext4_driver_that_takes_it(self):
        self.check("ext3", "ext4", "", None)

    def test_an_ext2_medium_is_mounted_by_the_ext4_driver_that_takes_it(self):
        self.check("ext2", "ext4", "", None)

    def test_an_ext3_medium_is_mounted_as_ext3_where_ext4_refuses_it(self):
        self.check("ext3", "ext3", "File System=EXT3\n", self.trace(self.REFUSE_EXT4))

    def test_an_ext2_medium_is_mounted_as_ext2_where_the_others_refuse_it(self):
        self.check("ext2", "ext2", "File System=EXT2\n", self.trace(self.REFUSE_EXT4))

    def test_ext_labels_are_not_read(self):
        vyworld.write(vyworld.LABEL, "HOLIDAY\n")
        self.start_daemon()
        self.plug(self.make_partition("sda1", label="HOLIDAY"))
        self.assertFalse(os.path.exists(vyworld.LABEL_RECORD))
        self.assertIn("[Drive(A1)]\n", vyworld.read(vyworld.SHARE_FILE))


class Ntfs(SystemTest):
    def test_an_ntfs_medium_is_mounted_with_owner_and_permissions(self):
        self.write_config(defaultuid=501, defaultgid=502, defaultfilepermission=640,
                          defaultdirectorypermission=750)
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="ntfs")
        self.plug(partition)
        mount, = vyworld.mounts()
        self.assertEqual((mount.source, mount.type), (partition.node, "fuseblk"))
        self.assertIn("rw", mount.options)
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")
        for path, mode in ((partition.directory, 0o40750),
                           (partition.directory + "/readme.txt", 0o100640)):
            status = os.stat(path)
            self.assertEqual((status.st_uid, status.st_gid, status.st_mode), (501, 502, mode))
        vyworld.write(partition.directory + "/new.txt", "new\n")
        self.assertEqual(partition.read_file("new.txt"), "new\n")

    def test_an_ntfs_mount_is_told_of_but_not_noted_in_the_table(self):
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="ntfs")
        self.plug(partition)
        self.assertEqual(vyworld.read_table(), "")
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), share("File System=NTFS\n"))

    def test_a_line_that_somebody_else_noted_goes_with_the_mount(self):
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="ntfs")
        self.plug(partition)
        vyworld.write(vyworld.MOUNT_TABLE, "proc /proc proc rw 0 0\n"
                      + partition.table_line("fuseblk", "rw,nosuid,nodev"))
        self.unplug(partition)
        self.assertEqual(vyworld.read_table(), "proc /proc proc rw 0 0\n")

    def test_an_ntfs_medium_that_goes_takes_its_driver_along(self):
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="ntfs")
        self.plug(partition)
        self.assertEqual(len(self.drivers()), 1)
        self.unplug(partition)
        self.assert_no_trace(partition)
        self.wait_until("the driver has ended", lambda: not self.drivers())
        self.assertEqual(self.daemon.children(), [])

    def drivers(self):
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                command = vyworld.read(f"/proc/{pid}/cmdline").split("\0")
            except OSError:
                continue
            if os.path.basename(command[0]) == "ntfs-3g":
                found.append(pid)
        return found

    def test_ntfs_options_and_a_read_only_device_reach_the_driver(self):
        self.write_config(ntfsoptions="noatime,hide_hid_files")
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="ntfs", RO=1)
        self.plug(partition)
        self.assertEqual(self.drivers_arguments(), [
            "ntfs-3g", partition.node, partition.directory, "-o",
            "ro,uid=0,gid=0,fmask=0113,dmask=0002,noatime,hide_hid_files"])
        mount, = vyworld.mounts()
        self.assertIn("ro", mount.options)
        self.assertIn("noatime", mount.options)
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE),
                         share("File System=NTFS\n", "Read Only=Enable\n"))

    def drivers_arguments(self):
        pid, = self.drivers()
        return vyworld.read(f"/proc/{pid}/cmdline").split("\0")[:-1]

    def test_an_ntfs_share_is_named_after_its_label(self):
        vyworld.write(vyworld.LABEL, "Bilder 2024\n")
        self.write_config(fatvolumelabel="disable")
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="ntfs")
        self.plug(partition)
        shares = vyworld.read(vyworld.SHARE_FILE)
        self.assertTrue(shares.startswith("[Bilder 2024(A1)]\n"), shares)
        self.assertIn("Path=/tmp/hotplug/sda1\nVolume Label=Bilder 2024\nComment=", shares)
        self.assertEqual(vyworld.read_lines(vyworld.LABEL_RECORD),
                         [f"ntfsvlabel {partition.node} -n"])

    def test_a_long_label_is_cut_between_characters(self):
        vyworld.write(vyworld.LABEL, "x" * 31 + "ä\n")
        self.start_daemon()
        self.plug(self.make_partition("sda1", filesystem="ntfs"))
        shares = vyworld.read(vyworld.SHARE_FILE)
        self.assertTrue(shares.startswith("[" + "x" * 31 + "(A1)]\n"), shares)
        self.assertIn("Volume Label=" + "x" * 31 + "\n", shares)

    def test_a_driver_that_fails_once_is_run_again(self):
        driver = vyworld.shutil.which("ntfs-3g", path=vyworld.PATH)
        vyworld.write(vyworld.PROGRAMS + "/ntfs-3g", f"""#!/bin/sh
echo "$*" >> /tmp/driver.record
[ $(wc -l < /tmp/driver.record) -gt 1 ] || exit 21
exec {driver} "$@"
""", 0o755)
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="ntfs")
        self.plug(partition)
        line = f"{partition.node} {partition.directory} -o uid=0,gid=0,fmask=0113,dmask=0002"
        self.assertEqual(vyworld.read_lines("/tmp/driver.record"), [line, line])
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")


class Others(SystemTest):
    """Filesystems of otherfs, as far as the machine's own kernel has them."""

    ALL = "exfat,ntfs3,f2fs,btrfs,xfs,hfsplus,udf,iso9660"

    def tries(self, **configuration):
        """What is tried on a medium that nobody takes."""
        self.write_config(**configuration)
        self.start_daemon(strace=self.trace())
        partition = self.make_partition("sda1", filesystem="corrupt")
        refreshes = self.service.count()
        vyworld.send(partition.add_message())
        self.wait_for_refresh(refreshes + 1)
        calls = self.traced_calls(partition.node)
        return [call.split('"')[5] for call in calls if call.startswith("mount(")]

    def test_they_are_tried_in_their_order_behind_the_kernels_own(self):
        self.assertEqual(self.tries(otherfs=self.ALL), ["vfat", "ext4", "ext3", "ext2", *self.ALL.split(",")])

    def test_they_are_tried_in_the_order_in_which_they_are_named(self):
        self.assertEqual(self.tries(otherfs="udf, xfs,exfat", mountfs="fat"), ["vfat", "udf", "xfs", "exfat"])

    def test_without_the_key_none_is_tried(self):
        self.assertEqual(self.tries(), ["vfat", "ext4", "ext3", "ext2"])

    def test_what_the_kernels_own_take_costs_no_try_more(self):
        self.write_config(otherfs=self.ALL)
        self.start_daemon(strace=self.trace())
        partition = self.make_partition("sda1", filesystem="ext4")
        self.plug(partition)
        tries = [call.split('"')[5] for call in self.traced_calls(partition.node) if call.startswith("mount(")]
        self.assertEqual(tries, ["vfat", "ext4"])

    def check(self, filesystem):
        self.write_config(otherfs=self.ALL, labels="all")
        vyworld.write(vyworld.LABEL, "HOLIDAY\n")
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem=filesystem, label="HOLIDAY")
        self.plug(partition)
        mount, = vyworld.mounts()
        self.assertEqual((mount.source, mount.type), (partition.node, filesystem))
        self.assertIn("nodev", mount.options)
        vyworld.write(partition.directory + "/Grüße", "new\n")
        self.assertEqual(partition.read_file("Grüße"), "new\n")
        self.assertEqual(vyworld.read_table(), partition.table_line(filesystem))
        self.unplug(partition)
        self.assert_no_trace(partition)

    def test_btrfs_is_mounted(self):
        self.check("btrfs")

    def test_xfs_is_mounted(self):
        self.check("xfs")


class ReadOnly(SystemTest):
    def check_told(self, partition):
        mount, = vyworld.mounts()
        self.assertIn("ro", mount.options)
        self.assertEqual(vyworld.read_table(), partition.table_line(options="ro"))
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), share("", "Read Only=Enable\n"))

    def test_a_write_protected_medium_is_mounted_on_the_second_attempt(self):
        self.start_daemon(strace=self.trace())
        partition = self.make_partition("sda1", readonly=True)
        self.plug(partition)
        self.check_told(partition)
        tries = [call for call in self.traced_calls(partition.node) if '"ext4"' in call]
        target = f'mount("{partition.node}", "{partition.directory}", "ext4"'
        self.assertEqual(tries, [f'{target}, MS_NODEV, "user_xattr") = EACCES',
                                 f'{target}, MS_RDONLY, "user_xattr") = 0'])
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")

    def test_a_medium_announced_as_read_only_is_mounted_so_at_once(self):
        self.start_daemon(strace=self.trace())
        partition = self.make_partition("sda1", RO=1)
        self.plug(partition)
        self.check_told(partition)
        tries = [call for call in self.traced_calls(partition.node) if '"ext4"' in call]
        self.assertEqual(tries, [f'mount("{partition.node}", "{partition.directory}", "ext4", '
                                 'MS_RDONLY|MS_NODEV, "user_xattr") = 0'])

    def test_a_write_protected_ntfs_medium_is_mounted_by_its_driver(self):
        self.start_daemon()
        partition = self.make_partition("sda1", filesystem="ntfs", readonly=True, RO=1)
        self.plug(partition)
        mount, = vyworld.mounts()
        self.assertIn("ro", mount.options)
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")


class Unreadable(SystemTest):
    def check_nothing_is_left(self, partition):
        refreshes = self.service.count()
        vyworld.send(partition.add_message())
        self.wait_for_refresh(refreshes + 1)
        self.assert_no_trace(partition)
        self.assertFalse(os.path.exists(vyworld.HOOK_RECORD))
        self.assertEqual(self.log.matching(r"^daemon\(#\)mount "), [])
        self.assertEqual(self.daemon.children(), [])
        self.assert_alive()

    def test_a_corrupt_medium_leaves_nothing_behind(self):
        self.start_daemon()
        self.check_nothing_is_left(self.make_partition("sda1", filesystem="corrupt"))

    def test_a_medium_without_a_byte_leaves_nothing_behind(self):
        self.start_daemon()
        self.check_nothing_is_left(self.make_partition("sda1", filesystem="empty"))

    def test_a_medium_that_is_not_there_leaves_nothing_behind(self):
        self.start_daemon()
        self.check_nothing_is_left(vyworld.Partition("sdz15"))

    def test_a_damaged_ext4_medium_leaves_nothing_behind(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        with open("/tmp/sda1.image", "r+b") as image:  # a group descriptor of nonsense
            image.seek(2048)
            image.write(b"\xff" * 2048)
        vyworld.libc.sync()
        self.check_nothing_is_left(partition)

    def test_a_filesystem_that_is_not_wanted_is_not_mounted(self):
        self.write_config(mountfs="fat,ntfs")
        self.start_daemon()
        self.check_nothing_is_left(self.make_partition("sda1"))

    def test_a_mount_directory_that_is_a_file_keeps_both(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        vyworld.write(partition.directory, "mine")
        refreshes = self.service.count()
        vyworld.send(partition.add_message())
        self.wait_for_refresh(refreshes + 1)
        self.assertEqual(vyworld.mounts(), [])
        self.assertEqual(vyworld.read(partition.directory), "mine")
        self.assertTrue(os.path.exists(partition.node))
        self.assertEqual(vyworld.read(vyworld.DEVICE_FILE), "")

    def test_an_empty_mount_directory_of_before_is_used(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        os.mkdir(partition.directory)
        self.plug(partition)
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")
