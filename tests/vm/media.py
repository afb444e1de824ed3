"""Disk and card images, made without root and without loop devices."""

import os
import shutil
import struct
import subprocess

import kit  # noqa: F401  (it says where the next one is)
import odd_media  # noqa: E402
from odd_media import MIB  # noqa: E402

SECTOR = 512
FIRST = 1  # MiB before the first partition
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

# Kind of filesystem: MiB it needs at least, its type in a partition table.
KINDS = {"fat32": (40, "c"), "fat16": (16, "e"), "ext2": (8, "83"), "ext3": (8, "83"), "ext4": (8, "83"),
         "ntfs": (8, "7"), "corrupt": (8, "83"), "empty": (8, "83"), "broken-ext4": (8, "83"),
         "broken-fat": (40, "c"), "signature-exfat": (8, "7"), "exfat": (8, "7"), "f2fs": (64, "83"),
         "btrfs": (128, "83"), "xfs": (320, "83"), "udf": (8, "7"), "iso9660": (2, "cd"),
         "hfsplus": (8, "af"), "journaled-hfsplus": (8, "af"), "locked-hfsplus": (8, "af"),
         "swap": (8, "82"), "luks": (20, "83"), "several": (64, "83"), "hibernated": (8, "7")}

RAW_LABEL = "LABELTOWRITE"[:11]


def run(*command, **options):
    done = subprocess.run(command, stdin=options.pop("stdin", subprocess.DEVNULL), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False, env={"PATH": PATH, "LC_ALL": "C.UTF-8"},
                          **options)
    if done.returncode != 0:
        raise RuntimeError(f"{command}: {done.stdout!r}")


class Filesystem:
    """What a partition holds: its kind, a label, and `files`, name to text.

    `raw_label` is a FAT label of 11 bytes that no tool would write. `zeros` is a file of nothing but zeros on exFAT,
    name and size: it takes no room on the machine that the tests run on.
    """

    def __init__(self, kind, label=None, files=None, size=None, raw_label=None, zeros=None):
        self.kind = kind
        self.zeros = zeros
        self.raw_label = raw_label
        self.label = RAW_LABEL if raw_label else label
        self.files = {"readme.txt": f"this is {label or kind}\n"} if files is None else files
        self.size = size or KINDS[kind][0]
        self.type = KINDS[kind][1]

    def make(self, path):
        with open(path, "wb") as file:
            file.truncate(self.size * MIB)
        getattr(self, "_" + self.kind.split("-")[-1].rstrip("0123456789"))(path)
        if self.kind.startswith("broken-"):
            self._break(path)

    def _label(self, option):
        return [] if self.label is None else [option, self.label]

    def _content(self, path):
        """A folder with the files in it."""
        folder = path + ".content"
        os.mkdir(folder)
        for name, text in self.files.items():
            with open(os.path.join(folder, name), "wb") as file:
                file.write(text.encode())
        return folder

    def _fat(self, path):
        run("mkfs.vfat", "-F", "16" if self.kind == "fat16" else "32", *self._label("-n"), path)
        folder = self._content(path)
        for name in self.files:
            run("mcopy", "-i", path, os.path.join(folder, name), "::" + name)
        shutil.rmtree(folder)
        if self.raw_label:
            self._write_raw_label(path)

    def _write_raw_label(self, path):
        """In the boot sector and in the root directory."""
        with open(path, "r+b") as file:
            content = file.read()
            placed = content.replace(RAW_LABEL.encode(), self.raw_label.ljust(11)[:11])
            if placed == content:
                raise RuntimeError("no label found")
            file.seek(0)
            file.write(placed)

    def _ext(self, path):
        folder = self._content(path)
        run("mkfs." + self.kind.removeprefix("broken-"), "-q", "-F", "-m", "0", "-d", folder, *self._label("-L"), path)
        shutil.rmtree(folder)

    def _ntfs(self, path):
        run("mkntfs", "-F", "-Q", "-q", "-s", "512", "-p", "0", "-H", "0", "-S", "0", *self._label("-L"), path)
        folder = self._content(path)
        for name in self.files:
            run("ntfscp", "-q", "-f", path, os.path.join(folder, name), name)
        shutil.rmtree(folder)

    def _empty(self, path):
        pass

    def _corrupt(self, path):
        """No filesystem: the same bytes at every call, none of them a known signature."""
        with open(path, "r+b") as file:
            file.write(bytes((n * 89 + n // 256 * 7) & 0xFF for n in range(MIB)))

    # ---- others than the service's five; a file in them is none of `files` but those of an image ----

    def _exfat(self, path):
        if self.kind != "exfat":
            return self._write(path, (0, b"\xeb\x76\x90EXFAT   "), (510, b"\x55\xaa"))  # nothing behind it
        run("mkfs.exfat", *self._label("-L"), path)
        if self.zeros:
            with open(path, "r+b") as file:
                exfat_add_zeros(file, *self.zeros)

    def _f2fs(self, path):
        run("mkfs.f2fs", "-q", "-f", *self._label("-l"), path)

    def _btrfs(self, path):
        run("mkfs.btrfs", "-q", "-f", *self._label("-L"), path)

    def _xfs(self, path):
        run("mkfs.xfs", "-q", "-f", *self._label("-L"), path)

    def _udf(self, path):
        run("mkudffs", "--utf8", "--media-type=hd", "--blocksize=512", *self._label("--lvid"), path)

    def _iso(self, path):
        folder = self._content(path)
        run("genisoimage", "-quiet", "-R", "-J", "-o", path + ".iso", *self._label("-V"), folder)
        shutil.rmtree(folder)
        run("dd", f"if={path}.iso", f"of={path}", "bs=1M", "conv=notrunc")
        os.unlink(path + ".iso")

    # Bits of a volume header's attributes, as TN1150 ("HFS Plus Volume Format") has them.
    HFSPLUS_BITS = {"hfsplus": 0, "journaled": 1 << 13, "locked": 1 << 15}

    def _hfsplus(self, path):
        """A volume as it lies in a CD image for Macs, with a copy of its header where the partition ends."""
        folder = self._content(path)
        run("xorriso", "-as", "mkisofs", "-quiet", "-hfsplus", *self._label("-V"), "-o", path + ".iso", folder)
        shutil.rmtree(folder)
        with open(path + ".iso", "rb") as file:
            image = file.read()
        os.unlink(path + ".iso")
        entry = next(at for at in range(512, 32768, 512) if image[at + 48:at + 58] == b"Apple_HFS\0")
        start, size = (512 * sectors for sectors in struct.unpack_from(">II", image, entry + 8))
        volume = bytearray(image[start:start + size])
        if self.kind == "hfsplus":
            hfsplus_grow(volume, self.size * MIB)
        bits, = struct.unpack_from(">I", volume, 1024 + 4)
        bits = bits & ~self.HFSPLUS_BITS["locked"] | self.HFSPLUS_BITS[self.kind.split("-")[0]]
        struct.pack_into(">I", volume, 1024 + 4, bits)
        self._write(path, (0, volume), (self.size * MIB - 1024, volume[1024:1536]))

    # ---- what is no filesystem ----

    @staticmethod
    def _write(path, *places):
        with open(path, "r+b") as file:
            for at, content in places:
                file.seek(at)
                file.write(content)

    def _swap(self, path):
        run("mkswap", "-q", path)

    def _luks(self, path):
        run("cryptsetup", "-q", "luksFormat", "--type", "luks2", "--pbkdf", "pbkdf2", "--pbkdf-force-iterations",
            "1000", "--key-file", "/etc/hostname", path)

    def _several(self, path):
        """F2FS, with a superblock of XFS in the place in front of its own."""
        Filesystem("xfs").make(path + ".xfs")
        with open(path + ".xfs", "rb") as file:
            content = file.read(512)
        os.unlink(path + ".xfs")
        run("mkfs.f2fs", "-q", "-f", path)
        self._write(path, (0, content))

    def _hibernated(self, path):
        """NTFS, with a Windows that sleeps in it."""
        self.files = {**self.files, "hiberfil.sys": "hibr" + "x" * 8192}
        self._ntfs(path)

    def _break(self, path):
        """The signature stands, what it promises does not."""
        with open(path, "r+b") as file:
            if self.kind == "broken-ext4":
                file.seek(1024 + 4)  # behind the superblock's count of inodes
                file.write(b"\xff" * 20)
            else:
                file.seek(11)  # bytes in a sector, sectors in a cluster, reserved sectors, ...
                file.write(b"\xa5" * 16)


class Odd:
    """A partition that holds what is no filesystem of the service's: the first fields of a row of odd_media."""

    type = "83"

    def __init__(self, what, places, *_):
        self.what, self.places = what, places
        self.size = odd_media.size_of(what) // MIB

    def make(self, path):
        odd_media.write(path, self.what, self.places)


# ---- exFAT, in the words of its published format ----


def rotated_sum(content, total=0):
    """Its checksum of 16 bits."""
    for byte in content:
        total = ((total & 1) << 15) + (total >> 1) + byte & 0xffff
    return total


def exfat_entries(name, cluster, size):
    """The directory entries of a file in one piece, all of it written; `name` has up to 15 characters of ASCII."""
    stream = struct.pack("<BBBBHHQIIQ", 0xc0, 3, 0, len(name), rotated_sum(name.upper().encode("utf-16-le")), 0, size, 0,
                         cluster, size)
    names = b"\xc1\0" + name.encode("utf-16-le").ljust(30, b"\0")
    date = 46 << 25 | 1 << 21 | 1 << 16  # the 1st of January 2026
    file = struct.pack("<BBHHHIII", 0x85, 2, 0, 0x20, 0, date, date, date).ljust(32, b"\0")
    total = rotated_sum(stream + names, rotated_sum(file[4:], rotated_sum(file[:2])))
    return file[:2] + struct.pack("<H", total) + file[4:] + stream + names


def exfat_add_zeros(image, name, size):
    """Adds a file to the root directory of a volume that has just been made."""
    image.seek(0)
    boot = image.read(512)
    heap, _, root = struct.unpack_from("<III", boot, 88)
    sector, cluster = 1 << boot[108], 1 << boot[108] + boot[109]

    def place(number):
        return heap * sector + (number - 2) * cluster

    image.seek(place(root))
    entries = image.read(cluster)
    free = next(at for at in range(0, cluster, 32) if entries[at] == 0)
    bitmap, = (place(struct.unpack_from("<I", entries, at + 20)[0]) for at in range(0, free, 32) if entries[at] == 0x81)
    image.seek(bitmap)
    bits = int.from_bytes(image.read(cluster), "little")
    first = bits.bit_length()  # everything in front of it is taken
    count = -(-size // cluster)
    bits |= ((1 << count) - 1) << first
    image.seek(bitmap)
    image.write(bits.to_bytes((bits.bit_length() + 7) // 8, "little"))
    image.seek(place(root) + free)
    image.write(exfat_entries(name, first + 2, size))


# ---- HFS+, in the words of TN1150 ----


def hfsplus_grow(volume, size):
    """Gives a volume of a CD, which is full, `size` bytes, the rest of which are free; its last header is not written."""
    block, total, free = struct.unpack_from(">III", volume, 1024 + 40)
    blocks, place = struct.unpack_from(">II", volume, 1024 + 124)  # of the allocation file, a bit for each block
    grown = size // block
    for number in range(total, grown):
        volume[place * block + number // 8] &= ~(0x80 >> number % 8)
    volume[place * block + (grown - 1) // 8] |= 0x80 >> (grown - 1) % 8  # with the last header in it
    struct.pack_into(">III", volume, 1024 + 44, grown, free + grown - total - 1, total)
    struct.pack_into(">Q", volume, 1024 + 112, blocks * block)


def written_sectors(file, start, size):
    """Where in this part of an image sectors begin that are not all zero."""
    found = []
    end = start + size
    at = start
    while at < end:
        try:
            at = max(at, os.lseek(file.fileno(), at, os.SEEK_DATA))
        except OSError:  # a hole up to the end
            break
        block = os.pread(file.fileno(), max(0, min(MIB, end - at)), at)
        found += [at + offset for offset in range(0, len(block), SECTOR) if any(block[offset:offset + SECTOR])]
        at += MIB
    return found


def make_disk(path, *filesystems, table="dos", size=None, numbers=None, logical=0):
    """An image that holds the filesystems as partitions; table None puts the only one on the whole disk.

    Returns the path. A card's image must be a power of two: give its `size` in MiB. Partitions are numbered from 1
    on unless their `numbers` are given. The last `logical` ones of a DOS table lie in an extended partition.
    """
    if table is None:
        filesystems[0].make(path)
        return path
    primary = len(filesystems) - logical
    starts = []
    at = FIRST
    for index, filesystem in enumerate(filesystems):
        at += FIRST if index >= primary else 0  # for the table of a logical partition
        starts.append(at)
        at += filesystem.size
    with open(path, "wb") as file:
        file.truncate((size or at + FIRST) * MIB)
    lines = [_table_line(table, start, filesystem) for start, filesystem in zip(starts, filesystems)]
    if numbers:
        lines = [f"{path}{number} : {line}" for number, line in zip(numbers, lines)]
    if logical:
        lines.insert(primary, f"start={starts[primary] - FIRST}MiB, size={at - starts[primary] + FIRST}MiB, type=5")
    _write_table(path, [f"label: {table}", *lines])
    for start, filesystem in zip(starts, filesystems):
        part = path + ".part"
        filesystem.make(part)
        run("dd", f"if={part}", f"of={path}", "bs=1M", f"seek={start}", "conv=notrunc,sparse")
        os.unlink(part)
    return path


def _table_line(table, start, filesystem):
    kind = f", type={filesystem.type}" if table == "dos" else ""
    return f"start={start}MiB, size={filesystem.size}MiB{kind}"


def _write_table(path, lines):
    subprocess.run(["sfdisk", "--quiet", "--no-reread", "--no-tell-kernel", path], check=True,
                   input="\n".join(lines).encode(), env={"PATH": PATH}, stdout=subprocess.DEVNULL)
