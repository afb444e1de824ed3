"""What turns up in a drawer and is nothing to be mounted: the signatures that blkid knows them by, and the agent's words.

A signature is as short as its format allows: enough for blkid, which checks sums and plausible sizes, not for a driver.
"""

import io
import struct
import tarfile
import zlib

MIB = 1 << 20
SIZE = 8 * MIB  # of the smallest volume that all of them fit into
UUID = bytes(range(1, 17))


def crc_reflected(content, polynomial, total=0xffffffff):
    """A CRC of 32 bits, lowest bit first, as it is before its end."""
    for byte in content:
        total ^= byte
        for _ in range(8):
            total = total >> 1 ^ (polynomial if total & 1 else 0)
    return total


def crc32c(content, total=0xffffffff):
    return crc_reflected(content, 0x82f63b78, total)


def crc64(content):
    """Of ECMA-182, highest bit first."""
    total = (1 << 64) - 1
    for byte in content:
        total ^= byte << 56
        for _ in range(8):
            total = total << 1 & (1 << 64) - 1 ^ (0x42f0e1eba9ea3693 if total >> 63 else 0)
    return total ^ (1 << 64) - 1


def block(size, *fields):
    """Zeros with fields in them, each an offset and either bytes or a struct's format and its values."""
    made = bytearray(size)
    for at, first, *values in fields:
        content = struct.pack(first, *values) if isinstance(first, str) else first
        made[at:at + len(content)] = content
    return bytes(made)


# ---- encrypted ----


def luks(version, magic=b"LUKS\xba\xbe", at=0):
    text = b"01020304-0506-0708-090a-0b0c0d0e0f10"
    return (at, block(512, (0, magic), (6, ">H", version), (8, ">Q", 16384), (168, text), (256, ">Q", at)))


def bitlocker_places(boot, pointer):
    """Windows' guard in front of a volume, and the metadata that it points to."""
    return ((0, boot), (pointer[0], struct.pack("<QQQ", 0x10000, 0x20000, 0x30000)), (510, b"\x55\xaa"),
            (0x10000, b"-FVE-FS-" + struct.pack("<HH", 0x100, 2)))


def bitlocker():
    guid = bytes.fromhex("3bd66749292ed84a8399f6a339e3d001")
    return bitlocker_places(block(512, (0, b"\xeb\x58\x90-FVE-FS-"), (0xa0, guid)), (0xb0,))


def bitlocker_to_go():
    guid = bytes.fromhex("3bd66749292ed84a8399f6a339e3d001")
    return bitlocker_places(block(512, (0, b"\xeb\x58\x90MSWIN4.1"), (424, guid)), (440,))


# ---- members of something larger ----


def lvm2():
    label = block(512, (0, b"LABELONE"), (8, "<Q", 1), (20, "<I", 32), (24, b"LVM2 001"),
                  (32, b"ABCDEFGHIJKLMNOPQRSTUVWXYZ012345"))
    crc = crc_reflected(label[20:], 0xedb88320, 0xf597a6cf)
    return ((512, label[:16] + struct.pack("<I", crc) + label[20:]),)


def raid_1(at):
    """A superblock of version 1.x, of which the place decides: one of two disks of a mirror."""
    made = block(256, (0, "<II", 0xa92b4efc, 1), (16, UUID), (64, "<QIIQI", 0, 1, 0, 16384, 0), (92, "<I", 2),
                 (128, "<QQQ", 2048, 8192, at // 512))
    total = sum(struct.unpack("<64I", made))
    return ((at, made[:216] + struct.pack("<I", (total & 0xffffffff) + (total >> 32)) + made[220:]),)


def raid_0_90():
    """The older one: in the last whole 64 KiB but one."""
    return ((SIZE - 0x10000, block(4096, (0, "<IIIII", 0xa92b4efc, 0, 90, 0, 0), (20, UUID[:4]), (52, UUID[:12]))),)


def zfs():
    """Its uberblocks, one behind the other in the first two labels."""
    uberblock = block(1024, (0, "<QQQ", 0x00bab10c, 5000, 1))
    return tuple((label + (128 << 10), uberblock * 16) for label in (0, 256 << 10))


def bcache():
    body = block(208 - 8, (8 - 8, "<QQ", 8, 1), (24 - 8, bytes.fromhex("c68573f64e1a45ca8265f57f48ba6d81")), (40 - 8, UUID),
                 (56 - 8, UUID))
    return ((4096, struct.pack("<Q", crc64(body)) + body),)


def stratis():
    body = block(508, (0, b"!Stra0tis\x86\xff\x02^\x41rh"), (16, "<Q", SIZE // 512), (28, b"01" * 16), (60, b"23" * 16))
    return ((512, struct.pack("<I", crc32c(body) ^ 0xffffffff) + body),)


# ---- other systems' filesystems ----


def nilfs2():
    size = 376
    made = block(1024, (0, "<IHHHHI", 2, 0, 0x3434, size, 0, 0), (24, "<QQ", 2, SIZE), (152, UUID))
    total = crc_reflected(made[:size], 0xedb88320, 0)
    return ((1024, made[:16] + struct.pack("<I", total) + made[20:]),)


def jfs():
    return ((0x8000, block(512, (0, b"JFS1"), (4, "<I", 2), (16, "<IHHIH", 4096, 12, 3, 512, 9))),)


def apfs():
    return ((0, block(4096, (8, "<Q", 1), (16, "<Q", 1), (24, "<HHHH", 1, 0x8000, 0, 0), (32, b"NXSB"),
                      (36, "<IQ", 4096, SIZE // 4096), (72, UUID))),)


def cramfs():
    made = block(76, (0, "<IIII", 0x28cd3d45, 4096, 3, 0), (16, b"Compressed ROMFS"), (32, "<IIII", 0, 0, 1, 1))
    whole = made + bytes(4096 - len(made))
    return ((0, whole[:32] + struct.pack("<I", zlib.crc32(whole)) + whole[36:]),)


def ufs():
    return ((8192, block(1380, (1372, "<I", 0x00011954))),)


def tar():
    made = io.BytesIO()
    with tarfile.open(fileobj=made, mode="w") as archive:
        entry = tarfile.TarInfo("letter.txt")
        entry.size = 6
        archive.addfile(entry, io.BytesIO(b"hello\n"))
    return ((0, made.getvalue()),)


# ---- tables of partitions ----


def gpt():
    """One without an entry, whose keeper in front claims the whole disk."""
    last = SIZE // 512 - 1

    def header(own, other, entries):
        made = block(92, (0, b"EFI PART"), (8, "<III", 0x10000, 92, 0), (24, "<QQQQ", own, other, 34, last - 33), (56, UUID),
                     (72, "<QIII", entries, 128, 128, zlib.crc32(bytes(128 * 128))))
        return made[:16] + struct.pack("<I", zlib.crc32(made)) + made[20:]
    return (*dos((0xee, 1, last)), (512, header(1, last, 2)), (last * 512, header(last, 1, last - 32)))


def dos(*entries):
    """Each a type, a first sector and a number of sectors."""
    return ((446, b"".join(struct.pack("<B3sB3sII", 0, b"\0\2\0", kind, b"\xff\xff\xff", start, count)
                           for kind, start, count in entries).ljust(64, b"\0") + b"\x55\xaa"),)


def signature(at, *fields, size=512):
    return ((at, block(size, *fields)),)


def two(*media):
    return tuple(place for medium in media for place in medium)


SWAP = ((1024, struct.pack("<III", 1, SIZE // 4096 - 1, 0)), (4086, b"SWAPSPACE2"))
EXT4 = signature(1024, (0, "<III", 2048, 8192, 409), (20, "<II", 1, 0), (32, "<III", 8192, 8192, 2048),
                 (56, "<HHH", 0xef53, 1, 1), (76, "<III", 1, 0, 11), (88, "<H", 256), (92, "<III", 0x4, 0x40, 0x8),
                 (104, UUID), size=1024)
NOT_KNOWN = "holds {}, which the service cannot mount"


def foreign(kind):
    return ("not-known", kind, NOT_KNOWN.format(kind))


MEMBER = ("member", "linux_raid_member", "is a member of RAID")
NOTHING = ("nothing", "-", "has no filesystem that is known")
LUKS = ("encrypted", "crypto_LUKS", "is encrypted (LUKS)")
BITLOCKER = ("encrypted", "BitLocker", "is encrypted (BitLocker)")

# What it is; the places that are not zero; the agent's word, blkid's type and the agent's sentence.
MEDIA = (
    ("luks 1", (luks(1),), *LUKS),
    ("luks 2", (luks(2),), *LUKS),
    ("luks 2 whose first header is gone", (luks(2, b"SKUL\xba\xbe", 0x4000),), *LUKS),
    ("bitlocker", bitlocker(), *BITLOCKER),
    ("bitlocker to go", bitlocker_to_go(), *BITLOCKER),
    ("lvm 2", lvm2(), "member", "LVM2_member", "is a member of LVM"),
    ("lvm 1", signature(0, (0, b"HM"), (2, "<H", 1)), "member", "LVM1_member", "is a member of LVM"),
    ("raid 0.90", raid_0_90(), *MEMBER),
    ("raid 1.0", raid_1(SIZE - 8192), *MEMBER),
    ("raid 1.1", raid_1(0), *MEMBER),
    ("raid 1.2", raid_1(4096), *MEMBER),
    ("zfs", zfs(), "member", "zfs_member", "is a member of ZFS"),
    ("bcache", bcache(), "member", "bcache", "is a member of bcache"),
    ("stratis", stratis(), "member", "stratis", "is a member of Stratis"),
    ("drbd", signature(SIZE - 4096, (56, ">II", 0, 0x8374026b), size=4096), "member", "drbd", "is a member of DRBD"),
    ("vmware member", signature(MIB, (0, "<I", 0xc001d00d)), "member", "VMFS_volume_member", "is a member of VMFS"),
    ("swap", SWAP, "swap", "swap", "is a swap area"),
    ("old swap", ((4086, b"SWAP-SPACE"),), "swap", "swap", "is a swap area"),
    ("suspended swap", ((1024, struct.pack("<III", 1, SIZE // 4096 - 1, 0)), (4086, b"S1SUSPEND")), "swap", "swsuspend",
     "is a swap area, with a suspended system in it"),
    ("nilfs2", nilfs2(), *foreign("nilfs2")),
    ("jfs", jfs(), *foreign("jfs")),
    ("reiserfs", signature(0x10000, (0, "<IIII", 2048, 0, 0, 18), (44, "<H", 4096), (52, b"ReIsEr2Fs")),
     *foreign("reiserfs")),
    ("reiser4", signature(0x10000, (0, b"ReIsEr4")), *foreign("reiser4")),
    ("minix", signature(1024, (0, "<HHHHHHIHHI", 64, 2048, 1, 1, 6, 0, 0x10081c00, 0x137f, 1, 0)), *foreign("minix")),
    ("squashfs", signature(0, (0, b"hsqs"), (28, "<HH", 4, 0)), *foreign("squashfs")),
    ("old squashfs", signature(0, (0, b"hsqs"), (28, "<HH", 3, 1)), *foreign("squashfs3")),
    ("cramfs", cramfs(), *foreign("cramfs")),
    ("erofs", signature(1024, (0, "<I", 0xe0f5e1e2)), *foreign("erofs")),
    ("romfs", signature(0, (0, b"-rom1fs-"), (8, ">II", 1024, 0), (16, b"empty\0")), *foreign("romfs")),
    ("ufs", ufs(), *foreign("ufs")),
    ("hfs", signature(1024, (0, b"BD"), (20, ">I", 4096)), *foreign("hfs")),
    ("apfs", apfs(), *foreign("apfs")),
    ("refs", ((0, b"\0\0\0ReFS\0"),), *foreign("ReFS")),
    ("bfs", signature(0, (0, "<I", 0x1badface)), *foreign("bfs")),
    ("ocfs2", ((2048, b"OCFSV2"),), *foreign("ocfs2")),
    ("gfs2", signature(0x10000, (0, ">II", 0x01161970, 1), (24, ">II", 1801, 1900)), *foreign("gfs2")),
    ("vxfs", signature(1024, (0, "<II", 0xa501fcf5, 4), (32, "<I", 1024)), *foreign("vxfs")),
    ("vmfs", signature(2 * MIB, (0, "<I", 0x2fabf15e)), *foreign("VMFS")),
    ("bluestore", ((0, b"bluestore block device"),), "member", "ceph_bluestore", "is a member of Ceph"),
    ("a journal of an ext3", signature(1024, (0, "<III", 2048, 8192, 0), (24, "<I", 2), (56, "<HHH", 0xef53, 1, 1),
                                       (76, "<I", 1), (96, "<I", 8), (104, UUID), size=1024), *foreign("jbd")),
    ("ext4 under a swap area", two(EXT4, SWAP), "several", "-", "looks like several filesystems (swap, ext4)"),
    ("zeros", (), *NOTHING),
    ("noise", ((0, bytes((n * 89 + n // 256 * 7) & 0xff for n in range(MIB))),), *NOTHING),
    ("a text", ((0, b"Dear finder,\n" * 400),), *NOTHING),
    ("a tar archive", tar(), *NOTHING),
    ("the beginning of a film", ((0, b"\0\0\0\x18ftypmp42\0\0\0\0isommp42"),), *NOTHING),
)

# Bytes, of those that blkid does not believe in where there is less room.
SIZES = {"zfs": 64 * MIB, "jfs": 16 * MIB, "ocfs2": 16 * MIB, "gfs2": 32 * MIB}

# On a whole disk. "-" for what the table alone decides.
TABLE = ("nothing", "-", "has a partition table without a partition")
WHOLE = (
    ("gpt without a partition", gpt(), *TABLE),
    ("dos table without a partition", dos(), *TABLE),
    ("keeper of a gpt that is gone", dos((0xee, 1, SIZE // 512 - 1)), *TABLE),
    ("raid of a mainboard", signature(SIZE - 1024, (0, b"Intel Raid ISM Cfg Sig. 1.3.00")), "member", "isw_raid_member",
     "is a member of RAID"),
)


def size_of(what):
    return SIZES.get(what, SIZE)


def write(path, what, places):
    with open(path, "wb") as file:
        file.truncate(size_of(what))
        for at, content in places:
            file.seek(at)
            file.write(content)
