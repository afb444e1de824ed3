"""Filesystems besides the service's five, each made by its own program; why others are not mounted."""

from collections import Counter
import os
import random
import shutil
import statistics

import machine
from media import FIRST, MIB, SECTOR, Filesystem, written_sectors
from state import PLACES, place_of
from vmtest import VmTest, long_on

NAMES = ("Grüße.txt", "価格 €.txt", "emoji 😀.txt")
TEXT = "Ä Ö Ü ß\n"

# What is said of a filesystem that is named, which its kernel has, where random bytes are in it; of one that they have made
# look like a filesystem of another kind; and of what has no type any more.
OF_OUR_OWN = {"refused", "read-only"}
OF_OTHERS = {"not-named", "not-known"}
OF_NOTHING = {"nothing", "several", "silent", "unreadable"}


class OtherTest(VmTest):
    configuration = "otherfs = exfat,f2fs,btrfs,xfs,hfsplus,udf,iso9660\nlabels = all\n"
    prepared = "sh /vm/load others"

    def told(self, state):
        """What the agent has logged of it."""
        return [line.text.removeprefix("lookout(#)") for line in state.log if line.text.startswith("lookout(#)")]

    def use_files(self, name, files=NAMES):
        for file in files:
            self.vm.run(f"printf '{TEXT}' >'{place_of(name)}/{file}'")
        self.vm.run(f"mkdir '{place_of(name)}/Ordner ä' && sync")
        for file in files:
            self.assertEqual(self.vm.run(f"cat '{place_of(name)}/{file}'"), TEXT)
        self.assertEqual(set(self.vm.run(f"(cd {place_of(name)} && printf '%s\\n' *)").splitlines()) - {"lost+found"},
                         {*files, "Ordner ä"})


class OnEveryMachine(OtherTest):
    def look_at(self, state, types, flag="rw"):
        self.assertEqual({mount.name: mount.type for mount in state.mounts}, types)
        for mount in state.mounts:
            self.assertIn("ro" if mount.type == "iso9660" else flag, mount.flags)
            self.assertIn("nodev", mount.flags)
        self.assert_table(state)

    def test_four_filesystems_on_one_disk(self):
        before = self.wait_for_idle()
        types = {"sda1": "exfat", "sda2": "f2fs", "sda3": "udf", "sda4": "iso9660"}
        self.plug("mixed", *(Filesystem(kind, f"Größe {kind}" if kind != "iso9660" else "IMAGE")
                             for kind in types.values()), serial="MIXED")
        self.wait_for_mounts(*types)
        state = self.wait_for_idle()
        self.look_at(state, types)
        self.assertEqual({name: state.share(name)[""] for name in types},
                         {"sda1": "Größe exfat(A1)", "sda2": "Größe f2fs(A2)", "sda3": "Größe udf(A3)",
                          "sda4": "IMAGE(A4)"})
        self.assertEqual({name: state.share(name).get("File System") for name in types}, dict.fromkeys(types))
        self.assertEqual(self.vm.run(f"stat -c '%u %g %a' {PLACES}/sda1 {PLACES}/sda3"), 2 * "1000 100 750\n")
        for name in ("sda1", "sda2", "sda3"):
            self.use_files(name)
        self.assertEqual(self.vm.run(f"stat -c '%u %g %a' '{PLACES}/sda1/{NAMES[0]}'"), "1000 100 640\n")
        self.assert_file("sda4", "this is IMAGE\n")
        self.vm.pull("mixed")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())
        self.assertEqual(self.lines(), {})

    def test_write_protected_ones_are_mounted_read_only_and_nobody_complains(self):
        before = self.wait_for_idle()
        types = {"sda1": "exfat", "sda2": "f2fs", "sda3": "udf"}
        self.plug("protected", *(Filesystem(kind) for kind in types.values()), serial="LOCKED", readonly=True)
        self.wait_for_mounts(*types)
        state = self.wait_for_idle()
        self.look_at(state, types, "ro")
        for name in types:
            self.assertEqual(state.share(name).get("Read Only"), "Enable")
        self.assertEqual(self.lines(), {})
        self.vm.pull("protected")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_a_stick_that_is_pulled_while_it_is_written_to(self):
        before = self.wait_for_idle()
        for kind in ("exfat", "f2fs", "udf"):
            self.plug(kind, Filesystem(kind), serial=kind.upper())
            name, = self.wait_until("it is mounted", lambda state: len(state.names) == 1 and state.shares
                                    and state.share(state.names[0])).names
            self.start("writer", f"sh -c 'echo $$ >/vm/writer; exec >{place_of(name)}/file; while echo {'x' * 1000}; do :; done'")
            self.wait_until("it is written to", lambda _, name=name: self.vm.attempt(
                f"[ $(stat -c %s {place_of(name)}/file) -gt 4000 ]")[0] == 0)
            self.vm.pull(kind)
            self.wait_for_mounts()
            self.vm.run("kill -9 $(cat /vm/writer) || :")  # a detached filesystem may take what it writes for long
        self.assert_same(before, self.wait_for_idle())

    def test_what_is_not_named_is_said_and_mounted_by_the_next_daemon(self):
        self.stop("vyhotplugd")
        self.configure("otherfs = udf\n")
        self.start_daemon()
        self.plug("stick", Filesystem("exfat", "CARD"), Filesystem("udf", "DISC"), serial="STICK")
        self.wait_for_mounts("sda2")
        lines = self.wait_for_lines("sda1")
        self.assertEqual(lines["sda1"], ["8:1", "not-named", "exfat", "sda1 holds exfat, which otherfs does not name",
                                         "-"])
        self.assertEqual(self.told(self.wait_for_idle()), ["sda1 holds exfat, which otherfs does not name"])
        self.vm.run("vyunmount all")
        self.stop("vyhotplugd")
        self.configure("otherfs = udf,exfat\n")
        self.start_daemon()
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_lines()
        self.vm.pull("stick")
        self.wait_for_mounts()


class Large(OtherTest):
    machines = ("x86",)

    def test_btrfs_and_xfs(self):
        before = self.wait_for_idle()
        self.plug("big", Filesystem("btrfs", "Ü btrfs"), Filesystem("xfs", "xfs disk"), serial="BIG")
        self.wait_for_mounts("sda1", "sda2")
        state = self.wait_for_idle()
        self.assertEqual({mount.name: mount.type for mount in state.mounts}, {"sda1": "btrfs", "sda2": "xfs"})
        self.assertEqual(state.share("sda1")[""], "Ü btrfs(A1)")
        self.assertEqual(state.share("sda2")[""], "xfs disk(A2)")
        for name in ("sda1", "sda2"):
            self.use_files(name)
        self.wait_for_lines()
        self.vm.pull("big")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_disks_of_macs(self):
        """Those with a journal, and those that are locked, are for reading; the agent says so."""
        before = self.wait_for_idle()
        self.plug("mac", Filesystem("journaled-hfsplus", "JOURNAL"), Filesystem("locked-hfsplus", "LOCKED"), serial="MAC")
        self.wait_for_mounts("sda1", "sda2")
        lines = self.wait_for_lines("sda1", "sda2")
        state = self.wait_for_idle()
        for name, label in (("sda1", "JOURNAL"), ("sda2", "LOCKED")):
            self.assertEqual(lines[name][1:], ["read-only", "hfsplus", f"{name} holds hfsplus with a journal, or locked: "
                                               "mounted read-only", f"fsck.hfsplus /dev/{name}"])
            self.assert_file(name, f"this is {label}\n")
            self.assertEqual(state.share(name)[""], f"{label}(A{name[-1]})")
            self.assertEqual(state.share(name).get("Read Only"), "Enable")
        self.assertEqual({mount.name: mount.type for mount in state.mounts}, {"sda1": "hfsplus", "sda2": "hfsplus"})
        self.vm.pull("mac")
        self.wait_for_mounts()
        self.wait_for_lines()
        self.assert_same(before, self.wait_for_idle())

    def test_a_disk_of_a_mac_that_is_neither(self):
        """The owner is the service's, the permissions are the medium's, where it has any."""
        before = self.wait_for_idle()
        self.plug("mac", Filesystem("hfsplus", "PLAIN"), serial="MAC")
        self.wait_for_mounts("sda1")
        state = self.wait_for_idle()
        mount, = state.mounts
        self.assertEqual((mount.type, mount.flags[0], mount.options[0]), ("hfsplus", "rw", "rw"))
        self.assertIsNone(state.share("sda1").get("Read Only"))
        self.assertEqual(self.vm.run(f"stat -c '%u %g %a' {PLACES}/sda1 {PLACES}/sda1/readme.txt"),
                         "1000 100 755\n1000 100 644\n")
        self.assert_file("sda1", "this is PLAIN\n")
        self.vm.run(f"rm {place_of('sda1')}/readme.txt")
        self.use_files("sda1", NAMES[:2])  # the kernel lists no emoji
        self.assertEqual(self.tool("vyunmount sda1; vymount sda1"), "unmount sda1 - success.\nmount sda1 - success.\n")
        self.assertEqual(self.vm.run(f"cat '{place_of('sda1')}/{NAMES[0]}'"), TEXT)
        self.assertEqual(self.vm.run(f"(cd {place_of('sda1')} && stat -c '%u %g %a %n' *)"),
                         "1000 100 644 Grüße.txt\n1000 100 755 Ordner ä\n1000 100 644 価格 €.txt\n")
        self.assertEqual(self.lines(), {})
        self.vm.pull("mac")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_two_copies_of_one_disk(self):
        """The kernel mounts one of them, as long as it is; the agent does not take the other one for mounted."""
        before = self.wait_for_idle()
        image = self.plug("one", Filesystem("btrfs", "COPY"), Filesystem("xfs", "COPY"), serial="ONE")
        copy = shutil.copy(image, os.path.join(self.folder, "copy.img"))
        self.wait_for_mounts("sda1", "sda2")
        self.vm.plug("two", copy, serial="TWO")
        lines = self.wait_for_lines("sdb1", "sdb2")
        self.assertEqual([lines[name][1:3] for name in ("sdb1", "sdb2")], [["refused", "btrfs"], ["refused", "xfs"]])
        self.assertRegex(lines["sdb1"][3], "refused it: BTRFS warning: duplicate device /dev/vyhotplug/sdb1 devid 1 ")
        self.assertRegex(lines["sdb2"][3], r"refused it: XFS \(sdb2\): Filesystem has duplicate UUID .* - can't mount$")
        self.wait_for_mounts("sda1", "sda2")
        self.vm.pull("one")
        self.wait_for_mounts()
        self.vm.pull("two")
        self.wait_for_lines()
        self.vm.plug("two", copy, serial="TWO")
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_lines()
        self.vm.pull("two")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_two_sticks_of_one_label(self):
        """As long as both can have it: 11 characters on exFAT, 16 bytes on ext4. Of a longer one 33 bytes are used."""
        label = "ÄÖÜ-Größe 1"
        labels = {"sda1": ("ext4", label), "sdb1": ("exfat", label), "sdc1": ("btrfs", "Ü" * 127)}
        for name, (kind, text) in labels.items():
            self.plug(kind, Filesystem(kind, text), serial=kind.upper())
            self.wait_for_kernel(name)
        state = self.wait_for_mounts(*labels)
        self.assertEqual({name: mount.type for name, mount in ((name, state.mount(name)) for name in labels)},
                         {name: kind for name, (kind, _) in labels.items()})
        self.assertEqual({lines["Path"]: title for title, lines in state.sections().items()},
                         {place_of("sda1"): f"{label}(A1)", place_of("sdb1"): f"{label}(B1)",
                          place_of("sdc1"): "Ü" * 16 + "(C1)"})
        self.assertEqual([state.share(name)["Volume Label"] for name in labels], [label, label, "Ü" * 16])

    @long_on("x86")
    def test_a_file_larger_than_four_gibibytes_on_exfat(self):
        self.plug("card", Filesystem("exfat", "VIDEO", size=6000), table=None, serial="CARD")
        self.wait_for_mounts("sda0")
        file = place_of("sda0") + "/film.mkv"
        self.vm.run(f"truncate -s 4500M {file} && printf 'the end' | dd of={file} bs=1M seek=4500 conv=notrunc && sync",
                    3600)  # the kernel fills such a file with zeros
        self.vm.run("vyunmount sda")
        self.vm.run("vymount sda")
        self.assertEqual(self.vm.run(f"stat -c %s {file}"), f"{4500 * 1024 * 1024 + 7}\n")
        self.assertEqual(self.vm.run(f"tail -c 7 {file}"), "the end")

    def test_a_cd_image_on_a_disk_is_mounted_once(self):
        """With a partition that is the image, and one within it that is a file of the image's."""
        before = self.wait_for_idle()
        image = self.image(Filesystem("iso9660", "INSTALL", size=64), table=None)
        efi = os.path.join(self.folder, "efi.img")
        Filesystem("fat16", "EFI").make(efi)
        with open(image, "r+b") as disk, open(efi, "rb") as part:
            disk.seek(32 << 20)
            disk.write(part.read())
            disk.seek(446)
            for kind, start, size in ((0x17, 0, 64), (0xef, 32, 16)):
                disk.write(bytes((0, 254, 255, 255, kind, 254, 255, 255)) + (start * 2048).to_bytes(4, "little")
                           + (size * 2048).to_bytes(4, "little"))
            disk.seek(510)
            disk.write(b"\x55\xaa")
        self.vm.plug("cd", image, serial="CD")
        self.wait_for_kernel("sda2")
        self.wait_for_mounts("sda1")
        state = self.wait_for_idle()
        self.assertEqual([mount.type for mount in state.mounts], ["iso9660"])
        self.assertIn("announcer(#)sda2 not announced: lies within sda1", [line.text for line in state.log])
        self.vm.pull("cd")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def btrfs_of_two(self):
        """Two images of one filesystem that keeps everything twice."""
        paths = [os.path.join(self.folder, f"member-{number}.img") for number in (1, 2)]
        for path in paths:
            with open(path, "wb") as file:
                file.truncate(256 << 20)
        loops = [self.host("losetup", "-f", "--show", path).strip() for path in paths]
        try:
            self.host("mkfs.btrfs", "-q", "-f", "-d", "raid1", "-m", "raid1", "-L", "pair", *loops)
        finally:
            for loop in loops:
                self.host("losetup", "-d", loop)
        return paths

    @staticmethod
    def host(*command):
        import media
        import subprocess
        return subprocess.run(command, check=True, capture_output=True, text=True,
                              env={"PATH": media.PATH}).stdout

    def test_a_btrfs_of_two_disks_is_mounted_when_both_are_there(self):
        before = self.wait_for_idle()
        first, second = self.btrfs_of_two()
        self.vm.plug("first", first, serial="ONE")
        lines = self.wait_for_lines("sda")
        self.assertEqual(lines["sda"][1:3], ["refused", "btrfs"])
        self.assertRegex(lines["sda"][3], r"^sda holds btrfs, but the kernel refused it: .*devid 2 .*is missing")
        self.vm.plug("second", second, serial="TWO")
        state = self.wait_until("it is mounted and shared", lambda state: len(state.names) == 1 and state.exported())
        self.assertEqual([mount.type for mount in state.mounts], ["btrfs"])
        self.wait_for_lines()
        self.use_files(state.names[0])
        self.vm.run("vyunmount all")
        self.vm.pull("first")
        self.vm.pull("second")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle(), without=("descriptors",))

    def test_members_that_are_plugged_together_are_mounted(self):
        self.vm.plug("pair", *self.btrfs_of_two(), serial="PAIR")
        state = self.wait_until("it is mounted and shared", lambda state: len(state.names) == 1 and state.exported(),
                                machine.LIMIT * 2)
        self.assertEqual([mount.type for mount in state.mounts], ["btrfs"])
        self.wait_for_lines()


class WhyNot(OtherTest):
    """The words, each on a medium that deserves it."""

    machines = ("x86",)
    prepared = "true"  # the kernel has no exFAT then
    configuration = "otherfs = exfat\nmountfs = fat,ext3,ntfs\n"
    MEDIA = (
        ("exfat", "no-module", "holds exfat, which this kernel has no module for"),
        ("f2fs", "not-named", "holds f2fs, which otherfs does not name"),
        ("udf", "not-named", "holds udf, which otherfs does not name"),
        ("iso9660", "not-named", "holds iso9660, which otherfs does not name"),
        ("luks", "encrypted", "is encrypted (LUKS)"),
        ("swap", "swap", "is a swap area"),
        ("empty", "nothing", "has no filesystem that is known"),
        ("corrupt", "nothing", "has no filesystem that is known"),
        ("several", "several", "looks like several filesystems (xfs, f2fs)"),
        ("broken-fat", "nothing", "has no filesystem that is known"),
    )

    def test_each_is_told_once_and_goes_with_its_disk(self):
        before = self.wait_for_idle()
        kinds = [row[0] for row in self.MEDIA]
        self.plug("odd", *(Filesystem(kind) for kind in kinds), table="gpt",
                  numbers=(*range(1, len(kinds)), 16), serial="ODD")
        names = [f"sda{number}" for number in range(1, len(kinds))]
        lines = self.wait_for_lines(*names, "sda16")
        for name, (kind, code, words) in zip(names, self.MEDIA):
            with self.subTest(kind):
                self.assertEqual(lines[name][1], code)
                self.assertEqual(lines[name][3], f"{name} {words}")
        self.assertEqual(lines["sda16"][1:4], ["out-of-range", "-", "sda16 is the 16th partition: out of range"])
        state = self.wait_for_idle()
        self.assertEqual(sorted(line.split("; to check it: ")[0] for line in self.told(state)),
                         sorted(line[3] for line in lines.values()))
        self.assertEqual(state.names, [])
        self.vm.pull("odd")
        self.wait_for_lines()
        self.assert_same(before, self.wait_for_idle())

    def test_an_ext4_that_is_damaged_is_refused_in_the_kernels_words(self):
        image = self.image(Filesystem("ext4", "DAMAGED"), table=None)
        with open(image, "r+b") as file:
            file.seek(1024 + 0x58)  # of the inode's size: no kernel takes that
            file.write(b"\x07\x00")
        with open(image, "r+b") as file:  # and the checksum is right
            content = bytearray(file.read(2048)[1024:])
            crc = 0xffffffff
            for byte in content[:1020]:
                crc ^= byte
                for _ in range(8):
                    crc = crc >> 1 ^ (0x82f63b78 if crc & 1 else 0)
            file.seek(1024 + 1020)
            file.write(crc.to_bytes(4, "little"))
        self.vm.plug("damaged", image, serial="DAMAGED")
        lines = self.wait_for_lines("sda")
        self.assertEqual(lines["sda"][1:3], ["refused", "ext4"])
        self.assertRegex(lines["sda"][3], r"^sda holds ext4, but the kernel refused it: EXT4-fs \(sda\): ")
        self.assertEqual(lines["sda"][4], "e2fsck -f /dev/sda")

    def test_a_windows_that_sleeps_is_named(self):
        self.plug("windows", Filesystem("hibernated", "WINDOWS"), serial="WIN")
        self.wait_for_mounts("sda1")
        lines = self.wait_for_lines("sda1")
        self.assertEqual(lines["sda1"][1:4], ["read-only", "ntfs", "sda1 holds NTFS: hibernated, mounted read-only"])

    def test_a_disk_that_hangs_is_named_and_hinders_nobody(self):
        image = self.image(Filesystem("exfat"))
        self.vm.plug_throttled("slow", image, serial="SLOW")
        self.wait_for_kernel("sda1")
        self.vm.run("echo 3 >/proc/sys/vm/drop_caches")
        self.vm.throttle("slow", size=2048)  # blkid reads 84 KiB of it, and may take 15 s
        self.plug("quick", Filesystem("udf"), serial="QUICK")
        lines = self.wait_for_lines("sda1", "sdb1")
        self.assertEqual(lines["sdb1"][1], "not-named")
        self.assertEqual(lines["sda1"][1:4], ["silent", "-", "sda1 does not answer: it cannot be read in time"])
        self.vm.throttle("slow")

    def test_a_disk_that_goes_during_the_look(self):
        for turn in range(3):
            self.plug(f"short-{turn}", Filesystem("udf"), serial=f"SHORT{turn}")
            self.wait_for_kernel("sda1")
            self.vm.run(f"sleep {9 + turn}")
            self.vm.pull(f"short-{turn}")
            self.wait_for_lines()
        self.assertEqual(len(self.wait_for_idle().of("vyhotplug-agent")), 1)


@long_on("x86")
class Times(OtherTest):
    """What it costs to name filesystems that the kernel has no module for: it looks for each, and has a program do that."""

    machines = ("x86",)
    prepared = "true"
    configuration = ""
    OTHERFS = ["exfat", "ntfs3", "f2fs", "btrfs", "xfs", "hfsplus", "udf", "iso9660"]
    KINDS = ("fat16", "ext4", "ntfs")
    ROUNDS = 10
    PAUSE = 2  # seconds between a message and its turn

    def restart(self, otherfs):
        self.stop("vyhotplugd")
        self.vm.run(f"sed -i '/^otherfs/d' {machine.CONFIG}")
        if otherfs:
            self.configure(f"otherfs = {','.join(otherfs)}\n")
        self.start_daemon()

    def time_of(self, kind):
        """Seconds from the turn of a stick's message to the line that it is mounted."""
        self.vm.plug(kind, self.sticks[kind], serial=kind.upper())
        state = self.wait_for_mounts("sda1")
        told, mounted = ([line.time for line in state.log if line.text.startswith(words)][-1]
                         for words in ("recieve(#)ACTION=add,MAJOR=8,MINOR=1,", "daemon(#)mount /dev/vyhotplug/sda1 "))
        self.vm.pull(kind)
        self.wait_for_mounts()
        return mounted - told - self.PAUSE

    def modules_for(self, kind):
        """What the kernel looks for meanwhile."""
        self.vm.run(": >/vm/wanted")
        self.time_of(kind)
        return self.vm.run("cat /vm/wanted").split()

    def test_of_a_mount(self):
        self.sticks = {kind: self.image(Filesystem(kind)) for kind in self.KINDS}
        usual = self.vm.run("cat /proc/sys/kernel/modprobe && [ -x $(cat /proc/sys/kernel/modprobe) ]").strip()
        self.vm.write("/vm/modprobe", "#!/bin/sh\nshift 2\necho \"$@\" >>/vm/wanted\n", 0o755)
        self.vm.run("echo /vm/modprobe >/proc/sys/kernel/modprobe")
        for otherfs in ([], self.OTHERFS):
            self.restart(otherfs)
            self.assertEqual({kind: self.modules_for(kind) for kind in self.KINDS},
                             {"fat16": [], "ext4": [], "ntfs": [f"fs-{kind}" for kind in otherfs]})
        self.vm.run(f"echo {usual} >/proc/sys/kernel/modprobe")
        times = {(kind, named): [] for kind in self.KINDS for named in (False, True)}
        for number in range(2 * self.ROUNDS):
            named = number % 4 in (1, 2)  # neither is always the first of two
            self.restart(self.OTHERFS if named else [])
            for kind in self.KINDS:
                times[kind, named].append(1000 * self.time_of(kind))
        for (kind, named), found in times.items():
            self.note(f"{kind}, {len(self.OTHERFS) if named else 'none'} named: mean {statistics.mean(found):.0f} ms, "
                      f"median {statistics.median(found):.0f} ms ({min(found):.0f} to {max(found):.0f})")


class Readers(OtherTest):
    machines = ("x86",)
    devices = machine.USB + machine.card_drives("drive")
    prepared = "true"

    def test_an_empty_reader_is_named(self):
        self.vm.plug_reader("reader", "drive")
        lines = self.wait_for_lines("sda")
        self.assertEqual(lines["sda"][1:4], ["no-medium", "-", "sda is empty: no medium"])


class Links(OtherTest):
    """by-share."""

    def start_agent(self):
        self.start("agent", "vyhotplug-agent --monitor --by-share")

    def links(self):
        done = self.vm.attempt(f"cd {PLACES}/by-share && for link in *; do echo \"$link $(readlink \"$link\")\"; done")
        return dict(line.rsplit(" ", 1) for line in done[1].splitlines()) if done[0] == 0 else {}

    def wait_for_links(self, wanted):
        self.wait_until(f"links {wanted}", lambda _: self.links() == wanted)

    def test_links_come_and_go_with_the_shares(self):
        self.plug("stick", Filesystem("exfat", "Musik"), Filesystem("ext4", "a/b"), serial="STICK")
        self.wait_for_links({"Musik(A1)": "../sda1", "a_b(A2)": "../sda2"})
        self.vm.run(f"printf x >'{PLACES}/by-share/Musik(A1)/song' && [ -s {place_of('sda1')}/song ]")
        self.vm.run("vyunmount sda1")
        self.wait_for_links({"a_b(A2)": "../sda2"})
        self.vm.run("vymount sda1")
        self.wait_for_links({"Musik(A1)": "../sda1", "a_b(A2)": "../sda2"})
        self.vm.pull("stick")
        self.wait_until("nothing is left", lambda _: self.vm.run(f"ls -A {PLACES}") == "")

    def test_a_share_of_a_name_of_its_own_keeps_its_link_in_another_port(self):
        image = self.plug("stick", Filesystem("exfat", "Musik"), serial="STICK", port="3")
        self.wait_for_links({"Musik(A1)": "../sda1"})
        self.vm.run(f"printf x >'{PLACES}/by-share/Musik(A1)/song'")
        self.vm.run("vyhotplugctl set sda1 share=Meine\\ Musik && sync")
        self.wait_for_links({"Meine Musik": "../sda1"})
        self.vm.run("vyunmount sda1")
        self.vm.pull("stick")
        self.wait_for_links({})
        self.plug("other", Filesystem("exfat", "Filme"), serial="OTHER", port="3")
        self.wait_for_links({"Filme(A1)": "../sda1"})
        self.vm.plug("stick", image, serial="STICK", port="5")
        self.wait_for_links({"Filme(A1)": "../sda1", "Meine Musik": "../sdb1"})
        self.assertEqual(self.vm.run(f"cat '{PLACES}/by-share/Meine Musik/song'"), "x")


class Mutants(OtherTest):
    """Images with random bytes in them: service and agent survive, and each is mounted or said why not."""

    machines = ("x86",)
    named = {"vfat", "ext2", "ext3", "ext4", "ntfs", "exfat", "f2fs", "btrfs", "xfs", "hfsplus", "udf", "iso9660"}  # blkid's
    SIZES = {"journaled-hfsplus": 8, "exfat": 8, "f2fs": 64, "btrfs": 128, "xfs": 320, "udf": 8, "iso9660": 2,
             "ntfs": 8}
    DISKS = "abcd"  # plugged at once
    PARTS = 15  # of a disk, that the service takes
    EACH = 300  # images of a filesystem

    def changes(self, file, start, size, draw):
        """Where in this part of an image which byte is to be: half of them where something is written."""
        written = written_sectors(file, start, size)
        for _ in range(draw.choice((1, 3, 30, 300))):
            at = (draw.choice(written) + draw.randrange(SECTOR) if draw.random() < 0.5
                  else start + draw.randrange(min(size, draw.choice((4096, 1 << 17, 1 << 20)))))
            yield at, draw.choice((0, 0xff, draw.randrange(256)))

    def disk(self, kinds, draw):
        """The image of a disk with one of each of these, all of them changed."""
        filesystems = [Filesystem(kind, "MUTANT", size=self.SIZES[kind]) for kind in kinds]
        image = self.image(*filesystems, table="gpt")
        start = FIRST
        with open(image, "r+b") as file:
            for filesystem in filesystems:
                for at, byte in list(self.changes(file, start * MIB, filesystem.size * MIB, draw)):
                    file.seek(at)
                    file.write(bytes([byte]))
                start += filesystem.size
        return image

    def programs(self, state):
        """Service and agent, without what they have just forked."""
        found = {process["pid"]: process["parent"] for program in ("vyhotplugd", "vyhotplug-agent")
                 for process in state.of(program)}
        return {pid for pid, parent in found.items() if parent not in found}

    def assert_word_fits(self, name, word, kind):
        """That of a line, and the type of filesystem in it."""
        fitting = OF_NOTHING if kind == "-" else OF_OUR_OWN if kind in self.named else OF_OTHERS
        self.assertIn(word, fitting, f"of {name}, which holds {kind}")

    def go(self, draw, *disks):
        """These disks at once, each a list of kinds; returns how many were mounted and what was said of the others."""
        running = self.programs(self.wait_until("both run", lambda state: len(self.programs(state)) == 2))
        names = set()
        for letter, kinds in zip(self.DISKS, disks):
            image = self.disk(kinds, draw)
            self.vm.plug(f"mutants-{letter}", image, serial=f"MUTANTS{letter}")
            self.wait_for_kernel(f"sd{letter}{len(kinds)}")
            names |= {f"sd{letter}{number}" for number in range(1, len(kinds) + 1)}
        self.reasons = {}

        def all_said(state):
            self.reasons = self.lines()
            for name, line in self.reasons.items():
                self.assert_word_fits(name, *line[1:3])
            return names <= set(self.reasons) | set(state.names)
        state = self.wait_until("each is mounted or said why not", all_said, machine.LIMIT * 8)
        self.assertEqual(self.programs(state), running)
        for letter, _ in zip(self.DISKS, disks):
            self.vm.pull(f"mutants-{letter}")
        self.wait_until("all are gone", lambda state: not state.names and not self.lines(), machine.LIMIT * 8)
        for _ in disks:
            os.unlink(os.path.join(self.folder, f"medium-{self.images}.img"))
            self.images -= 1
        return Counter({"mounted": len(names - set(self.reasons)),
                        **Counter(line[1] for line in self.reasons.values())})

    def draw(self):
        seed = os.environ.get("VY_VM_SEED") or str(random.randrange(1 << 32))
        print(f"VY_VM_SEED={seed}", flush=True)
        return random.Random(seed)

    def go_through(self, kind):
        """The great many of one filesystem; whoever wants to know what became of them has VY_VM_NOTES."""
        draw = self.draw()
        told = Counter()
        disks = self.EACH // self.PARTS
        for at in range(0, disks, len(self.DISKS)):
            told += self.go(draw, *[[kind] * self.PARTS] * min(len(self.DISKS), disks - at))
            self.note(f"{self.PARTS * min(at + len(self.DISKS), disks)}: {dict(told)}")


class FewMutants(Mutants):
    def test_one_disk_of_them(self):
        self.go(self.draw(), [kind for kind in ("exfat", "f2fs", "udf", "iso9660") for _ in range(3)] + ["btrfs", "xfs"])


@long_on("x86")
class ManyMutants(Mutants):
    def test_of_exfat(self):
        self.go_through("exfat")

    def test_of_f2fs(self):
        self.go_through("f2fs")

    def test_of_btrfs(self):
        self.go_through("btrfs")

    def test_of_xfs(self):
        self.go_through("xfs")

    def test_of_hfsplus(self):
        self.go_through("journaled-hfsplus")

    def test_of_udf(self):
        self.go_through("udf")

    def test_of_iso9660(self):
        self.go_through("iso9660")
