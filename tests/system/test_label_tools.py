"""The label tools on real volumes: what they print, and that they leave every byte as it was."""

import hashlib
import os
import re
import shutil
import stat
import subprocess
import sys
import time

import vyworld
from vyworld import LIMIT, LoopDevice, SHARE_FILE, SystemTest

IMAGE = "/tmp/volume.image"
FAKES = "/tmp/fakes"
CALLS = "/tmp/label.trace"
TOOLS = ("mlabel", "ntfsvlabel", "vylabel")
FILESYSTEM = {"mlabel": "vfat", "ntfsvlabel": "ntfs"}
NAMES = ("ntfsvlabel", "vylabel")  # other names of mlabel
ENOUGH = 20  # seconds: then the service gives a tool up


def tool_path(name):
    return os.path.join(os.environ["VY_BIN"], "libexec", name)


def content_sum(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def command_line(tool, node):
    return {"mlabel": [tool, "-i", node, "-n"], "ntfsvlabel": [tool, node, "-n"], "vylabel": [tool, node]}[tool]


def replace_everywhere(path, old, new):
    """Replaces bytes by others of the same length."""
    assert len(old) == len(new), (old, new)
    with open(path, "r+b") as file:
        content = file.read()
        assert content.count(old) > 0, old
        file.seek(0)
        file.write(content.replace(old, new))


class LabelTools(SystemTest):
    def setUp(self):
        super().setUp()
        for program in ("blkid", "mkfs.vfat", "mkntfs"):
            if shutil.which(program, path=vyworld.PATH) is None:
                self.skipTest(f"{program} is not installed")
        for name in TOOLS:
            if os.path.lexists(f"{vyworld.PROGRAMS}/{name}"):
                os.unlink(f"{vyworld.PROGRAMS}/{name}")
        shutil.copy(tool_path("mlabel"), vyworld.PROGRAMS)
        for name in NAMES:
            self.assertEqual(os.readlink(tool_path(name)), "mlabel")
            os.symlink("mlabel", f"{vyworld.PROGRAMS}/{name}")

    # ---- volumes ----

    def make_volume(self, tool, label):
        """A volume with a label: a string is passed to mkfs, bytes are written as they are."""
        raw = isinstance(label, bytes)
        encoding = "ascii" if tool == "mlabel" else "utf-16le"
        given = label
        if raw:
            given = "PLACEHOLDER-AND-SOME-MORE-OF-IT"[:len(label) // len("P".encode(encoding))]
        with open(IMAGE, "wb") as file:
            file.truncate(8 << 20)
        if tool == "mlabel":
            vyworld.run("mkfs.vfat", *(["-n", given] if given else []), IMAGE)
        else:
            vyworld.run("mkntfs", "-F", "-Q", "-q", "-s", "512", "-p", "0", "-H", "0", "-S", "0",
                        *(["-L", given] if given else []), IMAGE)
        if raw:
            replace_everywhere(IMAGE, given.encode(encoding), label)

    # ---- running ----

    def run_tool(self, *arguments, path=None, prefix=()):
        environment = vyworld.environment()
        if path is not None:
            environment["PATH"] = path
        return subprocess.run([*prefix, *arguments], stdin=subprocess.DEVNULL,
                              capture_output=True, check=False, timeout=LIMIT, cwd="/",
                              env=environment)

    def assert_prints(self, tool, node, printed):
        done = self.run_tool(*command_line(tool, node))
        self.assertEqual((done.stdout, done.stderr, done.returncode), (printed, b"", 0))

    def assert_fails(self, tool, node, path=None):
        done = self.run_tool(*command_line(tool, node), path=path)
        self.assertEqual((done.stdout, done.returncode), (b"", 1))
        self.assertRegex(done.stderr.decode(), f"^{tool}: {re.escape(node)}: [^\n]+\n$")

    def assert_label(self, tool, label, printed):
        """Read from the image's file and from a device, with every byte left as it was."""
        self.make_volume(tool, label)
        before = content_sum(IMAGE)
        self.assert_prints(tool, IMAGE, printed)
        loop = LoopDevice(IMAGE)
        try:
            self.assert_prints(tool, loop.path, printed)
        finally:
            loop.release()
        readonly = LoopDevice(IMAGE, readonly=True)
        try:
            self.assert_prints(tool, readonly.path, printed)
        finally:
            readonly.release()
        self.assertEqual(content_sum(IMAGE), before)


class Ntfs(LabelTools):
    def test_ntfs_labels_are_printed_as_they_are(self):
        for label in ("Backup", "Backup 2", "  two  blanks", "Büro Ä ß", "価格 €", "disk 😀",
                      "thirty-two characters long it is"):
            with self.subTest(label=label):
                self.assert_label("ntfsvlabel", label, label.encode() + b"\n")

    def test_an_ntfs_volume_without_label_gives_an_empty_line(self):
        for label in (None, ""):
            with self.subTest(label=label):
                self.assert_label("ntfsvlabel", label, b"\n")

    def test_hostile_ntfs_labels_are_one_line_that_ends_no_section(self):
        for label, printed in (
                ("a]\n[evil]\nPath=/", b"a___evil__Path=/\n"),
                ("[x]", b"_x_\n"),
                ("\n\nA", b"__A\n"),
                ("A\rB\x1bC\x01\x7fD", b"A_B_C__D\n"),
                ("A\x85B\u2028C", "A_B\u2028C\n".encode())):
            with self.subTest(label=label):
                self.assert_label("ntfsvlabel", label.encode("utf-16le"), printed)

    def test_broken_utf16_gives_whole_characters(self):
        for unit in (b"\x00\xd8", b"\x00\xdc"):
            with self.subTest(unit=unit):
                self.make_volume("ntfsvlabel", b"A\0" + unit + b"B\0")
                done = self.run_tool(*command_line("ntfsvlabel", IMAGE))
                self.assertEqual(done.returncode, 0)
                self.assertRegex(done.stdout.decode("utf-8", "strict"), "^A[^\n]*B\n$")


class Fat(LabelTools):
    def test_fat_labels_are_printed_as_they_are(self):
        for label in ("PHOTOS", "BACK 2", "A  B", "ELEVENCHARS"):
            with self.subTest(label=label):
                self.assert_label("mlabel", label, label.encode() + b"\n")

    def test_a_fat_volume_without_label_gives_an_empty_line(self):
        self.assert_label("mlabel", None, b"\n")
        self.assert_label("mlabel", b" " * 11, b"\n")

    def test_bytes_of_the_code_page_are_letters(self):
        for label in ("BÜRO", "ÄÖÜß éèçñ", "ØRE"):
            with self.subTest(label=label):
                self.assert_label("mlabel", label.encode("cp850").ljust(11),
                                  label.encode() + b"\n")

    def test_utf8_is_taken_as_such(self):
        self.assert_label("mlabel", "Büro €".encode().ljust(11), "Büro €\n".encode())

    def test_hostile_fat_labels_are_one_line_that_ends_no_section(self):
        for label, printed in (
                (b"]\n[x]\nPath=", b"___x__Path=\n"),
                (b"A\nB\rC\x1b\x7f\x01zz ", b"A_B_C___zz\n"),
                (b"\n\n\n\n\n\n\n\n\n\nA", b"__________A\n"),
                (b"[[[[]]]]\t\tA", b"__________A\n"),
                (b"A\0[evil]\n\n\n", b"A\n"),
                (b"\xff\xfe\x80\x81\xc3\xa4\xc0\xaf\xf5\x80\xa0",
                 b"\xff\xfe\x80\x81\xc3\xa4\xc0\xaf\xf5\x80\xa0".decode("cp850").encode() + b"\n"),
                (b"%s%n\\x5b$(a)"[:11], b"%s%n\\x5b$(a\n"),
                (b"-o full --L", b"-o full --L\n")):
            with self.subTest(label=label):
                self.assert_label("mlabel", label, printed)

    def test_every_single_byte_gives_one_well_formed_line(self):
        self.make_volume("mlabel", b"ABCDEFGHIJK")
        with open(IMAGE, "rb") as file:
            plain = file.read()
        for byte in range(256):
            with open(IMAGE, "wb") as file:
                file.write(plain.replace(b"ABCDEFGHIJK", b"A" + bytes([byte]) + b"CDEFGHIJK"))
            with self.subTest(byte=byte):
                done = self.run_tool(*command_line("mlabel", IMAGE))
                self.assertEqual((done.returncode, done.stderr), (0, b""))
                text = done.stdout.decode("utf-8", "strict")
                self.assertEqual(text.count("\n"), 1)
                self.assertNotRegex(text[:-1], "[\\[\\]\x00-\x1f\x7f-\x9f]")


class Any(LabelTools):
    """vylabel, on whatever filesystem there is."""

    MAKERS = (("ext4", ("mkfs.ext4", "-q", "-F"), "-L", "Größe 5"),
              ("ext2", ("mkfs.ext2", "-q", "-F"), "-L", "old"),
              ("exfat", ("env", "LC_ALL=C.UTF-8", "mkfs.exfat"), "-L", "Ünïcode 😀"),
              ("f2fs", ("mkfs.f2fs", "-q", "-f"), "-l", "flash"),
              ("btrfs", ("mkfs.btrfs", "-q", "-f"), "-L", "x" * 200),
              ("xfs", ("mkfs.xfs", "-q", "-f"), "-L", "big disk"),
              ("udf", ("mkudffs", "--utf8"), "--lvid", "Größe"),
              ("swap", ("mkswap", "-q"), "-L", "swap"))

    def make_any(self, maker, *label):
        with open(IMAGE, "wb") as file:
            file.truncate(320 << 20)
        vyworld.run(*maker, *label, IMAGE)

    def test_labels_of_all_filesystems_are_printed(self):
        for tool in ("mlabel", "ntfsvlabel"):
            self.make_volume(tool, "BACKUP 1")
            self.assert_prints("vylabel", IMAGE, b"BACKUP 1\n")
        for kind, maker, option, label in self.MAKERS:
            program = [word for word in maker if word.startswith("mk")][0]
            if shutil.which(program, path=vyworld.PATH) is None:
                vyworld.log(f"{program} is not installed: no {kind}")
                continue
            with self.subTest(kind):
                self.make_any(maker, option, label)
                self.assert_prints("vylabel", IMAGE, label.encode() + b"\n")

    def test_without_a_label_it_prints_an_empty_line(self):
        self.make_any(("mkfs.ext4", "-q", "-F"))
        self.assert_prints("vylabel", IMAGE, b"\n")
        self.make_volume("mlabel", None)
        self.assert_prints("vylabel", IMAGE, b"\n")

    def test_hostile_labels_are_one_line_that_ends_no_section(self):
        for label, printed in ((b"a]\n[evil]\nvfat", b"a___evil__vfat\n"), (b"[x]\nvfat", b"_x__vfat\n"),
                               (b"\nvfat\n", b"_vfat\n"), (b"a\xe4\xff/..", b"a__/..\n")):
            with self.subTest(label=label):
                self.make_any(("mkfs.ext2", "-q", "-F"), "-L", "PLACEHOLDER-1234")  # has no checksum
                replace_everywhere(IMAGE, b"PLACEHOLDER-1234", label.ljust(16, b"\0"))
                self.assert_prints("vylabel", IMAGE, printed)

    def test_bytes_of_the_code_page_are_letters_on_fat_alone(self):
        self.make_volume("mlabel", "BÜRO".encode("cp850").ljust(11))
        self.assert_prints("vylabel", IMAGE, "BÜRO\n".encode())

    def test_what_is_no_volume_fails(self):
        vyworld.write("/tmp/zeros", "\0" * 100000)
        for node in ("/tmp/zeros", "/tmp/none", "/tmp", "/dev/null"):
            with self.subTest(node):
                self.assert_fails("vylabel", node)


class NoVolume(LabelTools):
    def test_what_is_no_such_volume_fails(self):
        self.make_volume("mlabel", "PHOTOS")
        shutil.copy(IMAGE, "/tmp/fat")
        self.make_volume("ntfsvlabel", "Backup")
        vyworld.write("/tmp/zeros", "\0" * 100000)
        vyworld.write("/tmp/empty", "")
        for tool, node in (("mlabel", IMAGE), ("ntfsvlabel", "/tmp/fat"), ("mlabel", "/tmp/zeros"),
                           ("ntfsvlabel", "/tmp/zeros"), ("mlabel", "/tmp/empty"),
                           ("mlabel", "/tmp/none"), ("ntfsvlabel", "/tmp"),
                           ("mlabel", "/dev/null")):
            with self.subTest(tool=tool, node=node):
                self.assert_fails(tool, node)

    def test_a_volume_that_looks_like_several_has_a_label(self):
        self.make_volume("mlabel", "PHOTOS")
        shutil.copy(IMAGE, "/tmp/fat")
        vyworld.run("mkfs.ext4", "-q", "-F", "-L", "other", IMAGE)
        with open(IMAGE, "r+b") as image, open("/tmp/fat", "rb") as fat:
            image.write(fat.read(1024))  # ext4's superblock lies behind it
            content = fat.read()
            image.seek(4096)
            image.write(content[4096 - 1024:])
        done = self.run_tool("blkid", "-p", "-u", "filesystem", IMAGE)
        self.assertEqual(done.returncode, 8, "it should look like several")
        self.assert_prints("mlabel", IMAGE, b"PHOTOS\n")

    def test_other_command_lines_change_nothing(self):
        self.make_volume("mlabel", "PHOTOS")
        before = content_sum(IMAGE)
        for arguments in (["mlabel", "-i", IMAGE, "-s"], ["mlabel", "-i", IMAGE, "::NEW"],
                          ["mlabel", "-i", IMAGE, "-n", "::"], ["mlabel", "-c", "-i", IMAGE],
                          ["mlabel", "-i", IMAGE, "-N", "12345678"], ["mlabel", "-i", IMAGE],
                          ["mlabel", "-n", "-i", IMAGE], ["mlabel"], ["ntfsvlabel", IMAGE],
                          ["ntfsvlabel", IMAGE, "New"], ["ntfsvlabel", "--help"]):
            with self.subTest(arguments=arguments):
                done = self.run_tool(*arguments)
                self.assertEqual((done.stdout, done.returncode), (b"", 2))
                self.assertRegex(done.stderr.decode(), "^usage: ")
        self.assertEqual(content_sum(IMAGE), before)


class Calls(LabelTools):
    def test_the_device_is_opened_for_reading_and_by_blkid_only(self):
        self.require_strace()
        for tool, label in (("mlabel", "PHOTOS"), ("ntfsvlabel", "Backup")):
            with self.subTest(tool=tool):
                self.make_volume(tool, label)
                loop = LoopDevice(IMAGE)
                self.addCleanup(loop.release)
                environment = {**vyworld.environment(traced=True)}
                done = subprocess.run(
                    ["strace", "-f", "-qq", "-o", CALLS,
                     "-e", "trace=open,openat,execve,write,pwrite64", "-e", "signal=none",
                     *command_line(tool, loop.path)], stdin=subprocess.DEVNULL,
                    capture_output=True, check=False, timeout=LIMIT, env=environment)
                self.assertEqual((done.stdout, done.returncode), (label.encode() + b"\n", 0))
                lines = vyworld.read_lines(CALLS)
                own = lines[0].split()[0]
                about = [line for line in lines if f'"{loop.path}"' in line
                         and "open" in line.split("(")[0]]
                self.assertGreater(len(about), 0)
                for line in about:
                    self.assertNotEqual(line.split()[0], own, line)
                    self.assertRegex(line, r"O_RDONLY")
                    self.assertNotRegex(line, r"O_RDWR|O_WRONLY|O_CREAT|O_TRUNC")


class FakeBlkid(LabelTools):
    NOBODY = 65534

    def fake(self, script):
        """Puts a fake blkid first on the PATH. It is nobody's, and can start no process."""
        os.makedirs(FAKES, exist_ok=True)
        vyworld.write(f"{FAKES}/blkid", f"#!/bin/sh\n{script}\n", 0o755)
        return f"{FAKES}:{vyworld.PATH}"

    def python(self, script):
        """The same, in Python."""
        os.makedirs(FAKES, exist_ok=True)
        vyworld.write(f"{FAKES}/blkid.py", script)
        return self.fake(f"exec {sys.executable} -B {FAKES}/blkid.py")

    def processes_of_nobody(self):
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.stat(f"/proc/{pid}").st_uid == self.NOBODY:
                    found.append(pid)
            except OSError:
                pass
        return found

    def assert_it_is_killed(self):
        self.wait_until("the fake blkid is killed", lambda: not self.processes_of_nobody())

    def check_one_that_hangs(self, path):
        """It is killed: not at once, but before the service gives up."""
        began = time.monotonic()
        self.assert_fails("mlabel", "/dev/null", path)
        took = time.monotonic() - began
        vyworld.log(f"{took:.2f} s")
        self.assertGreater(took, 10)
        self.assertLess(took, ENOUGH)
        self.assert_it_is_killed()

    def test_one_that_hangs_without_a_word_is_killed_in_time(self):
        self.check_one_that_hangs(self.fake("exec sleep 1000"))

    def test_one_that_hangs_behind_the_label_is_killed_in_time(self):
        self.check_one_that_hangs(self.fake("echo LABEL; exec sleep 1000"))

    def test_one_that_hangs_with_its_output_closed_is_killed_in_time(self):
        self.check_one_that_hangs(self.fake("echo LABEL; exec sleep 1000 >&-"))

    def test_one_that_is_deaf_to_signals_is_killed_in_time(self):
        self.check_one_that_hangs(self.fake("trap '' INT TERM HUP; exec sleep 1000"))

    def test_one_that_prints_in_drops_is_killed_in_time(self):
        self.check_one_that_hangs(self.python(
            "import time\nwhile True:\n    print('x', end='', flush=True)\n    time.sleep(0.5)\n"))

    def test_one_that_never_stops_printing_is_killed(self):
        for script in ("exec yes", "exec cat /dev/zero", "exec head -c 9000000 /dev/urandom"):
            with self.subTest(script):
                began = time.monotonic()
                self.assert_fails("ntfsvlabel", "/dev/null", self.fake(script))
                self.assertLess(time.monotonic() - began, ENOUGH)
                self.assert_it_is_killed()

    def test_its_exit_status_counts(self):
        for script in ("exit 2", "echo LABEL; exit 2", "echo LABEL; exit 8", "echo LABEL; exit 1",
                       "echo LABEL; exit 4"):
            with self.subTest(script):
                self.assert_fails("mlabel", "/dev/null", self.fake(script))

    def test_one_that_crashes_has_failed(self):
        done = self.run_tool(*command_line("mlabel", "/dev/null"), path=self.python(
            "import ctypes\nprint('LABEL', flush=True)\nctypes.string_at(0)\n"))
        self.assertEqual((done.stdout, done.stderr, done.returncode),
                         (b"", b"mlabel: /dev/null: blkid failed\n", 1))

    ATTEMPTS = """
import ctypes, os, signal, socket
def attempt(name, what):
    try:
        what()
        print(name, "done", end=";")
    except OSError as error:
        print(name, os.strerror(error.errno), end=";")
def write(path):
    with open(path, "w") as file:
        file.write("x")
attempt("fork", os.fork)
attempt("socket", lambda: socket.socket(socket.AF_UNIX))
attempt("inet", lambda: socket.socket(socket.AF_INET))
attempt("kill", lambda: os.kill(1, 0))
attempt("own", lambda: os.kill(os.getppid(), signal.SIGTERM))
attempt("root", lambda: os.setuid(0))
attempt("write", lambda: write("/tmp/volume.image"))
attempt("unlink", lambda: os.unlink("/tmp/volume.image"))
attempt("secret", lambda: write("/tmp/secret"))
libc = ctypes.CDLL(None, use_errno=True)
libc.syscall(0x40000000 + 41, socket.AF_UNIX, 1, 0)  # socket(2) of the x32 ABI, where the kernel has one
print("x32", os.strerror(ctypes.get_errno()), end=";")
print("mount", libc.mount(b"/tmp", b"/tmp", None, 4096, None), end=";")
status = dict(line.split(":", 1) for line in open("/proc/self/status"))
print(",".join(status[key].strip() for key in ("Uid", "Gid", "Groups", "CapEff", "CapBnd", "NoNewPrivs")).replace(
    "\\t", " "), end=";")
attempt("read", lambda: open("/tmp/secret").read())
"""

    def test_it_can_read_and_nothing_else(self):
        vyworld.write(IMAGE, "volume")
        vyworld.write("/tmp/secret", "", 0o600)  # as device nodes are
        done = self.run_tool(*command_line("vylabel", "/dev/null"), path=self.python(self.ATTEMPTS + "print()\nprint('x')"))
        refused = "Operation not permitted"
        right = "0000000000000004"  # CAP_DAC_READ_SEARCH
        self.assertEqual(done.stdout.decode(), ";".join([
            f"fork {refused}", f"socket {refused}", f"inet {refused}", f"kill {refused}", f"own {refused}",
            f"root {refused}", "write Permission denied", f"unlink {refused}", "secret Permission denied", f"x32 {refused}", "mount -1",
            f"65534 65534 65534 65534,65534 65534 65534 65534,,{right},{right},1", "read done", "\n"]))
        self.assertEqual(vyworld.read(IMAGE), "volume")

    def test_one_that_prints_nothing_means_no_label(self):
        path = self.fake("exit 0")
        done = self.run_tool(*command_line("mlabel", "/dev/null"), path=path)
        self.assertEqual((done.stdout, done.stderr, done.returncode), (b"\n", b"", 0))

    def test_what_it_complains_of_is_not_printed(self):
        path = self.fake("echo complaint >&2; echo LABEL")
        done = self.run_tool(*command_line("mlabel", "/dev/null"), path=path)
        self.assertEqual((done.stdout, done.stderr, done.returncode), (b"LABEL\n", b"", 0))

    def test_without_one_there_is_no_label(self):
        os.makedirs(FAKES, exist_ok=True)
        done = self.run_tool(f"{vyworld.PROGRAMS}/mlabel", "-i", "/dev/null", "-n", path=FAKES)
        self.assertEqual((done.stdout, done.returncode), (b"", 1))
        self.assertEqual(done.stderr, b"mlabel: /dev/null: blkid cannot be run\n")

    def test_output_that_nobody_takes_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run(command_line("mlabel", "/dev/null"), stdin=subprocess.DEVNULL,
                                  stdout=full, stderr=subprocess.DEVNULL, check=False,
                                  timeout=LIMIT,
                                  env={**vyworld.environment(), "PATH": self.fake("echo LABEL")})
        self.assertEqual(done.returncode, 1)


class ThroughTheService(LabelTools):
    def sections(self):
        return [line for line in vyworld.read_lines(SHARE_FILE) if line.startswith("[")]

    def plug_ntfs(self, name, label):
        """Plugs a partition with any label, also one that mkntfs refuses."""
        given = "PLACEHOLDER-AND-SOME-MORE-OF-IT"[:len(label)]
        self.require_filesystem("ntfs")
        made = vyworld.make_image

        def make_image(path, *arguments):
            made(path, *arguments)
            replace_everywhere(path, given.encode("utf-16le"), label.encode("utf-16le"))

        vyworld.make_image = make_image
        try:
            partition = self.make_partition(name, "ntfs", label=given)
        finally:
            vyworld.make_image = made
        with open(f"/tmp/{name}.image", "rb") as image:
            boot = image.read(8192)
        self.plug(partition)
        with open(f"/tmp/{name}.image", "rb") as image:
            self.assertEqual(image.read(8192), boot, "the boot sectors are not as before")
        return partition

    def test_an_ntfs_label_names_the_share(self):
        self.start_daemon()
        self.plug_ntfs("sda1", "Büro 2")
        self.assertEqual(self.sections(), ["[Büro 2(A1)]"])
        self.assertIn("Volume Label=Büro 2\n", vyworld.read(SHARE_FILE))

    def test_a_hostile_ntfs_label_gives_one_section_and_changes_no_boot_sector(self):
        self.start_daemon()
        partition = self.plug_ntfs("sda1", "a]\n[evil]\nPath=/etc")
        self.assertEqual(self.sections(), ["[a___evil__Path=/etc(A1)]"])
        lines = vyworld.read_lines(SHARE_FILE)
        self.assertEqual([line for line in lines if line.startswith("Path=")],
                         [f"Path={partition.directory}"])
        self.assertIn("Volume Label=a___evil__Path=/etc", lines)

    def test_a_blkid_that_hangs_costs_the_name_only(self):
        self.require_filesystem("ntfs")
        vyworld.write(f"{vyworld.PROGRAMS}/blkid", "#!/bin/sh\nexec sleep 1000\n", 0o755)
        self.start_daemon()
        partition = self.make_partition("sda1", "ntfs", label="Backup")
        self.plug(partition)
        self.assertEqual(self.sections(), ["[Drive(A1)]"])

    def test_a_device_node_of_a_partition_will_do(self):
        """The node that the service passes is its own, below its device directory."""
        self.make_volume("mlabel", "PHOTOS")
        loop = LoopDevice(IMAGE)
        self.addCleanup(loop.release)
        node = f"{vyworld.DEVICE_DIR}/sda1"
        os.mknod(node, stat.S_IFBLK | 0o600, loop.device)
        self.assert_prints("mlabel", node, b"PHOTOS\n")
