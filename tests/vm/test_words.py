"""The agent's words on media that are odd, worn or half gone, each of which a kernel is really asked to mount."""

import os
import re
import struct

import media
import odd_media
from media import Filesystem, Odd
from test_others import OtherTest
from vmtest import long_on

PARTS = 15  # of a disk, that the service takes


class Worn(Filesystem):
    """A filesystem to which something has happened, in a place that may have less `room` than it claims, in MiB."""

    def __init__(self, kind, happen=lambda path: None, room=None, **options):
        super().__init__(kind, **options)
        self.happen = happen
        self.made, self.size = self.size, room or self.size

    def make(self, path):
        room, self.size = self.size, self.made
        super().make(path)
        self.happen(path)
        self.size = room
        os.truncate(path, room * media.MIB)


# ---- what happens to filesystems; each takes the path of an image ----


def put(at, content):
    return lambda path: change(path, at, len(content), lambda _: content)


def change(path, at, size, how):
    with open(path, "r+b") as file:
        file.seek(at)
        content = file.read(size)
        file.seek(at)
        file.write(how(content))


def ext_field(at, content, summed=True):
    """Of ext's superblock, whose sum is right nevertheless."""
    def how(block):
        block = block[:at] + content + block[at + len(content):]
        return block[:1020] + struct.pack("<I", odd_media.crc32c(block[:1020])) if summed else block
    return lambda path: change(path, 1024, 1024, how)


def run(*command):
    return lambda path: media.run(*command, path)


def break_xfs_log(path):
    """Its first record is none."""
    with open(path, "rb") as file:
        sector = file.read(512)
    size, = struct.unpack_from(">I", sector, 4)
    start, = struct.unpack_from(">Q", sector, 48)
    blocks, = struct.unpack_from(">I", sector, 84)
    group, number = start >> sector[124], start & (1 << sector[124]) - 1
    put((group * blocks + number) * size, b"\x11" * 4)(path)


def lose_f2fs_checkpoints(path):
    """Both of them."""
    with open(path, "rb") as file:
        file.seek(1024 + 76)
        first, = struct.unpack("<I", file.read(4))
    for block in (first, first + 512):
        put(block * 4096, bytes(4096))(path)


def refused(kind, words="", who="the kernel"):
    """The words have {} for the device, and * for what is different each time."""
    return ("refused", kind, f"{{}} holds {kind}, but {who} refused it{words and ': ' + words}")


# What it is, the medium, and the agent's word, blkid's type and the sentence; None where it is mounted and nothing is wrong.
WORN = (
    ("fat with a broken count of what is free", Worn("fat32", put(512, b"\xaa" * 512)), None),
    ("fat that was not unmounted", Worn("fat32", put(0x41, b"\1")), None),
    ("fat that is cut off", Worn("fat16", room=8), None),
    ("fat over an ext4", Worn("ext4", run("mkfs.vfat", "-F", "16", "-r", "512"), size=16), None),
    ("exfat that was not unmounted", Worn("exfat", put(106, b"\2")), None),
    ("exfat that is cut off", Worn("exfat", size=16, room=8), None),
    ("exfat, of which only the signature is left", Worn("signature-exfat"),
     refused("exfat", "exFAT-fs ({}): bogus number of FAT structure")),
    ("exfat whose sum is wrong", Worn("exfat", put(11 * 512, b"\xaa" * 512)),
     refused("exfat", "exFAT-fs ({}): Invalid boot checksum (boot checksum : 0xaaaaaaaa, checksum : *)")),
    ("ext4 with a feature of tomorrow", Worn("ext4", ext_field(0x60, struct.pack("<I", 0x80000242))),
     refused("ext4", "EXT4-fs ({}): Couldn't mount because of unsupported optional features (80000000)")),
    ("ext4 with an inode's size that cannot be", Worn("ext4", ext_field(0x58, b"\7\0")),
     refused("ext4", "EXT4-fs ({}): unsupported inode size: 7")),
    ("ext4 whose sum is wrong", Worn("ext4", ext_field(0x78, b"DAMAGED", summed=False)),
     refused("ext4", "EXT4-fs ({}): VFS: Found ext4 filesystem with invalid superblock checksum.  Run e2fsck?")),
    ("ext4 that is cut off", Worn("ext4", size=16, room=8),
     refused("ext4", "EXT4-fs ({}): bad geometry: block count 16384 exceeds size of device (8192 blocks)")),
    ("ext3 whose journal is on another disk",
     Worn("ext3", ext_field(0xd0, bytes(range(16)) + struct.pack("<II", 0, 0x8fa), summed=False)),
     refused("ext3", "No such device or address (EXT4-fs ({}): failed to open journal device unknown-block(8,250) -6)")),
    ("xfs of the older form", Worn("xfs", run("mkfs.xfs", "-q", "-f", "-m", "crc=0")), None),
    ("xfs with a broken log", Worn("xfs", break_xfs_log),
     refused("xfs", "Input/output error (XFS ({}): log mount/recovery failed: error -5)")),
    ("xfs that is cut off", Worn("xfs", room=160), refused("xfs", "XFS ({}): last sector read failed")),
    ("f2fs without a checkpoint", Worn("f2fs", lose_f2fs_checkpoints),
     refused("f2fs", "F2FS-fs ({}): invalid crc_offset: 0")),
    ("f2fs that is cut off", Worn("f2fs", size=128, room=64), None),
    ("btrfs whose sum is wrong", Worn("btrfs", put(0x10000, b"\xaa" * 4)),
     refused("btrfs", "Invalid argument (BTRFS error (device {}): open_ctree failed: -22)")),
    ("btrfs that is cut off", Worn("btrfs", size=256, room=128), refused("btrfs", "*BTRFS error (device {}): *")),
    ("udf without its first anchor", Worn("udf", put(256 * 512, bytes(512))), None),
    ("udf that is cut off", Worn("udf", size=16, room=8), None),
    ("iso9660 that is cut off", Worn("iso9660", room=1), None),
    ("hfsplus that is cut off", Worn("journaled-hfsplus", room=1), refused("hfsplus")),
    ("ntfs that was not unmounted", Worn("ntfs", run("ntfsfix")), None),
    ("ntfs that is cut off", Worn("ntfs", size=16, room=8), refused("ntfs", who="ntfs-3g")),
)


class WordsTest(OtherTest):
    def plug_all(self, prefix, *partitions):
        """As many disks as it takes; returns the devices' names, in their order."""
        names = []
        for at in range(0, len(partitions), PARTS):
            letter = "abcdefgh"[at // PARTS]
            some = partitions[at:at + PARTS]
            self.plug(f"{prefix}-{letter}", *some, table="gpt", serial=f"{prefix}{letter}".upper())
            self.wait_for_kernel(f"sd{letter}{len(some)}")
            names += [f"sd{letter}{number}" for number in range(1, len(some) + 1)]
        return names

    def wait_for_words(self, names):
        """Until each is mounted or told of; returns the state, and word, type and sentence of what is told of."""
        def look(state):
            self.reasons = self.lines()
            return set(names) <= {*self.reasons, *state.names}
        state = self.wait_until("each is mounted or said why not", look, 1200)
        return state, {name: tuple(line[1:4]) for name, line in self.reasons.items()}

    def assert_words(self, name, found, words):
        if words is None or found is None:
            self.assertEqual(found, words)
            return
        self.assertEqual(found[:2], words[:2])
        pattern = re.escape(words[2].replace("{}", name)).replace(r"\*", ".*")
        self.assertRegex(found[2], f"^{pattern}$")


class Words(WordsTest):
    machines = ("x86",)

    def test_on_what_is_worn(self):
        names = self.plug_all("worn", *(medium for _, medium, _ in WORN))
        state, told = self.wait_for_words(names)
        for name, (what, _, words) in zip(names, WORN):
            with self.subTest(what):
                self.assert_words(name, told.get(name), words)
                self.assertEqual(name in state.names, words is None)

    def test_on_whole_disks(self):
        """Of an empty extended partition nothing is said; a filesystem without a table is mounted."""
        for letter, (what, places, *_) in zip("abcd", odd_media.WHOLE):
            path = os.path.join(self.folder, f"whole-{letter}.img")
            odd_media.write(path, what, places)
            self.vm.plug(f"whole-{letter}", path, serial=f"WHOLE{letter}".upper())
            self.wait_for_kernel(f"sd{letter}")
        path = os.path.join(self.folder, "extended.img")
        odd_media.write(path, "", odd_media.dos((5, 2048, 4096)))
        self.vm.plug("extended", path, serial="EXTENDED")
        self.wait_for_kernel("sde1")
        self.plug("disc", Filesystem("udf", "DISC"), table=None, serial="DISC")
        self.wait_for_mounts("sdf0")
        names = ["sda", "sdb", "sdc", "sdd"]
        lines = self.wait_for_lines(*names)
        for name, (what, _, word, kind, sentence) in zip(names, odd_media.WHOLE):
            with self.subTest(what):
                self.assertEqual(lines[name][1:4], [word, kind, f"{name} {sentence}"])


class Odds(WordsTest):
    """What blkid alone decides; on the other machine, where all takes long, too."""

    @long_on("mips")
    def test_on_what_nobody_mounts(self):
        names = self.plug_all("odd", *(Odd(*row) for row in odd_media.MEDIA))
        _, told = self.wait_for_words(names)
        for name, (what, _, word, kind, sentence) in zip(names, odd_media.MEDIA):
            with self.subTest(what):
                self.assertEqual(told[name], (word, kind, f"{name} {sentence}"))
