"""What docs/administration.md, docs/hook.md and docs/security.md tell administrators to do works as it is told."""

import os
import re
import shutil
import subprocess

import vyworld
from vyworld import SystemTest, read, read_lines, write

DOCS = os.path.join(vyworld.FOLDER, "..", "..", "docs")
LOGGED = "/tmp/logged"


def blocks(page):
    """The shell texts of a page, in their order."""
    text = read(os.path.join(DOCS, page))
    return re.findall(r"^```sh\n(.*?)^```$", text, re.DOTALL | re.MULTILINE)


def block(page, words):
    """The one shell text of a page with these words in it."""
    found = [text for text in blocks(page) if words in text]
    assert len(found) == 1, f"{len(found)} texts of {page} hold {words!r}"
    return found[0]


def cover(directory):
    """Puts an empty directory over one of the machine's."""
    vyworld.run("mount", "-t", "tmpfs", "test", directory)


class Administration(SystemTest):
    def install(self, name, text):
        write(os.path.join(vyworld.PROGRAMS, name), "#!/bin/sh\n" + text, 0o755)

    def install_hook(self, text):
        self.assertTrue(text.startswith("#!/bin/sh\n"))
        write(vyworld.HOOK, text, 0o755)
        vyworld.run("sh", "-n", vyworld.HOOK)
        self.install("logger", f'echo "$*" >> {LOGGED}\n')

    def run_block(self, text):
        return subprocess.run(["sh", "-eu", "-c", text], stdin=subprocess.DEVNULL, check=True,
                              stdout=subprocess.PIPE, text=True, env=vyworld.environment()).stdout

    def remount(self, partition):
        """As an administrator does: what the hook had to do before is done."""
        self.assert_tool("vyunmount", partition.name,
                         err=f"unmount {partition.name} - success.\n")
        partition.lay_node()
        self.assert_tool("vymount", partition.name, err=f"mount {partition.name} - success.\n")

    # ---- every text ----

    def test_every_shell_text_can_be_read(self):
        texts = [text for page in ("administration.md", "hook.md", "security.md", "troubleshooting.md")
                 for text in blocks(page)]
        for text in texts:
            vyworld.run("sh", "-n", "-c", text)
        self.assertGreater(len(texts), 10)

    # ---- the device file ----

    def edit(self, words):
        """Plugs a stick in, lets an administrator change its section, and waits for the shares."""
        os.mkdir("/run/vyhotplugd")
        os.symlink("/tmp", "/run/vyhotplugd/files")
        self.install("systemctl", 'kill -HUP "$(cat /var/run/vyhotplugd.pid)"\n')
        self.install("nano", 'sed -i "s/^Share Name=/Share Name=Music/" "$1"\n')
        self.start_daemon()
        self.plug(self.make_partition("sda1", SID="ABC"), self.make_partition("sdb1"))
        refreshes = self.service.count()
        shown = self.run_block("cd /run/vyhotplugd/files\n" + block("device-file.md", words))
        self.wait_for_refresh(refreshes + 1)
        return shown

    def test_a_changed_copy_takes_the_files_place(self):
        shown = self.edit("nano new")
        self.assertEqual(shown.count("Share Name=Music\n"), 2)
        self.assertEqual(read(vyworld.SHARE_FILE).count("[Music]\n"), 2)

    def test_one_command_changes_one_share(self):
        self.edit("sed -i")
        self.assertIn("[Music]\nIdentifier=1234:00ab:ABC:1\n", read(vyworld.SHARE_FILE))
        self.assertIn("[Drive(B1)]\n", read(vyworld.SHARE_FILE))
        self.assertEqual(read(vyworld.DEVICE_FILE).count("Share Name=Music\n"), 1)

    # ---- vyhotplugctl ----

    def ctl_lines(self, beginning):
        """Lines of the page with that beginning, run by a shell."""
        shutil.copy(os.path.join(os.environ["VY_BIN"], "vyhotplugctl"), vyworld.PROGRAMS)
        lines = [line for line in read(os.path.join(DOCS, "administration.md")).splitlines()
                 if line.startswith("vyhotplugctl " + beginning)]
        self.assertTrue(lines, beginning)
        for line in lines:
            vyworld.run("sh", "-ec", line)

    def test_settings_are_changed_as_it_is_told(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1", SID="ABC"), self.make_partition("sdb1"))
        self.ctl_lines("set sda1")
        self.assertIn("Share Name=Music\nComment=Living room\n", read(vyworld.DEVICE_FILE))
        self.ctl_lines("unset Music")
        self.assertIn("Share Name=Music\nComment=\n", read(vyworld.DEVICE_FILE))
        self.ctl_lines("eject Music")
        self.assertEqual(vyworld.mounted_names(), ["sdb1"])
        self.ctl_lines("forget Music")
        self.assertNotIn("Music", read(vyworld.DEVICE_FILE))

    def test_a_folder_of_the_box_is_shared(self):
        self.start_daemon()
        refreshes = self.service.count()
        self.ctl_lines("set disk:photos")
        self.wait_for_refresh(refreshes + 1)
        self.assertEqual(read(vyworld.SHARE_FILE),
                         "[Photos]\nRead Only=Enable\nPath=/srv/photos\n"
                         "Comment=Internal Disk\nIdentifier=disk:photos\n")

    def test_a_change_during_a_refresh_is_lost(self):
        self.install("ntfsvlabel", "touch /tmp/asked\nwhile [ -e /tmp/held ]; do sleep 0.05; done\n")
        self.start_daemon()
        self.plug(self.make_partition("sda1", "ntfs"))
        os.unlink("/tmp/asked")
        write("/tmp/held", "")
        refreshes = self.service.count()
        self.daemon.signal(1)
        self.wait_until("the refresh asks for the label", lambda: os.path.exists("/tmp/asked"))
        write(vyworld.DEVICE_FILE, read(vyworld.DEVICE_FILE).replace("Share Name=", "Share Name=Music"))
        os.unlink("/tmp/held")
        self.wait_for_refresh(refreshes + 1)
        self.assertIn("Share Name=\n", read(vyworld.DEVICE_FILE))

    # ---- hooks ----

    def plug_stick_with_inbox(self):
        cover("/srv")
        self.install_hook(block("hook.md", "copy_files()"))
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        os.makedirs(stick.directory + "/inbox/a b")
        write(stick.directory + "/inbox/a b/text", "good\n")
        write(stick.directory + "/inbox/-n", "named like an option\n")
        os.symlink("/etc/passwd", stick.directory + "/inbox/link")
        os.mknod(stick.directory + "/inbox/node", 0o60666, os.makedev(7, 0))
        return stick

    def test_a_hook_copies_plain_files(self):
        stick = self.plug_stick_with_inbox()
        self.remount(stick)
        self.wait_until("the copy is made", lambda: os.path.exists(LOGGED))
        copy = "/srv/inbox/" + os.listdir("/srv/inbox")[0]
        self.assertEqual(read_lines(LOGGED),
                         [f"-t copy-job copied {stick.directory}/inbox to {copy}"])
        self.assertEqual(sorted(os.listdir(copy)), ["-n", "a b"])
        self.assertEqual(read(copy + "/a b/text"), "good\n")
        self.wait_until("no job is left", lambda: not os.path.exists("/run/copy-job-sda1"))

    def test_a_copy_under_way_ends_with_the_unmount(self):
        stick = self.plug_stick_with_inbox()
        self.install("cp", "echo $$ > /tmp/copying\nexec sleep 1000\n")
        self.remount(stick)
        self.wait_until("a copy is under way", lambda: read_lines("/tmp/copying"))
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.assertFalse(os.path.exists("/proc/" + read("/tmp/copying").strip()))
        self.assertEqual(vyworld.mounts(), [])
        self.assertEqual(read_lines(LOGGED), [])

    def test_a_hook_lights_a_lamp(self):
        cover("/sys/class")
        os.makedirs("/sys/class/leds/storage")
        self.install_hook(block("hook.md", "Lights a lamp"))
        self.start_daemon()
        first, second = self.make_partition("sda1"), self.make_partition("sdb1")
        seen = []
        for act, partition in ((self.plug, first), (self.plug, second), (self.unplug, first),
                               (self.unplug, second)):
            act(partition)
            seen.append(read("/sys/class/leds/storage/brightness"))
        self.assertEqual(seen, ["1\n", "1\n", "1\n", "0\n"])
        self.assertEqual(read("/sys/class/leds/storage/trigger"), "none\n")

    def test_a_hook_tells_of_events(self):
        hook = block("hook.md", "sendmail")
        self.install_hook(hook.replace("/usr/sbin/sendmail", "sendmail"))
        self.install("sendmail", "cat > /tmp/mail.part\nmv /tmp/mail.part /tmp/mail\n")
        self.start_daemon()
        stick = self.make_partition("sda1")
        self.plug(stick)
        self.wait_until("the mail is written", lambda: os.path.exists("/tmp/mail"))
        self.unplug(stick)
        self.assertEqual(read_lines(LOGGED), [f"-t storage mount {stick.directory}",
                                              f"-t storage unmount {stick.directory}"])
        self.assertIn("Subject: a disk was plugged in\n", read("/tmp/mail"))
        self.assertIn(stick.directory, read("/tmp/mail"))

    # ---- flags of mounts ----

    def options(self):
        wanted = {"ro", "nosuid", "nodev", "noexec"}
        return {os.path.basename(mount.directory): wanted & set(mount.options)
                for mount in vyworld.mounts()}

    def test_mounts_have_the_flags_that_are_told(self):
        self.start_daemon()
        self.plug(self.make_partition("sda1"), self.make_partition("sdb1", "ntfs"),
                  self.make_partition("sdc1", readonly=True),
                  self.make_partition("sdd1", readonly=True, RO="1"))
        self.assertEqual(self.options(), {"sda1": {"nodev"}, "sdb1": set(), "sdc1": {"ro"},
                                          "sdd1": {"ro", "nodev"}})

    def test_mountflags_are_on_every_mount(self):
        text = read(os.path.join(DOCS, "security.md"))
        flags = re.search("^mountflags = (.*)$", text, re.MULTILINE)[1]
        self.write_config(mountflags=flags)
        self.start_daemon()
        stick = self.make_partition("sdb1", "ntfs")
        self.plug(self.make_partition("sda1"), stick, self.make_partition("sdc1", readonly=True))
        wanted = {"nosuid", "nodev", "noexec"}
        self.assertEqual(self.options(), {"sda1": wanted, "sdb1": wanted, "sdc1": wanted | {"ro"}})
        os.mknod(stick.directory + "/node", 0o60664, stick.loop.device)
        with self.assertRaises(PermissionError):
            read(stick.directory + "/node")

    def test_flags_among_the_options_of_ext_keep_it_from_being_mounted(self):
        self.write_config(extfsoptions="nosuid,noexec")
        self.start_daemon()
        refreshes = self.service.count()
        vyworld.send(self.make_partition("sda1").add_message())
        self.wait_for_refresh(refreshes + 1)
        self.assertEqual(vyworld.mounts(), [])

    def test_the_configuration_decides_what_an_error_of_ext_does(self):
        stick = self.make_partition("sda1")
        vyworld.run("tune2fs", "-e", "panic", stick.loop.path)
        options = f"/proc/fs/ext4/{os.path.basename(stick.loop.path)}/options"
        for configured, found in ((None, "errors=panic"), ("errors=remount-ro", "errors=remount-ro")):
            self.write_config(extfsoptions=configured)
            self.start_daemon()
            stick.lay_node()
            self.plug(stick)
            if not os.path.exists(options):
                self.skipTest("this kernel mounts ext4 with another driver")
            self.assertIn(found, read_lines(options))
            self.unplug(stick)
            self.stop_daemon()
