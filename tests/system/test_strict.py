"""What another user of the machine tries against a strict daemon, and what nobody notices of a restart.

The same without the key shows what the attack would have done.
"""

import os
import signal
import subprocess
import sys
import time

import vyworld
from vyworld import DEVICE_FILE, HOOK, SHARE_FILE, SystemTest

STRANGER = 1234
SHARE_TEMPORARY = "/tmp/vyhotplug.dir.conf.tmp"
DEVICE_TEMPORARY = "/tmp/vyhotplug.dev.conf.tmp"
STRANGERS_SHELL = ("setpriv", f"--reuid={STRANGER}", f"--regid={STRANGER}", "--clear-groups")


def as_stranger(script):
    """A Python program of somebody who is not root."""
    return [*STRANGERS_SHELL, sys.executable, "-c", script]


SEND = """
import socket, sys
try:
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.connect("\\0vyhotplugd".ljust(108, "\\0"))
    connection.sendall(b"{message}\\0")
    print("answered" if connection.recv(64) else "closed")
except OSError as error:
    print(type(error).__name__)
"""

# Connects as often as it can, and holds what it gets.
SWARM = """
import socket, time
held = []
end = time.monotonic() + {seconds}
while time.monotonic() < end:
    try:
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connection.setblocking(False)
        connection.connect("\\0vyhotplugd".ljust(108, "\\0"))
        held.append(connection)
    except OSError:
        time.sleep(0.01)
    if len(held) > 100:
        held = held[50:]
"""


class StrictTest(SystemTest):
    def start_strict(self, **config):
        self.write_config(strict="enable", **config)
        return self.start_daemon()

    def stranger_sends(self, message):
        done = subprocess.run(as_stranger(SEND.format(message=message)), capture_output=True, check=True,
                              text=True, timeout=vyworld.LIMIT)
        return done.stdout.strip()

    def give(self, path):
        os.chown(path, STRANGER, STRANGER, follow_symlinks=False)


class Commands(StrictTest):
    def test_a_stranger_cannot_unmount(self):
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assertNotEqual(self.stranger_sends("ACTION=unmount,all,force"), "answered")
        self.wait_until("the refusal is told of", lambda: self.log.matching(
            rf"recieve\(#\)Refused 1 connections, the last of user {STRANGER} \(process \d+\)"))
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")

    def test_a_stranger_cannot_announce_a_device(self):
        self.start_strict()
        stick = self.make_partition("sda1", SID="X\\n[Etc]\\nPath=/etc\\nGuest Access=Enable\\nSerial=")
        before = vyworld.read(SHARE_FILE)
        self.stranger_sends(stick.add_message())
        self.let_it_idle()
        time.sleep(vyworld.ADD_HOLD)
        self.assertEqual(vyworld.mounted_names(), [])
        self.assertEqual(vyworld.read(SHARE_FILE), before)

    def test_without_the_key_a_stranger_can(self):
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assertEqual(self.stranger_sends("ACTION=unmount,all,force"), "answered")
        self.assertEqual(vyworld.mounted_names(), [])

    def test_half_open_connections_of_strangers_hold_nobody_up(self):
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        script = SWARM.format(seconds=20)
        swarm = [subprocess.Popen(as_stranger(script)) for _ in range(8)]
        try:
            self.wait_until("strangers are refused", lambda: self.log.matching(r"recieve\(#\)Refused .*"))
            started = time.monotonic()
            self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
            vyworld.log(f"unmounted beside a swarm in {time.monotonic() - started:.2f} s")
            stick.lay_node()
            self.assert_tool("vymount", "sda1", err="mount sda1 - success.\n")
        finally:
            for process in swarm:
                process.kill()
                process.wait()
        refusals = self.log.matching(r"recieve\(#\)Refused .*")
        self.assertLessEqual(len(refusals), 2, "they do not fill the log")

    def test_who_took_the_daemons_name_is_not_believed_by_the_clients(self):
        impostor = subprocess.Popen(as_stranger("""
import socket
listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
listener.bind("\\0vyhotplugd".ljust(108, "\\0"))
listener.listen()
print(flush=True)
while True:
    connection, _ = listener.accept()
    connection.recv(512)
    connection.sendall(b"success\\0")
"""), stdout=subprocess.PIPE)
        self.addCleanup(impostor.wait)
        self.addCleanup(impostor.kill)
        impostor.stdout.readline()
        self.assert_tool("vyunmount", "all", err="unmount all - failed.\n")
        self.assert_tool("vymount", "all", err="mount all - failed.\n")


class Files(StrictTest):
    def setUp(self):
        super().setUp()
        os.chmod("/tmp", 0o1777)
        vyworld.write("/tmp/victim", "untouched\n", 0o600)

    def refresh(self):
        count = self.service.count()
        self.daemon.signal(signal.SIGHUP)
        self.wait_for_refresh(count + 1)

    def lay(self, kind, path):
        """What a stranger may lay under a name in /tmp."""
        if kind == "link":
            os.symlink("/tmp/victim", path)
        elif kind == "file":
            vyworld.write(path, "[Etc]\nPath=/etc\n", 0o666)
        elif kind == "fifo":
            os.mkfifo(path, 0o666)
        elif kind == "directory":
            os.mkdir(path, 0o777)
            vyworld.write(path + "/below", "")
        if kind == "second name":
            os.link("/tmp/victim", path)
        else:
            self.give(path)

    def check_temporary(self, path):
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        for kind in ("link", "file", "fifo", "directory", "second name"):
            self.lay(kind, path)
            self.refresh()
            self.assertEqual(vyworld.read("/tmp/victim"), "untouched\n", kind)
            self.assertIn(f"Path={stick.directory}\n", vyworld.read(SHARE_FILE), kind)
            self.assertNotIn("[Etc]", vyworld.read(SHARE_FILE), kind)
            self.assertFalse(os.path.lexists(path), kind)
            self.assertEqual(os.stat(SHARE_FILE).st_uid, 0, kind)
        self.assertEqual(len(self.log.matching(rf"trust\(#\){path} was somebody else's, it is .* now")), 5)

    def test_nothing_under_the_share_files_temporary_name_counts(self):
        self.check_temporary(SHARE_TEMPORARY)

    def test_nothing_under_the_device_files_temporary_name_counts(self):
        self.check_temporary(DEVICE_TEMPORARY)

    def test_a_hook_of_a_strangers_is_not_run_and_told_of_once(self):
        vyworld.write(HOOK, "#!/bin/sh\necho stranger >> /tmp/victim\n", 0o755)
        self.give(HOOK)
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.assertEqual(vyworld.read("/tmp/victim"), "untouched\n")
        self.assertEqual(len(self.log.find(f"daemon(#)Error - {HOOK} is not run (err=13)")), 1)

    def test_a_hook_of_roots_is_run(self):
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.unplug(stick)
        record = [line.split() for line in vyworld.read_lines(vyworld.HOOK_RECORD)]
        self.assertEqual([(words[0], *words[2:]) for words in record],
                         [("2", "mount", stick.directory, "mounted"),
                          ("2", "unmount", stick.directory, "mounted")])

    def test_a_hook_behind_a_link_of_roots_is_run(self):
        os.rename(HOOK, "/etc/evhook")
        os.symlink("/etc/evhook", HOOK)
        self.start_strict()
        self.plug(self.make_partition("sda1"))
        self.assertEqual(len(vyworld.read_lines(vyworld.HOOK_RECORD)), 1)

    def test_a_hook_that_is_exchanged_after_the_look_is_not_run(self):
        """The first line that is run exchanges the file, as a stranger might between look and start."""
        vyworld.write(HOOK, f"#!/bin/sh\nmv /tmp/other {HOOK}\necho looked-at >> {vyworld.HOOK_RECORD}\n", 0o755)
        vyworld.write("/tmp/other", f"#!/bin/sh\necho other >> {vyworld.HOOK_RECORD}\n", 0o755)
        self.start_strict()
        self.plug(self.make_partition("sda1"))
        self.assertEqual(vyworld.read_lines(vyworld.HOOK_RECORD), ["looked-at"])

    def test_a_device_file_that_is_a_fifo_holds_nobody_up(self):
        self.start_strict()
        os.unlink(DEVICE_FILE)
        os.mkfifo(DEVICE_FILE, 0o666)
        self.give(DEVICE_FILE)
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assertEqual(len(self.log.find(f"daemon(#)Error - {DEVICE_FILE} is not read (err=13)")), 1)

    def test_settings_that_cannot_be_read_are_not_replaced(self):
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        settings = vyworld.read(DEVICE_FILE).replace("Share Name=\n", "Share Name=Photos\n")
        vyworld.write(DEVICE_FILE + ".new", settings, 0o666)
        os.rename(DEVICE_FILE + ".new", DEVICE_FILE)
        self.daemon.signal(signal.SIGHUP)
        self.wait_for_log(f"daemon(#)Error - {DEVICE_FILE} is not read (err=1)")
        self.let_it_idle()
        self.assertEqual(vyworld.read(DEVICE_FILE), settings)
        self.assertEqual(len(self.log.find(f"daemon(#)Error - {DEVICE_FILE} is not read (err=1)")), 1)
        os.chmod(DEVICE_FILE, 0o644)
        self.wait_until("the refresh is made up for", lambda: "[Photos]\n" in vyworld.read(SHARE_FILE))

    def test_a_name_where_a_number_belongs_is_not_lost(self):
        self.start_strict()
        stick = self.make_partition("sda1")
        self.plug(stick)
        settings = vyworld.read(DEVICE_FILE).replace("Full Access Users=\n", "Full Access Users=anna\n")
        vyworld.write(DEVICE_FILE + ".new", settings, 0o644)
        os.rename(DEVICE_FILE + ".new", DEVICE_FILE)
        for _ in range(2):
            self.refresh()
            self.assertIn("Full Access Users=anna\n", vyworld.read(SHARE_FILE))
            self.assertIn("Full Access Users=anna\n", vyworld.read(DEVICE_FILE))

    def ways_to_leave(self):
        """A plugged stick for each of them, and the way."""
        for name, leave in (("sda1", self.unmount_by_request), ("sdb1", self.unplug)):
            stick = self.make_partition(name)
            self.plug(stick)
            yield stick, leave

    def unmount_by_request(self, stick):
        self.assert_tool("vyunmount", stick.name, err=f"unmount {stick.name} - success.\n")

    def test_a_share_file_that_is_no_file_of_roots_is_not_written_through(self):
        self.start_strict()
        for stick, leave in self.ways_to_leave():
            os.unlink(SHARE_FILE)
            self.lay("link", SHARE_FILE)
            leave(stick)
            self.assertEqual(vyworld.read("/tmp/victim"), "untouched\n", leave)

    def test_a_configuration_that_others_may_write_to_ends_the_start(self):
        self.write_config(strict="enable")
        os.chmod(vyworld.CONFIG, 0o666)
        done = subprocess.run([vyworld.PROGRAMS + "/vyhotplugd", "-d", "-f", vyworld.CONFIG],
                              capture_output=True, check=False, env=vyworld.environment())
        self.assertEqual(done.returncode, 255)
        self.wait_for_log(f"daemon(#)Error - {vyworld.CONFIG} is not root's alone (err=1)")

    def test_the_mount_tables_temporary_name_is_set_aside(self):
        self.start_strict()
        for stick, leave in self.ways_to_leave():
            self.lay("link", "/tmp/mntent.tmp")
            leave(stick)
            self.assertEqual(vyworld.read("/tmp/victim"), "untouched\n", leave)
            self.assertNotIn(stick.node, vyworld.read_table())


class Flags(SystemTest):
    def options_of(self, stick):
        mount, = [mount for mount in vyworld.mounts() if mount.directory == stick.directory]
        return set(mount.options)

    def test_the_configured_flags_are_on_every_mount(self):
        self.write_config(mountflags="nosuid,nodev,noexec,noatime")
        self.start_daemon()
        wanted = {"nosuid", "nodev", "noexec", "noatime"}
        for name, filesystem in (("sda1", "ext4"), ("sdb1", "ntfs")):
            stick = self.make_partition(name, filesystem)
            self.plug(stick)
            self.assertLessEqual(wanted, self.options_of(stick), filesystem)

    def test_the_read_only_attempt_has_them_too(self):
        self.write_config(mountflags="nosuid,nodev")
        self.start_daemon(strace=self.trace("mount:error=EROFS:when=2"))
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assertLessEqual({"nosuid", "nodev", "ro"}, self.options_of(stick))

    def test_an_unknown_word_is_told_and_the_others_count(self):
        self.write_config(mountflags="nosuid,nodve")
        self.start_daemon()
        self.wait_for_log("config_file(#)Error - Unknown Mount Flag(nodve)")
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.assertIn("nosuid", self.options_of(stick))


class Adoption(SystemTest):
    def restart(self, number=signal.SIGKILL):
        status = self.stop_daemon(number)
        self.assertEqual(status, 0 if number == signal.SIGTERM else -number)
        self.start_daemon()

    def announce(self, stick):
        """As the agent does to every new daemon; the share file tells of it then."""
        count = self.service.count()
        vyworld.send(stick.add_message())
        self.wait_for_refresh(count + 1)

    def check_adoption(self, filesystem, number=signal.SIGKILL, **config):
        self.write_config(adopt="enable", **config)
        self.start_daemon()
        stick = self.make_partition("sda1", filesystem)
        self.plug(stick)
        mounts = vyworld.read("/proc/self/mountinfo")
        with open(stick.directory + "/readme.txt", encoding="utf-8") as file:
            self.restart(number)
            self.announce(stick)
            self.wait_for_log(f"daemon(#)adopt {stick.node} {stick.directory}")
            self.assertEqual(vyworld.read("/proc/self/mountinfo"), mounts, "nothing was mounted or unmounted")
            self.assertEqual(file.read(), "this is sda1\n")
            self.assertIn(f"Path={stick.directory}\n", vyworld.read(SHARE_FILE))
            self.assertEqual(vyworld.request("ACTION=unmount,sda1"), b"faild\0", "somebody uses it")
        self.assertEqual(len(vyworld.read_lines(vyworld.HOOK_RECORD)), 2, "mounted once, asked to unmount once")
        return stick

    def test_an_ext4_medium_is_taken_over_and_unmounted_by_request(self):
        stick = self.check_adoption("ext4")
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.assertEqual(vyworld.mounted_names(), [])
        stick.lay_node()
        self.assert_tool("vymount", "sda1", err="mount sda1 - success.\n")
        self.unplug(stick)
        self.assert_no_trace(stick)

    def test_what_was_taken_over_is_withdrawn_by_its_name_before_the_first_refresh(self):
        """The share service exports it still, and must let go of it."""
        self.write_config(adopt="enable")
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.restart()
        vyworld.send(stick.add_message())
        vyworld.send("ACTION=unmount,sda1")  # its turn is right behind the other
        self.wait_for_log(f"daemon(#)unmount {stick.node} {stick.directory}")
        texts = [signal["shares"] for signal in self.service.signals()]
        whole = next(text for text in reversed(texts) if f"Path={stick.directory}\n" in text)
        self.assertTrue(whole.endswith("[Drive(A1)]\n"), whole)

    def test_an_ext4_medium_is_taken_over_and_pulled(self):
        stick = self.check_adoption("ext4", signal.SIGTERM)
        self.unplug(stick)
        self.assert_no_trace(stick)

    def test_an_ntfs_medium_is_taken_over_and_pulled(self):
        stick = self.check_adoption("ntfs")
        self.assertIn("File System=NTFS\n", vyworld.read(SHARE_FILE))
        self.unplug(stick)
        self.assert_no_trace(stick)

    def options_when_taken_over(self, **config):
        """Of what was mounted without that configuration."""
        self.write_config(adopt="enable")
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.write_config(adopt="enable", **config)
        self.restart()
        self.announce(stick)
        mount, = vyworld.mounts()
        return set(mount.options)

    def test_it_gets_the_flags_of_the_configuration_as_it_is_now(self):
        self.assertLessEqual({"nosuid", "noexec", "nodev", "rw"},
                             self.options_when_taken_over(mountflags="nosuid,noexec"))

    def test_what_belongs_to_the_filesystem_stays_as_it_was(self):
        """Others than the service may have it mounted, too."""
        options = self.options_when_taken_over(mountflags="nosuid,sync")
        self.assertIn("nosuid", options)
        self.assertNotIn("sync", options)

    def test_a_read_only_one_stays_read_only(self):
        self.write_config(adopt="enable", mountflags="nosuid")
        self.start_daemon()
        stick = self.make_partition("sda1", readonly=True)
        self.plug(stick)
        self.restart()
        self.announce(stick)
        line, = [line.split() for line in vyworld.read_lines("/proc/self/mountinfo") if stick.directory in line]
        self.assertLessEqual({"ro", "nosuid"}, set(line[5].split(",")), "the mount, and not the medium alone")
        self.assertIn("Read Only=Enable\n", vyworld.read(SHARE_FILE))

    def test_announced_twice_it_is_taken_over_once(self):
        self.write_config(adopt="enable")
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.restart()
        self.announce(stick)
        self.announce(stick)
        self.assertEqual(len(self.log.find(f"daemon(#)adopt {stick.node} {stick.directory}")), 1)

    def test_another_filesystem_at_the_place_is_not_taken_over(self):
        self.check_another("ext4", "mount")

    def test_another_ntfs_at_the_place_is_not_taken_over(self):
        self.check_another("ntfs", "ntfs-3g")

    def check_another(self, filesystem, program):
        self.write_config(adopt="enable")
        self.start_daemon()
        stick = self.make_partition("sda1", filesystem)
        other = self.make_partition("sdb1", filesystem)
        os.mkdir(stick.directory)
        subprocess.run([program, other.node, stick.directory], check=True)
        vyworld.send(stick.add_message())
        time.sleep(vyworld.ADD_HOLD)
        self.let_it_idle()
        self.assertEqual(self.log.matching(r"daemon\(#\)adopt .*"), [])
        subprocess.run(["umount", stick.directory], check=True)

    def test_what_is_not_mounted_any_more_is_not_taken_over(self):
        self.check_refusal({"adopt": "enable"}, {"adopt": "enable", "mountfs": "fat,ntfs"})

    def test_without_the_key_nothing_is_taken_over(self):
        self.check_refusal({}, {})

    def check_refusal(self, before, after):
        self.write_config(**before)
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.write_config(**after)
        self.restart()
        vyworld.send(stick.add_message())
        time.sleep(vyworld.ADD_HOLD)
        self.let_it_idle()
        self.assertEqual(self.log.matching(r"daemon\(#\)adopt .*"), [])
        self.assertNotIn(f"Path={stick.directory}\n", vyworld.read(SHARE_FILE))
