"""The Samba bridge: what it makes of the share file, and what a real Samba makes of that."""

import os
import random
import re
import shutil
import signal
import stat
import subprocess
import time
import xml.etree.ElementTree

import samba_world
import vyworld
from samba_world import (BRIDGE, FIXED, INCLUDE, KSMBD_BRIDGE, OWN_CONFIG, SETUP, SMB_CONF, BridgeTest, SambaTest,
                         can_unmount, share)
from vyworld import CONFIG, INFO, SERVICE_PID_FILE, SHARE_FILE


class Program(BridgeTest):
    def test_it_holds_the_services_place_and_follows_sighup(self):
        vyworld.write(SHARE_FILE, share("A", FIXED))
        self.start_bridge()
        self.assertEqual(int(vyworld.read(SERVICE_PID_FILE)), self.bridge.pid)
        self.assertEqual(self.exported(), ["A"])
        self.assertEqual(stat.S_IMODE(os.stat(INCLUDE).st_mode), 0o644)
        self.set_shares(share("A", FIXED) + share("B", FIXED))
        self.assertEqual(self.exported(), ["A", "B"])
        self.withdraw("A")
        self.assertEqual(self.exported(), ["B"])
        self.wait_for_log("bridge(#)share A is withdrawn")

    def test_a_second_copy_refuses(self):
        self.start_bridge()
        second = subprocess.run(self.command(), stdin=subprocess.DEVNULL, check=False,
                                timeout=vyworld.LIMIT, env=vyworld.environment())
        self.assertEqual(second.returncode, 1)
        self.wait_for_log("main(#)cannot lock /var/run/vynas-fssd.pid, another copy may be running")
        self.assertEqual(int(vyworld.read(SERVICE_PID_FILE)), self.bridge.pid)

    def test_the_bridge_to_another_server_refuses(self):
        vyworld.write(SHARE_FILE, share("A", FIXED))
        self.start_bridge()
        os.makedirs("/run/vynas-ksmbd")
        before = vyworld.read(INCLUDE), vyworld.read(SERVICE_PID_FILE)
        times = [os.stat(path).st_mtime_ns for path in (INCLUDE, SERVICE_PID_FILE)]
        other = subprocess.run([KSMBD_BRIDGE, "-f", CONFIG, "-c", OWN_CONFIG], stdin=subprocess.DEVNULL, check=False,
                               timeout=vyworld.LIMIT, env=vyworld.environment())
        self.assertEqual(other.returncode, 1)
        self.wait_for_log("main(#)cannot lock /var/run/vynas-fssd.pid, another copy may be running")
        self.assertEqual((vyworld.read(INCLUDE), vyworld.read(SERVICE_PID_FILE)), before)
        self.assertEqual([os.stat(path).st_mtime_ns for path in (INCLUDE, SERVICE_PID_FILE)], times)
        self.assertEqual(os.listdir("/run/vynas-ksmbd"), [])
        self.set_shares(share("A", FIXED) + share("B", FIXED))
        self.assertEqual(self.exported(), ["A", "B"])

    def test_sigterm_and_sigint_end_it_and_leave_the_file(self):
        vyworld.write(SHARE_FILE, share("A", FIXED))
        for number in (signal.SIGTERM, signal.SIGINT):
            self.start_bridge()
            self.bridge.send_signal(number)
            self.assertEqual(self.bridge.wait(vyworld.LIMIT), 0)
            self.assertEqual(self.exported(), ["A"])
            self.log.lines.clear()

    def test_at_its_end_nobody_is_to_be_told(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            self.start_bridge()
            self.bridge.send_signal(number)
            self.assertEqual(self.bridge.wait(vyworld.LIMIT), 0)
            self.assertEqual(vyworld.read(SERVICE_PID_FILE), "")
            self.log.lines.clear()

    def test_that_its_number_stays_is_told(self):
        self.require_strace()
        call = "/^ftruncate(64)?$"  # the first one makes room for the number
        bridge = subprocess.Popen(
            ["strace", "-qq", "-o", "/dev/null", "-e", f"trace={call}", "-e",
             f"inject={call}:error=EIO:when=2", *self.command()], stdin=subprocess.DEVNULL,
            env=vyworld.environment(traced=True))
        self.addCleanup(bridge.wait)
        self.addCleanup(bridge.kill)
        self.wait_for_log("main(#)start")
        os.kill(int(vyworld.read(SERVICE_PID_FILE)), signal.SIGTERM)
        self.assertEqual(bridge.wait(vyworld.LIMIT), 0)
        self.wait_for_log("main(#)cannot empty /var/run/vynas-fssd.pid (5)")

    def test_it_sleeps_while_there_is_nothing_to_do(self):
        self.start_bridge()

        def switches():
            status = vyworld.read(f"/proc/{self.bridge.pid}/status")
            return re.findall(r"ctxt_switches:\s*(\d+)", status)

        before = switches()
        time.sleep(1.5)
        self.assertEqual(switches(), before)

    def test_stopping_and_continuing_does_not_end_it(self):
        self.start_bridge()  # it waits: what is interrupted is the wait for signals
        for name in ("A", "B"):
            self.bridge.send_signal(signal.SIGSTOP)
            self.wait_until("it is stopped", lambda: self.bridge_state() == "T")
            self.bridge.send_signal(signal.SIGCONT)
            self.wait_until("it waits again, or has ended",
                            lambda: self.bridge.poll() is not None or self.bridge_waits())
            self.assertIsNone(self.bridge.poll())
            self.set_shares(share(name, FIXED))
            self.assertEqual(self.exported(), [name])

    def test_once(self):
        vyworld.write(SHARE_FILE, share("A", FIXED))
        done = self.run_bridge("--once")
        self.assertEqual((done.status, done.out), (0, ""))
        self.assertEqual(self.exported(), ["A"])
        self.assertFalse(os.path.exists(SERVICE_PID_FILE))

    def test_once_fails_when_the_file_cannot_be_written(self):
        vyworld.write(OWN_CONFIG, "includepath = /proc/shares.conf\n")
        done = self.run_bridge("--once")
        self.assertEqual((done.status, done.out), (1, ""))
        self.assertRegex(done.err, r"cannot write /proc/shares\.conf \(2\)")

    def test_print_writes_nothing(self):
        vyworld.write(SHARE_FILE, share("A", FIXED))
        done = self.run_bridge("--print")
        self.assertEqual(done.status, 0)
        self.assertEqual(samba_world.names_in(done.out), ["A"])
        self.assertFalse(os.path.exists(INCLUDE))

    def test_help_and_version(self):
        self.assertRegex(self.run_bridge("--help").out, "^Usage: vynas-samba ")
        self.assertRegex(self.run_bridge("--version").out, rf"^vynas-samba {samba_world.BUILD}\n$")
        self.assertEqual(self.run_bridge("--help").status, 0)
        wrong = self.run_bridge("extra")
        self.assertEqual((wrong.status, wrong.out), (1, ""))

    def test_output_that_nobody_takes_is_a_failure(self):
        vyworld.write(SHARE_FILE, share("A", FIXED))
        for option in ("--print", "--help", "--version"):
            with open("/dev/full", "wb") as full:
                done = subprocess.run(self.command(option), stdin=subprocess.DEVNULL, stdout=full,
                                      stderr=subprocess.PIPE, check=False, timeout=vyworld.LIMIT,
                                      env=vyworld.environment())
            self.assertEqual((done.returncode, done.stderr),
                             (1, b"vynas-samba: No space left on device\n"), option)

    def test_its_own_configuration(self):
        vyworld.write(OWN_CONFIG, "includepath = /tmp/other/include.conf\nadministrator = anna\n"
                                  "force user = nobody\n")
        vyworld.write(SHARE_FILE, share("A", FIXED, Administrator="Block"))
        self.assertEqual(self.run_bridge("--once").status, 0)
        text = vyworld.read("/tmp/other/include.conf")
        self.assertIn("\tinvalid users = anna\n", text)
        self.assertIn("\tforce user = nobody\n", text)

    def test_nothing_is_shared_in_the_name_of_a_user_who_is_not_there(self):
        vyworld.write(OWN_CONFIG, "forceuser = media\n")
        vyworld.write(SHARE_FILE, share("A", FIXED, Guest_Access="Enable"))
        self.start_bridge()
        self.assertEqual(self.exported(), [])
        line = "bridge(#)there is no user media (forceuser): nothing is exported"
        self.signal_bridge()
        self.assertEqual(len(self.wait_for_log(line)), 1)
        with open("/etc/passwd", "a", encoding="utf-8") as file:
            file.write("media:x:5100:100::/tmp:/bin/false\n")
        self.signal_bridge()
        self.assertEqual(self.exported(), ["A"])

    def test_smbcontrol_is_told_of_each_change(self):
        calls = "/tmp/smbcontrol.calls"
        vyworld.write("/tmp/control", f'#!/bin/sh\n[ $2 = reload-config ] || sleep 0.5\necho "$*" >>{calls}\n', 0o755)
        vyworld.write(OWN_CONFIG, "smbcontrol = /tmp/control\n")
        vyworld.write(SHARE_FILE, share("A b", FIXED) + share("C", FIXED))
        self.start_bridge()
        self.withdraw("A b")
        self.assertEqual(vyworld.read_lines(calls), ["smbd reload-config", "smbd reload-config",
                                                     "smbd close-share -- A b"])
        self.signal_bridge()
        self.assertEqual(len(vyworld.read_lines(calls)), 3)  # nothing has changed

    def test_a_change_is_told_without_waiting_for_more_than_smbcontrol(self):
        """The service unmounts 400 ms after it has withdrawn a share."""
        vyworld.write("/tmp/control", "#!/bin/sh\nsleep 0.2\n", 0o755)
        vyworld.write(OWN_CONFIG, "smbcontrol = /tmp/control\n")
        vyworld.write(SHARE_FILE, share("A", FIXED) + share("B", FIXED))
        begin = time.monotonic()
        self.start_bridge()
        self.assertLess(time.monotonic() - begin, 3)
        self.assertLess(self.withdraw("A"), 3)
        self.bridge.terminate()
        self.assertEqual(self.bridge.wait(vyworld.LIMIT), 0)
        vyworld.write(SHARE_FILE, "")
        begin = time.monotonic()
        self.assertEqual(self.run_bridge("--once").status, 0)
        self.assertLess(time.monotonic() - begin, 3)

    def test_a_smbcontrol_that_hangs_holds_nothing_up_for_ever(self):
        vyworld.write("/tmp/control", "#!/bin/sh\nexec sleep 1000\n", 0o755)
        vyworld.write(OWN_CONFIG, "smbcontrol = /tmp/control\n")
        vyworld.write(SHARE_FILE, share("A", FIXED))
        self.start_bridge()
        self.wait_for_log("samba_control(#)smbcontrol does not end, it is killed")
        self.assertEqual(self.exported(), ["A"])

    def test_nothing_is_logged_below_level_info(self):
        """The parsers log each item of a list at LOG_DEBUG."""
        self.write_config(mountfs="fat,ext", vfatoptions="utf8")
        vyworld.write(SHARE_FILE, share("A", FIXED))
        self.start_bridge()
        self.wait_for_log(f"bridge(#){INCLUDE} is written")
        self.assertEqual([str(line) for line in self.log.lines if line.priority > INFO], [])

    def test_what_it_says_it_says_once(self):
        vyworld.write(SHARE_FILE, share("A", "/tmp/none") + share("B", FIXED) + share("B", FIXED))
        self.start_bridge()
        self.signal_bridge()
        lines = ["bridge(#)share A () is withdrawn: /tmp/none is no directory",
                 "bridge(#)share B is described 2 times: only the last of them counts"]
        for line in lines:
            self.assertEqual(len(self.wait_for_log(line)), 1)
        self.assertEqual(self.log.find(lines[0])[0].priority, INFO)


class Access(SambaTest):
    """The table of the manual page, as clients see it."""

    def setUp(self):
        super().setUp()
        vyworld.write(f"{FIXED}/who", "here\n")

    def start_with(self, shares, config=""):
        vyworld.write(OWN_CONFIG, config)
        vyworld.write(SHARE_FILE, shares)
        self.start_bridge()
        self.start_samba()

    def test_everybody_without_lists(self):
        self.start_with(share("open", FIXED, Comment="Living room", Guest_Access="Enable")
                        + share("accounts", FIXED) + share("readonly", FIXED, Read_Only="Enable",
                                                           Guest_Access="Enable"))
        self.assertEqual(self.listing()["open"], "Living room")
        self.assert_rights("open", anna="vrw", bert="vrw", guest="vrw")
        self.assert_rights("accounts", anna="vrw", bert="vrw", guest="v")
        self.assert_rights("readonly", anna="vr", bert="vr", guest="vr")

    def test_only_those_listed(self):
        lists = {"Full_Access_Users": "5001,", "Read_Only_Users": "5002,"}
        self.start_with(share("listed", FIXED, **lists)
                        + share("guests", FIXED, Guest_Access="Enable", **lists)
                        + share("readonly", FIXED, Read_Only="Enable", **lists)
                        + share("unknown", FIXED, Full_Access_Users="4999,"))
        self.assert_rights("listed", anna="vrw", bert="vr", carl="v", guest="v")
        self.assert_rights("guests", anna="vrw", bert="vr", carl="v", guest="vrw")
        self.assert_rights("readonly", anna="vr", bert="vr", carl="v")
        self.assert_rights("unknown", anna="v", guest="v")
        self.wait_for_log("bridge(#)share unknown: no user has the id 4999")

    def test_blocked_and_hidden(self):
        self.start_with(share("block", FIXED, Block_Users="5001,", Guest_Access="Enable")
                        + share("hide", FIXED, Hide_Users="5001,", Guest_Access="Enable")
                        + share("both", FIXED, Hide_Users="5001,", Full_Access_Users="5001,5002,")
                        + share("guesthide", FIXED, Guest_Hide="Enable", Guest_Access="Enable"))
        self.assert_rights("block", anna="v", bert="vrw", guest="vrw")
        self.assert_rights("hide", anna="", bert="vrw", guest="vrw")
        self.assert_rights("both", anna="", bert="vrw", carl="")  # who may not enter sees nothing
        self.assert_rights("guesthide", anna="vrw", guest="")

    def test_the_administrator(self):
        self.add_user("root", 0)
        self.start_with(share("full", FIXED, Full_Access_Users="5001,")
                        + share("read", FIXED, Administrator="ReadOnly")
                        + share("block", FIXED, Administrator="Block")
                        + share("hide", FIXED, Administrator="HideT")
                        + share("nobody", FIXED, Administrator="Block", Full_Access_Users="4999,"))
        self.assert_rights("full", root="vrw")
        self.assert_rights("read", root="vr", anna="vrw")
        self.assert_rights("block", root="v", anna="vrw")
        self.assert_rights("hide", root="", anna="vrw")
        self.assert_rights("nobody", root="v", anna="v", guest="v")

    def test_everybody_works_as_one_user(self):
        self.start_with(share("forced", FIXED, Full_Access_Users="5001,", Read_Only_Users="5002,",
                              Guest_Access="Enable"), "force user = dora\n")
        self.assert_rights("forced", anna="vrw", bert="vr", carl="v", guest="vrw")
        self.assertEqual(os.stat(f"{FIXED}/by-anna").st_uid, self.USERS["dora"])

    def test_what_the_global_section_allows_does_not_reach_the_shares(self):
        self.write_smb_conf("guest ok = yes\nwrite list = bert\nadmin users = anna\n"
                            "read only = no\nguest only = yes\n", "comment = of global\n")
        self.start_with(share("readonly", FIXED, Read_Only="Enable") + share("plain", FIXED))
        self.assert_rights("readonly", anna="vr", bert="vr", guest="v")
        self.assertTrue(self.may_write("plain", "anna"))
        self.assertEqual(os.stat(f"{FIXED}/by-anna").st_uid, self.USERS["anna"])
        self.assertEqual(self.listing("anna"), {"readonly": "", "plain": ""})

    def test_a_link_on_a_medium_does_not_lead_into_the_system(self):
        os.symlink("/etc", f"{FIXED}/out")
        self.start_with(share("A", FIXED))
        self.assertIsNone(self.fetch("A", "out/passwd", "anna"))
        self.assertIn("\twide links = no\n", vyworld.read(INCLUDE))

    def test_what_stands_behind_the_include_line_is_not_the_last_shares(self):
        self.write_smb_conf(shares="hide files = /x/\n[own]\npath = /tmp\n")
        self.start_with(share("last", FIXED))
        found = samba_world.testparm(SMB_CONF)
        self.assertEqual(sorted(found), ["last", "own"])
        self.assertNotEqual(found["last"].get("hide files"), "/x/")

    def test_sync(self):
        self.start_with(share("on", FIXED, Sync="Enable") + share("off", FIXED))
        found = samba_world.testparm(SMB_CONF)
        self.assertEqual(found["on"].get("sync always"), "Yes")
        self.assertNotEqual(found["on"].get("strict sync"), "No")  # yes is Samba's default
        self.assertNotEqual(found["off"].get("sync always"), "Yes")
        self.assertEqual(found["off"].get("strict sync"), "No")

    def test_a_change_of_rights_counts_for_those_who_are_connected(self):
        self.start_with(share("A", FIXED))
        with self.held_open("A", f"{FIXED}/who", "anna"):
            self.set_shares(share("A", FIXED, Block_Users="5001,"))
            self.wait_until("she is sent away",
                            lambda: f"{FIXED}/who" not in samba_world.held_by_samba())
        self.assert_rights("A", anna="v", bert="vrw")

    def test_a_new_comment_disturbs_nobody(self):
        self.start_with(share("A", FIXED))
        with self.held_open("A", f"{FIXED}/who", "anna"):
            self.set_shares(share("A", FIXED, Comment="new"))
            self.wait_until("Samba has read it", lambda: self.listing("bert") == {"A": "new"})
            self.assertIn(f"{FIXED}/who", samba_world.held_by_samba())


class Withdrawal(SambaTest):
    def setUp(self):
        super().setUp()
        self.directory = self.mount_disk("sda1")

    def start(self):
        vyworld.write(SHARE_FILE, share("Stick", self.directory))
        self.start_bridge()
        self.start_samba()
        self.assertEqual(self.fetch("Stick", "who", "anna"), "this is sda1\n")

    def test_a_share_that_is_withdrawn_lets_its_filesystem_go(self):
        self.start()
        with self.held_open("Stick", f"{self.directory}/who", "anna"):
            self.assertFalse(can_unmount(self.directory))
            told = self.withdraw("Stick")
            self.assertLess(told, 4)  # as a rule a twentieth of a second, on a quiet machine
            begin = time.monotonic()
            self.wait_until("it can be unmounted", lambda: can_unmount(self.directory))
            vyworld.log(f"told after {told * 1000:.0f} ms, let go "
                        f"{(time.monotonic() - begin) * 1000:.0f} ms later")
        self.assertNotIn("Stick", self.listing("anna"))
        self.assertIsNone(self.fetch("Stick", "who", "anna"))

    def test_a_share_that_leads_elsewhere_lets_the_old_filesystem_go(self):
        other = self.mount_disk("sdb1")
        self.start()
        with self.held_open("Stick", f"{self.directory}/who", "anna"):
            self.set_shares(share("Stick", other))
            self.wait_until("the first can be unmounted", lambda: can_unmount(self.directory))
        self.assertEqual(self.fetch("Stick", "who", "anna"), "this is sdb1\n")

    def test_a_share_file_that_is_gone_lets_everything_go(self):
        self.start()
        with self.held_open("Stick", f"{self.directory}/who", "anna"):
            os.unlink(SHARE_FILE)
            self.signal_bridge()
            self.wait_until("it can be unmounted", lambda: can_unmount(self.directory))
        self.assertEqual(self.listing("anna"), {})

    def test_the_mark_of_a_changed_name_finds_the_share(self):
        vyworld.write(SHARE_FILE, share("my: stick?", self.directory))
        self.start_bridge()
        self.start_samba()
        self.assertEqual(self.fetch("my_ stick_", "who", "anna"), "this is sda1\n")
        with self.held_open("my_ stick_", f"{self.directory}/who", "anna"):
            self.withdraw("my: stick?")
            self.wait_until("it can be unmounted", lambda: can_unmount(self.directory))

    def test_what_was_exported_before_the_start_is_closed(self):
        self.start()
        with self.held_open("Stick", f"{self.directory}/who", "anna"):
            self.bridge.send_signal(signal.SIGTERM)
            self.assertEqual(self.bridge.wait(vyworld.LIMIT), 0)
            vyworld.write(SHARE_FILE, "")
            self.start_bridge()
            self.wait_until("it can be unmounted", lambda: can_unmount(self.directory))

    def test_what_is_not_mounted_is_not_exported(self):
        self.start()
        self.assertTrue(can_unmount(self.directory))
        self.signal_bridge()
        self.assertEqual(self.exported(), [])
        self.assertEqual(self.listing("anna"), {})


class Chain(SambaTest):
    """The daemon, the bridge and Samba together."""

    def setUp(self):
        super().setUp()
        self.start_bridge()
        self.start_samba()
        self.start_daemon(settled=False)
        self.partition = self.make_partition("sda1", files={"who": "this is sda1\n"})
        vyworld.send(self.partition.add_message())
        self.wait_until("the stick is exported", lambda: self.exported() == ["Drive(A1)"])
        self.name = "Drive(A1)"

    def test_a_plugged_stick_can_be_used(self):
        self.assertEqual(self.listing("anna"), {self.name: "USB Storage Device (Acme/FlashKey)"})
        self.assertEqual(self.fetch(self.name, "who", "anna"), "this is sda1\n")

    def test_an_unmount_request_succeeds_while_a_client_has_a_file_open(self):
        path = f"{self.partition.directory}/who"
        with self.held_open(self.name, path, "anna"):
            # On a machine that is very busy 400 ms may not be enough: then once more.
            self.wait_until("it is unmounted",
                            lambda: self.tool("vyunmount", "sda1").err.endswith("success.\n"))
        self.assertEqual(vyworld.mounted_names(), [])
        self.assertEqual(self.listing("anna"), {})
        self.partition.lay_node()
        self.assert_tool("vymount", "sda1", err="mount sda1 - success.\n")
        self.wait_until("it is back", lambda: self.fetch(self.name, "who", "anna") is not None)

    def test_a_disk_that_ntfs_3g_mounts_read_only_is_shared_so(self):
        """As it does where Windows hibernates; nobody tells the service."""
        hibernated = self.make_partition(
            "sdb1", "ntfs", {"who": "this is sdb1\n", "hiberfil.sys": "hibr" + "x" * 8192})
        vyworld.send(hibernated.add_message())
        self.wait_until("it is exported", lambda: self.exported() == ["Drive(A1)", "Drive(B1)"])
        mount, = [mount for mount in vyworld.mounts() if mount.directory == hibernated.directory]
        self.assertIn("ro", mount.options)
        self.assertNotIn("Read Only", vyworld.read(SHARE_FILE))
        self.assertEqual(samba_world.testparm(SMB_CONF)["Drive(A1)"]["read only"], "No")
        self.assertNotIn("read only", samba_world.testparm(SMB_CONF)["Drive(B1)"])  # yes by default
        self.wait_for_log(
            f"bridge(#)share Drive(B1) is read-only: {hibernated.directory} is mounted so")
        self.assertEqual(self.fetch("Drive(B1)", "who", "anna"), "this is sdb1\n")

    def test_a_pulled_stick_is_gone(self):
        vyworld.send(self.partition.remove_message())
        self.wait_until("it is not exported", lambda: self.exported() == [])
        self.wait_until("it is not mounted", lambda: vyworld.mounted_names() == [])
        self.assertEqual(self.listing("anna"), {})


HOSTILE_NAMES = ["global", "homes", "IPC$", "print$", "..", "a/b", "a?b", "a\\b", "%U", "x\x01y",
                 " lead", "trail ", "two  blanks", "semi;colon", "# hash", "quote\"", "caf\u00e9",
                 "CAF\u00c9", "-x", "\udcff\udcfe", "\U0001f4be disk", "equals=sign", "name,comma",
                 "@group", "$(HOME)", "it's", "a_b", "a_b (2)"]
HOSTILE_COMMENTS = ["back\\", "%U and %$(HOME)", "\"quoted\"", "; # [x] = y", "\udcff", "\x01\x02",
                    "\u00e9\U0001f4be", "\\", "a\\\\", "tab\there"]


class Hostile(SambaTest):
    """Names and comments that mean something else to Samba."""

    def test_every_share_is_listed_and_leads_where_it_should(self):
        text = ""
        for number, name in enumerate(HOSTILE_NAMES):
            directory = f"/tmp/d/{number}"
            os.makedirs(directory)
            vyworld.write(f"{directory}/who", f"{number}\n")
            text += share(name, directory, Comment=HOSTILE_COMMENTS[number % len(HOSTILE_COMMENTS)])
        vyworld.write(SHARE_FILE, text)
        self.start_bridge()
        self.start_samba()
        exported = self.exported()
        self.assertEqual(len(exported), len(HOSTILE_NAMES))
        self.assertEqual(sorted(self.listing("anna")), sorted(exported))
        self.assertEqual([self.fetch(name, "who", "anna") for name in exported],
                         [f"{number}\n" for number in range(len(HOSTILE_NAMES))])

    def test_every_share_can_be_closed_by_its_name(self):
        for name in ("-x", "$(HOME)", "caf\u00e9", "it's", "a b"):
            directory = f"/tmp/d/{ord(name[0])}"
            os.makedirs(directory)
            vyworld.write(f"{directory}/who", "")
        names = ["-x", "$(HOME)", "caf\u00e9", "it's", "a b"]
        text = "".join(share(name, f"/tmp/d/{ord(name[0])}") for name in names)
        vyworld.write(SHARE_FILE, text)
        self.start_bridge()
        self.start_samba()
        for name in names:
            path = f"/tmp/d/{ord(name[0])}/who"
            with self.held_open(name, path, "anna"):
                self.withdraw(name)
                self.wait_until(f"{name} is closed",
                                lambda path=path: path not in samba_world.held_by_samba())

    def test_hostile_paths_lead_where_they_should_or_nowhere(self):
        paths = ["semi;colon", "h#ash", "a=b", "[x]", "a\\b", "'q'", "caf\u00e9", "; x", "# x",
                 "%U", "100%", "%$(HOME)", "\"q\"", "q\"", "two  blanks", "back\\", "\udcff",
                 "tab\there", "a b"]
        text = ""
        for number, path in enumerate(paths):
            directory = os.fsencode(f"/tmp/d/{path}")
            os.makedirs(directory)
            with open(directory + b"/who", "w", encoding="utf-8") as file:
                file.write(f"{number}\n")
            text += share(f"s{number}", f"/tmp/d/{path}")
        vyworld.write(SHARE_FILE, text)
        self.start_bridge()
        self.start_samba()
        self.assertEqual(self.exported(), [f"s{number}" for number in [*range(9), len(paths) - 1]])
        self.assertEqual(sorted(self.listing("anna")), sorted(self.exported()))
        for name in self.exported():
            self.assertEqual(self.fetch(name, "who", "anna"), name[1:] + "\n")


class Testparm(SambaTest):
    """What testparm makes of the include file, against what the bridge meant."""

    KNOWN = {"path", "comment", "read only", "guest ok", "strict sync", "sync always",
             "valid users", "read list", "invalid users", "access based share enum", "force user"}
    PIECES = [*HOSTILE_NAMES, *HOSTILE_COMMENTS, "a", "B", "Disk(0)", "[", "]", "=", ",", "\t", " ",
              "\\", "%", "include = /etc/passwd", "path = /etc", "\u0130", "\u01c4", "stra\u00dfe",
              "STRASSE", "\u212a", "k", "K", "x" * 90, "\u00e9" * 50]
    IDS = ["0", "5001", "5002", "5003", "65534", "99999", "", " 5004 ", "007"]
    WRONG_IDS = ["x", "-1", "99999999999", "anna", "5 001"]

    def make_text(self, dice):
        """A share file, and the directories that its shares may lead to."""
        def piece():
            return "".join(dice.choice(self.PIECES) for _ in range(dice.randint(0, 3)))

        def ids():
            found = [dice.choice(self.IDS) for _ in range(dice.randint(0, 6))]
            if dice.random() < 0.05:
                found.insert(dice.randint(0, len(found)), dice.choice(self.WRONG_IDS))
            return ",".join(found)

        def switch():
            return dice.choice(["Enable", "Disable", "", piece()])

        text = ""
        for _ in range(dice.randint(0, 15)):
            path = dice.choice([*self.directories, *self.directories, "/tmp/none", piece()])
            keys = {"Comment": piece(), "Read_Only": switch(), "Sync": switch(),
                    "Guest_Access": switch(), "Guest_Hide": switch(),
                    "Administrator": dice.choice(["HideT", "Block", "ReadOnly", "", piece()]),
                    "Full_Access_Users": ids(), "Read_Only_Users": ids(), "Block_Users": ids(),
                    "Hide_Users": ids()}
            kept = {key: value for key, value in keys.items() if dice.random() < 0.4}
            text += share(piece(), path, **kept)
            if dice.random() < 0.1:
                text += f"[{piece()}]\n"
        return text

    def setUp(self):
        super().setUp()
        self.directories = [f"/tmp/d/{name}" for name in ("a", "b c", "d;e", "f=g", "h#i", "[j]")]
        for directory in self.directories:
            os.makedirs(directory)

    def make_include(self, text):
        vyworld.write(SHARE_FILE, text)
        done = self.run_bridge("--print")
        self.assertEqual(done.status, 0, done.err)
        os.makedirs(os.path.dirname(INCLUDE), exist_ok=True)
        vyworld.write(INCLUDE, done.out)
        return done.out

    def test_what_macs_get_is_accepted(self):
        vyworld.write(OWN_CONFIG, "macs = enable\ntimemachine = On ext4\ntimemachinesize = 500G\n")
        shares = {"On ext4": self.mount_disk("sda1"), "Elsewhere": FIXED}
        self.make_include("".join(share(name, path) for name, path in shares.items()))
        found = samba_world.testparm(SMB_CONF)
        self.assertEqual(found["On ext4"]["vfs objects"], "catia fruit streams_xattr")
        self.assertEqual(found["On ext4"]["fruit:time machine"], "yes")
        self.assertEqual(found["On ext4"]["fruit:time machine max size"], "500G")
        self.assertEqual(found["Elsewhere"]["vfs objects"], "catia fruit")
        self.start_samba()
        for name in shares:
            self.assertTrue(self.may_write(name, "anna"), name)

    def test_every_file_is_accepted_and_means_what_it_should(self):
        seed = random.randrange(1 << 32)
        vyworld.log(f"seed {seed}")
        dice = random.Random(seed)
        exported = 0
        for _ in range(200):
            text = self.make_text(dice)
            include = self.make_include(text)
            found = samba_world.testparm(SMB_CONF)
            self.assertEqual(list(found), samba_world.names_in(include), text)
            for parameters in found.values():
                self.assertLessEqual(set(parameters), self.KNOWN, text)
                self.assertIn(parameters["path"], self.directories, text)
                self.assertNotEqual(parameters.get("valid users"), "", text)
            exported += len(found)
        self.assertGreater(exported, 500)

    def test_a_thousand_shares_and_as_many_users_as_are_read(self):
        """Those of a longer list would not be all of them: the share is withheld."""
        ids = range(10000, 11000)
        with open("/etc/passwd", "a", encoding="ascii") as file:
            file.write("".join(f"user{uid}:x:{uid}:100::/tmp:/bin/false\n" for uid in ids))
        listed = {count: "".join(f"{uid}," for uid in ids[:count]) for count in (341, 342, 1000)}  # 2046 bytes are 341
        text = "".join(share(f"n{number}", FIXED) for number in range(1000)) + share("whole", FIXED, Full_Access_Users=listed[341])
        text += share("longer", FIXED, Block_Users=listed[342]) + share("longest", FIXED, Full_Access_Users=listed[1000])
        self.make_include(text)
        found = samba_world.testparm(SMB_CONF)
        self.assertEqual(list(found), [*(f"n{number}" for number in range(1000)), "whole"])
        self.assertEqual(found["whole"]["valid users"].split(" "), [*(f"user{uid}" for uid in ids[:341]), "root"])
        for name, key in (("longer", "Block Users"), ("longest", "Full Access Users")):
            self.wait_for_log(f"bridge(#)share {name} () is withheld: {key} is longer than what is read of it")

    def test_names_that_samba_takes_for_one_are_told_apart(self):
        text = ""
        for code in [*range(0x41, 0xd800), *range(0xe000, 0xfffe), *range(0x10400, 0x10450)]:
            character = chr(code)
            if character.lower() != character or character.upper() != character:
                text += share(f"n{character}", FIXED)
        include = self.make_include(text)
        exported = samba_world.names_in(include)
        self.assertGreater(len(exported), 2000)
        self.assertEqual(sorted(samba_world.testparm(SMB_CONF)), sorted(exported))


class Setup(BridgeTest):
    """vynas-samba-setup, which an administrator runs."""

    def setUp(self):
        super().setUp()
        os.makedirs("/etc/samba")

    def setup(self, *arguments):
        done = subprocess.run([SETUP, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                              check=False, timeout=vyworld.LIMIT, env={"PATH": vyworld.PATH})
        return vyworld.Finished(done)

    def check_both_ways(self, text):
        """Enables and disables twice each; the file must be as it was. Returns the enabled text."""
        vyworld.write(SMB_CONF, text)
        os.chmod(SMB_CONF, 0o640)
        os.chown(SMB_CONF, 65534, 100)
        self.assertEqual(self.setup("status").out, "disabled\n")
        self.assertEqual(self.setup("enable").status, 0)
        enabled = vyworld.read(SMB_CONF)
        self.assertEqual(self.setup("status").out, "enabled\n")
        self.assertEqual(self.setup("status").status, 0)
        again = self.setup("enable")
        self.assertEqual((again.status, again.out), (0, f"already enabled in {SMB_CONF}\n"))
        self.assertEqual(vyworld.read(SMB_CONF), enabled)
        status = os.stat(SMB_CONF)
        self.assertEqual((stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid),
                         (0o640, 65534, 100))
        self.assertEqual(os.listdir("/etc/samba"), ["smb.conf"])
        self.assertEqual(self.setup("disable").status, 0)
        self.assertEqual(vyworld.read(SMB_CONF), text)
        again = self.setup("disable")
        self.assertEqual((again.status, again.out), (0, f"not enabled in {SMB_CONF}\n"))
        self.assertEqual(self.setup("status").status, 1)
        return enabled

    def test_the_block_comes_and_goes(self):
        self.assertEqual(self.check_both_ways("[global]\nworkgroup = X\n"),
                         "[global]\nworkgroup = X\n# vynas-samba: begin\n[global]\n"
                         f"\tinclude = {INCLUDE}\n# vynas-samba: end\n")

    def test_the_network_is_told_where_avahi_is(self):
        service = "/etc/avahi/services/vynas-samba.service"
        os.makedirs(os.path.dirname(service))
        config = "/etc/vynas-samba/vynas-samba.conf"
        os.makedirs(os.path.dirname(config))
        vyworld.write(config, "timemachine = other\nTime Machine =  Backup & <more>,, Second \n[x]\ntimemachine = no\n")
        vyworld.write(SMB_CONF, "[global]\n")
        self.assertEqual(self.setup("enable").status, 0)
        self.assertIn(f"\tinclude = {INCLUDE}\n\tmulticast dns register = no\n", vyworld.read(SMB_CONF))
        told = {entry.find("type").text: [record.text for record in entry.findall("txt-record")]
                for entry in xml.etree.ElementTree.parse(service).findall("service")}
        self.assertEqual(told, {"_smb._tcp": [], "_device-info._tcp": ["model=MacSamba"],
                                "_adisk._tcp": ["sys=waMa=0,adVF=0x100", "dk0=adVN=Backup & <more>,adVF=0x82",
                                                "dk1=adVN=Second,adVF=0x82"]})
        self.assertEqual(stat.S_IMODE(os.stat(service).st_mode), 0o644)
        self.assertEqual(self.setup("disable").status, 0)
        self.assertEqual(os.listdir(os.path.dirname(service)), [])
        vyworld.write(service, "mine")
        for task in ("enable", "disable"):
            self.assertEqual(self.setup(task).status, 0)
            self.assertEqual(vyworld.read(service), "mine")

    def fake(self, name, *, status=0):
        """A program that notes its words and ends so."""
        vyworld.write(f"{vyworld.PROGRAMS}/{name}", f"#!/bin/sh\necho \"$0 $*\" >>/tmp/called\nexit {status}\n", 0o755)

    @staticmethod
    def hide(name):
        """As if it were not installed."""
        found = shutil.which(name, path=vyworld.PATH)
        if found is not None:
            vyworld.run("mount", "--bind", "/dev/null", found)

    @staticmethod
    def called():
        """What was run since the last question."""
        lines = vyworld.read_lines("/tmp/called")
        vyworld.write("/tmp/called", "")
        return [line.removeprefix(f"{vyworld.PROGRAMS}/") for line in lines]

    def test_wsdd_is_started_where_it_is(self):
        vyworld.write(SMB_CONF, "[global]\n")
        self.hide("systemctl")
        self.hide("wsdd")
        self.fake("wsdd")
        self.assertNotIn("wsdd", self.setup("enable").err)
        self.fake("systemctl")
        os.unlink(f"{vyworld.PROGRAMS}/wsdd")
        self.assertNotIn("wsdd", self.setup("enable").err)
        self.assertEqual(self.called(), [])
        self.fake("wsdd")
        self.assertNotIn("wsdd", self.setup("enable").err)
        self.assertEqual(self.called(), ["systemctl enable --now --quiet wsdd.service"])
        for task in ("status", "disable"):
            self.setup(task)
        self.assertEqual(self.called(), [])  # others may need it
        self.fake("systemctl", status=1)
        done = self.setup("enable")
        self.assertEqual(done.status, 0)
        self.assertIn("vynas-samba-setup: wsdd could not be started, Windows may not show this machine\n", done.err)

    def test_files_of_every_kind(self):
        for text in ("", "\n", "\n\n\n", "[global]", "[global]\nworkgroup = X",
                     "[global]\r\nworkgroup = X\r\n", "[global]\r\nworkgroup = X\r",
                     "# \udcff\tx\n  [a]\n", "[a]\npath = /x\\\n  y\n"):
            with self.subTest(text):
                self.check_both_ways(text)

    def test_what_stands_behind_the_block_stays(self):
        for text in ("[global]\n", "[global]"):
            vyworld.write(SMB_CONF, text)
            self.setup("enable")
            with open(SMB_CONF, "a", encoding="utf-8") as file:
                file.write("[own]\npath = /x")
            self.assertEqual(self.setup("disable").status, 0)
            self.assertEqual(vyworld.read(SMB_CONF), "[global]\n[own]\npath = /x")

    def test_a_block_that_an_editor_gave_carriage_returns_is_found(self):
        vyworld.write(SMB_CONF, "[global]\n")
        self.setup("enable")
        vyworld.write(SMB_CONF, vyworld.read(SMB_CONF).replace("\n", "\r\n"))
        self.assertEqual(self.setup("status").out, "enabled\n")
        self.assertEqual(self.setup("disable").status, 0)
        self.assertEqual(vyworld.read(SMB_CONF), "[global]\r\n")

    def test_another_include_file_replaces_the_block(self):
        vyworld.write(SMB_CONF, "[global]")
        self.setup("enable")
        self.assertEqual(self.setup("--include", "/run/other.conf", "enable").status, 0)
        text = vyworld.read(SMB_CONF)
        self.assertIn("include = /run/other.conf\n", text)
        self.assertEqual(text.count("include"), 1)
        self.assertEqual(self.setup("disable").status, 0)
        self.assertEqual(vyworld.read(SMB_CONF), "[global]")

    def test_a_link_is_followed_and_stays(self):
        vyworld.write("/tmp/real.conf", "[global]\n")
        os.symlink("/tmp/real.conf", SMB_CONF)
        self.assertEqual(self.setup("enable").status, 0)
        self.assertEqual(os.readlink(SMB_CONF), "/tmp/real.conf")
        self.assertIn(INCLUDE, vyworld.read("/tmp/real.conf"))

    def test_another_file_can_be_named(self):
        vyworld.write("/tmp/other.conf", "[global]\n")
        self.assertEqual(self.setup("--file", "/tmp/other.conf", "enable").status, 0)
        self.assertIn(INCLUDE, vyworld.read("/tmp/other.conf"))
        self.assertFalse(os.path.exists(SMB_CONF))

    def test_without_a_file_nothing_is_made(self):
        for task in ("enable", "disable", "status"):
            done = self.setup(task)
            self.assertEqual((done.status, done.out), (2, ""))
            self.assertIn(f"there is no {SMB_CONF}", done.err)
        self.assertEqual(os.listdir("/etc/samba"), [])

    def test_what_cannot_be_done_changes_nothing(self):
        for text in ("[a]\npath = /x\\\n", "[a]\npath = /x\\", "# vynas-samba: begin\nx\n",
                     "# vynas-samba: end\n", "# vynas-samba: begin\n# vynas-samba: begin\n"):
            vyworld.write(SMB_CONF, text)
            self.assertEqual(self.setup("enable").status, 2, text)
            self.assertEqual(vyworld.read(SMB_CONF), text)
            self.assertEqual(os.listdir("/etc/samba"), ["smb.conf"])

    def test_wrong_command_lines(self):
        vyworld.write(SMB_CONF, "")
        for arguments in ([], ["other"], ["enable", "disable"], ["--file"], ["--include", "x", "enable"]):
            self.assertEqual(self.setup(*arguments).status, 2, arguments)
        self.assertEqual(self.setup("--help").status, 0)
        version = self.setup("--version")
        self.assertEqual(version.status, 0)
        self.assertRegex(version.out, rf"^vynas-samba-setup {samba_world.BUILD}\n$")


class SetupWithSamba(SambaTest):
    def test_samba_exports_what_is_enabled_and_no_more_when_disabled(self):
        vyworld.write(SMB_CONF, f"{samba_world.GLOBAL}\n[own]\npath = /tmp\n")
        vyworld.write(SHARE_FILE, share("stick", FIXED))
        self.start_bridge()
        self.start_samba()
        self.assertEqual(sorted(self.listing("anna")), ["own"])
        subprocess.run([SETUP, "enable"], check=True, env={"PATH": vyworld.PATH})
        self.wait_until("it is exported", lambda: sorted(self.listing("anna")) == ["own", "stick"])
        subprocess.run([SETUP, "disable"], check=True, env={"PATH": vyworld.PATH})
        self.wait_until("it is not", lambda: sorted(self.listing("anna")) == ["own"])

    def test_a_file_that_samba_would_not_take_with_the_block_is_left_alone(self):
        # A testparm that takes anything but an include line.
        vyworld.write("/tmp/bin/testparm", "#!/bin/sh\n! grep -q include \"$2\"\n", 0o755)
        vyworld.write(SMB_CONF, "[global]\n")
        done = subprocess.run([SETUP, "enable"], check=False, capture_output=True,
                              env={"PATH": vyworld.PATH})
        self.assertEqual(done.returncode, 2)
        self.assertEqual(vyworld.read(SMB_CONF), "[global]\n")
        self.assertEqual(os.listdir("/etc/samba"), ["smb.conf"])
