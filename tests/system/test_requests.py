"""Mount and unmount requests: what they select, what they do, what they answer."""

import os

import vyworld
from vyworld import SystemTest


class Selection(SystemTest):
    NAMES = ["sda1", "sda2", "sdb1", "mmcblka1"]

    def setUp(self):
        super().setUp()
        self.start_daemon()
        self.all = {name: self.make_partition(name) for name in self.NAMES}
        self.plug(*self.all.values())

    def check(self, target, selected):
        """Unmounts and mounts again by one target."""
        hooks = len(vyworld.read_lines(vyworld.HOOK_RECORD))
        self.assert_tool("vyunmount", target, err=f"unmount {target} - success.\n")
        self.assertEqual(sorted(vyworld.mounted_names()),
                         sorted(name for name in self.NAMES if name not in selected))
        for name in selected:
            self.assertFalse(os.path.exists(self.all[name].directory))
            self.assertFalse(os.path.exists(self.all[name].node))
            self.all[name].lay_node()
        self.assert_tool("vymount", target, err=f"mount {target} - success.\n")
        self.assertEqual(sorted(vyworld.mounted_names()), sorted(self.NAMES))
        for name in selected:
            self.assertEqual(self.all[name].read_file("readme.txt"), f"this is {name}\n")
        table = sorted(vyworld.read_table().splitlines())
        self.assertEqual(table, sorted(partition.table_line().strip()
                                       for partition in self.all.values()))
        calls = vyworld.read_lines(vyworld.HOOK_RECORD)[hooks:]
        self.assertEqual([call.split()[2:] for call in calls],
                         [[word, self.all[name].directory, "mounted"]
                          for word in ("unmount", "mount") for name in selected])

    def test_a_partition_by_its_name(self):
        self.check("sda2", ["sda2"])

    def test_a_disk_by_its_letter_in_either_case(self):
        self.check("sda", ["sda1", "sda2"])
        self.check("sdB", ["sdb1"])

    def test_a_kind_by_its_prefix(self):
        self.check("sd", ["sda1", "sda2", "sdb1"])
        self.check("mmcblk", ["mmcblka1"])

    def test_a_card_by_its_name(self):
        self.check("mmcblka1", ["mmcblka1"])

    def test_everything(self):
        self.check("all", self.NAMES)

    def test_what_selects_nothing_succeeds_and_changes_nothing(self):
        for target in ("sdc", "sda9", "sdb2", "mmcblkb", "sdzx", "sda1x"):
            self.assert_tool("vyunmount", target, err=f"unmount {target} - success.\n")
        self.assertEqual(vyworld.mounted_names(), self.NAMES)

    def test_what_is_no_target_fails_and_changes_nothing(self):
        for target in ("usb", "sd1", "sd-", "mmcblk0", "ALL", "Sda", "hda1"):
            self.assert_tool("vyunmount", target, err=f"unmount {target} - failed.\n")
        self.assertEqual(vyworld.mounted_names(), self.NAMES)


class Outcome(SystemTest):
    def test_answers_byte_for_byte(self):
        self.start_daemon()
        self.assertEqual(vyworld.request("ACTION=mount,all"), b"success\0")
        self.assertEqual(vyworld.request("ACTION=unmount,all"), b"success\0")
        self.assertEqual(vyworld.request("ACTION=mount,usb"), b"faild\0")
        self.assertEqual(vyworld.request("ACTION=unmount"), b"faild\0")
        self.assertEqual(vyworld.request("ACTION=mount,sda"), b"faild\0")  # no disk is there

    def test_the_clients_tell_failure_on_stderr_and_end_with_status_0(self):
        self.start_daemon()
        self.assert_tool("vymount", "all", err="mount all - success.\n")
        self.assert_tool("vymount", "usb", err="mount usb - failed.\n")
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - failed.\n")

    def test_an_unmount_withdraws_the_share_before_it_unmounts(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        shares = vyworld.read(vyworld.SHARE_FILE)
        count = self.service.count()
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.wait_for_refresh(count + 2)
        withdrawn, refreshed = self.service.signals()[count:]
        self.assertEqual(withdrawn["shares"], shares + "[Drive(A1)]\n")
        self.assertEqual(refreshed["shares"], shares.replace("VID=", "Status=Unmount\nVID="))
        line, = self.log.find(f"daemon(#)unmount {partition.node} {partition.directory}")
        self.assertGreaterEqual(line.time, withdrawn["time"])

    def test_an_unmounted_partition_stays_known_and_can_be_mounted_again(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        shares = vyworld.read(vyworld.SHARE_FILE)
        devices = vyworld.read(vyworld.DEVICE_FILE)
        count = self.service.count()
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.wait_for_refresh(count + 2)
        self.assertEqual(vyworld.read(vyworld.DEVICE_FILE), devices)
        self.assertEqual(vyworld.read_table(), "")
        partition.lay_node()
        self.assert_tool("vymount", "sda1", err="mount sda1 - success.\n")
        self.wait_for_refresh(count + 3)
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), shares)
        self.assertEqual(vyworld.read_table(), partition.table_line())

    def test_unmounting_twice_succeeds_and_tells_hook_and_service_each_time(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        count = self.service.count()
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.assertGreaterEqual(self.service.count(), count + 1)
        states = [line.split()[2:] for line in vyworld.read_lines(vyworld.HOOK_RECORD)]
        self.assertEqual(states, [["mount", partition.directory, "mounted"],
                                  ["unmount", partition.directory, "mounted"],
                                  ["unmount", partition.directory, "unmounted"]])

    def test_mounting_what_is_mounted_succeeds_and_mounts_nothing(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assert_tool("vymount", "sda1", err="mount sda1 - success.\n")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(vyworld.read_table(), partition.table_line())
        self.assertEqual(len(vyworld.read_lines(vyworld.HOOK_RECORD)), 1)

    def test_a_mount_that_fails_is_answered_so_and_the_others_are_done(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first, second)
        self.assert_tool("vyunmount", "sda", err="unmount sda - success.\n")
        second.lay_node()  # the first one's medium is gone
        self.assert_tool("vymount", "sda", err="mount sda - failed.\n")
        self.assertEqual(vyworld.mounted_names(), ["sda2"])

    def test_an_unmounted_device_that_is_pulled_out_is_forgotten(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        vyworld.send(partition.remove_message())
        line, = self.wait_for_log(
            f"daemon(#)remove mount point {partition.node} {partition.directory}")
        self.assertEqual(line.priority, vyworld.ERR)
        self.wait_until("its record is gone",
                        lambda: vyworld.read(vyworld.DEVICE_FILE) == "")
        self.assert_no_trace(partition)

    def test_a_client_that_does_not_wait_does_no_harm(self):
        self.start_daemon()
        for _ in range(3):
            vyworld.send("ACTION=mount,all")
        self.assert_alive()


class Busy(SystemTest):
    def setUp(self):
        super().setUp()
        self.start_daemon()
        self.partition = self.make_partition("sda1")
        self.plug(self.partition)

    def test_a_busy_partition_is_not_unmounted(self):
        shares = vyworld.read(vyworld.SHARE_FILE)
        count = self.service.count()
        with open(self.partition.directory + "/readme.txt", encoding="ascii"):
            self.assert_tool("vyunmount", "sda1", err="unmount sda1 - failed.\n")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(vyworld.read_table(), self.partition.table_line())
        self.assertTrue(os.path.exists(self.partition.node))
        self.wait_for_refresh(count + 2)
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), shares)
        self.assertEqual(self.log.matching(r"^daemon\(#\)unmount /"), [])

    def test_by_force_a_busy_partition_is_detached(self):
        with open(self.partition.directory + "/readme.txt", encoding="ascii") as file:
            self.assert_tool("vyunmount", "sda1,force", err="unmount sda1,force - success.\n")
            self.assertEqual(vyworld.mounts(), [])
            self.assertEqual(vyworld.read_table(), "")
            self.assertEqual(os.listdir(vyworld.MOUNT_DIR) + os.listdir(vyworld.DEVICE_DIR), [])
            self.assertEqual(file.read(), "this is sda1\n")

    def test_the_word_force_may_stand_before_the_target(self):
        with open(self.partition.directory + "/readme.txt", encoding="ascii"):
            self.assertEqual(vyworld.request("ACTION=unmount,force,sda1"), b"success\0")
        self.assertEqual(vyworld.mounts(), [])

    def test_a_busy_partition_does_not_keep_the_others(self):
        other = self.make_partition("sda2")
        self.plug(other)
        with open(self.partition.directory + "/readme.txt", encoding="ascii"):
            self.assert_tool("vyunmount", "all", err="unmount all - failed.\n")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
