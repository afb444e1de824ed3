"""The agent's words on what nobody can mount, with a real blkid; what a kernel has to be asked is in the machines' tests."""

import os
import shutil
import stat

import vyworld
from agent_world import PROC, AgentTest, FakeDaemon
from vyworld import LoopDevice

import odd_media  # noqa: E402  (its folder is known by now)

NOT_MOUNTED = "/run/not-mounted"
IMAGE = "/tmp/medium"
DISKS = "abcd"
PARTS = 15  # of a disk


class Words(AgentTest):
    def setUp(self):
        super().setUp()
        if shutil.which("blkid", path=vyworld.PATH) is None:
            self.skipTest("blkid is not installed")
        vyworld.write(PROC + "/filesystems", "nodev\tproc\n\tvfat\n\text4\n")
        self.media = {}  # its name, and the line that is to be

    def put(self, name, numbers, medium):
        """A medium under the kernel's name of a device."""
        what, places, word, kind, sentence = medium
        image = f"{IMAGE}-{name}"
        odd_media.write(image, what, places)
        loop = LoopDevice(image)
        self.addCleanup(loop.release)
        os.mknod(f"/dev/{name}", stat.S_IFBLK | 0o600, loop.device)
        self.addCleanup(os.unlink, f"/dev/{name}")
        self.media[name] = (what, [name, numbers, word, kind, f"{name} {sentence}"])

    def assert_told(self):
        """Each line is as it is to be, but for the command that checks it."""
        FakeDaemon(self)
        self.start_agent("--not-mounted", NOT_MOUNTED)
        self.wait_until("all are told", lambda: len(vyworld.read_lines(NOT_MOUNTED)) == len(self.media))
        found = {line.split("\t")[0]: line.split("\t")[:5] for line in vyworld.read_lines(NOT_MOUNTED)}
        for name, (what, line) in self.media.items():
            with self.subTest(what):
                self.assertEqual(found[name], line)

    def test_on_what_is_in_partitions(self):
        for at, medium in enumerate(odd_media.MEDIA):
            disk, number = divmod(at, PARTS)
            if number == 0:
                self.sysfs.add_stick(f"sd{DISKS[disk]}", parts=())
            self.sysfs.add_partition(f"sd{DISKS[disk]}", number + 1, size=16384)
            self.put(f"sd{DISKS[disk]}{number + 1}", f"8:{16 * disk + number + 1}", medium)
        self.assert_told()

    def test_on_what_is_on_whole_disks(self):
        for at, medium in enumerate(odd_media.WHOLE):
            self.sysfs.add_stick(f"sd{DISKS[at]}", parts=())
            self.put(f"sd{DISKS[at]}", f"8:{16 * at}", medium)
        self.assert_told()
