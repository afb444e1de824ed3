"""How the daemon starts, what it says of its configuration, that there is one only, how it ends."""

import fcntl
import os
import signal
import stat

import vyworld
from vyworld import CONFIG, DEBUG, ERR, INFO, NOTICE, PID_FILE, PROGRAMS, SystemTest

STARTED = "recieve(#)start recieve loop"

LAST_WORDS = ["recieve(#)exit recieve loop", "main(#)exit vyhotplugd"]


def report(**changes):
    """The configuration report of the tests' usual configuration."""
    rows = {"Type     ": "1", "DS/NAS   ": "1", "SMB Conf ": vyworld.SHARE_FILE,
            "Dev Conf ": vyworld.DEVICE_FILE, "MNT Path ": vyworld.MOUNT_DIR,
            "DEV Path ": vyworld.DEVICE_DIR, "UID      ": "0", "GID      ": "0",
            "fmask    ": "0664", "dmask    ": "0775", "Mount FS ": "VFAT,NTFS,EXT",
            "VFAT opt ": "utf8", "NTFS opt ": "", "EXT opt  ": "", "FAT Label": "enable"}
    rows.update({key.replace("_", " ").ljust(9): value for key, value in changes.items()})
    return [f"daemon(#){key}= {value}" for key, value in rows.items()]


class Detached(SystemTest):
    def start_detached(self, *options, cwd="/", program=PROGRAMS + "/vyhotplugd"):
        """Starts it as a daemon and returns it when its lock is taken."""
        done = vyworld.subprocess.run(
            [program, *options], cwd=cwd, env=vyworld.environment(),
            stdin=vyworld.subprocess.DEVNULL, capture_output=True, check=False,
            timeout=vyworld.LIMIT)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))
        self.wait_for_log(STARTED)
        self.daemon = vyworld.Daemon(None, int(vyworld.read(PID_FILE)))
        self.addCleanup(self.end_detached)
        return self.daemon

    def end_detached(self):
        if self.daemon.is_running():
            self.daemon.signal(signal.SIGTERM)
            self.wait_until("the daemon's end", lambda: not self.daemon.is_running())
        self.wait_for_log("main(#)exit vyhotplugd")

    def test_the_daemon_starts_itself_again_with_absolute_paths(self):
        daemon = self.start_detached("-f", "vynasmira/vyhotplugd.conf", "-l", "6", cwd="/tmp",
                                     program="bin/vyhotplugd")
        command = vyworld.read(f"/proc/{daemon.pid}/cmdline")
        self.assertEqual(command.split("\0"), ["/tmp/bin/vyhotplugd", "-f", CONFIG, "-l", "6",
                                               "-D", ""])
        self.wait_for_log(f"daemon(#)Load Config File({CONFIG})")

    def test_the_daemon_lets_go_of_its_surroundings(self):
        daemon = self.start_detached("-f", CONFIG)
        self.assertEqual(os.readlink(f"/proc/{daemon.pid}/cwd"), "/")
        self.assertEqual(os.getsid(daemon.pid), os.getpgid(daemon.pid))
        self.assertNotEqual(os.getsid(daemon.pid), os.getsid(0))
        parent = vyworld.read(f"/proc/{daemon.pid}/stat").rsplit(")")[-1].split()[1]
        self.assertEqual(parent, "1")
        streams = [target for number, target in daemon.descriptors() if number <= 2]
        self.assertEqual(streams, ["/dev/null"] * 3)

    def test_the_default_configuration_and_level_are_used_without_options(self):
        self.write_config(mountpath="/tmp/nowhere")
        daemon = self.start_detached()
        command = vyworld.read(f"/proc/{daemon.pid}/cmdline").split("\0")
        self.assertEqual(command[1:-1], ["-f", CONFIG, "-l", "4", "-D"])
        self.wait_for_log("daemon(#)Error - No Such Directory(/tmp/nowhere)")

    def test_the_configuration_in_the_working_directory_comes_first(self):
        os.mkdir("/tmp/here")
        vyworld.write("/tmp/here/vyhotplugd.conf", vyworld.read(CONFIG))
        daemon = self.start_detached(cwd="/tmp/here")
        command = vyworld.read(f"/proc/{daemon.pid}/cmdline").split("\0")
        self.assertEqual(command[1:3], ["-f", "/tmp/here/./vyhotplugd.conf"])

    def test_a_second_daemon_ends_and_leaves_the_first_alone(self):
        daemon = self.start_detached("-f", CONFIG)
        self.assert_tool("vyhotplugd", "-f", CONFIG)
        self.wait_for_log("main(#)Error - exit vyhotplugd (-1)")
        self.wait_for_log("main(#)cannot run more than one process")
        self.assertEqual(vyworld.read(PID_FILE), f"{daemon.pid}\n")
        self.assert_alive()

    def test_it_mounts_what_is_plugged_and_ends_in_order(self):
        daemon = self.start_detached("-f", CONFIG)
        partition = self.make_partition("sda1")
        self.plug(partition)
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")
        daemon.signal(signal.SIGTERM)
        self.wait_for_log("main(#)exit vyhotplugd")
        self.wait_until("the daemon's end", lambda: not daemon.is_running())


class PidFile(SystemTest):
    def test_the_pid_file_holds_the_pid_and_is_locked(self):
        daemon = self.start_daemon()
        self.assertEqual(vyworld.read(PID_FILE), f"{daemon.pid}\n")
        self.assertEqual(stat.S_IMODE(os.stat(PID_FILE).st_mode), 0o1204)
        with open(PID_FILE, "rb") as file, self.assertRaises(BlockingIOError):
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)

    def test_the_lock_goes_with_the_daemon_and_the_file_stays(self):
        self.start_daemon(settled=False)
        self.assertEqual(self.stop_daemon(), 0)
        with open(PID_FILE, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        self.start_daemon(settled=False)
        self.assertEqual(vyworld.read(PID_FILE), f"{self.daemon.pid}\n")

    def test_a_second_copy_in_the_foreground_is_refused(self):
        daemon = self.start_daemon(settled=False)
        for options in (["-d"], ["-D"]):
            self.assert_tool("vyhotplugd", "-f", CONFIG, *options, status=255)
        self.wait_for_log("main(#)cannot run more than one process", 2)
        self.wait_for_log("main(#)Error - initialize", 2)
        self.wait_for_log("main(#)Error - exit vyhotplugd (-1)", 2)
        self.assertEqual(vyworld.read(PID_FILE), f"{daemon.pid}\n")
        self.assert_alive()


class Foreground(SystemTest):
    def test_debug_mode_stays_in_the_foreground_and_logs_to_stderr_too(self):
        daemon = self.start_daemon(level=ERR, settled=False)
        self.assertEqual(daemon.pid, daemon.process.pid)
        self.assertEqual(self.stop_daemon(), 0)
        self.wait_for_log("main(#)exit vyhotplugd")
        lines = [line for line in self.log.lines if line.pid is not None]
        self.assertEqual(vyworld.read_lines(vyworld.STDERR),
                         [f"vyhotplugd[{daemon.pid}]: {line.raw}" for line in lines])

    def test_the_restarted_daemon_does_not_write_to_stderr(self):
        self.start_daemon(options=["-D"], settled=False)
        self.assertEqual(self.stop_daemon(), 0)
        self.assertEqual(vyworld.read(vyworld.STDERR), "")

    def test_a_relative_configuration_path_is_told_as_an_absolute_one(self):
        os.symlink(CONFIG, "/relative.conf")
        self.start_daemon(options=["-f", "relative.conf", "-d"], settled=False)
        self.wait_for_log("daemon(#)Load Config File(//relative.conf)")


class Log(SystemTest):
    def test_at_level_6_the_configuration_is_told_line_by_line(self):
        self.start_daemon(level=INFO)
        self.assertEqual(self.stop_daemon(), 0)
        self.wait_for_log("main(#)exit vyhotplugd")
        self.assertEqual([line for line in self.log.texts() if line != STARTED],
                         ["main(#)Application intialize is success.",
                          f"daemon(#)Load Config File({CONFIG})", *report(), *LAST_WORDS])

    def test_each_line_has_its_priority_and_facility(self):
        self.start_daemon(level=INFO, settled=False)
        self.stop_daemon()
        self.wait_for_log("main(#)exit vyhotplugd")
        self.assertEqual({line.facility for line in self.log.lines}, {vyworld.FACILITY_DAEMON})
        self.assertEqual({line.program for line in self.log.lines}, {"vyhotplugd"})
        self.assertEqual({line.pid for line in self.log.lines}, {self.daemon.pid})
        wanted = {"main(#)Application intialize is success.": INFO,
                  f"daemon(#)Load Config File({CONFIG})": NOTICE,
                  STARTED: ERR, **dict.fromkeys(LAST_WORDS, ERR),
                  **dict.fromkeys(report(), INFO)}
        self.assertEqual({line.text: line.priority for line in self.log.lines}, wanted)

    def test_at_level_4_only_errors_are_told(self):
        self.start_daemon(level=4)
        self.stop_daemon()
        self.wait_for_log("main(#)exit vyhotplugd")
        self.assertEqual(self.log.texts(), [STARTED, *LAST_WORDS])

    def test_at_level_7_messages_and_their_items_are_told_too(self):
        self.start_daemon(level=DEBUG)
        self.assertEqual(vyworld.request("ACTION=mount,sd,force"), b"success\0")
        self.stop_daemon()
        self.wait_for_log("main(#)exit vyhotplugd")
        told = [line for line in self.log.lines if line.priority == DEBUG]
        asked = [line.text for line in told if not line.text.startswith("process(#)")]
        self.assertEqual(asked, ["recieve(#)ACTION=mount,sd,force", "getopt(#)ACTION=mount",
                                 "getopt(#)sd", "getopt(#)force", "daemon(#)mount sd (8 0--1)"])
        self.assertIn("process(#)open pid file (/var/run/vynas-fssd.pid)", self.log.texts())
        items = [line.raw for line in told if line.raw.startswith("getopt")]
        self.assertEqual(items, ["getopt(243)ACTION=mount", "getopt(245)sd", "getopt(245)force"])

    def test_values_of_the_configuration_are_told_as_they_were_read(self):
        vyworld.write(CONFIG, f"""# a remark
SMB Type = SAMBA
ds/naswork = Disable
smbconfigpath = relative/path
deviceconfigpath = {vyworld.DEVICE_FILE}
 Mount Path\t=\t{vyworld.MOUNT_DIR}
devicepath = {vyworld.DEVICE_DIR}
defaultuid = 500
defaultuid = 501
defaultgid = many
defaultfilepermission = 640
defaultdirectorypermission = 89
mountfs = ext3,VFAT,hpfs
vfatoptions =
ntfsoptions = silent ;kept
extfsoptions = noatime,nodiratime
fatvolumelabel = 0
[other]
defaultuid = 7
""")
        self.start_daemon(level=INFO, settled=False)
        self.wait_for_log(STARTED)
        self.assertEqual(self.log.texts()[2:17], report(
            Type="2", **{"DS/NAS": "0"}, UID="501", fmask="0640", Mount_FS="VFAT,EXT",
            NTFS_opt="silent ;kept", EXT_opt="noatime,nodiratime", FAT_Label="disable"))


class ConfigurationFaults(SystemTest):
    def texts_of(self, priority):
        """The lines that start-up logged with that priority."""
        self.start_daemon(level=INFO, settled=False)
        self.stop_daemon()
        self.wait_for_log("main(#)exit vyhotplugd")
        return [line.text for line in self.log.lines
                if line.priority == priority and line.text not in (STARTED, *LAST_WORDS)]

    def test_an_empty_file_gives_the_defaults(self):
        vyworld.write(CONFIG, "")
        fallback = vyworld.DEVICE_FILE
        texts = self.texts_of(INFO)
        self.assertEqual(texts[1:], report(MNT_Path=fallback, DEV_Path=fallback))
        errors = [line.text for line in self.log.lines if line.text.startswith("daemon(#)Error")]
        self.assertEqual(errors, [f"daemon(#)Error - No Such Directory({fallback})"] * 2)

    def test_missing_directories_are_told_and_stop_nothing(self):
        self.write_config(mountpath="/tmp/m", devicepath="/tmp/d")
        self.assertEqual(self.texts_of(ERR), ["daemon(#)Error - No Such Directory(/tmp/m)",
                                              "daemon(#)Error - No Such Directory(/tmp/d)"])

    def test_a_mount_path_that_is_a_file_is_told_twice(self):
        vyworld.write("/tmp/m", "")
        self.write_config(mountpath="/tmp/m")
        self.assertEqual(self.texts_of(ERR),
                         ["daemon(#)Error - Not Directory(/tmp/m)",
                          f"daemon(#)Error - Not Directory({vyworld.DEVICE_DIR})"])

    def test_a_missing_device_path_alone_is_not_noticed(self):
        self.write_config(devicepath="/tmp/d")
        self.assertEqual(self.texts_of(ERR), [])

    def test_a_configuration_that_vanished_is_told_and_the_defaults_hold(self):
        os.unlink(CONFIG)
        with vyworld.subprocess.Popen(
                [PROGRAMS + "/vyhotplugd", "-l", "6", "-D"], cwd="/",
                env=vyworld.environment()) as process:
            self.wait_for_log(STARTED)
            process.send_signal(signal.SIGTERM)
            self.assertEqual(process.wait(vyworld.LIMIT), 0)
        self.wait_for_log("daemon(#)Load Config File()")
        line, = self.wait_for_log("config_file(#)No Such File()")
        self.assertEqual(line.priority, ERR)
        self.wait_for_log(f"daemon(#)SMB Conf = {vyworld.SHARE_FILE}")


class End(SystemTest):
    def test_both_stop_signals_end_it_with_status_0_and_its_last_words(self):
        for count, number in enumerate((signal.SIGTERM, signal.SIGINT), 1):
            self.start_daemon(level=4, settled=False)
            self.assertEqual(self.stop_daemon(number), 0)
            self.wait_for_log("main(#)exit vyhotplugd", count)

    def test_a_second_stop_signal_kills_a_daemon_that_hangs(self):
        vyworld.write(vyworld.HOOK, "#!/bin/sh\necho $$ > /tmp/hook.pid\nexec sleep 1000\n", 0o755)
        self.start_daemon()
        partition = self.make_partition("sda1")
        vyworld.send(partition.add_message())
        hook = self.wait_until("the hook runs", lambda: vyworld.read_lines("/tmp/hook.pid"))
        self.addCleanup(os.kill, int(hook[0]), signal.SIGKILL)
        self.daemon.signal(signal.SIGTERM)
        self.wait_until("the first signal is taken",
                        lambda: not self.daemon.catches(signal.SIGTERM))
        self.assertEqual(self.stop_daemon(signal.SIGTERM), -signal.SIGTERM)

    def test_mounts_are_left_in_place_and_the_next_start_forgets_them(self):
        self.start_daemon()
        partition = self.make_partition("sda1")
        self.plug(partition)
        shares = vyworld.read(vyworld.SHARE_FILE)
        hooks = vyworld.read(vyworld.HOOK_RECORD)
        self.assertEqual(self.stop_daemon(), 0)
        self.assertEqual(partition.read_file("readme.txt"), "this is sda1\n")
        self.assertEqual(vyworld.read_table(), partition.table_line())
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), shares)
        self.assertEqual(vyworld.read(vyworld.HOOK_RECORD), hooks)
        self.start_daemon()
        self.assertEqual(vyworld.read(vyworld.SHARE_FILE), "")
        self.assertEqual(vyworld.read(vyworld.DEVICE_FILE), "")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])

    def test_the_socket_name_in_use_ends_the_daemon(self):
        with vyworld.socket.socket(vyworld.socket.AF_UNIX) as listener:
            listener.bind(vyworld.socket_address())
            self.start_daemon(level=4, settled=False)
            self.assertEqual(self.daemon.process.wait(vyworld.LIMIT), 0)
        self.wait_for_log("main(#)exit vyhotplugd")
        self.assertEqual(self.log.texts(), ["socket_unix(#)Error - bind (err=98)", STARTED,
                                            *LAST_WORDS])
