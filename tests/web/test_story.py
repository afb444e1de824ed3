"""Plug, name, let in, find busy, eject, pull: as somebody does who owns the box."""

import os
import time

from web_world import WebTest, vyworld


class Story(WebTest):
    """With a real Samba."""

    def setUp(self):
        super().setUp()
        self.start_samba()

    def test_plug_name_let_in_browse_busy_eject_pull(self):
        page = self.open_page(width=620)
        page.wait_for("Nothing is plugged")
        disk, = self.plug("sda")
        self.wait_until("it is shared", lambda: "[Drive(A1)]" in vyworld.read(vyworld.SHARE_FILE))
        begin = time.monotonic()
        page.wait_for("Acme FlashKey", "Drive(A1)", "Shared", "USB 2, 480 Mbit/s", gone=("Nothing is plugged",))
        print(f"shown {time.monotonic() - begin:.2f} s after it is shared")
        os.chmod(disk.directory, 0o777)

        page.click("Name and comment")
        page.fill("Share name", "Music")
        page.fill("Comment", "Living room")
        page.click("Save")
        page.wait_for("Music", "Living room", gone=("Save",))
        self.assertIn("[Music]\n", vyworld.read(vyworld.SHARE_FILE))

        page.click("Who may")
        page.wait_for("anna")
        page.choose("anna", "reads and writes")
        page.choose("bert", "reads")
        page.picture("who-may")
        page.click("Save")
        page.wait_for("May read and write: anna.", "May read: bert.", gone=("Save",))
        self.wait_until("Samba lets anna in", lambda: self.fetch("Music", "who", "anna") == "this is sda1\n")
        self.assertTrue(self.may_write("Music", "anna"))
        self.assertFalse(self.may_write("Music", "bert"))
        self.assertIsNone(self.fetch("Music", "who", "carl"))

        with open(disk.directory + "/film", "w", encoding="utf-8"), \
                self.held_open("Music", disk.directory + "/who", "anna"):
            page.click("Eject")
            page.wait_for("It is busy.", "2 processes use it:", "python3", str(os.getpid()), disk.directory + "/film",
                          "smbd", ", for anna at ", disk.directory + "/who")
            page.picture("busy")
            self.assertEqual(vyworld.mounted_names(), ["sda1"])
            page.click("Eject it when it is free")
            page.wait_for("Waiting until nobody uses it")
        page.wait_for("Acme FlashKey (sda) may be pulled now. It is unmounted; its port stays on.", "Unmounted")
        self.assertEqual(vyworld.mounts(), [])
        self.pull("sda")
        page.wait_for("Nothing is plugged", "Known disks", "Music")
        self.assertEqual(page.said(), [])
