"""Bash's completion of the commands."""

import os
import pty
import select
import signal
import time

import debian_world
from debian_world import Scenario


class Completion(Scenario):
    """Bash completes what is plugged in, and believes nothing that a device says of itself."""

    IDENTIFIERS = ("1234:00ab:SER1:1", "1234:00ab:SER1:2", "0000:0000::1", "5555:0001:$(touch /tmp/x):1",
                   "6666:0001:a b'\"c\\`touch /tmp/x`:1", "7777:0001:;touch /tmp/x;&|<>*?~!#:1",
                   "8888:0001:k=v@host,{a,b}:1", "disk:internal")

    def test_devices_with_hostile_serials_are_known(self):
        os.makedirs("/tmp/vynasmira")
        os.makedirs("/dev/vyhotplug")
        for name in ("sda1", "sda2", "mmcblka1"):
            self.write("/dev/vyhotplug/" + name, "")
        self.write("/tmp/vynasmira/vyhotplugd.conf",
                   "deviceconfigpath = /tmp/devices\nsmbconfigpath = /tmp/shares\n")
        self.write("/tmp/shares", "")
        self.write("/tmp/devices", "".join(f"[{name}]\nComment=number {number}\n"
                                           for number, name in enumerate(self.IDENTIFIERS)))
        self.assertEqual(self.run_ok("vyhotpluginfo", "-l").splitlines(), list(self.IDENTIFIERS))

    def type_into_bash(self, *lines):
        """Types into an interactive bash, each line when the one before is done; returns what was shown."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.execve("/bin/bash", ["bash", "--norc", "--noprofile", "-i"],
                      {"PATH": debian_world.PATH, "TERM": "dumb", "PS1": "", "HOME": "/root", "LC_ALL": "C"})
        shown = ""
        setup = ("set +H; unset HISTFILE; bind 'set bell-style none'; bind 'set completion-query-items 0';"
                 " . /usr/share/bash-completion/bash_completion")
        try:
            for number, line in enumerate((setup, *lines)):
                os.write(terminal, f"{line}\recho 'done'-{number}\r".encode())
                end = time.monotonic() + debian_world.LIMIT
                while f"\ndone-{number}\r" not in shown:
                    self.assertTrue(select.select([terminal], [], [], max(0, end - time.monotonic()))[0],
                                    f"bash did not come to an end of {line!r}: {shown}")
                    shown += os.read(terminal, 65536).decode(errors="replace")
        finally:
            os.close(terminal)
            os.kill(pid, signal.SIGKILL)
        self.tell(shown)
        return shown

    def test_each_identifier_completes_to_itself(self):
        for number, name in enumerate(self.IDENTIFIERS):
            begin = name.split(":")[0] + ":"
            if name.startswith("1234"):
                begin = f"1234:00ab:SER1:{name[-1]}"
            shown = self.type_into_bash(f"vyhotpluginfo {begin}\t")
            self.assertIn(f"Comment=number {number}\r\n", shown, name)
            self.assertFalse(os.path.exists("/tmp/x"), name)

    def test_one_character_behind_another_completes(self):
        """Some of what was completed already may stand there, quoted."""
        for number, begin in ((3, "5555:0001:\\$\\("), (4, "6666:0001:a\\ b"), (6, "8888:0001:k=v@h")):
            shown = self.type_into_bash(f"vyhotpluginfo {begin}\t")
            self.assertIn(f"Comment=number {number}\r\n", shown, begin)
            self.assertFalse(os.path.exists("/tmp/x"), begin)

    def test_all_are_shown_and_none_is_run(self):
        shown = self.type_into_bash("vyhotpluginfo \t\t")
        for text in ("SER1:1", "\\$\\(touch", "internal"):
            self.assertIn(text, shown)
        self.assertFalse(os.path.exists("/tmp/x"))

    def test_targets_complete(self):
        shown = self.type_into_bash("vyunmount \t\t", "vymount mmcblka\t")
        self.assertRegex(shown, r"\nall +mmcblk +mmcblka1 +sd +sda1 +sda2 +\r\n")
        self.assertIn("\r\nvymount mmcblka1 \r\n", shown)

    def test_vyhotplugctls_calls_and_options_complete(self):
        shown = self.type_into_bash("vyhotplugctl \t\t", "vyhotplugctl status --\t\t", "vyhotplugctl st\t--a\t")
        self.assertEqual(set(shown.split("\r\nvyhotplugctl ")[1].split()),
                         {"status", "show", "who", "set", "unset", "edit", "forget", "mount", "unmount", "eject", "watch",
                          "users", "check", "help"})
        self.assertRegex(shown, r"\n--all +--json +\r\n")
        self.assertIn("\r\nvyhotplugctl status --all \r\n", shown)

    def test_vyhotplugctls_targets_and_settings_complete(self):
        """The first word of each partition that the command shows; and no blank behind what wants a value."""
        named = {"sda1": "1234:00ab:SER1:1", "sdb12": "$(touch /tmp/x):1"}
        self.write("/tmp/shares", "".join(f"[Share {name}]\nIdentifier={identity}\nPath=/media/vyhotplug/{name}\n"
                                          for name, identity in named.items()))
        self.write("/tmp/vynasmira/vyhotplugd.conf", "deviceconfigpath = /tmp/devices\nsmbconfigpath = /tmp/shares\n"
                                                     "mountpath = /media/vyhotplug\n")
        os.rename("/etc/vyhotplugd/vyhotplugd.conf", "/etc/vyhotplugd/aside")  # it would count
        shown = self.type_into_bash("vyhotplugctl unmount sda\t--f\t", "vyhotplugctl unmount \t\t\t",
                                    "vyhotplugctl set sdb\tread-\tyes gu\tno")
        self.assertIn("\r\nvyhotplugctl unmount sda1 --force \r\n", shown)
        self.assertRegex(shown, r"\nsda1 +sdb12 +\r\n")
        self.assertIn("\r\nvyhotplugctl set sdb12 read-only=yes guest=no\r\n", shown)
        self.assertFalse(os.path.exists("/tmp/x"))
