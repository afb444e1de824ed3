"""The calendar is wrong, and it jumps."""

import machine
from media import Filesystem
from vmtest import VmTest

HOLD = 2.0  # seconds between an add message and its mount
SOON = 30.0  # seconds in which a mount has been made, on a busy machine too
ADDED = "recieve(#)ACTION=add,MAJOR=8,MINOR=1,"  # the log line of an add message that has arrived


class Calendar(VmTest):
    devices = machine.USB + ("-rtc base=2001-01-01T00:00:00",)

    def test_a_wrong_calendar_and_its_jumps_change_no_wait(self):
        self.assertEqual(self.vm.run("date +%Y"), "2001\n")
        before = self.wait_for_idle()
        image = self.image(Filesystem("fat32", "HOLIDAY"))
        for date in ("2035-06-01 12:00:00", "1999-12-31 23:59:59"):
            begin = len(self.vm.log)
            self.vm.plug("stick", image, serial="AC0042")
            self.wait_until("announced", lambda state: self.times(state, begin, ADDED))
            self.vm.run(f"date -s '{date}'")
            state = self.wait_for_mounts("sda1")
            announced, = self.times(state, begin, ADDED)
            mounted, = self.times(state, begin, "daemon(#)mount ")
            self.assertGreaterEqual(mounted - announced, HOLD - 0.05)  # the log's own times differ a little
            self.assertLess(mounted - announced, SOON)
            self.wait_for_idle()
            self.vm.pull("stick")
            self.wait_for_mounts()
            self.assert_same(before, self.wait_for_idle())

    def times(self, state, begin, text):
        return [line.time for line in state.log[begin:] if line.text.startswith(text)]
