"""What the daemon holds after many devices and messages: descriptors, children, threads."""

import vyworld
from vyworld import SystemTest


class Resources(SystemTest):
    def held(self):
        return self.daemon.descriptors(), self.daemon.children(), self.daemon.threads()

    def assert_back_to(self, before):
        """It comes back to what it held; the last connection may take a moment to close."""
        self.assert_alive()
        try:
            self.wait_until("it holds what it held", lambda: self.held() == before, 10)
        except AssertionError:
            self.assertEqual(self.held(), before)
            raise

    def setUp(self):
        super().setUp()
        self.start_daemon()
        self.assert_alive()

    def test_devices_that_come_and_go_leave_nothing_open(self):
        partitions = [self.make_partition(name) for name in ("sda1", "sda2", "mmcblka1")]
        partitions.append(self.make_partition("sdb1", filesystem="ntfs"))
        partitions.append(self.make_partition("sdc1"))
        broken = self.make_partition("sdd1", filesystem="corrupt")
        before = self.held()
        for _ in range(2):
            for partition in partitions:
                partition.lay_node()
            vyworld.send(broken.add_message())
            self.plug(*partitions)
            self.unplug(*partitions)
        self.assert_back_to(before)
        self.assertEqual(vyworld.mounts(), [])

    def test_requests_and_broken_messages_leave_nothing_open(self):
        partition = self.make_partition("sda1")
        self.plug(partition)
        before = self.held()
        for _ in range(2):
            self.assertEqual(vyworld.request("ACTION=unmount,sda1"), b"success\0")
            partition.lay_node()
            self.assertEqual(vyworld.request("ACTION=mount,sda1"), b"success\0")
            vyworld.request_all([b"\xff" * 512, b"\0", "ACTION=mount,nothing", "ACTION=none"] * 5)
            vyworld.send("ACTION=mount,mmcblk")
            with vyworld.connect():
                pass
        self.assert_back_to(before)

    def test_a_driver_or_hook_that_outlives_its_unmount_is_collected(self):
        partition = self.make_partition("sda1", filesystem="ntfs")
        other = self.make_partition("sda2")
        self.plug(partition, other)
        self.unplug(partition)
        self.unplug(other)
        self.wait_until("no child is left", lambda: self.daemon.children() == [])
