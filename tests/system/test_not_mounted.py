"""Why a device is not mounted: the agent with a real blkid and real volumes, on a tree that looks like sysfs."""

import os
import shutil
import stat

import vyworld
from agent_world import PROC, AgentTest, FakeDaemon
from vyworld import LoopDevice

NOT_MOUNTED = "/run/not-mounted"
CONFIG = "/tmp/agent.conf"
IMAGES = "/tmp/volumes"


class NotMounted(AgentTest):
    def setUp(self):
        super().setUp()
        if shutil.which("blkid", path=vyworld.PATH) is None:
            self.skipTest("blkid is not installed")
        os.makedirs(IMAGES)
        vyworld.write(CONFIG, "mountfs = fat\notherfs = xfs\n")
        vyworld.write(PROC + "/filesystems", "nodev\tproc\n\tvfat\n\text4\n")

    def volume(self, name, *maker):
        """A volume under the kernel's name of it."""
        image = f"{IMAGES}/{name}"
        with open(image, "wb") as file:
            file.truncate(320 << 20)
        if maker:
            vyworld.run(*maker, image)
        loop = LoopDevice(image)
        self.addCleanup(loop.release)
        os.mknod(f"/dev/{name}", stat.S_IFBLK | 0o600, loop.device)
        self.addCleanup(os.unlink, f"/dev/{name}")

    def start(self):
        FakeDaemon(self)
        self.start_agent("--config", CONFIG, "--not-mounted", NOT_MOUNTED)

    def lines(self):
        return [line.split("\t") for line in vyworld.read_lines(NOT_MOUNTED)]

    def test_each_is_told_for_what_it_is_and_taken_back_when_it_goes(self):
        self.sysfs.add_stick("sda", parts=(1, 2, 3))
        self.volume("sda1", "mkfs.ext4", "-q", "-F")
        self.volume("sda2", "mkswap", "-q")
        self.volume("sda3")
        self.start()
        self.wait_until("all are told", lambda: len(self.lines()) == 3)
        self.assertEqual(self.lines(), [
            ["sda1", "8:1", "not-named", "ext4", "sda1 holds ext4, which mountfs does not name", "-"],
            ["sda2", "8:2", "swap", "swap", "sda2 is a swap area", "-"],
            ["sda3", "8:3", "nothing", "-", "sda3 has no filesystem that is known", "-"]])
        self.assertEqual(stat.S_IMODE(os.stat(NOT_MOUNTED).st_mode), 0o644)
        self.wait_until("all is logged", lambda: len(self.log.matching(r"^lookout\(#\)")) == 3)
        told = [line.text.removeprefix("lookout(#)") for line in self.log.matching(r"^lookout\(#\)")]
        self.assertEqual(sorted(told), [line[4] for line in self.lines()])
        self.sysfs.remove_partition("sda", 1)
        self.sysfs.remove_partition("sda", 2)
        os.kill(self.agent_pid(), vyworld.signal.SIGHUP)
        self.wait_until("two are taken back", lambda: [line[0] for line in self.lines()] == ["sda3"])
        self.assertEqual(self.stop_agent(), 0)
        self.assertFalse(os.path.exists(NOT_MOUNTED))

    def test_words_of_a_volume_do_not_keep_it_from_being_told(self):
        """All that an image of a CD says of itself: blkid writes each odd character as four."""
        self.sysfs.add_stick("sda", parts=())
        self.volume("sda")
        descriptor = bytearray(2048)
        descriptor[0:7] = b"\x01CD001\x01"
        descriptor[8:72] = b"/" * 64  # what it is made for, and its name
        descriptor[190:702] = b"/" * 512  # its set, and who has published, prepared and written it
        with open(f"{IMAGES}/sda", "r+b") as image:
            image.seek(32768)
            image.write(descriptor + b"\xffCD001\x01")
        self.start()
        self.wait_until("it is told", self.lines)
        self.assertEqual(self.lines()[0][2:5],
                         ["not-named", "iso9660", "sda holds iso9660, which otherfs does not name"])

    def test_a_module_that_the_kernel_lacks_is_named(self):
        if shutil.which("mkfs.xfs", path=vyworld.PATH) is None:
            self.skipTest("mkfs.xfs is not installed")
        self.sysfs.add_stick("sda", parts=())
        self.volume("sda", "mkfs.xfs", "-q", "-f")
        self.start()
        self.wait_until("it is told", self.lines)
        self.assertEqual(self.lines()[0][2:5],
                         ["no-module", "xfs", "sda holds xfs, which this kernel has no module for"])

    def test_a_windows_that_sleeps_is_told_from_a_dirty_one(self):
        self.sysfs.add_stick("sda", parts=(1, 2))
        for name, content in (("sda1", "hibr" + "x" * 8192), ("sda2", "wake")):
            os.makedirs(f"{vyworld.MOUNT_DIR}/{name}")
            vyworld.write(f"{vyworld.MOUNT_DIR}/{name}/hiberfil.sys", content, 0o600)
        self.start()
        self.wait_until("both are announced", lambda: "+8:2" in self.told())
        with open(PROC + "/self/mountinfo", "a", encoding="ascii") as table:
            for number in (1, 2):
                table.write(f"3{number} 1 8:{number} / {vyworld.MOUNT_DIR}/sda{number} ro - fuseblk /dev/sda{number} ro\n")
        self.wait_until("both are told", lambda: len(self.lines()) == 2)
        self.assertEqual([line[2:5] for line in self.lines()], [
            ["read-only", "ntfs", "sda1 holds NTFS: hibernated, mounted read-only"],
            ["read-only", "ntfs", "sda2 holds NTFS: dirty, mounted read-only"]])

    def test_an_agent_that_is_told_to_end_does_not_wait_for_blkid(self):
        vyworld.write(f"{vyworld.PROGRAMS}/blkid", "#!/bin/sh\nexec sleep 1000\n", 0o755)
        self.sysfs.add_stick("sda", parts=())
        self.volume("sda")
        self.start()
        self.wait_until("blkid runs", lambda: self.processes("sleep"))
        self.assertEqual(self.stop_agent(), 0)
        self.wait_until("blkid is killed", lambda: not self.processes("sleep"))

    @staticmethod
    def processes(name):
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                if vyworld.read(f"/proc/{pid}/cmdline").split("\0")[0] == name:
                    found.append(pid)
            except OSError:
                pass
        return found
