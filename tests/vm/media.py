"""Disk and card images, made without root and without loop devices."""

import os
import shutil
import subprocess

MIB = 1 << 20
FIRST = 1  # MiB before the first partition
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

# Kind of filesystem: MiB it needs at least, its type in a partition table.
KINDS = {"fat32": (40, "c"), "fat16": (16, "e"), "ext2": (8, "83"), "ext3": (8, "83"), "ext4": (8, "83"),
         "ntfs": (8, "7"), "corrupt": (8, "83"), "empty": (8, "83"), "broken-ext4": (8, "83"),
         "broken-fat": (40, "c"), "exfat": (8, "7")}

RAW_LABEL = "LABELTOWRITE"[:11]


def run(*command, **options):
    done = subprocess.run(command, stdin=options.pop("stdin", subprocess.DEVNULL), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False, env={"PATH": PATH, "LC_ALL": "C.UTF-8"},
                          **options)
    if done.returncode != 0:
        raise RuntimeError(f"{command}: {done.stdout!r}")


class Filesystem:
    """What a partition holds: its kind, a label, and `files`, name to text.

    `raw_label` is a FAT label of 11 bytes that no tool would write.
    """

    def __init__(self, kind, label=None, files=None, size=None, raw_label=None):
        self.kind = kind
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

    def _exfat(self, path):
        """What tells a filesystem that the service does not know; nothing behind it."""
        with open(path, "r+b") as file:
            file.write(b"\xeb\x76\x90EXFAT   ")
            file.seek(510)
            file.write(b"\x55\xaa")

    def _break(self, path):
        """The signature stands, what it promises does not."""
        with open(path, "r+b") as file:
            if self.kind == "broken-ext4":
                file.seek(1024 + 4)  # behind the superblock's count of inodes
                file.write(b"\xff" * 20)
            else:
                file.seek(11)  # bytes in a sector, sectors in a cluster, reserved sectors, ...
                file.write(b"\xa5" * 16)


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
