"""vyhotplugctl beside a real service with real filesystems."""

import contextlib
import fcntl
import json
import os
import pty
import re
import shutil
import signal
import stat
import struct
import subprocess
import termios
import threading

import jsonschema
import vyworld
from vyworld import SystemTest, read, read_lines, write

DONE, FAILED, WRONG_CALL, NO_SERVICE, BUSY, NO_DISK = range(6)
with open(os.path.join(os.path.dirname(vyworld.FOLDER), "..", "docs", "json.schema.json"), encoding="utf-8") as schema:
    SCHEMA = json.load(schema)
SYSFS = "/tmp/sysfs"
RUN = "/tmp/agent"


class CtlTest(SystemTest):
    def setUp(self):
        super().setUp()
        shutil.copy(os.path.join(os.environ["VY_BIN"], "vyhotplugctl"), vyworld.PROGRAMS)
        for folder in (SYSFS, SYSFS + "/block", RUN):
            os.mkdir(folder)
        pdbedit = shutil.which("pdbedit", path=vyworld.PATH)
        if pdbedit is not None:  # it would tell of users without a Samba password
            vyworld.run("mount", "--bind", "/bin/false", pdbedit)

    def ctl(self, *arguments, **options):
        return self.tool("vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, "--run", RUN, *arguments,
                         **options)

    def ask(self, *arguments, status=DONE, **options):
        """What it prints with --json."""
        done = self.ctl(*arguments, "--json", **options)
        self.assertEqual((done.err, done.status), ("", status), done.out)
        return self.valid(done.out)

    def valid(self, text):
        """One line of JSON, held against the schema."""
        self.assertTrue(text.endswith("\n") and text.count("\n") == 1, text)
        told = json.loads(text)
        jsonschema.validate(told, SCHEMA)
        for problem in told.get("problems", []):
            self.assertEqual(re.sub(r"\$(\d)", lambda place: problem["arguments"][int(place[1])], problem["form"]), problem["text"])
        return told

    def assert_ctl(self, *arguments, status=DONE, out=None, err="", **options):
        done = self.ctl(*arguments, **options)
        self.assertEqual((done.status, done.err), (status, err), done.out)
        if out is not None:
            self.assertEqual(done.out, out)
        return done

    def item(self, name):
        found = [item for item in self.ask("status", "--all")["items"] if name in (item["name"], item["identity"])]
        self.assertEqual(len(found), 1, name)
        return found[0]


class Status(CtlTest):
    def test_a_table_of_what_is_plugged(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"), self.make_partition("sdb2"))
        lines = self.assert_ctl("status").out.splitlines()
        self.assertEqual(lines[0].split(), "PARTITION SHARE STATE SIZE USED FILESYSTEM MODE WHO".split())
        self.assertEqual([line.split()[:3] for line in lines[1:3]],
                         [["sda1", "Drive(A1)", "shared"], ["sdb2", "Drive(B2)", "shared"]])
        self.assertEqual(self.ctl().out.splitlines(), lines)

    def test_it_writes_nothing_to_the_systems_log(self):
        self.write_config(mountflags="nodev,nothing")
        self.assert_ctl(status=NO_SERVICE)
        self.start_daemon()  # reads the same file, and logs that a word is none
        self.assertEqual(len(self.log.find("config_file(#)Error - Unknown Mount Flag(nothing)")), 1)

    def test_json_of_what_is_plugged(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        told = self.ask("status")
        self.assertEqual((told["call"], told["version"], told["service_runs"]), ("status", 1, True))
        item = told["items"][0]
        self.assertEqual((item["name"], item["identity"], item["state"], item["share"], item["directory"]),
                         ("sda1", stick.identifier, "shared", "Drive(A1)", stick.directory))
        room = os.statvfs(stick.directory)
        self.assertEqual(item["size_bytes"], room.f_frsize * room.f_blocks)
        self.assertEqual(item["free_bytes"], room.f_frsize * room.f_bavail)
        self.assertEqual([item["device"][key] for key in ("vendor", "product", "serial", "speed_mbit_per_s")],
                         ["Acme", "FlashKey", "SERA", 480])

    def test_nothing_is_plugged(self):
        self.start_daemon()
        told = self.assert_ctl("status").out.splitlines()
        self.assertEqual([line for line in told if not line.startswith("! ")], ["Nothing is plugged."])

    def test_no_service(self):
        done = self.ctl("status")
        self.assertEqual(done.status, NO_SERVICE)
        self.assertIn("! the service is not running\n", done.out)

    def test_everybody_may_look(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.assertEqual(self.ask("status", user=65534)["items"][0]["state"], "shared")

    def test_states_of_a_partition(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        count = self.service.count()
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.wait_for_refresh(count + 2)
        self.wait_until("it is unmounted", lambda: self.item("sda1")["state"] == "unmounted")
        self.unplug(stick)
        self.assertEqual(self.ask("status", "--all")["items"], [])

    def test_who_holds_a_file(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        with open(stick.directory + "/readme.txt", encoding="utf-8"):
            held = self.ask("who", "sda1")["holders"]
            self.assertEqual([(holder["pid"], holder["file"], holder["use"]) for holder in held],
                             [(os.getpid(), stick.directory + "/readme.txt", "file")])
        self.assertEqual(self.ask("who", "sda1")["holders"], [])

    def test_hostile_texts(self):
        """Of a medium, a device and a settings file by hand: as JSON and on a terminal."""
        hostile = "\x1b[31m\u202eevil\udcff\u200b\u0085" + "x" * 10000
        write(vyworld.DEVICE_FILE, "[1:2:a:3]\nComment=\x1b]0;own\x07\n")
        write(vyworld.SHARE_FILE, f"[{hostile}]\nIdentifier=1:2:{hostile}:3\nPath={vyworld.MOUNT_DIR}/sda1\n"
                                  f"Manufactuare={hostile}\nVolume Label={hostile}\n")
        for arguments in (("status", "--all"), ("show", "sda1"), ("who", "sda1"), ("check",)):
            done = self.ctl(*arguments, "--json")
            told = self.valid(done.out)
            self.assertFalse(re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f]", done.out), arguments)
            shown = self.ctl(*arguments)
            self.assertFalse(re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f\u202e\u200b\udcff]", shown.out + shown.err),
                             arguments)
        item = self.ask("show", "sda1")["item"]
        self.assertTrue(item["share"].startswith("\x1b[31m\u202eevil\ufffd\u200b\u0085xxx"))

    def test_a_device_file_of_ten_thousand_sections(self):
        body = "Comment=" + "c" * 900 + "\n"
        write(vyworld.DEVICE_FILE, "".join(f"[1234:00ab:S{n}:1]\nShare Name=N{n}\n{body}" for n in range(10000)) +
              "[1234:00ab:S7:1]\nShare Name=last\n\0\0")
        self.assertEqual(len(self.ask("status", status=NO_SERVICE)["items"]), 0)
        self.assertEqual(self.ask("show", "1234:00ab:S9999:1")["item"]["settings"]["share_name"], "N9999")


class Users(CtlTest):
    """Whom shares can be for."""

    PEOPLE = "root:x:0:0::/:/bin/sh\ndaemon:x:1:1::/:/bin/sh\nanna:x:1000:100:Anna \u00c4,room 7,1,2:/:/bin/sh\n" \
             "ben:x:59999:100::/:/bin/sh\nnobody:x:65534:65534::/:/bin/sh\n"

    def setUp(self):
        super().setUp()
        write("/etc/passwd", self.PEOPLE)

    def samba_tells(self, *lines):
        """Has pdbedit print these lines."""
        write("/tmp/pdbedit", "#!/bin/sh\ncat <<END\n" + "".join(line + "\n" for line in lines) + "END\n", 0o755)
        vyworld.run("mount", "--bind", "/tmp/pdbedit", shutil.which("pdbedit", path=vyworld.PATH) or self.skipTest("no Samba"))

    def test_people_by_their_numbers(self):
        self.assertEqual(self.ask("users")["users"], [
            {"uid": 1000, "name": "anna", "full_name": "Anna \u00c4", "samba_password": None, "ksmbd_password": None},
            {"uid": 59999, "name": "ben", "full_name": None, "samba_password": None, "ksmbd_password": None}])
        self.assert_ctl("users", out="anna  1000\nben  59999\n")

    def test_who_has_a_samba_password(self):
        self.samba_tells("anna:1000:Anna", "daemon:1:")
        self.assertEqual([(user["name"], user["samba_password"]) for user in self.ask("users")["users"]],
                         [("daemon", True), ("anna", True), ("ben", False)])
        self.assert_ctl("users", out="daemon  1  Samba password\nanna  1000  Samba password\nben  59999  no Samba password\n")

    def test_others_than_root_are_not_told_who_has_one(self):
        self.samba_tells("anna:1000:Anna")
        self.assertEqual([(user["name"], user["samba_password"]) for user in self.ask("users", user=1000)["users"]],
                         [("anna", None), ("ben", None)])

    def test_who_has_a_ksmbd_password(self):
        os.mkdir("/etc/ksmbd")
        write("/etc/ksmbd/ksmbdpwd.db", "daemon:aGFzaA==\nanna:aGFzaA==\n", 0o600)
        self.assertEqual([(user["name"], user["samba_password"], user["ksmbd_password"]) for user in self.ask("users")["users"]],
                         [("daemon", None, True), ("anna", None, True), ("ben", None, False)])
        self.assert_ctl("users", out="daemon  1  ksmbd password\nanna  1000  ksmbd password\nben  59999  no ksmbd password\n")
        self.assertEqual({user["ksmbd_password"] for user in self.ask("users", user=1000)["users"]}, {None})


class Terminal(CtlTest):
    def on_terminal(self, columns, *arguments, **environment):
        """What is printed on a terminal of so many columns."""
        if not os.path.exists("/dev/pts/ptmx"):
            os.makedirs("/dev/pts", exist_ok=True)
            vyworld.run("mount", "-t", "devpts", "-o", "newinstance,ptmxmode=666", "none", "/dev/pts")
            with contextlib.suppress(FileNotFoundError):
                os.unlink("/dev/ptmx")
            os.symlink("pts/ptmx", "/dev/ptmx")
        parent, child = pty.openpty()
        fcntl.ioctl(child, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        done = subprocess.run([vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, "--run", RUN,
                               *arguments], stdin=subprocess.DEVNULL, stdout=child, stderr=child, check=False,
                              env={**vyworld.environment(), "TERM": "xterm", "LC_ALL": "C.UTF-8", **environment})
        os.close(child)
        text = b""
        with contextlib.suppress(OSError):
            while part := os.read(parent, 65536):
                text += part
        os.close(parent)
        self.assertEqual(done.returncode, DONE)
        return text.decode()

    def test_narrow_and_wide(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        with open(vyworld.SHARE_FILE, "a", encoding="utf-8") as file:  # a problem that is told of
            for name, part in (("One", "sdy1"), ("ONE", "sdz1")):
                file.write(f"[{name}]\nIdentifier=1:2:{part}:1\nPath={vyworld.MOUNT_DIR}/{part}\n")
        for columns in (20, 40, 80, 200):
            text = re.sub("\033\\[[0-9;]*m", "", self.on_terminal(columns, "status"))
            self.assertLessEqual(max(map(len, text.split("\r\n"))), columns, text)
            self.assertIn("sda1", text)
            self.assertIn("shared", text)
            self.assertIn("\n! sdy1 and sdz1 ", text)
        self.assertIn("░", self.on_terminal(100, "status"))
        self.assertNotIn("░", self.ctl("status").out)
        self.assertIn(" .......... ", self.on_terminal(100, "status", LC_ALL="C"))

    def test_colours(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.assertIn("\033[32m", self.on_terminal(80, "status"))
        self.assertNotIn("\033", self.on_terminal(80, "status", NO_COLOR="1"))
        self.assertNotIn("\033", self.ctl("status").out)


class Requests(CtlTest):
    def test_unmount_and_mount(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assert_ctl("unmount", "sda1", out="sda1 is unmounted\n")
        self.assertEqual(vyworld.mounts(), [])
        self.assert_ctl("unmount", "sda1", out="sda1 is not mounted\n")
        stick.lay_node()
        self.assert_ctl("mount", "Drive(A1)", out=f"sda1 is mounted: {stick.directory}\n")
        self.assert_ctl("mount", "sda1", out=f"sda1 is mounted already: {stick.directory}\n")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])

    def test_a_busy_one_tells_who_holds_it(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        with open(stick.directory + "/readme.txt", encoding="utf-8"):
            done = self.ctl("unmount", "sda1")
            self.assertEqual(done.status, BUSY)
            self.assertIn(f"(process {os.getpid()} of root, file) {stick.directory}/readme.txt\n", done.err)
            self.assertEqual(vyworld.mounted_names(), ["sda1"])
            done = self.ctl("unmount", "sda1", "--force")
            self.assertEqual((done.status, done.out), (DONE, "sda1 is unmounted\n"))
        self.assertEqual(vyworld.mounts(), [])

    def test_it_waits_until_it_is_free(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        with subprocess.Popen(["sleep", "3"], cwd=stick.directory):
            self.assertEqual(self.ctl("unmount", "sda1", "--wait", "1").status, BUSY)
            self.assertEqual(self.ctl("unmount", "sda1", "--wait", "60").out, "sda1 is unmounted\n")

    def test_what_is_not_there(self):
        self.start_daemon()
        for call in ("unmount", "mount", "eject", "show", "who"):
            done = self.ctl(call, "sdq1")
            self.assertEqual((done.status, done.out), (NO_DISK, ""), call)
            self.assertIn("nothing here is called sdq1", done.err)

    def test_without_a_service(self):
        for call in ("unmount", "mount", "eject"):
            self.assert_ctl(call, "sda1", status=NO_SERVICE, err="vyhotplugctl: the service is not running\n")

    def test_only_root(self):
        for call in ("unmount", "mount", "eject"):
            self.assert_ctl(call, "sda1", status=FAILED, user=65534, err=f"vyhotplugctl: only root can {call}; try: "
                            f"sudo vyhotplugctl {call} ...\n")


class Eject(CtlTest):
    @contextlib.contextmanager
    def nodes_laid(self, partition):
        """The service takes the node away when it unmounts; meanwhile it comes again."""
        over = threading.Event()

        def lay():
            while not over.wait(0.01):
                partition.lay_node()

        layer = threading.Thread(target=lay)
        layer.start()
        try:
            yield
        finally:
            over.set()
            layer.join()

    def test_all_partitions_of_a_disk(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"), self.make_partition("sda2"), self.make_partition("sdb1"))
        self.assert_ctl("eject", "sda", out="sda is unmounted: safe to pull\n")
        self.assertEqual(vyworld.mounted_names(), ["sdb1"])

    def test_a_busy_disk_stays_whole(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first, second)
        with open(second.directory + "/readme.txt", encoding="utf-8"):
            done = self.ctl("eject", "sda1")
            self.assertEqual((done.status, done.out), (BUSY, ""))
            self.assertIn("sda2 is busy:\n", done.err)
        self.assertEqual(vyworld.mounted_names(), ["sda1", "sda2"])

    def show_in_sysfs(self, disk, *partitions, switches=()):
        """The disk as sysfs shows it, on a USB device of its own, which has these of "delete" and "remove". What is flushed
        and stopped goes by the disk's numbers: those of a loop device."""
        loop = partitions[0].loop.device
        usb, folder = f"{SYSFS}/devices/usb-{disk}", f"{SYSFS}/block/{disk}"
        os.makedirs(usb + "/host")
        os.mkdir(folder)
        write(usb + "/idVendor", "1234\n")
        os.symlink(usb + "/host", folder + "/device")
        for switch, path in (("delete", "/host/delete"), ("remove", "/remove")):
            if switch in switches:
                write(usb + path, "")
        write(folder + "/dev", f"{os.major(loop)}:{os.minor(loop)}\n")
        for partition in partitions:
            part = f"{folder}/{partition.name}"
            os.makedirs(part + "/holders")
            write(part + "/dev", f"8:{16 * (ord(disk[-1]) - ord('a')) + int(partition.name[-1])}\n")

    def test_only_what_is_known_is_told(self):
        """The kernel may have forgotten a disk whose port stays on."""
        self.start_daemon()
        told = {"sda": ((), ""), "sdb": (("delete",), " and gone from the machine"),
                "sdc": (("delete", "remove"), " and switched off")}
        for disk, (switches, _) in told.items():
            partition = self.make_partition(disk + "1")
            self.plug(partition)
            self.show_in_sysfs(disk, partition, switches=switches)
        for disk, (switches, words) in told.items():
            self.assert_ctl("eject", disk, out=f"{disk} is unmounted{words}: safe to pull\n")
            for switch, path in (("delete", "/host/delete"), ("remove", "/remove")):
                if switch in switches:
                    self.assertEqual(read(f"{SYSFS}/devices/usb-{disk}{path}"), "1")

    def test_a_disk_that_is_mounted_elsewhere_stays_whole(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first, second)
        os.mkdir("/tmp/else\x1bwhere")
        vyworld.run("mount", "--bind", second.directory, "/tmp/else\x1bwhere")
        with self.nodes_laid(first), self.nodes_laid(second):
            self.assert_ctl("eject", "sda", status=BUSY, out="",
                            err="sda2 is mounted elsewhere, by somebody else: /tmp/else\\x1bwhere\nsda stays mounted\n")
        vyworld.run("umount", "/tmp/else\x1bwhere")
        self.assertEqual(sorted(vyworld.mounted_names()), ["sda1", "sda2"])
        self.assert_ctl("eject", "sda", out="sda is unmounted: safe to pull\n")

    def test_a_partition_that_somebody_else_has_mounted_keeps_the_disk(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first)
        self.show_in_sysfs("sda", first, second)
        write(f"{SYSFS}/block/sda/sda2/dev", f"{os.major(second.loop.device)}:{os.minor(second.loop.device)}\n")
        os.mkdir("/tmp/by-hand")
        os.mknod("/tmp/sda2", 0o600 | stat.S_IFBLK, second.loop.device)
        vyworld.run("mount", "/tmp/sda2", "/tmp/by-hand")
        self.assert_ctl("eject", "sda", status=BUSY, out="", err="sda2 is mounted elsewhere, by somebody else: /tmp/by-hand\n")
        self.assertEqual(sorted(vyworld.mounted_names()), ["sda1"])
        vyworld.run("umount", "/tmp/by-hand")

    @contextlib.contextmanager
    def container(self, *words):
        """A process with mounts of its own, beside one that shares them. Gives its number."""
        script = " && ".join([*words, "(sleep 1000 & sleep 1000 & echo ready; wait)"])
        with subprocess.Popen(["unshare", "-m", "--propagation", "private", "sh", "-c", script], stdout=subprocess.PIPE,
                              start_new_session=True) as process:
            try:
                self.assertEqual(process.stdout.readline(), b"ready\n")
                yield process.pid
            finally:
                os.killpg(process.pid, signal.SIGKILL)

    def test_a_disk_that_a_container_has_mounted_stays_whole(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first, second)
        os.mkdir("/tmp/volume")
        with self.container(f"mount --bind {second.directory} /tmp/volume") as pid, self.nodes_laid(first), self.nodes_laid(second):
            self.assert_ctl("eject", "sda", status=BUSY, out="",
                            err=f"sda2 is mounted elsewhere, by somebody else: /tmp/volume of process {pid} (sh)\nsda stays mounted\n")
        self.assertEqual(sorted(vyworld.mounted_names()), ["sda1", "sda2"])
        self.assert_ctl("eject", "sda", out="sda is unmounted: safe to pull\n")

    def test_a_partition_that_a_container_has_mounted_keeps_the_disk(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first)
        self.show_in_sysfs("sda", first, second)
        write(f"{SYSFS}/block/sda/sda2/dev", f"{os.major(second.loop.device)}:{os.minor(second.loop.device)}\n")
        os.mkdir("/tmp/else\x1bwhere")
        os.mknod("/tmp/sda2", 0o600 | stat.S_IFBLK, second.loop.device)
        with self.container(f"umount {first.directory}", "mount /tmp/sda2 /tmp/else*where") as pid:
            self.assert_ctl("eject", "sda", status=BUSY, out="",
                            err=f"sda2 is mounted elsewhere, by somebody else: /tmp/else\\x1bwhere of process {pid} (sh)\n")
            self.assertEqual(sorted(vyworld.mounted_names()), ["sda1"])

    def test_a_mount_that_follows_the_services_keeps_nobody(self):
        """As in a jail that shows the service's directory."""
        self.start_daemon()
        stick = self.make_partition("sda1")
        above, jail = os.path.dirname(stick.directory), "/tmp/jail"
        os.makedirs(above, exist_ok=True)
        os.mkdir(jail)
        vyworld.run("mount", "--bind", above, above)
        vyworld.run("mount", "--make-shared", above)
        vyworld.run("mount", "--bind", above, jail)
        self.plug(stick)
        self.assertTrue(os.path.ismount(jail + "/sda1"))
        self.assert_ctl("eject", "sda", out="sda is unmounted: safe to pull\n")
        self.assertFalse(os.path.ismount(jail + "/sda1"))
        vyworld.run("umount", jail)
        vyworld.run("umount", above)

    def test_a_disk_that_something_else_is_made_of_stays_whole(self):
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first)
        self.show_in_sysfs("sda", first, second)
        os.mkdir(f"{SYSFS}/block/sda/sda2/holders/dm-0")
        self.assert_ctl("eject", "sda", status=BUSY, out="",
                        err="sda2 is part of another device: LVM, RAID or encryption\n")
        os.rmdir(f"{SYSFS}/block/sda/sda2/holders/dm-0")
        os.mknod("/tmp/swap area", 0o600 | stat.S_IFBLK, os.makedev(8, 2))
        write("/tmp/swaps", "Filename Type Size Used Priority\n/tmp/swap\\040area partition 1 0 -2\n")
        vyworld.run("mount", "--bind", "/tmp/swaps", "/proc/swaps")
        self.assert_ctl("eject", "sda", status=BUSY, out="", err="sda2 is a swap area in use\n")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])

    def test_a_disk_that_only_the_kernel_holds_stays_whole(self):
        """Nobody is to be seen, and unmounting fails: the first partition is mounted again."""
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sda2")
        self.plug(first, second)
        vyworld.run("mount", "-t", "tmpfs", "none", second.directory + "/lost+found")
        with self.nodes_laid(first):
            done = self.ctl("eject", "sda")
        self.assertEqual(done.status, BUSY, done.err)
        self.assertIn("sda stays mounted\n", done.err)
        self.assertEqual(sorted(vyworld.mounted_names()), ["lost+found", "sda1", "sda2"])
        vyworld.run("umount", second.directory + "/lost+found")


def sections(text):
    """A device file's sections as they stand, by name."""
    parts = re.split(r"(?m)^\[(.*)\]\n", text)
    return dict(zip(parts[1::2], parts[2::2]))


class Settings(CtlTest):
    def plug_one(self, **items):
        self.start_daemon()
        stick = self.make_partition("sda1", **items)
        self.plug(stick)
        return stick

    def held(self, partition):
        return self.item(partition.identifier)["settings"]

    def test_a_share_gets_a_name(self):
        stick = self.plug_one()
        self.assert_ctl("set", "sda1", "share=Music", "comment=Living room", out=f"{stick.identifier} is set\n")
        lines = sections(read(vyworld.DEVICE_FILE))[stick.identifier].splitlines()
        self.assertEqual(lines[:2], ["Share Name=Music", "Comment=Living room"])
        self.wait_until("it is shared so", lambda: self.item("sda1")["share"] == "Music")
        self.assert_ctl("unset", "Music", "comment", out=f"{stick.identifier} is set\n")
        self.assertEqual((self.held(stick)["share_name"], self.held(stick)["comment"]), ("Music", None))

    def test_every_setting(self):
        stick = self.plug_one()
        self.assert_ctl("set", "sda1", "share=Äpfel", "read-only=yes", "guest=on", "hide-from-guests=1", "sync=enable",
                        "administrator=hide", "full=root,1234", "readers=daemon", "blocked=@bin", "hidden=sys",
                        err="vyhotplugctl: note: full: nobody has the number 1234\n")
        held = self.held(stick)
        self.assertEqual({key: value for key, value in held.items() if not key.endswith("users")},
                         {"share_name": "Äpfel", "comment": None, "path": None, "read_only": True, "guest": True,
                          "hide_from_guests": True, "sync": True, "administrator": "hide"})
        self.assertEqual([[user["uid"] for user in held[key]] for key in
                          ("full_users", "reading_users", "blocked_users", "hidden_users")], [[0, 1234], [1], [2], [3]])
        self.assert_ctl("forget", "sda1")
        self.assertEqual(self.held(stick), {
            "share_name": None, "comment": None, "path": None, "read_only": False, "guest": False,
            "hide_from_guests": False, "sync": False, "administrator": "full", "full_users": [], "reading_users": [],
            "blocked_users": [], "hidden_users": []})

    def test_a_strict_service_takes_them(self):
        self.write_config(strict="enable")
        stick = self.plug_one()
        self.assert_ctl("set", "sda1", "share=Music")
        self.assert_ctl("set", "sda1", "comment=twice")
        self.assertEqual((self.held(stick)["share_name"], self.held(stick)["comment"]), ("Music", "twice"))
        self.assert_ctl("unmount", "Music", out="sda1 is unmounted\n")

    def test_users_without_a_samba_password_are_told_of(self):
        self.plug_one()
        vyworld.run("mount", "--bind", "/bin/true", shutil.which("pdbedit", path=vyworld.PATH) or self.skipTest("no Samba"))
        self.assert_ctl("set", "sda1", "full=daemon", err="vyhotplugctl: note: full: daemon has no Samba password; "
                        "smbpasswd -a daemon\n")
        self.assert_ctl("set", "sda1", "blocked=daemon")

    def test_what_does_not_fit_is_refused(self):
        self.plug_one()
        before = read(vyworld.DEVICE_FILE)
        for change, words in (("share=" + "ä" * 20, 'has 40 bytes, and 34 are kept; this fits: "' + "ä" * 17 + '"'),
                              ("share=a\nb", "holds a control character"), ("share=[a]", "holds a bracket"),
                              ("share= a", "begins or ends with a blank"), ("comment=" + "c" * 64, "has 64 bytes"),
                              ("full=nobody-of-this-name", "no such user: nobody-of-this-name"),
                              ("readers=@no-such-group", "no such group: no-such-group"),
                              ("guest=perhaps", "is yes or no"), ("administrator=king", "is full, read-only,"),
                              ("path=relative", "must begin with /")):
            done = self.ctl("set", "sda1", "read-only=yes", change)
            self.assertEqual(done.status, FAILED, change)
            self.assertIn(words, done.err)
        for change in ("colour=red", "share"):
            self.assertEqual(self.ctl("set", "sda1", change).status, WRONG_CALL)
        self.assertIn(": " + 99 * "c" + "~\n", self.ctl("set", "sda1", 101 * "c" + "=red").err)
        self.assertEqual(read(vyworld.DEVICE_FILE), before)

    def test_a_list_that_would_come_out_empty_is_refused(self):
        """It would let everybody in."""
        self.plug_one()
        write("/etc/group", read("/etc/group") + "choir:x:7001:nobody-of-this-name\n")
        write("/etc/passwd", read("/etc/passwd") + "far:x:3000000000:100::/:/bin/sh\n")
        before = read(vyworld.DEVICE_FILE)
        for change, words in (("full=@choir", "full: nobody is in the group: choir\n"),
                              ("readers=@choir", "readers: nobody is in the group: choir\n"),
                              ("full=far", "full: has a number beyond 2147483647, which the service does not take: 3000000000\n"),
                              ("full=3000000000", "full: no such user: 3000000000\n")):
            self.assert_ctl("set", "sda1", change, status=FAILED, out="", err="vyhotplugctl: " + words)
        self.assertEqual(read(vyworld.DEVICE_FILE), before)

    def test_no_name_is_used_twice(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"), self.make_partition("sdb1"))
        self.assert_ctl("set", "sda1", "share=Music")
        done = self.ctl("set", "sdb1", "share=MUSIC")
        self.assertEqual(done.status, FAILED)
        self.assertIn("another share has that name, of sda1", done.err)
        self.assert_ctl("set", "sda1", "share=MUSIC")

    def test_a_disk_that_is_not_plugged(self):
        stick = self.plug_one()
        self.assert_ctl("set", "sda1", "share=Music")
        self.unplug(stick)
        self.assertEqual(self.item(stick.identifier)["state"], "absent")
        self.assert_ctl("set", "Music", "comment=away")
        self.assertEqual(self.held(stick)["comment"], "away")
        self.assert_ctl("set", "0bda:8189:0042:2", "share=New")
        self.assertIn("[0bda:8189:0042:2]\nShare Name=New\n", read(vyworld.DEVICE_FILE))
        self.assert_ctl("forget", "Music", out=f"{stick.identifier} is forgotten\n")
        self.assertNotIn(stick.identifier, read(vyworld.DEVICE_FILE))

    def test_a_directory_of_the_machine(self):
        self.plug_one()
        os.mkdir("/tmp/photos")
        self.assert_ctl("set", "disk:photos", "share=Photos", "path=/tmp/photos")
        self.wait_until("it is shared", lambda: self.item("disk:photos")["state"] == "directory")
        self.assert_ctl("who", "Photos", out="Nobody holds disk:photos.\n")
        with open("/tmp/photos/beach.jpg", "w", encoding="utf-8"):
            for call in ("who", "show"):
                held = self.ask(call, "Photos")["holders"]
                self.assertEqual([(holder["pid"], holder["file"], holder["use"]) for holder in held],
                                 [(os.getpid(), "/tmp/photos/beach.jpg", "file")])
        self.assert_ctl("forget", "Photos")
        self.wait_until("it is not shared", lambda: "Photos" not in read(vyworld.SHARE_FILE))

    def test_other_sections_stay_byte_for_byte(self):
        stick = self.plug_one()
        with self.stopped():
            file = read(vyworld.DEVICE_FILE)
            others = "# mine\n[away:1]\r\n share  NAME = Away ; too\nnonsense\n[]\n[open\n[a]b]\nx=\x00y\n"
            write(vyworld.DEVICE_FILE, others + file)
            ctl = self.start_ctl("set", "sda1", "share=Music")
            self.wait_until("it is written", lambda: "Music" in read(vyworld.DEVICE_FILE))
            written = read(vyworld.DEVICE_FILE)
            self.assertTrue(written.startswith(others + f"[{stick.identifier}]\n"), written)
        self.assertEqual(ctl.wait(vyworld.LIMIT), DONE)

    def start_ctl(self, *arguments):
        return subprocess.Popen([vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, *arguments],
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                env=vyworld.environment())

    def test_a_change_that_a_refresh_overwrites_is_made_again(self):
        """What a service writes that had read before the change."""
        stick = self.plug_one()
        stale = read(vyworld.DEVICE_FILE)
        with self.stopped():
            ctl = self.start_ctl("set", "sda1", "share=Music")
            self.wait_until("it is written", lambda: "Music" in read(vyworld.DEVICE_FILE))
            write(vyworld.DEVICE_FILE + ".stale", stale)
            os.rename(vyworld.DEVICE_FILE + ".stale", vyworld.DEVICE_FILE)
            self.wait_until("it is written again", lambda: "Music" in read(vyworld.DEVICE_FILE))
        self.assertEqual(ctl.wait(vyworld.LIMIT), DONE)
        self.assertEqual(self.held(stick)["share_name"], "Music")

    def test_what_the_service_writes_in_between_stays(self):
        """Between the reading of the old file and the moment in which the new one takes its place."""
        self.require_strace()
        stick = self.plug_one()
        other = self.make_partition("sdb1")
        command = ["strace", "-qq", "-o", "/dev/null", "-e", "inject=renameat2:delay_enter=8000000:when=1",
                   vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, "set", "sda1", "share=Music"]
        with subprocess.Popen(command, stdout=subprocess.DEVNULL, env=vyworld.environment(traced=True)) as ctl:
            self.wait_until("the copy is made", lambda: any(".ctl-" in name for name in os.listdir("/tmp")))
            self.plug(other)
            self.assertIn(other.identifier, read(vyworld.DEVICE_FILE))
            self.assertNotIn("Music", read(vyworld.DEVICE_FILE))
            self.assertEqual(ctl.wait(vyworld.LIMIT), DONE)
        held = sections(read(vyworld.DEVICE_FILE))
        self.assertIn("Share Name=Music\n", held[stick.identifier])
        self.assertIn(other.identifier, held)
        self.assertIn(f"Path={other.directory}\n", read(vyworld.SHARE_FILE))

    def test_a_service_that_ends_before_it_is_told(self):
        self.require_strace()
        self.plug_one()
        command = ["strace", "-qq", "-o", "/dev/null", "-e", "inject=renameat2:delay_exit=4000000:when=1",
                   vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, "set", "sda1", "share=Music"]
        with subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                              env=vyworld.environment(traced=True)) as ctl:
            self.wait_until("it is written", lambda: "Music" in read(vyworld.DEVICE_FILE))
            self.daemon.signal(signal.SIGKILL)
            self.daemon.process.wait()
            self.assertIn(b"counts from its next start", ctl.stderr.read())
            self.assertEqual(ctl.wait(vyworld.LIMIT), NO_SERVICE)

    def test_a_service_that_ends_meanwhile(self):
        self.plug_one()
        self.daemon.signal(signal.SIGSTOP)
        ctl = self.start_ctl("set", "sda1", "share=Music")
        self.wait_until("it is written", lambda: "Music" in read(vyworld.DEVICE_FILE))
        self.daemon.signal(signal.SIGKILL)
        self.daemon.signal(signal.SIGCONT)
        self.daemon.process.wait()
        self.assertEqual(ctl.wait(vyworld.LIMIT), NO_SERVICE)
        self.assertIn(b"counts from its next start", ctl.stderr.read())
        self.start_daemon()
        self.wait_until("it counts", lambda: "ctlchange" not in read(vyworld.DEVICE_FILE))
        self.assertIn("Share Name=Music\n", read(vyworld.DEVICE_FILE))

    def small_place(self, options):
        """The device file on a filesystem of 128 kB, and not the service's temporary file."""
        os.mkdir("/tmp/small")
        vyworld.run("mount", "-t", "tmpfs", "-o", "size=128k", "none", "/tmp/small")
        self.write_config(deviceconfigpath="/tmp/small/devices")
        self.start_daemon()
        write("/tmp/small/devices", "[1:2:a:3]\nComment=old\n")
        if options != "full":
            vyworld.run("mount", "-o", f"remount,{options}", "/tmp/small")
            return
        with contextlib.suppress(OSError), open("/tmp/small/filler", "wb", buffering=0) as filler:
            while True:
                filler.write(b"x" * 4096)

    def test_no_room(self):
        for options, words in (("full", "No space left on device"), ("ro", "Read-only file system")):
            with self.subTest(options):
                if options == "ro":
                    self.stop_daemon()
                    vyworld.run("umount", "/tmp/small")
                    os.rmdir("/tmp/small")
                self.small_place(options)
                done = self.ctl("set", "1:2:a:3", "comment=new", "--wait", "3")
                self.assertEqual((done.status, done.out), (FAILED, ""))
                self.assertIn(words, done.err)
                self.assertEqual(read("/tmp/small/devices"), "[1:2:a:3]\nComment=old\n")
                self.assertEqual([name for name in os.listdir("/tmp/small") if "ctl" in name], [])

    def test_a_hundred_at_once_beside_plug_and_pull(self):
        self.start_daemon()
        sticks = [self.make_partition(f"sd{letter}1", SID=f"S{letter}") for letter in "abcd"]
        self.plug(*sticks[:2])
        identities = [f"1234:00ab:N{number}:1" for number in range(96)] + [stick.identifier for stick in sticks]
        running = [self.start_ctl("set", identity, f"share=Share {number}", "--wait", "150")
                   for number, identity in enumerate(identities)]
        for _ in range(3):
            self.plug(*sticks[2:])
            self.unplug(*sticks[2:])
            for stick in sticks[2:]:
                stick.lay_node()
        for ctl in running:
            ctl.wait(vyworld.LIMIT * 2)
        failed = [ctl.stderr.read() for ctl in running if ctl.returncode != DONE]
        self.assertEqual(failed, [])
        held = {name: re.search("(?m)^Share Name=(.*)", body)[1]
                for name, body in sections(read(vyworld.DEVICE_FILE)).items()}
        self.assertEqual(held, {identity: f"Share {number}" for number, identity in enumerate(identities)})

    def test_a_service_of_another_configuration(self):
        """Nothing is changed of a device file that it does not read."""
        stick = self.plug_one()
        write("/tmp/other-devices", "[1:2:a:3]\nComment=old\n")
        other = read(vyworld.CONFIG).replace(vyworld.DEVICE_FILE, "/tmp/other-devices")
        self.assertIn("/tmp/other-devices", other)
        write("/tmp/other.conf", other)
        refreshes = self.service.count()
        for arguments in (("set", "1:2:a:3", "comment=new"), ("unset", "1:2:a:3", "comment"), ("forget", "1:2:a:3")):
            done = self.tool("vyhotplugctl", "-f", "/tmp/other.conf", "--sysfs", SYSFS, *arguments)
            self.assertEqual((done.status, done.out, done.err), (
                FAILED, "", "vyhotplugctl: the service runs with another configuration, nothing is changed; "
                            f"use -f {vyworld.CONFIG}\n"))
        self.assertEqual(read("/tmp/other-devices"), "[1:2:a:3]\nComment=old\n")
        self.assertEqual(self.service.count(), refreshes)
        os.symlink(vyworld.CONFIG, "/tmp/link.conf")  # another name for the same
        done = self.tool("vyhotplugctl", "-f", "/tmp/link.conf", "--sysfs", SYSFS, "set", "sda1", "share=Music")
        self.assertEqual((done.status, done.err), (DONE, ""))
        self.assertEqual(self.held(stick)["share_name"], "Music")

    def test_without_a_service_nothing_is_changed(self):
        write(vyworld.DEVICE_FILE, "[1234:00ab:ABC:1]\n")
        self.assert_ctl("set", "1234:00ab:ABC:1", "share=Music", status=NO_SERVICE,
                        err="vyhotplugctl: the service is not running, nothing is changed\n")
        self.assertEqual(read(vyworld.DEVICE_FILE), "[1234:00ab:ABC:1]\n")


class Edit(CtlTest):
    """$EDITOR is a script here."""

    def edit(self, script, *arguments, answer=b""):
        write("/tmp/editor", "#!/bin/sh\n" + script, 0o755)
        done = subprocess.run(
            [vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, "edit", *arguments],
            input=answer, capture_output=True, check=False, timeout=vyworld.LIMIT,
            env={**vyworld.environment(), "EDITOR": "/tmp/editor"})
        return vyworld.Finished(done)

    def plug_one(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        return stick

    def test_what_is_changed_is_set(self):
        stick = self.plug_one()
        done = self.edit("sed -i 's/^share =.*/share = Music/; s/^full =.*/full = daemon, bin/' $1; cp $1 /tmp/seen; "
                         "grep SigBlk /proc/$$/status >/tmp/blocked")
        self.assertEqual(int(read("/tmp/blocked").split()[1], 16), 0, "the editor has its signals")
        self.assertEqual((done.status, done.out, done.err), (DONE, f"{stick.identifier} is set\n", ""))
        self.assertIn("Share Name=Music\n", read(vyworld.DEVICE_FILE))
        self.assertIn("Full Access Users=1,2,\n", read(vyworld.DEVICE_FILE))
        self.assertIn("# shared, sda1, Drive(A1)\n", read("/tmp/seen"))
        self.edit("cp $1 /tmp/seen", "Music")
        self.assertIn("full = daemon, bin\n", read("/tmp/seen"))
        self.assertEqual([name for name in os.listdir("/tmp") if name.startswith("vyhotplugctl-")], [])

    def test_nothing_is_changed(self):
        self.plug_one()
        before = read(vyworld.DEVICE_FILE)
        done = self.edit("true")
        self.assertEqual((done.status, done.out, done.err), (DONE, "nothing is changed\n", ""))
        self.assertEqual(read(vyworld.DEVICE_FILE), before)
        done = self.edit("sed -i 's/^share =.*/share = Music/' $1; exit 1")
        self.assertEqual(done.status, FAILED)
        kept = re.fullmatch("vyhotplugctl: the editor failed, nothing is changed\n"
                            "vyhotplugctl: what you wrote is in (.*)\n", done.err)[1]
        self.assertIn("share = Music\n", read(kept))
        self.assertEqual(read(vyworld.DEVICE_FILE), before)

    def test_wrong_lines_are_shown_and_edited_again(self):
        self.plug_one()
        done = self.edit("""
if grep -q colour $1; then
    sed -i '/colour/d; s/nobody-here/daemon/; s/^rubbish$//' $1
else
    sed -i 's/^share =.*/share = Music\\ncolour = red\\nrubbish/; s/^full =.*/full = nobody-here/' $1
fi""", answer=b"\n")
        self.assertEqual((done.status, done.out), (DONE, "1234:00ab:SERA:1 is set\n"), done.err)
        for words in ("no such setting: colour", "there is no = in: rubbish", "no such user: nobody-here"):
            self.assertIn(words, done.err)
        self.assertIn("Share Name=Music\n", read(vyworld.DEVICE_FILE))

    def test_who_gives_up_loses_nothing(self):
        self.plug_one()
        before = read(vyworld.DEVICE_FILE)
        done = self.edit("sed -i 's/^share =.*/share = Music\\nrubbish/' $1", answer=b"n\n")
        self.assertEqual(done.status, FAILED)
        self.assertEqual(read(vyworld.DEVICE_FILE), before)
        kept = re.search("what you wrote is in (.*)\n", done.err)[1]
        self.assertIn("share = Music\nrubbish\n", read(kept))

    def test_an_interruption_at_the_question_loses_nothing(self):
        self.plug_one()
        before = read(vyworld.DEVICE_FILE)
        write("/tmp/editor", "#!/bin/sh\nsed -i 's/^share =.*/share = Music\\nrubbish/' $1\n", 0o755)
        with subprocess.Popen(
                [vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, "edit"],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                env={**vyworld.environment(), "EDITOR": "/tmp/editor"}) as ctl:
            told = b""
            while not told.endswith(b"Edit again? [Y/n] "):
                told += ctl.stderr.read(1)
            ctl.send_signal(signal.SIGINT)
            kept = re.fullmatch("\nvyhotplugctl: what you wrote is in (.*)\n", ctl.stderr.read().decode())
            self.assertEqual(ctl.wait(vyworld.LIMIT), FAILED)
        self.assertIn("share = Music\nrubbish\n", read(kept[1]))
        self.assertEqual(read(vyworld.DEVICE_FILE), before)

    def test_a_text_that_comes_back_empty_forgets_nothing(self):
        """As an editor leaves it that found no room."""
        self.plug_one()
        self.assert_ctl("set", "sda1", "share=Music")
        before = read(vyworld.DEVICE_FILE)
        for script in (": >$1", "printf '\\n \\n' >$1"):
            done = self.edit(script)
            self.assertEqual((done.status, done.out, done.err),
                             (FAILED, "", "vyhotplugctl: the text came back empty, nothing is changed\n"))
            self.assertEqual(read(vyworld.DEVICE_FILE), before)
        self.assertEqual([name for name in os.listdir("/tmp") if name.startswith("vyhotplugctl-")], [])

    def test_two_at_once_and_a_plug(self):
        """Both changes hold, and so does the section of what came meanwhile."""
        stick = self.plug_one()
        other = self.make_partition("sdb1")
        refreshes = self.service.count()
        vyworld.send(other.add_message())
        ctl = vyworld.PROGRAMS + "/vyhotplugctl -f " + vyworld.CONFIG
        done = self.edit(f"{ctl} set sda1 comment=second >/dev/null; sed -i 's/^share =.*/share = Music/' $1", "sda1")
        self.assertEqual((done.status, done.err), (DONE, ""))
        self.wait_for_refresh(refreshes + 1)
        held = sections(read(vyworld.DEVICE_FILE))
        self.assertIn("Share Name=Music\nComment=second\n", held[stick.identifier])
        self.assertIn(other.identifier, held)

    def test_a_section_taken_out_is_forgotten(self):
        stick = self.plug_one()
        self.assert_ctl("set", "sda1", "share=Music")
        self.assert_ctl("set", "1:2:not:3", "share=Other", status=NO_DISK,
                        err="vyhotplugctl: nothing here is called 1:2:not:3; see: vyhotplugctl status --all\n")
        self.assert_ctl("set", "0001:0002:not:3", "share=Other")
        done = self.edit("sed -i '/^.0001/,$d' $1")
        self.assertEqual((done.status, done.out), (DONE, "0001:0002:not:3 is forgotten\n"), done.err)
        self.assertEqual(list(sections(read(vyworld.DEVICE_FILE))), [stick.identifier])


class Watch(CtlTest):
    def start_watch(self, *options):
        with open("/tmp/watched", "wb") as out:
            process = subprocess.Popen(
                [vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "--sysfs", SYSFS, "--run", RUN, "watch",
                 *options], stdin=subprocess.DEVNULL, stdout=out, env=vyworld.environment())
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def events(self):
        lines = [line + "\n" for line in read("/tmp/watched").split("\n")[:-1]]
        return [((event["item"] or {}).get("name"), event["event"]) for event in map(self.valid, lines)]

    def wait_for_event(self, *event):
        self.wait_until(f"{event} in {self.events()}", lambda: event in self.events())

    def test_a_line_as_things_happen(self):
        self.start_daemon()
        here = self.make_partition("sdb1")
        self.plug(here)
        watch = self.start_watch("--json")
        self.wait_for_event("sdb1", "present")
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.wait_for_event("sda1", "shared")
        self.assert_ctl("set", "sda1", "share=Music")
        self.wait_for_event("sda1", "changed")
        self.assert_ctl("unmount", "sda1")
        self.wait_for_event("sda1", "unmounted")
        self.unplug(stick)
        self.wait_for_event("sda1", "pulled")
        words = [word for name, word in self.events() if name == "sda1"]
        self.assertEqual(words[:3], ["plugged", "mounted", "shared"])
        self.assertEqual(words[-2:], ["unmounted", "pulled"])
        self.assertIsNone(watch.poll())

    def test_it_wakes_for_nothing_else(self):
        """No timer: nothing is done while nothing happens, not even for other files beside the service's."""
        self.start_daemon()
        watch = self.start_watch()
        self.wait_until("it sleeps", lambda: "poll" in read(f"/proc/{watch.pid}/wchan") or
                        read(f"/proc/{watch.pid}/stat").split()[2] == "S")
        self.let_it_idle()
        def bytes_read():
            return re.match(r"rchar: (\d+)\n", read(f"/proc/{watch.pid}/io"))[1]

        before = bytes_read()
        self.let_it_idle()
        self.assertEqual(bytes_read(), before)
        self.assertEqual(read_lines("/tmp/watched"), [])

    def watch_what_was_unplugged(self):
        """Of a stick that has settings, and is a share called Music when it is plugged."""
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assert_ctl("set", "sda1", "share=Music")
        self.unplug(stick)
        self.start_watch("--json")
        self.wait_until("it watches", lambda: os.path.exists("/tmp/watched"))
        self.let_it_idle()

    def test_what_is_not_plugged_is_changed_and_forgotten(self):
        self.watch_what_was_unplugged()
        self.assertEqual(self.events(), [])
        self.assert_ctl("set", "Music", "comment=away")
        self.wait_for_event(None, "changed")
        self.assert_ctl("forget", "Music")
        self.wait_for_event(None, "forgotten")
        self.assertEqual({name for name, _ in self.events()}, {None})
        self.assertEqual([word for _, word in self.events()][-1], "forgotten")  # it may be emptied before

    def test_a_device_file_that_is_moved_away(self):
        self.watch_what_was_unplugged()
        os.rename(vyworld.DEVICE_FILE, vyworld.DEVICE_FILE + ".away")
        self.wait_for_event(None, "forgotten")

    def test_the_service_ends_and_starts(self):
        """Killed, so that it leaves everything as it is."""
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        watch = self.start_watch("--json")
        self.wait_for_event("sda1", "present")
        for _ in range(2):
            before = self.events()
            self.daemon.signal(signal.SIGKILL)
            self.daemon.process.wait()
            self.wait_until("its end is told", lambda: (None, "service_ended") in self.events()[len(before):])
            self.start_daemon()
            self.wait_until("its start is told", lambda: (None, "service_started") in self.events()[len(before):])
        # The record of a disk without settings may come and go besides, as far as the service got.
        self.assertEqual([word for _, word in self.events() if word.startswith("service_")],
                         ["service_ended", "service_started"] * 2)
        self.assertIsNone(watch.poll())

    def test_its_reader_ends(self):
        self.start_daemon()
        process = subprocess.Popen([vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "watch"],
                                   stdout=subprocess.PIPE, env=vyworld.environment())
        process.stdout.close()
        self.plug(self.make_partition("sda1"))
        process.wait(vyworld.LIMIT)


class Check(CtlTest):
    def problems(self, *options, status=FAILED):
        return {problem["id"]: problem["text"] for problem in self.ask("check", *options, status=status)["problems"]
                if problem["severity"] == "problem"}

    def test_the_configuration_alone(self):
        self.assertEqual(self.problems("--configuration", status=DONE), {})
        self.write_config(defualtgid="7")
        self.assertIn("write defaultgid", self.problems("--configuration")["configuration"])
        self.write_config(mountpath="/tmp/none")
        self.assertEqual(self.problems("--configuration"),
                         {"directory_missing": "mountpath /tmp/none: No such file or directory"})
        os.mkdir("/tmp/other")
        vyworld.run("mount", "-t", "tmpfs", "none", "/tmp/other")
        self.write_config(smbconfigpath="/tmp/other/shares", devicepath=vyworld.CONFIG)
        os.chmod(vyworld.CONFIG, 0o666)
        self.assertEqual(self.problems("--configuration"), {
            "directory_missing": f"devicepath {vyworld.CONFIG} is no directory",
            "other_filesystem": "/tmp/other/shares is not on the filesystem of /tmp, the service cannot replace it",
            "open_to_others": f"{vyworld.CONFIG} may be changed by others than root"})

    def test_what_is_typed_and_what_is_said(self):
        self.write_config(mountpath="/tmp/none", devicepath=vyworld.CONFIG)
        self.assertEqual([(problem["remedy"], problem["remedy_kind"])
                          for problem in self.ask("check", "--configuration", status=FAILED)["problems"]],
                         [("vyhotplug-prepare", "command"), ("correct the configuration", "prose")])

    def test_what_a_translation_is_made_of(self):
        hostile = "/tmp/$0 %s\u202e"
        self.write_config(mountpath=hostile)
        problem, = self.ask("check", "--configuration", status=FAILED)["problems"]
        self.assertEqual((problem["form"], problem["arguments"]),
                         ("$0 $1: $2", ["mountpath", hostile, "No such file or directory"]))
        self.write_config(mountpath=hostile, naswrok="1")
        problem = self.ask("check", "--configuration", status=FAILED)["problems"][0]
        self.assertEqual((problem["form"], problem["arguments"][:2]), ("$0:$1: $2", [vyworld.CONFIG, "5"]))

    def test_what_runs(self):
        told = self.problems()
        self.assertEqual(told["service_not_running"], "the service is not running")
        self.start_daemon()
        self.assertNotIn("service_not_running", self.problems())
        self.assertNotIn("bridge_not_running", self.problems())
        self.service.process.kill()
        self.service.process.wait()
        self.assertIn("bridge_not_running", self.problems())
        os.unlink(vyworld.PROGRAMS + "/vyhotplugd")
        self.assertIn("service_replaced", self.problems())

    def test_each_user_is_looked_up_once(self):
        """The system reads its file of users for each question."""
        self.require_strace()
        write(vyworld.DEVICE_FILE, "".join(f"[1:2:{number}:1]\nShare Name=s{number}\nFull Access Users=1,2,4294967,\n"
                                           for number in range(200)))
        subprocess.run(["strace", "-qq", "-o", "/tmp/calls", "-e", "trace=/^open", "-P", "/etc/passwd",
                        vyworld.PROGRAMS + "/vyhotplugctl", "-f", vyworld.CONFIG, "status"],
                       check=False, stdout=subprocess.DEVNULL)
        self.assertIn(len(read_lines("/tmp/calls")), range(1, 10))

    def test_status_tells_what_check_tells(self):
        told = [problem for problem in self.ask("check", status=FAILED)["problems"]
                if problem["id"] != "samba_no_users"]  # which it asks Samba
        self.assertEqual(told, self.ask("status", status=NO_SERVICE)["problems"])
        self.assertEqual([f"! {problem['text']}" for problem in told if problem["severity"] == "problem"],
                         [line for line in self.ctl("status").out.splitlines() if line.startswith("! ")])

    def test_lines_that_would_be_lost(self):
        write(vyworld.DEVICE_FILE, "[1:2:a:3]\nShare Name=a\nSharename=b\n# no=fault\ncolour = red\nfull access users = anna\n"
                                   "Block Users=4321,\n")
        told = self.problems()
        self.assertEqual(told["no_such_user"], "1:2:a:3: nobody has the user number 4321")
        texts = [problem["text"] for problem in self.ask("check", status=FAILED)["problems"]
                 if problem["id"] == "settings"]
        self.assertEqual([text.split(":")[1] for text in texts], ["4", "5", "6"])
        self.assertIn("colour", texts[1])
        self.assertIn("anna", texts[2])
        told = self.ctl("status", "--all")
        self.assertIn("! 1:2:a:3: nobody has the user number 4321\n", told.out)

    def test_names_used_twice_and_disks_that_are_not_mounted(self):
        os.makedirs(SYSFS + "/devices/usb/host/block/sdc/sdc1")
        for name, text in (("idVendor", "1234"), ("idProduct", "00ab"), ("serial", "S")):
            write(f"{SYSFS}/devices/usb/{name}", text + "\n")
        for folder, numbers in (("sdc", "8:32"), ("sdc/sdc1", "8:33")):
            for name, text in (("dev", numbers), ("size", "2048"), ("ro", "0"), ("range", "16")):
                write(f"{SYSFS}/devices/usb/host/block/{folder}/{name}", text + "\n")
        os.symlink("../..", SYSFS + "/devices/usb/host/block/sdc/device")
        os.symlink("../devices/usb/host/block/sdc", SYSFS + "/block/sdc")
        self.assertEqual([(item["name"], item["identity"], item["state"], item["size_bytes"])
                          for item in self.ask("status", status=NO_SERVICE)["items"]],
                         [("sdc1", "1234:00ab:S:1", "waiting", 1048576)])
        write(RUN + "/not-mounted",
              "sdx1\t8:1\tsilent\t-\tsdx1 does not answer\t-\n"
              "sdc1\t8:33\trefused\texfat\tsdc1 holds exfat, but the kernel refused it\tfsck.exfat /dev/sdc1\n")
        write(vyworld.SHARE_FILE, "".join(f"[{name}]\nIdentifier={identity}\nPath={vyworld.MOUNT_DIR}/{part}\n"
                                          for name, identity, part in (("One", "1:2:a:1", "sda1"), ("ONE", "1:2:b:1", "sdb1"))))
        told = self.problems()
        self.assertEqual(told["not_mounted"], "sdc1 is not mounted: holds exfat, but the kernel refused it; type: fsck.exfat /dev/sdc1")
        self.assertEqual(told["name_twice"], "sda1 and sdb1 are both called ONE: only one is shared")
        self.assertIn("not mounted: holds exfat, but the kernel refused it; type: fsck.exfat /dev/sdc1", self.ctl("status").out)


class Serving(CtlTest):
    """What check tells of the bridge, its file server and the network."""

    FOLDER = "/usr/local/sbin"  # programs of the tests' own
    NEIGHBOURS = ("vynas-samba", "vynas-ksmbd", "smbd", "ksmbd.mountd", "avahi-daemon", "umdns", "wsdd", "wsdd2")
    WAITS = "#!/bin/sh\nread line\nexit\n"
    KSMBD_LIST = "/run/vynas-ksmbd/ksmbd.conf"

    def setUp(self):
        super().setUp()
        vyworld.run("mount", "-t", "tmpfs", "none", self.FOLDER)
        for name in self.NEIGHBOURS:
            found = shutil.which(name, path=vyworld.PATH)
            if found is not None:
                vyworld.run("mount", "--bind", "/dev/null", found)
        if os.path.isdir("/lib/modules"):
            vyworld.run("mount", "-t", "tmpfs", "none", "/lib/modules")
        os.makedirs("/etc/samba")
        os.makedirs("/etc/avahi/services")
        write("/etc/samba/smb.conf", "[global]\n")

    def install(self, name, text=WAITS):
        build = "" if text is not self.WAITS else f"\0{self.ctl('--version').out.split()[1]}\0"  # as in a program
        write(f"{self.FOLDER}/{name}", text + build, 0o755)

    def start(self, name, *words, text=WAITS):
        """Installs it, and starts it; it waits for its end."""
        self.install(name, text)
        process = subprocess.Popen([f"{self.FOLDER}/{name}", *words], stdin=subprocess.PIPE)
        self.addCleanup(self.end, process)
        self.wait_for_program(process, name)
        return process

    def wait_for_program(self, process, name):
        """Popen returns a moment before the kernel has given the process its new name."""
        self.wait_until(f"{name} runs", lambda: f"{self.FOLDER}/{name}" in read(f"/proc/{process.pid}/cmdline").split("\0")[:2])

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.stdin.close()
            process.wait(vyworld.LIMIT)

    def bridge(self, name, **options):
        """Puts it in the place of the file-sharing service."""
        self._end_service()
        process = self.start(name, **options)
        write(vyworld.SERVICE_PID_FILE, f"{process.pid}\n")
        return process

    def told(self):
        """Problems of serving: what to type by identifier; notes are marked."""
        words = ("bridge_", "other_version", "other_server", "samba_", "ksmbd_", "avahi_", "wsdd_")
        return {problem["id"]: ("note: " if problem["severity"] == "note" else "") + problem["remedy"]
                for problem in self.ask("check", status=FAILED)["problems"] if problem["id"].startswith(words)}

    def setup_samba(self):
        vyworld.run(os.path.join(os.environ["VY_BIN"], "vynas-samba-setup"), "enable")

    def test_another_file_sharing_service_is_nobody_that_is_known(self):
        self.install("vynas-samba")
        self.assertEqual(self.told(), {})

    def test_no_bridge_runs(self):
        self._end_service()
        os.unlink(vyworld.SERVICE_PID_FILE)
        self.assertEqual(self.told(), {"bridge_not_running": "install vynas-samba or vynas-ksmbd"})
        self.install("vynas-ksmbd", "#!/bin/sh\necho vynas-ksmbd 0\n")
        self.assertEqual(self.told(), {"bridge_not_running": "systemctl start vynas-ksmbd",
                                       "other_version": "install all packages of one version",
                                       "ksmbd_missing": "apt-get install ksmbd-tools"})

    def test_a_bridge_that_was_replaced(self):
        self._end_service()
        for name in ("vynas-samba", "vynas-ksmbd"):
            shutil.copy("/bin/sleep", f"{self.FOLDER}/{name}")
            process = subprocess.Popen([f"{self.FOLDER}/{name}", "infinity"])
            self.addCleanup(process.wait)
            self.addCleanup(process.kill)
            self.wait_for_program(process, name)
            write(vyworld.SERVICE_PID_FILE, f"{process.pid}\n")
            self.assertNotIn("bridge_replaced", self.told())
            os.unlink(f"{self.FOLDER}/{name}")
            self.assertEqual(self.told()["bridge_replaced"], f"systemctl restart {name}")

    def test_samba(self):
        self.bridge("vynas-samba")
        self.assertEqual(self.told(), {"samba_missing": "apt-get install samba"})
        self.install("smbd")
        self.assertEqual(self.told(), {"samba_not_running": "systemctl start smbd"})
        self.start("smbd")
        self.assertEqual(self.told()["samba_not_set_up"], "vynas-samba-setup enable")
        self.setup_samba()
        self.assertEqual(self.told(), {"avahi_missing": "note: apt-get install avahi-daemon",
                                       "wsdd_missing": "note: apt-get install wsdd"})
        write("/tmp/empty", "#!/bin/sh\n", 0o755)
        vyworld.run("mount", "--bind", "/tmp/empty", shutil.which("pdbedit", path=vyworld.PATH) or self.skipTest("no Samba"))
        self.assertEqual(self.told()["samba_no_users"], "smbpasswd -a USER")

    def test_samba_is_found_in_the_network(self):
        self.bridge("vynas-samba")
        self.start("smbd")
        self.setup_samba()
        self.install("avahi-daemon")
        self.install("wsdd")
        self.assertEqual(self.told(), {"avahi_not_running": "systemctl enable --now avahi-daemon",
                                       "wsdd_not_running": "systemctl enable --now wsdd"})
        avahi = self.start("avahi-daemon")
        self.start("wsdd", text="#!/usr/bin/env python3\nimport sys\nsys.stdin.read()\n")
        self.wait_until("both are seen", lambda: self.told() == {})
        os.unlink("/etc/avahi/services/vynas-samba.service")
        self.assertEqual(self.told(), {"avahi_not_told": "vynas-samba-setup enable"})
        self.setup_samba()
        self.assertEqual(self.told(), {})
        # Samba tells of itself where it is not told to be silent, and then no file has to.
        os.unlink("/etc/avahi/services/vynas-samba.service")
        write("/etc/samba/smb.conf", read("/etc/samba/smb.conf").replace("multicast dns register = no", ""))
        self.assertEqual(self.told(), {})
        self.end(avahi)
        self.start("umdns")
        self.assertEqual(self.told(), {})

    def test_ksmbd(self):
        os.mkdir("/etc/ksmbd")
        self.bridge("vynas-ksmbd")
        self.assertEqual(self.told(), {"ksmbd_missing": "apt-get install ksmbd-tools"})
        self.install("ksmbd.mountd")
        self.assertEqual(self.told(), {"ksmbd_not_in_kernel": "install a kernel that has it, or vynas-samba"})
        modules = f"/lib/modules/{os.uname().release}"
        os.makedirs(modules)
        write(modules + "/modules.dep", "kernel/fs/ksmbd/ksmbd.ko: \n")
        self.assertEqual(self.told(), {"ksmbd_not_running": "systemctl start ksmbd"})
        other = self.start("ksmbd.mountd", "--config=/etc/ksmbd/ksmbd.conf")
        self.assertEqual(self.told(), {"ksmbd_not_running": "systemctl start ksmbd"})
        os.makedirs(SYSFS + "/class/ksmbd-control")
        self.assertEqual(self.told()["ksmbd_not_set_up"], "systemctl restart ksmbd")
        self.end(other)
        self.start("ksmbd.mountd", "--config=" + self.KSMBD_LIST)
        self.start("wsdd2")
        self.start("avahi-daemon")
        write("/etc/ksmbd/ksmbdpwd.db", "")
        self.assertEqual(self.told(), {
            "ksmbd_no_users": "ksmbd.adduser -a USER",
            "avahi_not_told": "cp /usr/share/doc/vyhotplugd/examples/avahi/smb.service /etc/avahi/services/"})
        write("/etc/ksmbd/ksmbdpwd.db", "anna:aGFzaA==\n")
        shutil.copy(os.path.join(vyworld.FOLDER, "../../docs/examples/avahi/smb.service"), "/etc/avahi/services")
        self.assertEqual(self.told(), {})

    def test_both_servers_at_once(self):
        os.mkdir("/etc/ksmbd")
        write("/etc/ksmbd/ksmbdpwd.db", "anna:aGFzaA==\n")
        self.bridge("vynas-ksmbd")
        os.makedirs(SYSFS + "/class/ksmbd-control")
        self.start("ksmbd.mountd", "--config=" + self.KSMBD_LIST)
        self.assertNotIn("other_server", self.told())
        self.start("smbd")
        self.assertEqual(self.told()["other_server"], "systemctl disable --now smbd")

    def test_users_without_a_ksmbd_password_are_told_of(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.bridge("vynas-ksmbd")
        os.mkdir("/etc/ksmbd")
        write("/etc/ksmbd/ksmbdpwd.db", "root:aGFzaA==\n")
        self.assert_ctl("set", "sda1", "full=root,daemon", err="vyhotplugctl: note: full: daemon has no ksmbd password; "
                        "ksmbd.adduser -a daemon\n")

    def test_what_ksmbd_is_told_of_a_share(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        os.makedirs(os.path.dirname(self.KSMBD_LIST))
        write(self.KSMBD_LIST, f"[global]\n[Photos]\n\tpath = {stick.directory}\n\tread only = no\n[global]\n")
        told = self.ask("show", "sda1")
        self.assertEqual((told["samba"], told["ksmbd"]["name"], told["ksmbd"]["parameters"]["read only"]), (None, "Photos", "no"))
        self.assertIn("in ksmbd  Photos\n", self.ctl("show", "sda1").out)
