"""vymount and vyunmount."""

import re
import statistics

import machine
from media import Filesystem
from state import as_text, place_of
from vmtest import VmTest

LATE = "written late, and not yet on the disk"
WRITER = """sh -c 'exec 3>{file}; echo $$ >/vm/writer; until [ -e /vm/write ]; do sleep 0.1; done; echo {text} >&3
touch /vm/written; exec sleep 9999'"""


class Requests(VmTest):
    every = ()  # what is plugged

    def wait_for_unmounted(self, *names):
        """These and no others are unmounted, and both the share file and the mount table say so."""
        mounted = sorted(set(self.every) - set(names))
        state = self.wait_until(f"unmounted: {names}", lambda state:
                                sorted(state.names) == sorted(state.places) == sorted(state.nodes) == mounted
                                and all((state.share(name) or {}).get("Status")
                                        == ("Unmount" if name in names else None) for name in self.every))
        self.assert_table(state)
        return state

    def ask(self, tool, target, outcome="success"):
        self.assertEqual(self.tool(f"vy{tool} {target}"), f"{tool} {target} - {outcome}.\n")

    def assert_calls(self, before, state, word, names):
        """The hook was called once for each."""
        self.assertEqual(sorted(state.hook_calls()[len(before.hook):]),
                         [f"{word} {place_of(name)} mounted" for name in sorted(names)])


class Targets(Requests):
    devices = machine.USB + machine.card_slots("slot")
    every = ("mmcblka1", "sda1", "sda2", "sdb1")
    # A request to mount what is mounted already succeeds and takes the node away: none is made.
    STEPS = (("unmount", "sda1", ("sda1",)), ("mount", "sda1", ("sda1",)),
             ("unmount", "sda", ("sda1", "sda2")), ("unmount", "sdb", ("sdb1",)),
             ("mount", "sdb1", ("sdb1",)), ("mount", "sda", ("sda1", "sda2")),
             ("unmount", "mmcblka1", ("mmcblka1",)), ("unmount", "sd", ("sda1", "sda2", "sdb1")),
             ("mount", "mmcblk", ("mmcblka1",)), ("mount", "sd", ("sda1", "sda2", "sdb1")),
             ("unmount", "all", every), ("mount", "all", every))

    def plug_all(self):
        """The two sticks are of one make, with one serial."""
        self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4", "WORK"), serial="AC0042")
        self.wait_for_kernel("sda2")
        self.plug("other", Filesystem("ext4", "OTHER"), serial="AC0042")
        self.wait_for_kernel("sdb1")
        self.card("slot", Filesystem("fat16", "CARD"))
        self.wait_for_mounts(*self.every)
        return self.wait_for_idle()  # no hotplug message waits, so no answer is lost

    def look_at_withdrawal(self, mounted, before, state, names):
        """Each share was marked, and the file-sharing service told, before its unmount; returns the seconds
        between the signals and the unmounts."""
        found, pauses = [], []
        for line in state.log[len(before.log):]:
            match = re.fullmatch(r"daemon\(#\)unmount \S+/(\w+) \S+", line.text)
            if match:
                told = [signal for signal in state.service if signal["time"] <= line.time][-1]
                title = mounted.share(match[1])[""]
                self.assertTrue(as_text(told["shares"]).endswith(f"\n[{title}]\n"), told["shares"])
                found.append(match[1])
                pauses.append(line.time - told["time"])
        self.assertEqual(sorted(found), sorted(names))
        return pauses

    def test_every_form_of_target_and_a_pull_of_what_is_unmounted(self):
        before = self.wait_for_idle()
        state = mounted = self.plug_all()
        pauses, unmounted = [], set()
        for tool, target, names in self.STEPS:
            last = state
            self.ask(tool, target)
            unmounted = unmounted ^ set(names)
            state = self.wait_for_unmounted(*unmounted)
            self.assert_calls(last, state, tool, names)
            if tool == "unmount":
                pauses += self.look_at_withdrawal(mounted, last, state, names)
        # Of most: the guest, too, may stand still for a moment, after the signal and before its time is taken.
        self.assertGreater(statistics.median(pauses), 0.38)
        state = self.wait_for_idle()
        self.assertEqual({name: state.share(name) for name in self.every},
                         {name: mounted.share(name) for name in self.every})
        self.assert_file("sda1", "this is HOLIDAY\n")
        self.assert_file("mmcblka1", "this is CARD\n")

        for target in ("sda1", "sdb1", "mmcblk"):
            self.ask("unmount", target)
        self.wait_for_unmounted("mmcblka1", "sda1", "sdb1")
        self.wait_for_idle()
        self.assertEqual(state.devices.count("[46f4:0001:AC0042:1]\n"), 1)
        self.vm.pull("stick")
        self.vm.eject("slot")
        self.wait_until("the other stick is left", lambda now: [lines["Path"] for lines in now.exported().values()]
                        == [place_of("sdb1")] and "AC0042:2" not in now.devices)
        self.ask("mount", "sdb1")
        state = self.wait_for_mounts("sdb1")
        self.assertIn("[46f4:0001:AC0042:1]\n", state.devices)
        self.assert_file("sdb1", "this is OTHER\n")
        self.wait_for_idle()
        self.vm.pull("other")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())


class Force(Requests):
    every = ("sda1", "sda2")

    def test_what_is_in_use_goes_by_force_only(self):
        """What was written is on the disk, and who has a file open, has it."""
        before = self.wait_for_idle()
        image = self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ntfs", "MUSIC"), serial="AC0042")
        self.wait_for_mounts(*self.every)
        self.wait_for_idle()
        self.vm.run("echo 0 >/proc/sys/vm/dirty_writeback_centisecs")  # the kernel writes nothing by itself
        self.start("writer", WRITER.format(file=f"{place_of('sda1')}/late.txt", text=LATE))
        self.vm.run("until [ -s /vm/writer ]; do sleep 0.05; done")
        user = self.use("sda2")
        for name in self.every:
            self.ask("unmount", name, "failed")
            state = self.wait_for_unmounted()
            self.assertEqual(state.hook_calls()[-1], f"unmount {place_of(name)} mounted")
        self.wait_for_idle()
        self.assert_file("sda1", "this is HOLIDAY\n")
        self.assert_file("sda2", "this is MUSIC\n")

        self.vm.run("touch /vm/write; until [ -e /vm/written ]; do sleep 0.05; done")
        self.assertFalse(self.holds(image, LATE))
        self.ask("unmount", "sda1,force")
        self.assertTrue(self.holds(image, LATE))
        self.wait_for_unmounted("sda1")
        self.ask("unmount", "sda2,force")
        self.wait_for_unmounted("sda1", "sda2")
        self.assertEqual(self.vm.run(f"cat /proc/{user}/fd/0"), "this is MUSIC\n")
        self.vm.run(f"kill {user} $(cat /vm/writer)")
        self.wait_until("the driver has ended", lambda state: not state.of("ntfs-3g"))
        self.ask("mount", "all")
        self.wait_for_unmounted()
        self.assert_file("sda1", LATE + "\n", "late.txt")
        self.assert_file("sda2", "this is MUSIC\n")
        self.wait_for_idle()
        self.vm.pull("stick")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def holds(self, image, text):
        with open(image, "rb") as file:
            return text.encode() in file.read()
