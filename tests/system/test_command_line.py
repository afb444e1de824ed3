"""The four commands as they are typed: texts, streams and exit statuses. No daemon runs."""

import os
import shutil
import socket
import threading

import vyworld
from vyworld import PROGRAMS, SystemTest

NOBODY = 65534

VERSION = "vyhotplugd --- version 1.0.5.beta2-bk\n\n"

HELP = """
VY NAS Mira - Hotplug Daemon.
Usage: vyhotplugd {option}

option:
 -f --file  [path] : config file path(def=/tmp/vynasmira/vyhotplugd.conf)
 -d --debug        : debug mode. runs as a non-daemon.
 -h --help         : display this help message and exit.
 -v --version      : display this program version and exit.
 -l --level [level]    : log level.(def:3)
            Emergency=0,  Alert=1,  Critical=2,   Error=3
            Warning=4,    Notice=5, Infomation=6, Debug=7


"""

LEVELS = """ LOG_EMERG  = 0
 LOG_ALERT  = 1
 LOG_CRIT   = 2
 LOG_ERR    = 3
 LOG_WARNING= 4
 LOG_NOTICE = 5
 LOG_INFO   = 6
 LOG_DEBUG  = 7
"""

BAD_LINE = "Error - parse command line\n"

MOUNT_USAGE = """mount command.
Usage : vymount {option}.

option:
  all     : mount all hotplug device.
  sd      : mount all scsi disk device.
  sda     : mount sda.
  sda0    : mount sda0. (set able 0 to 15)
  mmcblk  : mount all mmc block device.

"""

UNMOUNT_USAGE = """unmount command.
Usage : vyunmount {option}.

option:
 all     : umount all hotplug device.
 sd      : umount all sd device.
 sda     : umount sda.
 sda0    : umount sda0. (set able 0 to 15)
 mmcblk  : umount all mmc block device.

"""

INFO_USAGE = """
VY NAS Mira - Hotplug Information.
Usage: vyhotpluginfo {option} [device identifier]

option:
 -f --file  [path] : config file path(def=/tmp/vynasmira/vyhotplugd.conf)
 -h --help         : display this help message and exit.
 -l --list         : display device identifier list.


"""


class DaemonCommandLine(SystemTest):
    def test_version_and_help_go_to_stderr_and_need_no_root(self):
        for user in (None, NOBODY):
            for option in ("-v", "--version"):
                self.assert_tool("vyhotplugd", option, err=VERSION, user=user)
            for option in ("-h", "--help"):
                self.assert_tool("vyhotplugd", option, err=HELP, user=user)

    def test_level_8_is_refused_with_the_table_of_levels(self):
        self.assert_tool("vyhotplugd", "-l", "8", status=255,
                         err="Error : Undefined Log Level(8)\n" + LEVELS + BAD_LINE)

    def test_a_level_that_is_no_number_is_refused(self):
        for word in ("high", "3x", ""):
            done = self.tool("vyhotplugd", "-l", word)
            self.assertRegex(done.err, r"\AError : read log level \(\d+\)\n" + BAD_LINE)
            self.assertNotEqual(done.status, 0)

    def test_unknown_options_and_words_are_refused_by_their_code(self):
        for argument, code in (("-k", "6b"), ("-x", "3f"), ("word", "1")):
            done = self.tool("vyhotplugd", argument)
            told = f"getopt returned character code 0x{code}\n\n" + HELP + BAD_LINE
            self.assertTrue(done.err.endswith(told), done.err)
            self.assertEqual((done.out, done.status), ("", 255))

    def test_a_missing_configuration_file_is_refused(self):
        self.assert_tool("vyhotplugd", "-f", "/tmp/none", status=255,
                         err="Error : no such file (/tmp/none)\n" + HELP + BAD_LINE)

    def test_a_configuration_path_of_128_characters_is_refused(self):
        path = "/tmp/" + "d" * 60 + "/" + "f" * 62
        self.assertEqual(len(path), 128)
        os.mkdir(os.path.dirname(path))
        vyworld.write(path, "")
        self.assert_tool("vyhotplugd", "-f", path, status=255,
                         err="Error : too long (config file path)\n" + BAD_LINE)

    def test_a_failed_start_logs_its_exit_status(self):
        self.tool("vyhotplugd", "-l", "8")
        self.wait_for_log("main(#)Error - exit vyhotplugd (-1)")

    def test_the_daemon_is_for_root_only(self):
        for options in ((), ("-d",), ("-D",)):
            self.assert_tool("vyhotplugd", *options, err="root only.\n", status=255, user=NOBODY)
        self.wait_for_log("main(#)Error - initialize", 3)
        self.wait_for_log("main(#)Error - exit vyhotplugd (-1)", 3)
        self.assertFalse(os.path.exists(vyworld.PID_FILE))

    def test_a_program_of_another_name_is_the_daemon(self):
        os.symlink("vyhotplugd", PROGRAMS + "/hotplug")
        self.assert_tool("hotplug", "-v", err=VERSION)


class ClientCommandLine(SystemTest):
    def test_clients_without_a_target_tell_their_usage(self):
        self.assert_tool("vymount", err=MOUNT_USAGE, status=255)
        self.assert_tool("vyunmount", err=UNMOUNT_USAGE, status=255)

    def test_clients_are_for_root_only_and_ask_no_daemon(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
            listener.bind(vyworld.socket_address())
            listener.listen()
            listener.setblocking(False)
            for name in ("vymount", "vyunmount"):
                self.assert_tool(name, "all", err="root only.\n", status=255, user=NOBODY)
                self.assert_tool(name, err="root only.\n", status=255, user=NOBODY)
            with self.assertRaises(BlockingIOError):
                listener.accept()

    def test_clients_without_a_daemon_fail_with_exit_status_0(self):
        self.assert_tool("vymount", "sda1", err="mount sda1 - failed.\n")
        self.assert_tool("vyunmount", "all", err="unmount all - failed.\n")

    def ask_stand_in(self, name, arguments, answer):
        """Runs a client against a stand-in of the daemon. Returns its request and its outcome."""
        asked = []
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
            listener.bind(vyworld.socket_address())
            listener.listen()
            listener.settimeout(vyworld.LIMIT)

            def serve():
                connection = listener.accept()[0]
                with connection:
                    asked.append(connection.recv(512))
                    connection.sendall(answer)

            server = threading.Thread(target=serve)
            server.start()
            done = self.tool(name, *arguments)
            server.join()
        self.assertEqual((done.out, done.status), ("", 0))
        return asked[0], done.err

    def test_the_request_holds_the_first_argument_and_a_zero_byte(self):
        self.assertEqual(self.ask_stand_in("vymount", ["sda1", "extra"], b"success\0"),
                         (b"ACTION=mount,sda1\0", "mount sda1 - success.\n"))
        self.assertEqual(self.ask_stand_in("vyunmount", ["mmcblk"], b"success\0"),
                         (b"ACTION=unmount,mmcblk\0", "unmount mmcblk - success.\n"))

    def test_only_an_answer_that_begins_with_success_is_one(self):
        for answer, outcome in ((b"success", "success"), (b"successful\0", "success"),
                                (b"faild\0", "failed"), (b"succes\0", "failed"), (b"", "failed")):
            self.assertEqual(self.ask_stand_in("vyunmount", ["sd"], answer)[1],
                             f"unmount sd - {outcome}.\n")

    def test_a_target_too_long_for_a_message_is_never_sent(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
            listener.bind(vyworld.socket_address())
            listener.listen()
            target = "x" * 200
            self.assert_tool("vymount", target, err=f"mount {target} - failed.\n")
            listener.settimeout(vyworld.LIMIT)
            self.assertEqual(vyworld.receive_all(listener.accept()[0]), b"")


class InfoCommandLine(SystemTest):
    def test_help_is_told_with_exit_status_0(self):
        self.assert_tool("vyhotpluginfo", "-h", err=INFO_USAGE)
        self.assert_tool("vyhotpluginfo", "--help", err=INFO_USAGE)

    def test_a_wrong_command_line_tells_the_usage(self):
        self.assert_tool("vyhotpluginfo", err=INFO_USAGE, status=255)
        self.assert_tool("vyhotpluginfo", "-f", "/tmp/none", "-l", status=255,
                         err="Error : no such file (/tmp/none)\n" + INFO_USAGE)

    def test_the_long_list_option_wants_an_argument(self):
        done = self.tool("vyhotpluginfo", "--list")
        told = "getopt returned character code 0x3f\n\n" + INFO_USAGE
        self.assertTrue(done.err.endswith(told), done.err)
        self.assertEqual((done.out, done.status), ("", 255))
        vyworld.write(vyworld.DEVICE_FILE, "[a]\n[b]\n")
        self.assert_tool("vyhotpluginfo", "--list=any", out="a\nb\n")

    def test_each_thing_that_is_missing_has_its_message(self):
        self.assert_tool("vyhotpluginfo", "-l", status=255,
                         err=f"Error - Device Config File ({vyworld.DEVICE_FILE})\n")
        self.write_config(deviceconfigpath=None)
        self.assert_tool("vyhotpluginfo", "-l", status=255,
                         err="Error - Read Hotplug Config File (Device Config Path)\n")
        self.write_config(smbconfigpath=None)
        vyworld.write(vyworld.DEVICE_FILE, "[a]\n")
        self.assert_tool("vyhotpluginfo", "a", status=255,
                         err="Error - Read Hotplug Config File (SMB Config Path)\n")
        shutil.rmtree(vyworld.CONFIG_DIR)
        self.assert_tool(
            "vyhotpluginfo", "-l", status=255,
            err="Error - Read Hotplug Config File. (No Permission or No such file.)\n")

    def test_an_unknown_device_and_a_missing_share_file_print_nothing(self):
        vyworld.write(vyworld.DEVICE_FILE, "[a]\n")
        self.assert_tool("vyhotpluginfo", "a", status=255)
        vyworld.write(vyworld.SHARE_FILE, "")
        self.assert_tool("vyhotpluginfo", "A", status=255)

    def test_the_list_needs_neither_root_nor_daemon_and_wins_over_an_identifier(self):
        vyworld.write(vyworld.DEVICE_FILE, "[1234:00ab:S:1]\nShare Name=x\n[ b ]\n[c] junk\n[c]\n")
        os.chmod(vyworld.DEVICE_FILE, 0o644)
        self.assert_tool("vyhotpluginfo", "b", "-l", out="1234:00ab:S:1\n b \nc\n", user=NOBODY)
