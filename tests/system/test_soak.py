"""Many devices that come, are unmounted and mounted, and go: the daemon holds no more."""

import os
import re
import time

import vyworld
from vyworld import SystemTest

DISKS = "ab"
PARTITIONS = 8  # of each disk: all come and go together
ROUNDS = 7  # 112 devices
MEMORY_TOLERANCE = 128  # KiB; between the measurements are 80 devices


class Soak(SystemTest):
    def memory(self):
        status = vyworld.read(f"/proc/{self.daemon.pid}/status")
        return int(re.search(r"^VmRSS:\s*(\d+) kB", status, re.MULTILINE)[1])

    def held(self):
        return {"descriptors": self.daemon.descriptors(), "children": self.daemon.children(),
                "threads": self.daemon.threads(), "mounts": vyworld.mounted_names(),
                "mount table": vyworld.read_table(),
                "places": os.listdir(vyworld.DEVICE_DIR) + os.listdir(vyworld.MOUNT_DIR),
                "shares": vyworld.read(vyworld.SHARE_FILE),
                "devices": vyworld.read(vyworld.DEVICE_FILE)}

    def life(self, partitions, chosen):
        """All are plugged, one is unmounted and mounted again, all are pulled out."""
        for partition in partitions:
            partition.lay_node()
        self.plug(*partitions)
        self.assertEqual(len(vyworld.mounts()), len(partitions))
        refreshes = self.service.count()
        self.assertEqual(vyworld.request(f"ACTION=unmount,{chosen.name}"), b"success\0")
        chosen.lay_node()
        self.assertEqual(vyworld.request(f"ACTION=mount,{chosen.name}"), b"success\0")
        self.assertEqual(chosen.read_file("readme.txt"), f"this is {chosen.name}\n")
        self.wait_for_refresh(refreshes + 2)  # one signal is the unmount's own
        self.unplug(*partitions)

    def test_a_hundred_devices_and_more_leave_nothing_behind(self):
        self.start_daemon(level=vyworld.ERR, options=())
        partitions = [self.make_partition(f"sd{letter}{number}", SID=f"SER{letter}{number}")
                      for letter in DISKS for number in range(1, PARTITIONS + 1)]
        for partition in partitions:
            os.unlink(partition.node)
        began = time.monotonic()
        held = memory = None
        for number in range(1, ROUNDS + 1):
            self.life(partitions, partitions[number % len(partitions)])
            if number == 2:
                held, memory = self.held(), self.memory()
        grown = self.memory() - memory
        vyworld.log(f"{ROUNDS * len(partitions)} devices in {time.monotonic() - began:.0f} s, "
                    f"resident {memory} KiB, afterwards {grown:+} KiB")
        self.wait_until("it holds what it held", lambda: self.held() == held)
        self.assertLessEqual(abs(grown), MEMORY_TOLERANCE, "KiB of resident memory")
        self.assertEqual(held["mounts"] + held["children"] + held["places"], [])
