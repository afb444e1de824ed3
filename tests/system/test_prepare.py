"""vyhotplug-prepare, the real program, in worlds where everything is missing, planted by others, left
over, full, or on other filesystems."""

import fcntl
import os
import shutil
import signal
import stat
import subprocess
import sys
import time
import unittest.mock

import vyworld
from vyworld import LIMIT, SystemTest

CONFIG = "/etc/vyhotplugd/vyhotplugd.conf"
HOOK_SCRIPT = "/etc/vyhotplugd/evhook"
HOOK_LINK = "/tmp/vyhotplugd-evhook.sh"
FILES = "/tmp/vyhotplugd"
FILES_LINK = "/run/vyhotplugd/files"
SHARES = FILES_LINK + "/vynas.dir.conf"
DEVICES = FILES_LINK + "/hotplug.dev.conf"
INFO_LINK = "/tmp/vynasmira/vyhotplugd.conf"
COPY_FOLDER = "/var/lib/vyhotplugd"
COPY = COPY_FOLDER + "/hotplug.dev.conf"
TEMPORARY = ("/tmp/vyhotplug.dev.conf.tmp", "/tmp/vyhotplug.dir.conf.tmp", "/tmp/mntent.tmp")
SOMEBODY = 1234  # a user who is not root
MS_BIND = 4096

SETTINGS = "[1234:00ab:SERA:1]\nShare Name=Music\nComment=Living room\n"


def mount_tmpfs(target, options):
    if vyworld.libc.mount(b"tmpfs", target.encode(), b"tmpfs", 0, options.encode()) != 0:
        raise OSError(vyworld.ctypes.get_errno(), target)


def mount_tmpfs_keeping(target, options):
    """As mount_tmpfs, but what is mounted below the directory stays visible: the project may be there."""
    inside = [line.split(" ")[1].replace("\\040", " ") for line in vyworld.read_lines("/proc/self/mounts")]
    kept = {path: os.open(path, os.O_PATH) for path in inside if path.startswith(target + "/")}
    mount_tmpfs(target, options)
    for path, handle in kept.items():
        os.makedirs(path)
        if vyworld.libc.mount(b"/proc/self/fd/%d" % handle, path.encode(), None, MS_BIND, None) != 0:
            raise OSError(vyworld.ctypes.get_errno(), path)
        os.close(handle)


def state_of(path):
    status = os.lstat(path)
    target = os.readlink(path) if stat.S_ISLNK(status.st_mode) else None
    return (status.st_mode, status.st_uid, status.st_ino, status.st_mtime_ns, status.st_ctime_ns,
            target)


def everything(*tops):
    """State of everything below, without what the world binds from the machine."""
    found = {}
    for top in tops:
        found[top] = state_of(top)
        for folder, folders, files in os.walk(top):
            folders[:] = [name for name in folders if not os.path.ismount(os.path.join(folder, name))]
            for name in folders + files:
                path = os.path.join(folder, name)
                found[path] = state_of(path)
    return found


def plant(path, what, owner=SOMEBODY):
    """Puts something there as the user would."""
    if what == "link":
        os.symlink("/etc/passwd", path)
    elif what == "link to a directory":
        os.symlink("/etc", path)
    elif what == "file":
        vyworld.write(path, "planted\n", 0o777)
    elif what == "pipe":
        os.mkfifo(path, 0o666)
    elif what == "directory":
        os.mkdir(path, 0o755)
        for name in ("vynas.dir.conf", "hotplug.dev.conf", "vyhotplugd.conf"):
            vyworld.write(f"{path}/{name}", "[evil]\nPath=/etc\n")
            os.chown(f"{path}/{name}", owner, owner)
    elif what == "empty directory":
        os.mkdir(path, 0o777)
    os.chown(path, owner, owner, follow_symlinks=False)


def set_kernel(protected):
    """What the kernel's settings for directories such as /tmp read here; they are the whole machine's."""
    vyworld.write("/etc/kernel.setting", f"{int(protected)}\n")
    for name in ("symlinks", "regular", "fifos"):
        path = f"/proc/sys/fs/protected_{name}"
        if vyworld.libc.mount(b"/etc/kernel.setting", path.encode(), None, MS_BIND, None) != 0:
            raise OSError(vyworld.ctypes.get_errno(), path)


KINDS = ("link", "link to a directory", "file", "pipe", "directory", "empty directory")


class Prepare(SystemTest):
    """With the appliance's paths in place of the harness's own."""

    PATHS = {"CONFIG_DIR": "/etc/vyhotplugd", "CONFIG": CONFIG, "HOOK": HOOK_SCRIPT,
             "MOUNT_DIR": "/media/vyhotplug", "DEVICE_DIR": "/dev/vyhotplug",
             "SHARE_FILE": SHARES, "DEVICE_FILE": DEVICES}

    def setUp(self):
        patch = unittest.mock.patch.multiple(vyworld, **self.PATHS)
        patch.start()
        self.addCleanup(patch.stop)
        super().setUp()
        for folder in (vyworld.MOUNT_DIR, vyworld.DEVICE_DIR):
            os.rmdir(folder)
        set_kernel(protected=True)
        shutil.copy(os.path.join(os.environ["VY_BIN"], "vyhotplug-prepare"), vyworld.PROGRAMS)

    def prepare(self, *arguments, status=0):
        done = self.tool("vyhotplug-prepare", "-f", CONFIG, *arguments)
        for line in done.err.splitlines():
            vyworld.log(line)
        self.assertEqual((done.out, done.status), ("", status), done.err)
        return done.err

    def assert_own_directory(self, path):
        status = os.lstat(path)
        self.assertEqual((oct(status.st_mode), status.st_uid), (oct(stat.S_IFDIR | 0o755), 0), path)

    def assert_link(self, path, target):
        status = os.lstat(path)
        self.assertEqual((stat.S_IFMT(status.st_mode), status.st_uid), (stat.S_IFLNK, 0), path)
        self.assertEqual(os.readlink(path), target)

    def assert_all_is_ready(self):
        for path in (FILES, "/run/vyhotplugd", vyworld.MOUNT_DIR, vyworld.DEVICE_DIR,
                     "/tmp/vynasmira"):
            self.assert_own_directory(path)
        self.assert_link(FILES_LINK, FILES)
        self.assert_link(HOOK_LINK, HOOK_SCRIPT)
        self.assert_link(INFO_LINK, CONFIG)
        for path in TEMPORARY:
            self.assertFalse(os.path.lexists(path), path)


class FreshWorld(Prepare):
    def test_everything_is_made_and_the_service_works_in_it(self):
        self.assertEqual(self.prepare(), "")
        self.assert_all_is_ready()
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")
        self.assertEqual(sorted(os.listdir(FILES)), ["hotplug.dev.conf", "vynas.dir.conf"])
        self.assertIn(f"mount {partition.directory} mounted", vyworld.read(vyworld.HOOK_RECORD))
        listing = self.tool("vyhotpluginfo", "-l")  # which finds the configuration by itself
        self.assertEqual(listing.status, 0, listing.err)
        self.assertIn(partition.identifier, listing.out)

    def test_a_second_run_changes_nothing(self):
        os.makedirs(COPY_FOLDER)
        vyworld.write(COPY, SETTINGS)
        self.prepare()
        tops = (FILES, "/run/vyhotplugd", vyworld.MOUNT_DIR, vyworld.DEVICE_DIR, "/tmp/vynasmira",
                HOOK_LINK, COPY_FOLDER, "/etc/vyhotplugd")
        before = everything(*tops)
        names = sorted(os.listdir("/tmp"))
        signals = self.service.count()
        self.assertEqual(self.prepare(), "")
        self.assertEqual(everything(*tops), before)
        self.assertEqual(sorted(os.listdir("/tmp")), names)
        self.assertEqual(self.service.count(), signals)

    def test_a_place_that_cannot_be_made_is_told_of(self):
        os.symlink("/nowhere/at/all", "/media/vyhotplug")
        told = self.prepare(status=1)
        self.assertIn("/media/vyhotplug cannot be made ready: Not a directory\n", told)
        self.assert_link(HOOK_LINK, HOOK_SCRIPT)  # the others are made all the same
        self.assert_link(FILES_LINK, FILES)
        self.wait_until("it is logged, once",
                        lambda: len(self.log.matching("/media/vyhotplug cannot be made ready")) == 1)

    def test_nothing_is_logged_where_there_is_nothing_to_say(self):
        """The parsers log each item of a list at LOG_DEBUG."""
        self.write_config(mountfs="fat,ext", vfatoptions="utf8")
        self.assertEqual(self.prepare(), "")
        vyworld.write(DEVICES, SETTINGS)
        self.assertEqual(self.prepare("--save"), "")
        vyworld.write(DEVICES, "")
        self.prepare("--save")
        self.wait_until("what is to be said is logged", lambda: self.log.lines)
        self.assertEqual(self.log.texts(), [f"prepare(#){DEVICES} holds nothing, {COPY} stays as it is"])

    def test_another_user_is_refused(self):
        done = self.tool("vyhotplug-prepare", "-f", CONFIG, user=SOMEBODY)
        self.assertEqual((done.status, done.err), (1, "root only.\n"))
        self.assertFalse(os.path.lexists(HOOK_LINK))


class Planted(Prepare):
    """Paths in /tmp that other users have taken first."""

    def setUp(self):
        super().setUp()
        self.etc = everything("/etc")
        self.passwd = vyworld.read("/etc/passwd")

    def assert_etc_is_untouched(self):
        self.assertEqual(everything("/etc"), self.etc)
        self.assertEqual(vyworld.read("/etc/passwd"), self.passwd)

    def clear(self):
        for path in (FILES, HOOK_LINK, "/tmp/vynasmira", *TEMPORARY):
            if os.path.isdir(path) and not os.path.islink(path):
                shutil.rmtree(path)
            elif os.path.lexists(path):
                os.unlink(path)

    def test_nothing_of_it_is_followed_or_overwritten_or_used(self):
        for path in (FILES, HOOK_LINK, "/tmp/vynasmira", *TEMPORARY):
            for what in KINDS:
                with self.subTest(path=path, what=what):
                    self.clear()
                    plant(path, what)
                    told = self.prepare()
                    self.assertRegex(told, f"{path}: a [a-z ]+ of user {SOMEBODY} was in the way")
                    self.assert_all_is_ready()
                    self.assertEqual(os.listdir(FILES), [])
                    self.assert_etc_is_untouched()

    def test_a_users_directory_with_everything_in_it_names_no_share(self):
        plant(FILES, "directory")
        self.prepare()
        self.start_daemon()
        self.assertEqual(vyworld.read(SHARES), "")
        self.assertEqual(vyworld.read(DEVICES), "")
        aside = [name for name in os.listdir("/tmp") if name.startswith("vyhotplugd.aside-")]
        self.assertEqual(len(aside), 1)
        status = os.lstat("/tmp/" + aside[0])
        self.assertEqual((stat.S_IMODE(status.st_mode), status.st_uid), (0o700, 0))

    def test_a_directory_that_others_could_write_to_is_not_used_either(self):
        plant(FILES, "directory", owner=0)
        os.chmod(FILES, 0o1777)
        self.prepare()
        self.assertEqual(os.listdir(FILES), [])
        self.assert_all_is_ready()

    def test_a_users_hook_is_never_run(self):
        vyworld.write(HOOK_LINK, "#!/bin/sh\necho evil > /tmp/evil\n", 0o755)
        os.chown(HOOK_LINK, SOMEBODY, SOMEBODY)
        self.prepare()
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.assertFalse(os.path.exists("/tmp/evil"))
        self.assertIn("mount /media/vyhotplug/sda1 mounted", vyworld.read(vyworld.HOOK_RECORD))

    def test_a_file_of_the_services_own_stays(self):
        for path in TEMPORARY:
            vyworld.write(path, "of a service that was killed")
        self.assertEqual(self.prepare(), "")
        for path in TEMPORARY:
            self.assertTrue(os.path.exists(path), path)

    def test_where_tmp_is_everybodys_nothing_is_made_in_it(self):
        os.chmod("/tmp", 0o777)
        told = self.prepare(status=1)
        self.assertIn("/tmp/vyhotplugd cannot be made ready: Operation not permitted\n", told)
        for path in (FILES, HOOK_LINK, "/tmp/vynasmira"):
            self.assertFalse(os.path.lexists(path), path)

    RACER = """
import os, shutil
paths = ("/tmp/vyhotplugd", "/tmp/vyhotplugd-evhook.sh", "/tmp/vynasmira", "/tmp/mntent.tmp")
kinds = (lambda path: os.symlink("/etc", path), lambda path: os.symlink("/etc/passwd", path),
         os.mkdir, os.mkfifo, lambda path: os.makedirs(path + "/x"))
turn = 0
while True:
    for path in paths:
        turn += 1
        try:
            kinds[turn % len(kinds)](path)
            open("/tmp/racer.count", "a").write("x")
        except OSError:
            pass
        try:
            os.unlink(path)
        except OSError:
            shutil.rmtree(path, ignore_errors=True)
"""

    def test_somebody_who_plants_all_the_time_gains_nothing(self):
        vyworld.write("/tmp/racer.count", "")
        os.chown("/tmp/racer.count", SOMEBODY, SOMEBODY)
        racer = subprocess.Popen([sys.executable, "-c", self.RACER], user=SOMEBODY,
                                 group=SOMEBODY, extra_groups=[], stdin=subprocess.DEVNULL)
        self.addCleanup(racer.wait)
        self.addCleanup(racer.kill)
        self.wait_until("the other user is at it",
                        lambda: len(vyworld.read("/tmp/racer.count")) > 100)
        ready = tries = 0
        end = time.monotonic() + 30
        while tries < 40 and (ready == 0 or time.monotonic() < end):
            tries += 1
            # Not shutil.rmtree, which opens what was a directory before, and waits at a FIFO.
            subprocess.run(["rm", "-rf", FILES, HOOK_LINK, "/tmp/vynasmira"], check=False, env={"PATH": vyworld.PATH},
                           stderr=subprocess.DEVNULL)
            done = self.tool("vyhotplug-prepare", "-f", CONFIG)
            self.assertIn(done.status, (0, 1), done.err)
            if done.status == 0:
                ready += 1
                self.assert_own_directory(FILES)
                self.assert_link(HOOK_LINK, HOOK_SCRIPT)
        racer.kill()
        vyworld.log(f"ready {ready} of {tries} times")
        self.assertGreater(ready, 0)
        self.assert_etc_is_untouched()


class Leftovers(Prepare):
    def kill_daemon(self):
        self.daemon.signal(signal.SIGKILL)
        self.daemon.process.wait(LIMIT)

    def start_with(self, *filesystems):
        """A service with a partition of each filesystem plugged."""
        self.prepare()
        self.start_daemon()
        found = [self.make_partition(f"sd{'abc'[number]}1", filesystem)
                 for number, filesystem in enumerate(filesystems)]
        self.plug(*found)
        return found

    def assert_nothing_is_left(self, partitions):
        self.assertEqual(vyworld.mounts(), [])
        for partition in partitions:
            self.assertFalse(os.path.lexists(partition.directory), partition.directory)
            self.assertFalse(os.path.lexists(partition.node), partition.node)

    def check_all_anew(self, partitions):
        for partition in partitions:
            partition.lay_node()
        self.start_daemon()
        self.plug(*partitions)
        for partition in partitions:
            self.assertEqual(partition.read_file("readme.txt"), f"this is {partition.name}\n")

    def check_killed(self, *filesystems):
        partitions = self.start_with(*filesystems)
        settings = vyworld.read(DEVICES)
        self.kill_daemon()
        self.assertEqual(vyworld.mounted_names(), [partition.name for partition in partitions])
        signals = self.service.count()
        told = self.prepare()
        for partition in partitions:
            self.assertIn(f"{partition.directory} is unmounted\n", told)
        self.assert_nothing_is_left(partitions)
        self.assertEqual(vyworld.read(SHARES), "")
        self.assertEqual(vyworld.read(DEVICES), settings)
        self.assertEqual(self.service.count(), signals + 1)
        self.check_all_anew(partitions)

    def test_of_a_killed_service_are_taken_off_and_mounted_anew(self):
        self.check_killed("ext4", "ext4")

    def test_on_ntfs_are_taken_off_with_their_drivers(self):
        self.require_filesystem("ntfs")
        self.check_killed("ntfs", "ext4")
        self.kill_daemon()
        self.prepare()
        self.wait_until("the NTFS driver has ended", lambda: "ntfs-3g" not in self.commands())

    @staticmethod
    def commands():
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                found.append(vyworld.read(f"/proc/{pid}/comm").strip())
            except OSError:
                pass  # it has just ended
        return found

    def test_whose_driver_was_killed_are_taken_off(self):
        self.require_filesystem("ntfs")
        partitions = self.start_with("ntfs")
        self.kill_daemon()
        for pid in filter(str.isdigit, os.listdir("/proc")):
            if vyworld.read(f"/proc/{pid}/comm").strip() == "ntfs-3g":
                os.kill(int(pid), signal.SIGKILL)
        self.prepare()
        self.assert_nothing_is_left(partitions)
        self.check_all_anew(partitions)

    def test_that_are_in_use_are_detached(self):
        partitions = self.start_with("ext4")
        self.kill_daemon()
        with open(partitions[0].directory + "/readme.txt", encoding="utf-8") as held:
            told = self.prepare()
            self.assertIn("/media/vyhotplug/sda1 cannot be unmounted (Device or resource busy), "
                          "it is detached\n", told)
            self.assert_nothing_is_left(partitions)
            self.assertEqual(held.read(), "this is sda1\n")
            self.check_all_anew(partitions)

    def test_below_leftovers_go_first(self):
        partitions = self.start_with("ext4")
        inner = partitions[0].directory + "/inner"
        os.mkdir(inner)
        mount_tmpfs(inner, "mode=755")
        self.kill_daemon()
        self.prepare()
        self.assert_nothing_is_left(partitions)
        self.check_all_anew(partitions)
        self.assertTrue(os.path.isdir(inner), "a directory on the disk was removed")

    def test_an_administrators_mount_there_stays(self):
        self.prepare()
        archive = "/media/vyhotplug/my archive"
        os.mkdir(archive)
        mount_tmpfs(archive, "mode=755")
        self.prepare()
        self.assertTrue(os.path.ismount(archive))

    def test_after_an_orderly_stop_are_taken_off_too(self):
        partitions = self.start_with("ext4")
        self.assertEqual(self.stop_daemon(), 0)
        self.prepare()
        self.assert_nothing_is_left(partitions)
        self.check_all_anew(partitions)


class StaysMounted(Prepare):
    """With adopt: what is plugged stays, as if the service had not been away."""

    def setUp(self):
        super().setUp()
        self.write_config(adopt="enable")

    def start_with(self, *filesystems):
        self.prepare()
        self.start_daemon()
        found = [self.make_partition(f"sd{'abc'[number]}1", filesystem)
                 for number, filesystem in enumerate(filesystems)]
        self.plug(*found)
        return found

    def end(self, number=signal.SIGKILL):
        """The service's end, and what its unit and its init script run then."""
        self.daemon.signal(number)
        self.daemon.process.wait(LIMIT)
        self.prepare("--save")

    def numbers(self, partition):
        device = os.stat(partition.directory).st_dev
        return f"{os.major(device)}:{os.minor(device)}"

    def hide_devices(self):
        """The kernel's devices as the test makes them."""
        mount_tmpfs("/sys/dev/block", "mode=755")

    def assert_taken_off(self, partition, told, reason):
        self.assertEqual(told, f"vyhotplug-prepare: {partition.directory} does not stay mounted: {reason}\n"
                               f"vyhotplug-prepare: {partition.directory} is unmounted\n")
        self.assertFalse(os.path.lexists(partition.directory))
        self.assertFalse(os.path.lexists(partition.node))

    def check_taken_over(self, filesystem, number):
        partition, = self.start_with(filesystem)
        mounts = vyworld.read("/proc/self/mountinfo")
        shares = vyworld.read(SHARES)
        signals = self.service.count()
        with open(partition.directory + "/readme.txt", encoding="utf-8") as held:
            self.end(number)
            self.assertEqual(self.prepare(), "")
            self.assertEqual(vyworld.read("/proc/self/mountinfo"), mounts)
            self.assertEqual(vyworld.read(SHARES), shares)
            self.assertEqual(self.service.count(), signals)
            self.start_daemon()
            self.plug(partition)
            self.wait_for_log(f"daemon(#)adopt {partition.node} {partition.directory}")
            self.assertEqual(vyworld.read("/proc/self/mountinfo"), mounts)
            self.assertEqual(held.read(), "this is sda1\n")
        self.unplug(partition)
        self.assert_no_trace(partition)

    def test_over_the_services_end(self):
        self.check_taken_over("ext4", signal.SIGTERM)

    def test_over_a_killed_service(self):
        self.check_taken_over("ext4", signal.SIGKILL)

    def test_on_ntfs_over_a_killed_service(self):
        self.require_filesystem("ntfs")
        self.check_taken_over("ntfs", signal.SIGKILL)

    def test_over_several_ends(self):
        partition, = self.start_with("ext4")
        mounts = vyworld.read("/proc/self/mountinfo")
        for _ in range(3):
            self.end()
            self.assertEqual(self.prepare(), "")
            self.assertEqual(vyworld.read("/proc/self/mountinfo"), mounts)
            self.start_daemon()
            self.plug(partition)

    def test_but_not_a_stick_that_was_pulled_meanwhile(self):
        stays, goes = self.start_with("ext4", "ext4")
        kept = self.numbers(stays)
        self.end()
        where = os.path.realpath("/sys/dev/block/" + kept)
        self.hide_devices()
        os.symlink(where, "/sys/dev/block/" + kept)
        names = {line[5:]: share for share, line in self.shares()}
        signals = self.service.count()
        told = self.prepare()
        self.assert_taken_off(goes, told, "its device is not plugged any more")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertTrue(vyworld.read(SHARES).endswith(f"[{names[goes.directory]}]\n"), vyworld.read(SHARES))
        self.assertEqual(self.service.count(), signals + 1)
        self.start_daemon()
        self.plug(stays)
        self.assertIn(f"Path={stays.directory}\n", vyworld.read(SHARES))

    def shares(self):
        share = None
        for line in vyworld.read_lines(SHARES):
            if line.startswith("["):
                share = line[1:-1]
            elif line.startswith("Path="):
                yield share, line

    def check_swapped(self, **changes):
        """The device is another, or has another medium, than when its mount was noted."""
        partition, = self.start_with("ext4")
        place = "/sys/dev/block/" + self.numbers(partition)
        self.hide_devices()
        os.mkdir(place)
        vyworld.write(place + "/diskseq", "7\n")
        self.end()
        self.assertEqual(self.prepare(), "")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        if changes.get("plugged_anew"):
            os.rename(place, place + ".old")
            os.mkdir(place)
        vyworld.write(place + "/diskseq", changes["sequence"] + "\n")
        self.prepare("--save")  # somebody edits the settings meanwhile
        told = self.prepare()
        self.assert_taken_off(partition, told, "another device or medium is in its place")
        (share, _), = self.shares()
        self.assertTrue(vyworld.read(SHARES).endswith(f"[{share}]\n"), vyworld.read(SHARES))

    def test_but_not_another_stick_in_its_place(self):
        self.check_swapped(plugged_anew=True, sequence="7")

    def test_but_not_another_card_in_the_reader(self):
        self.check_swapped(sequence="8")

    def test_but_not_what_nothing_was_noted_of(self):
        partition, = self.start_with("ext4")
        self.daemon.signal(signal.SIGKILL)
        self.daemon.process.wait(LIMIT)
        if os.path.exists("/run/vyhotplugd/mounts"):
            os.unlink("/run/vyhotplugd/mounts")
        self.assert_taken_off(partition, self.prepare(), "nothing is noted of its device")

    def test_but_not_a_filesystem_that_is_not_enabled_any_more(self):
        partition, = self.start_with("ext4")
        self.end()
        self.write_config(adopt="enable", mountfs="fat,ntfs")
        self.assert_taken_off(partition, self.prepare(), "its filesystem is not enabled")

    def test_but_not_where_the_driver_was_killed(self):
        self.require_filesystem("ntfs")
        partition, = self.start_with("ntfs")
        for pid in filter(str.isdigit, os.listdir("/proc")):
            if vyworld.read(f"/proc/{pid}/comm").strip() == "ntfs-3g":
                os.kill(int(pid), signal.SIGKILL)
        self.end()
        self.assert_taken_off(partition, self.prepare(), "its driver does not answer")

    def test_but_not_without_the_key(self):
        partition, = self.start_with("ext4")
        self.end()
        self.write_config()
        told = self.prepare()
        self.assertEqual(told, f"vyhotplug-prepare: {partition.directory} is unmounted\n")
        self.assertEqual(vyworld.mounted_names(), [])


class Lock(Prepare):
    HOLDER = """
import fcntl, os, sys, time
file = os.open(sys.argv[1], os.O_RDONLY)
fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
print(flush=True)
time.sleep(1000)
"""

    def hold_as(self, user):
        holder = subprocess.Popen([sys.executable, "-c", self.HOLDER, vyworld.PID_FILE], user=user, group=user,
                                  extra_groups=[], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.addCleanup(holder.stdout.close)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        return holder.stdout.readline() == b"\n"

    def test_of_another_user_keeps_nobody_from_starting(self):
        vyworld.write(vyworld.PID_FILE, "1\n", 0o1204)
        self.assertTrue(self.hold_as(SOMEBODY))
        told = self.prepare()
        self.assertEqual(told, "vyhotplug-prepare: /var/run/vyhotplugd.pid was locked by somebody who is not root, "
                               "it is made anew\n")
        self.assert_all_is_ready()
        self.start_daemon()
        self.assert_alive()

    def test_of_root_keeps_it_from_its_work(self):
        vyworld.write(vyworld.PID_FILE, "1\n")
        self.assertTrue(self.hold_as(0))
        self.prepare(status=1)
        self.assertFalse(os.path.lexists(HOOK_LINK))

    def test_is_out_of_other_users_reach(self):
        self.prepare()
        self.start_daemon()
        self.assertEqual(stat.S_IMODE(os.stat(vyworld.PID_FILE).st_mode), 0o600)
        self.assertFalse(self.hold_as(SOMEBODY))
        self.assertEqual(vyworld.read(vyworld.PID_FILE), f"{self.daemon.pid}\n")

    def test_while_the_service_runs_nothing_is_touched(self):
        self.prepare()
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        shares = vyworld.read(SHARES)
        signals = self.service.count()
        told = self.prepare(status=1)
        self.assertEqual(told, "vyhotplug-prepare: vyhotplugd is running, "
                               "/var/run/vyhotplugd.pid is locked\n")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(vyworld.read(SHARES), shares)
        self.assertEqual(self.service.count(), signals)
        self.prepare("--save")
        self.assertEqual(vyworld.read(COPY), vyworld.read(DEVICES))
        self.assert_alive()

    def test_a_pid_file_that_nobody_locks_does_not_matter(self):
        vyworld.write(vyworld.PID_FILE, "1\n")
        self.prepare()
        self.assertEqual(vyworld.read(vyworld.PID_FILE), "1\n")
        with open(vyworld.PID_FILE, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)  # it has let go
            self.prepare(status=1)


class Mistakes(Prepare):
    def test_in_the_configuration_are_told_with_line_and_right_word(self):
        self.write_config(defualtgid="100", mountfs="fat,ntsf", defaultdirectorypermission="rwxrwxr-x", strict="enabel")
        lines = vyworld.read_lines(CONFIG)
        told = self.prepare()
        for wrong, text in (
                ("defualtgid", "defualtgid is no key, write defaultgid; it is passed over"),
                ("mountfs", "mountfs: ntsf is no word for it, write ntfs; it is passed over"),
                ("defaultdirectorypermission",
                 "defaultdirectorypermission: rwxrwxr-x is no number, write 775; 775 is taken"),
                ("strict", "strict: enabel is no word for it, write enable; enable is taken")):
            number, = (at for at, line in enumerate(lines, 1) if line.split("=")[0].strip() == wrong)
            self.assertIn(f"vyhotplug-prepare: {CONFIG}:{number}: {text}\n", told)
            self.wait_until("it is logged once", lambda text=text: len(self.log.matching(text)) == 1)
        self.assertEqual(len(told.splitlines()), 4)

    def test_in_the_mount_flags_are_told_once(self):
        self.write_config(mountflags="nosiud")
        told = self.prepare()
        self.assertEqual(len(told.splitlines()), 1)
        self.wait_until("it is logged", lambda: self.log.matching("mountflags: nosiud is no word for it"))
        self.assertEqual(self.log.matching("Unknown Mount Flag"), [])

    def test_are_not_in_what_is_delivered(self):
        top = os.path.dirname(os.path.dirname(vyworld.FOLDER))
        for path in ("packaging/vyhotplugd.conf", "docs/examples/vyhotplugd.conf"):
            text = vyworld.read(os.path.join(top, path))
            vyworld.write(CONFIG, text)
            self.assertEqual(self.prepare(), "", path)

    def test_a_name_in_a_list_of_ids_is_told_with_its_number_and_kept(self):
        with open("/etc/passwd", "a", encoding="utf-8") as users:
            users.write("anna:x:1001:1001::/nonexistent:/bin/sh\n")
        self.prepare()
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.prepare("--save")
        text = vyworld.read(DEVICES).replace("Full Access Users=", "Full Access Users=anna")
        number = text.splitlines().index("Full Access Users=anna") + 1
        vyworld.write(DEVICES + ".mine", text)
        os.rename(DEVICES + ".mine", DEVICES)
        self.assertEqual(self.prepare("--save"), f"vyhotplug-prepare: {DEVICES}:{number}: [{partition.identifier}] "
                         "FullAccessUsers: anna is no user id, write 1001 for anna; it is passed over\n")
        self.assertEqual(vyworld.read(COPY), text)
        count = self.service.count()
        self.daemon.signal(signal.SIGHUP)
        self.wait_for_refresh(count + 1)
        self.assertNotIn("anna", vyworld.read(DEVICES))
        self.prepare("--save")
        self.assertEqual(vyworld.read(COPY + ".1"), text)

    def test_of_the_kernel_are_warned_of(self):
        set_kernel(protected=False)
        told = self.prepare()
        self.assertEqual(told.splitlines(), [
            f"vyhotplug-prepare: fs.protected_{name} is 0, the kernel does not keep root from what others lay in "
            "/tmp: set it to 1" for name in ("symlinks", "regular", "fifos")])


class Settings(Prepare):
    def fill(self, folder):
        with open(folder + "/filler", "wb", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(4096))
            except OSError as error:
                self.assertEqual(error.errno, 28)  # ENOSPC

    def test_come_back_after_a_restart_of_the_machine(self):
        self.prepare()
        vyworld.write(DEVICES, SETTINGS)
        self.start_daemon()
        settings = vyworld.read(DEVICES)
        self.assertIn("Share Name=Music\n", settings)
        self.assertEqual(self.stop_daemon(), 0)
        self.prepare("--save")
        self.assertEqual(vyworld.read(COPY), settings)
        shutil.rmtree(FILES)
        shutil.rmtree("/run/vyhotplugd")
        self.prepare()
        self.assertEqual(vyworld.read(DEVICES), settings)
        self.start_daemon()
        self.plug(self.make_partition("sda1"))
        self.assertIn("[Music]\n", vyworld.read(SHARES))

    def test_are_saved_only_when_they_differ(self):
        self.prepare()
        vyworld.write(DEVICES, SETTINGS)
        self.prepare("--save")
        before = everything(COPY_FOLDER)
        self.prepare("--save")
        self.assertEqual(everything(COPY_FOLDER), before)

    def test_are_not_replaced_by_nothing(self):
        self.prepare()
        vyworld.write(DEVICES, SETTINGS)
        self.prepare("--save")
        for replacement in ("", None):
            os.unlink(DEVICES)
            if replacement is not None:
                vyworld.write(DEVICES, replacement)
            self.assertIn("stays as it is\n", self.prepare("--save"))
            self.assertEqual(vyworld.read(COPY), SETTINGS)

    def test_that_cannot_be_saved_leave_the_old_copy(self):
        self.prepare()
        os.makedirs(COPY_FOLDER)
        mount_tmpfs(COPY_FOLDER, "size=64k,mode=755")
        vyworld.write(DEVICES, SETTINGS)
        self.prepare("--save")
        self.fill(COPY_FOLDER)
        vyworld.write(DEVICES, SETTINGS.replace("Music", "Films"))
        told = self.prepare("--save", status=1)
        self.assertIn("cannot be saved: No space left on device\n", told)
        self.assertEqual(vyworld.read(COPY), SETTINGS)
        self.assertEqual(sorted(os.listdir(COPY_FOLDER)), ["filler", "hotplug.dev.conf"])
        os.unlink(COPY_FOLDER + "/filler")
        self.prepare("--save")
        self.assertIn("Films", vyworld.read(COPY))

    def test_that_cannot_be_restored_do_not_hold_the_service_up(self):
        os.makedirs(COPY_FOLDER)
        vyworld.write(COPY, SETTINGS)
        os.mkdir(FILES)
        mount_tmpfs(FILES, "size=64k,mode=755")
        self.fill(FILES)
        told = self.prepare()
        self.assertIn("cannot be restored: No space left on device\n", told)
        self.assertEqual(os.listdir(FILES), ["filler"])
        os.unlink(FILES + "/filler")
        self.prepare()
        self.assertEqual(vyworld.read(DEVICES), SETTINGS)

    def test_of_a_killed_save_are_the_old_or_the_new_ones(self):
        self.require_strace()
        self.prepare()
        vyworld.write(DEVICES, SETTINGS)
        self.prepare("--save")
        new = SETTINGS.replace("Music", "Films")
        killed = 0
        for call in ("write", "fsync", "rename"):
            for number in (1, 2):
                vyworld.write(COPY, SETTINGS)
                vyworld.write(DEVICES, new)
                rule = f"/^{call}(at2?)?$"
                done = subprocess.run(
                    ["strace", "-qq", "-o", "/dev/null", "-e", f"trace={rule}",
                     "-e", f"inject={rule}:signal=KILL:when={number}",
                     f"{vyworld.PROGRAMS}/vyhotplug-prepare", "-f", CONFIG, "--save"],
                    stdin=subprocess.DEVNULL, capture_output=True, check=False, timeout=LIMIT,
                    env=vyworld.environment(traced=True))
                killed += done.returncode != 0
                with self.subTest(call=call, number=number):
                    self.assertIn(vyworld.read(COPY), (SETTINGS, new))
        self.assertGreater(killed, 2)
        self.prepare("--save")
        self.assertEqual(vyworld.read(COPY), new)


    def test_that_were_lost_are_in_the_generations(self):
        self.prepare()
        for number in range(8):
            vyworld.write(DEVICES, SETTINGS.replace("Music", f"Music {number}"))
            self.prepare("--save")
        vyworld.write(DEVICES, "[1:2::1]\nShare Name=\n")  # all of them
        self.prepare("--save")
        self.assertEqual([vyworld.read(f"{COPY}.{number}") for number in range(1, 6)],
                         [SETTINGS.replace("Music", f"Music {number}") for number in (7, 6, 5, 4, 3)])
        self.assertEqual(sorted(os.listdir(COPY_FOLDER)),
                         ["hotplug.dev.conf", *(f"hotplug.dev.conf.{number}" for number in range(1, 6))])
        shutil.copy(COPY + ".1", DEVICES)  # as the administrator brings them back
        self.prepare("--save")
        self.assertIn("Music 7", vyworld.read(COPY))

    def test_of_plugged_sticks_alone_make_no_generation(self):
        self.prepare()
        vyworld.write(DEVICES, SETTINGS)
        self.start_daemon()
        for name in ("sda1", "sdb1"):
            self.prepare("--save")
            partition = self.make_partition(name)
            self.plug(partition)
            self.prepare("--save")
            self.unplug(partition)
            self.prepare("--save")
        self.assertEqual(os.listdir(COPY_FOLDER), ["hotplug.dev.conf"])


class OtherFilesystems(Prepare):
    """/tmp and /run are filesystems of their own, as on most systems."""

    def setUp(self):
        mount_tmpfs_keeping("/tmp", "mode=1777")
        mount_tmpfs_keeping("/run", "mode=755")
        self.assertNotEqual(os.stat("/tmp").st_dev, os.stat("/run").st_dev)
        super().setUp()

    def refresh(self):
        count = self.service.count()
        self.daemon.signal(signal.SIGHUP)
        self.wait_for_refresh(count + 1)

    def test_the_files_appear_below_run_and_are_replaced(self):
        self.assertEqual(self.prepare(), "")
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sdb1")
        self.plug(first)
        self.assertEqual(os.stat(SHARES).st_dev, os.stat("/tmp").st_dev)
        self.assertIn(f"[{first.identifier}]\n", vyworld.read(DEVICES))
        inode = os.stat(SHARES).st_ino
        self.plug(second)
        self.assertNotEqual(os.stat(SHARES).st_ino, inode)
        self.assertIn(f"Path={first.directory}\n", vyworld.read(SHARES))
        vyworld.write(DEVICES, vyworld.read(DEVICES).replace(
            f"[{first.identifier}]\nShare Name=", f"[{first.identifier}]\nShare Name=Music"))
        self.refresh()
        self.assertIn("[Music]\n", vyworld.read(SHARES))
        self.unplug(second)
        self.assertNotIn(f"Path={second.directory}\n", vyworld.read(SHARES))

    def test_without_the_link_there_would_be_no_files(self):
        self.prepare()
        os.unlink(FILES_LINK)
        os.mkdir(FILES_LINK)
        self.start_daemon()
        partition = self.make_partition("sda1")
        count = self.service.count()
        vyworld.send(partition.add_message())
        self.wait_for_refresh(count + 1)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(os.listdir(FILES_LINK), [])

    def test_a_directory_in_the_links_place_is_set_right(self):
        os.makedirs(FILES_LINK)
        vyworld.write(SHARES, "old")
        self.assertIn(f"{FILES_LINK}: a directory of user 0 was in the way", self.prepare())
        self.assert_all_is_ready()

    def test_other_paths_there_are_warned_of(self):
        self.write_config(smbconfigpath="/run/other/shares", deviceconfigpath="/tmp/devices")
        told = self.prepare()
        self.assertEqual(told, "vyhotplug-prepare: /run/other/shares is not on the filesystem of "
                               "/tmp: the service cannot replace it\n")
        self.assertTrue(os.path.isdir("/run/other"))
        self.assertFalse(os.path.lexists(FILES))
