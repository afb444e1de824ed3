"""The exact system calls, under strace: FAT, which a kernel may lack, and media that refuse."""

import os

import vyworld
from vyworld import DEVICE_DIR, MOUNT_DIR, SystemTest

FAT = '"uid=0,gid=0,fmask=0113,dmask=0002,utf8"'


class SystemCalls(SystemTest):
    def start_traced(self, *inject, **config):
        if config:
            self.write_config(**config)
        self.start_daemon(strace=self.trace(*inject))

    def handle(self, *messages):
        count = self.service.count()
        for message in messages:
            vyworld.send(message)
        self.wait_for_refresh(count + 1)

    def calls(self, name):
        return self.traced_calls(f"{DEVICE_DIR}/{name}", f"{MOUNT_DIR}/{name}")

    def mount_call(self, name, rest):
        return f'mount("{DEVICE_DIR}/{name}", "{MOUNT_DIR}/{name}", {rest}'

    def test_a_fat_medium_from_node_to_removal(self):
        self.start_traced("mount:retval=0:when=1", "umount2:retval=0:when=1")
        stick = vyworld.Partition("sda1")
        self.handle(stick.add_message())
        self.assertEqual(vyworld.read_table(), stick.table_line("vfat"))
        self.assertIn("File System=FAT\nVID=4660\n", vyworld.read(vyworld.SHARE_FILE))
        self.handle(stick.remove_message())
        node, directory = f'"{stick.node}"', f'"{stick.directory}"'
        self.assertEqual(self.calls("sda1"), [
            f"mknod({node}, S_IFBLK|000, makedev(0x8, 0x1)) = 0",
            f"mkdir({directory}, 0700) = 0",
            self.mount_call("sda1", f'"vfat", 0, {FAT}) = 0'),
            f"umount2({directory}, 0) = 0",
            f"rmdir({directory}) = 0",
            f"unlink({node}) = 0"])
        self.assertEqual(vyworld.read_table(), "")
        self.wait_for_log(f"daemon(#)unmount {stick.node} {stick.directory}")

    def test_a_fat_medium_is_mounted_with_the_configured_owner_and_options(self):
        self.start_traced("mount:retval=0:when=1", "umount2:retval=0", defaultuid=500,
                          defaultgid=-1, defaultfilepermission="600",
                          defaultdirectorypermission="2750", vfatoptions="codepage=932,sync")
        self.handle(vyworld.Partition("sda1").add_message())
        options = '"uid=500,gid=-1,fmask=0177,dmask=0027,codepage=932,sync"'
        self.assertIn(self.mount_call("sda1", f'"vfat", 0, {options}) = 0'), self.calls("sda1"))

    def test_a_fat_medium_announced_as_read_only(self):
        self.start_traced("mount:retval=0:when=1", "umount2:retval=0")
        stick = vyworld.Partition("sda1", RO=1)
        self.handle(stick.add_message())
        self.assertIn(self.mount_call("sda1", f'"vfat", MS_RDONLY, {FAT}) = 0'),
                      self.calls("sda1"))
        self.assertEqual(vyworld.read_table(), stick.table_line("vfat", "ro"))
        self.assertIn("Read Only=Enable\n", vyworld.read(vyworld.SHARE_FILE))

    def test_a_fat_share_is_named_after_its_label_unless_that_is_switched_off(self):
        vyworld.write(vyworld.LABEL, "PHOTOS\n")
        self.start_traced("mount:retval=0:when=1", "umount2:retval=0")
        card = vyworld.Partition("mmcblka1")
        self.handle(card.add_message())
        shares = vyworld.read(vyworld.SHARE_FILE)
        self.assertTrue(shares.startswith("[PHOTOS(MMCA1)]\n"), shares)
        self.assertIn("Volume Label=PHOTOS\n", shares)
        self.assertEqual(vyworld.read_lines(vyworld.LABEL_RECORD), [f"mlabel -i {card.node} -n"])
        self.assertEqual(self.stop_daemon(), 0)
        self.start_traced("mount:retval=0:when=1", "umount2:retval=0", fatvolumelabel="disable")
        self.handle(card.add_message())
        shares = vyworld.read(vyworld.SHARE_FILE)
        self.assertTrue(shares.startswith("[Drive(MMCA1)]\n"), shares)
        self.assertEqual(len(vyworld.read_lines(vyworld.LABEL_RECORD)), 1)

    def check_fat_second_attempt(self, error):
        self.start_traced(f"mount:error={error}:when=1")
        self.handle(self.make_partition("sda1").add_message())
        tries = [call for call in self.calls("sda1") if call.startswith("mount")]
        first, second, third = tries
        self.assertEqual(first, self.mount_call("sda1", f'"vfat", 0, {FAT}) = {error}'))
        self.assertTrue(second.startswith(
            self.mount_call("sda1", f'"vfat", MS_RDONLY, {FAT}) = E')), second)
        # A second attempt that fails leaves the device as it was: the next filesystem may write.
        self.assertEqual(third, self.mount_call("sda1", '"ext4", MS_NODEV, "user_xattr") = 0'))
        self.assertIn(" rw 0 0\n", vyworld.read_table())

    def test_a_fat_medium_that_refuses_writing_is_tried_read_only_after_erofs(self):
        self.check_fat_second_attempt("EROFS")

    def test_a_fat_medium_that_refuses_writing_is_tried_read_only_after_eacces(self):
        self.check_fat_second_attempt("EACCES")

    def test_another_error_is_no_reason_for_a_second_attempt(self):
        self.start_traced("mount:error=EIO:when=1")
        self.handle(self.make_partition("sda1").add_message())
        tries = [call for call in self.calls("sda1") if call.startswith("mount")]
        self.assertEqual(tries, [
            self.mount_call("sda1", f'"vfat", 0, {FAT}) = EIO'),
            self.mount_call("sda1", '"ext4", MS_NODEV, "user_xattr") = 0')])

    def test_an_ext_medium_that_refuses_writing_loses_the_other_flag(self):
        self.start_traced("mount:error=EROFS:when=2")
        stick = self.make_partition("sda1")
        self.plug(stick)
        tries = [call for call in self.calls("sda1") if '"ext4"' in call]
        self.assertEqual(tries, [
            self.mount_call("sda1", '"ext4", MS_NODEV, "user_xattr") = EROFS'),
            self.mount_call("sda1", '"ext4", MS_RDONLY, "user_xattr") = 0')])
        mount, = vyworld.mounts()
        self.assertIn("ro", mount.options)
        self.assertNotIn("nodev", mount.options)
        self.assertEqual(vyworld.read_table(), stick.table_line(options="ro"))

    def test_a_read_only_device_that_is_refused_gets_no_second_attempt(self):
        self.start_traced("mount:error=EROFS:when=1..4", mountfs="fat,ext")
        stick = vyworld.Partition("sda1", RO=1)
        self.handle(stick.add_message())
        tries = [call for call in self.calls("sda1") if call.startswith("mount")]
        self.assertEqual(tries, [
            self.mount_call("sda1", f'"vfat", MS_RDONLY, {FAT}) = EROFS'),
            *[self.mount_call("sda1", f'"{kind}", MS_RDONLY|MS_NODEV, "user_xattr") = EROFS')
              for kind in ("ext4", "ext3", "ext2")]])
        self.assert_no_trace(stick)

    def test_all_filesystems_are_tried_in_their_order(self):
        vyworld.write(vyworld.PROGRAMS + "/ntfs-3g",
                      "#!/bin/sh\necho $* >> /tmp/driver.record\nexit 14\n", 0o755)
        self.start_traced("mount:error=EINVAL", extfsoptions="acl")
        stick = vyworld.Partition("sda1")
        self.handle(stick.add_message())
        tries = [call for call in self.calls("sda1") if call.startswith("mount")]
        self.assertEqual(tries, [
            self.mount_call("sda1", f'"vfat", 0, {FAT}) = EINVAL'),
            *[self.mount_call("sda1", f'"{kind}", MS_NODEV, "user_xattr,acl") = EINVAL')
              for kind in ("ext4", "ext3", "ext2")]])
        driver = f"{stick.node} {stick.directory} -o uid=0,gid=0,fmask=0113,dmask=0002"
        self.assertEqual(vyworld.read_lines("/tmp/driver.record"), [driver] * 2)
        self.assert_no_trace(stick)

    def test_a_card_gets_its_own_numbers(self):
        self.start_traced("mount:retval=0:when=1", "umount2:retval=0")
        card = vyworld.Partition("mmcblkb1")
        self.handle(card.add_message())
        self.assertIn(f'mknod("{card.node}", S_IFBLK|000, makedev(0xb3, 0x9)) = 0',
                      self.calls("mmcblkb1"))

    def test_a_node_that_cannot_be_made_ends_the_attempt(self):
        self.start_traced("/^mknod(at)?$:error=EPERM")
        stick = vyworld.Partition("sda1")
        self.handle(stick.add_message())
        self.assertEqual(self.calls("sda1"), [
            f'mknod("{stick.node}", S_IFBLK|000, makedev(0x8, 0x1)) = EPERM'])

    def test_a_directory_that_cannot_be_made_leaves_the_node(self):
        os.chmod(MOUNT_DIR, 0o755)
        self.start_traced("/^mkdir(at)?$:error=ENOSPC")
        stick = vyworld.Partition("sda1")
        self.handle(stick.add_message())
        self.assertEqual(self.calls("sda1"), [
            f'mknod("{stick.node}", S_IFBLK|000, makedev(0x8, 0x1)) = 0',
            f'mkdir("{stick.directory}", 0700) = ENOSPC'])
        self.assertTrue(os.path.exists(stick.node))

    def check_removal(self, inject, expected):
        self.start_traced(inject)
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.handle(stick.remove_message())
        self.assertEqual([call for call in self.calls("sda1") if call.startswith("umount")],
                         [f'umount2("{stick.directory}", {rest}' for rest in expected])
        return stick

    def test_a_busy_medium_that_is_removed_is_detached_lazily(self):
        stick = self.check_removal("umount2:error=EBUSY:when=1", ["0) = EBUSY", "MNT_DETACH) = 0"])
        self.assert_no_trace(stick)

    def test_a_medium_that_cannot_be_detached_is_forced_off(self):
        stick = self.check_removal("umount2:error=EBUSY:when=1..2",
                                   ["0) = EBUSY", "MNT_DETACH) = EBUSY", "MNT_FORCE) = 0"])
        self.assert_no_trace(stick)

    def test_a_medium_that_resists_all_force_stays_but_is_forgotten(self):
        stick = self.check_removal("umount2:error=EBUSY:when=1..3",
                                   ["0) = EBUSY", "MNT_DETACH) = EBUSY", "MNT_FORCE) = EBUSY"])
        self.wait_for_log(f"daemon(#)faild unmount {stick.node} {stick.directory}")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(vyworld.read_table(), stick.table_line())
        self.assertTrue(os.path.exists(stick.node))
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), "")

    def test_without_force_a_busy_medium_is_asked_once(self):
        self.start_traced("umount2:error=EBUSY:when=1")
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assertEqual(vyworld.request("ACTION=unmount,sda1"), b"faild\0")
        self.assertEqual([call for call in self.calls("sda1") if call.startswith("umount")],
                         [f'umount2("{stick.directory}", 0) = EBUSY'])
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(vyworld.read_table(), stick.table_line())
