"""The job that docs/web.md compares: plug, name, let anna write, eject. Counts what the hand does."""

import os
import re
import time

from web_world import ROOT, WebTest, vyworld


class Job(WebTest):
    def test_plug_name_let_anna_write_eject(self):
        self.start_samba()
        page = self.open_page()
        page.wait_for("Nothing is plugged")
        begin = time.monotonic()
        disk, = self.plug("sda")
        page.wait_for("Drive(A1)", "Shared")
        os.chmod(disk.directory, 0o777)
        page.click("Name and comment")
        page.fill("Share name", "Music")
        page.click("Save")
        page.wait_for("Music", gone=("Save",))
        page.click("Who may")
        page.choose("anna", "reads and writes")
        page.click("Save")
        page.wait_for("May read and write: anna.", gone=("Save",))
        self.wait_until("anna writes", lambda: self.may_write("Music", "anna"))
        self.assertFalse(self.may_write("Music", "bert"))
        page.click("Eject")
        page.wait_for("Acme FlashKey (sda) may be pulled now.")
        print(f"{page.actions} actions, {time.monotonic() - begin:.1f} s")
        counted = re.search(r"^\| this page \| (\d+) \|", vyworld.read(os.path.join(ROOT, "docs", "web.md")), re.MULTILINE)
        self.assertEqual(page.actions, int(counted[1]))
