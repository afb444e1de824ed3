"""What comes in over the socket: whole, broken, twice, too long, nothing at all."""

import os
import random
import time

import vyworld
from vyworld import SystemTest


class Broken(SystemTest):
    def setUp(self):
        super().setUp()
        self.start_daemon()

    def assert_nothing_changed(self):
        self.assertEqual(vyworld.mounts(), [])
        self.assertEqual(os.listdir(vyworld.DEVICE_DIR) + os.listdir(vyworld.MOUNT_DIR), [])
        self.assertEqual(vyworld.read(vyworld.DEVICE_FILE) + vyworld.read(vyworld.SHARE_FILE), "")
        self.assert_alive()

    def test_an_unknown_action_is_dropped_without_an_answer(self):
        for message in ("ACTION=change,MAJOR=8,MINOR=1", "action=add", "MAJOR=8,ACTION=add", ""):
            self.assertEqual(vyworld.request(message), b"")
        self.assert_nothing_changed()

    def test_512_bytes_without_an_end_are_taken_whole_and_no_further(self):
        self.assertEqual(vyworld.request(b"A" * 512), b"")
        self.assertEqual(vyworld.request(b"ACTION=mount,".ljust(512, b"x")), b"faild\0")
        self.wait_for_log("recieve(#)" + "A" * 512)
        self.assert_nothing_changed()

    def test_more_than_512_bytes_are_cut(self):
        message = b"ACTION=mount,all".ljust(512, b",") + b"usb"
        self.assertEqual(vyworld.request(message), b"success\0")
        self.assert_nothing_changed()

    def test_an_add_message_of_512_bytes_is_carried_out(self):
        partition = self.make_partition("sda1", SID=None)
        partition.items["SID"] = "S" * (512 - len(partition.add_message() + ",SID="))
        partition.identifier = f"1234:00ab:{partition.items['SID']}:1"
        message = partition.add_message().encode()
        self.assertEqual(len(message), 512)
        refreshes = self.service.count()
        vyworld.send(message)
        self.wait_for_refresh(refreshes + 1)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assert_tool("vyhotpluginfo", "-l", out=partition.identifier + "\n")

    def test_random_bytes_do_nothing(self):
        source = random.Random(20240229)
        for _ in range(5):
            messages = [source.randbytes(source.randint(1, 600)) for _ in range(60)]
            self.assertEqual(vyworld.request_all(messages), [b""] * 60)
        self.assert_nothing_changed()

    def test_messages_with_random_damage_do_no_harm(self):
        source = random.Random(1)
        wholes = [b"ACTION=remove,MAJOR=8,MINOR=1,RANGE=16", b"ACTION=mount,sda1,force",
                  b"ACTION=unmount,mmcblka1,force", b"ACTION=unmount,all"]
        for _ in range(5):
            messages = []
            for _ in range(60):
                messages.append(bytearray(source.choice(wholes)))
                for _ in range(source.randint(1, 3)):
                    messages[-1][source.randrange(8, len(messages[-1]))] = source.randrange(256)
            answers = vyworld.request_all([bytes(message) for message in messages])
            self.assertLessEqual(set(answers), {b"", b"success\0", b"faild\0"})
        self.assert_nothing_changed()

    def test_numbers_that_are_none_keep_their_defaults(self):
        partition = self.make_partition("sda1", RANGE="0", SPEED="fast", VID="xyz", PID="12g",
                                        RM="y", RO="yes", COLOUR="red")
        partition.identifier = "0000:0000:SERA:1"
        self.plug(partition)
        self.assertIn("[0000:0000:SERA:1]\n", vyworld.read(vyworld.DEVICE_FILE))
        shares = vyworld.read(vyworld.SHARE_FILE)
        self.assertIn("[Drive(A1)]\n", shares)
        for key in ("VID=", "PID=", "Speed=", "Read Only="):
            self.assertNotIn(key, shares)

    def test_an_add_message_without_numbers_mounts_nothing(self):
        vyworld.write(vyworld.PROGRAMS + "/ntfs-3g", "#!/bin/sh\nexit 0\n", 0o755)
        refreshes = self.service.count()
        vyworld.send("ACTION=add")
        vyworld.send("ACTION=add,MAJOR=7,MINOR=1")
        vyworld.send("ACTION=add,MAJOR=8,MINOR=-17")
        self.wait_for_refresh(refreshes + 1)
        self.assert_nothing_changed()


class Connections(SystemTest):
    def test_a_silent_connection_is_dropped_after_two_seconds(self):
        self.start_daemon()
        began = time.monotonic()
        with vyworld.connect() as silent:
            self.assertEqual(vyworld.receive_all(silent), b"")
        self.assertGreaterEqual(time.monotonic() - began, 2.0)
        self.assert_alive()

    def test_a_message_behind_a_silent_connection_waits_and_is_answered(self):
        self.start_daemon()
        began = time.monotonic()
        with vyworld.connect():
            self.assertEqual(vyworld.request("ACTION=mount,all"), b"success\0")
            self.assertGreaterEqual(time.monotonic() - began, 2.0)

    def test_hotplug_messages_are_not_answered_and_closed_at_once(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.assertEqual(vyworld.request(partition.remove_message()), b"")
        self.assertEqual(vyworld.request(partition.add_message()), b"")
        self.wait_for_log(f"daemon(#)mount {partition.node} {partition.directory}")

    def test_the_name_is_padded_to_the_end_of_the_address(self):
        self.start_daemon(settled=False)
        with vyworld.socket.socket(vyworld.socket.AF_UNIX) as short:
            with self.assertRaises(ConnectionRefusedError):
                short.connect(b"\0vyhotplugd")
        names = [line.split()[-1] for line in vyworld.read_lines("/proc/net/unix")]
        self.assertIn("@vyhotplugd" + "@" * 97, names)

    def test_many_requests_at_once_are_all_answered(self):
        self.start_daemon()
        answers = vyworld.request_all(["ACTION=mount,all", "ACTION=mount,usb"] * 20)
        self.assertEqual(answers, [b"success\0", b"faild\0"] * 20)

    def test_a_request_behind_a_waiting_add_is_carried_out_but_loses_its_connection(self):
        # The add's connection is closed a second time when it is done, and by then its number is
        # the request's: known and kept.
        self.hold_hook()
        self.start_daemon()
        partition = self.make_partition("sda1")
        vyworld.send(partition.add_message())
        self.wait_until("the add is under way",
                        lambda: self.log.matching(r"^daemon\(#\)action 1 "))
        with vyworld.connect() as connection:
            connection.sendall(b"ACTION=unmount,sda1\0")
            self.wait_for_log("recieve(#)ACTION=unmount,sda1")
            self.let_hook_go()
            self.assertEqual(vyworld.receive_all(connection), b"")
        self.wait_for_log(f"daemon(#)unmount {partition.node} {partition.directory}")
        self.assertEqual(vyworld.mounts(), [])


class Twice(SystemTest):
    def setUp(self):
        super().setUp()
        self.start_daemon()

    def test_two_adds_back_to_back_and_one_refresh(self):
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        count = self.service.count()
        with self.stopped():
            vyworld.send(first.add_message())
            vyworld.send(second.add_message())
        self.wait_for_refresh(count + 1)
        self.let_it_idle()
        note, = self.service.signals()[count:]
        self.assertEqual([line for line in note["shares"].splitlines() if line.startswith("[")],
                         ["[Drive(A1)]", "[Drive(A2)]"])
        self.assertEqual(vyworld.mounted_names(), ["sda1", "sda2"])

    def test_the_same_add_twice_gives_one_mount_and_one_share(self):
        partition = self.make_partition("sda1")
        self.plug(partition)
        files = vyworld.read(vyworld.SHARE_FILE), vyworld.read(vyworld.DEVICE_FILE)
        count = self.service.count()
        vyworld.send(partition.add_message())
        self.wait_for_refresh(count + 1)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(vyworld.read_table(), partition.table_line())
        self.assertEqual(len(vyworld.read_lines(vyworld.HOOK_RECORD)), 1)
        self.assertEqual((vyworld.read(vyworld.SHARE_FILE), vyworld.read(vyworld.DEVICE_FILE)),
                         files)
        self.unplug(partition)
        self.assert_no_trace(partition)

    def test_the_same_removal_twice_is_done_once(self):
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.unplug(partition)
        count = self.service.count()
        vyworld.send(partition.remove_message())
        self.wait_for_refresh(count + 1)
        self.assert_no_trace(partition)
        self.assertEqual(len(self.log.matching(r"^daemon\(#\)(faild )?unmount /")), 1)
        self.assertEqual(len(vyworld.read_lines(vyworld.HOOK_RECORD)), 2)

    def test_two_removals_in_one_burst_leave_the_second_to_remark_it(self):
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.hold_hook()
        count = self.service.count()
        vyworld.send(partition.remove_message())
        self.wait_until("the first is under way",
                        lambda: self.log.matching(r"^daemon\(#\)action 2 "))
        vyworld.send(partition.remove_message())
        self.wait_until("the second is queued", lambda: len(
            self.log.matching(r"^recieve\(#\)ACTION=remove")) == 2)
        self.let_hook_go()
        self.wait_for_refresh(count + 1)
        self.assert_no_trace(partition)
        places = f"{partition.node} {partition.directory}"
        self.assertEqual(len(self.log.find(f"daemon(#)unmount {places}")), 1)
        self.assertEqual(len(self.log.find(f"daemon(#)remove mount point {places}")), 1)

    def test_removing_what_was_never_there_changes_nothing(self):
        partition = self.make_partition("sda1")
        self.plug(partition)
        files = vyworld.read(vyworld.SHARE_FILE), vyworld.read(vyworld.DEVICE_FILE)
        count = self.service.count()
        vyworld.send(vyworld.Partition("sda2").remove_message())
        vyworld.send("ACTION=remove")
        self.wait_for_refresh(count + 1)
        self.assertEqual((vyworld.read(vyworld.SHARE_FILE), vyworld.read(vyworld.DEVICE_FILE)),
                         files)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(len(vyworld.read_lines(vyworld.HOOK_RECORD)), 1)
