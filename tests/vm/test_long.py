"""What takes minutes: many disks, random order, things that hang."""

import os
import random
import time

import machine
from media import Filesystem, make_disk
from state import PLACES
from vmtest import VmTest, WaitingTools, long_on

def letters(count):
    return [chr(ord("a") + n) for n in range(count)]


@long_on()
class Disks(VmTest):
    """Many disks, told apart by their serials."""

    limit = 600  # seconds for many disks

    def make_disks(self, count, *filesystems, table="dos"):
        """Images of the same form, each partition with the disk's serial in it."""
        self.disks = {}
        for n in range(count):
            serial = f"DISK{n:02}"
            parts = [Filesystem(kind, files={"readme.txt": f"{serial}:{number}\n"})
                     for number, kind in enumerate(filesystems, 1)]
            self.disks[serial] = make_disk(os.path.join(self.folder, serial + ".img"), *parts, table=table)
        self.parts = range(1, len(filesystems) + 1)

    def plug_disk(self, serial):
        self.vm.plug(serial, self.disks[serial], serial=serial)

    def identities(self, serials, parts=None):
        return sorted(f"46f4:0001:{serial}:{number}" for serial in serials for number in parts or self.parts)

    def wait_for_disks(self, serials, parts=None):
        """Shared and mounted are these disks' partitions and no others; each holds what is its own."""
        expected = self.identities(serials, parts)
        state = self.wait_until(f"mounted and shared: {expected}", lambda now:
                                sorted(lines["Identifier"] for lines in now.exported().values()) == expected
                                and len(now.mounts) == len(now.places) == len(now.nodes) == len(expected), self.limit)
        text = self.vm.run(f"cd {PLACES} && for place in *; do [ -e $place/readme.txt ] && "
                           "echo $place $(cat $place/readme.txt); done; true", self.limit)
        found = dict(line.split(" ") for line in text.splitlines())
        shared = {os.path.basename(lines["Path"]): ":".join(lines["Identifier"].split(":")[2:])
                  for lines in state.exported().values()}
        self.assertEqual(found, shared)
        return state


class Burst(Disks):
    rounds = {"x86": 20, "mips": 3}

    def test_twelve_disks_with_four_partitions_come_and_go_at_once(self):
        before = self.wait_for_idle()
        self.make_disks(12, "fat16", "ext2", "ext4", "ext4")
        for _ in range(self.rounds[self.vm.kind.name]):
            for serial in self.disks:
                self.plug_disk(serial)
            self.wait_for_disks(self.disks)
            for serial in self.disks:
                self.vm.pull(serial)
            self.wait_for_disks([])
            self.assert_same(before, self.wait_for_idle())


class Random(Disks):
    """Against a model: which disks are plugged, and which card is in the slot."""

    devices = machine.USB + machine.card_slots("slot")
    minutes = 5

    def test_disks_and_a_card_in_random_order_with_random_pauses(self):
        seed = int(os.environ.get("VY_VM_SEED") or time.time())
        print(f"VY_VM_SEED={seed}", flush=True)
        dice = random.Random(seed)
        before = self.wait_for_idle()
        self.make_disks(5, "fat16", "ext4")
        cards = [self.image(Filesystem("ext4", files={"readme.txt": "card\n"}), size=64) for _ in range(2)]
        plugged, card = set(), None
        end = time.monotonic() + self.minutes * 60
        while time.monotonic() < end:
            for _ in range(dice.randint(1, 8)):
                target = dice.choice([*self.disks, "card"])
                if target == "card" and card is None:
                    card = dice.choice(cards)
                    self.vm.insert("slot", card)
                    self.wait_until("the kernel has the card", lambda state: "mmcblk0p1" in state.kernel)
                elif target == "card":
                    self.vm.eject("slot")
                    card = None
                    # Changed within a fifth of a second, a card hangs the kernel; that is another test's.
                    self.wait_until("the card has gone", lambda state: "mmcblk0" not in state.kernel)
                elif target in plugged:
                    self.vm.pull(target)
                    plugged.remove(target)
                else:
                    self.plug_disk(target)
                    plugged.add(target)
                time.sleep(dice.choice((0, 0, 0.05, 0.5, 1, 2, 3, 5)))
            self.compare(plugged, card)
        for target in plugged:
            self.vm.pull(target)
        if card:
            self.vm.eject("slot")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def compare(self, plugged, card):
        """In a quiet moment the service has what is plugged."""
        expected = self.identities(plugged)

        def fits(state):
            found = sorted(lines["Identifier"] for lines in state.exported().values()
                           if not os.path.basename(lines["Path"]).startswith("mmcblk"))
            cards = [name for name in state.names if name.startswith("mmcblk")]
            return (found == expected and len(cards) == (card is not None)
                    and sorted(state.names) == sorted(state.places) == sorted(state.nodes)
                    and len(state.names) == len(state.sections()))
        self.wait_until(f"the service has {sorted(plugged)} and {card}", fits, self.limit)


class BigDisk(Disks):
    def test_of_more_than_fifteen_partitions_fifteen_are_mounted(self):
        """The kernel gives the others numbers of their own, under major 259."""
        before = self.wait_for_idle()
        self.make_disks(1, *["ext2"] * 18, table="gpt")
        self.plug_disk("DISK00")
        state = self.wait_for_disks(self.disks, range(1, 16))
        self.assertIn("sda18", state.kernel)
        self.assertEqual(self.vm.run("cut -d: -f1 /sys/class/block/sda16/dev"), "259\n")
        self.wait_for_idle()
        self.wait_for_disks(self.disks, range(1, 16))
        self.vm.pull("DISK00")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())


class ManyDisks(Disks):
    machines = ("x86",)
    devices = ("-device qemu-xhci,id=usb,p2=15,p3=15",)

    def test_the_seventeenth_and_the_twenty_seventh_disk_are_left_alone(self):
        """Only sda to sdp have major 8."""
        before = self.wait_for_idle()
        self.make_disks(28, "ext2")
        names = [*letters(26), "aa", "ab"]
        for serial, name in zip(self.disks, names):
            self.plug_disk(serial)
            self.wait_for_kernel(f"sd{name}1")
        mounted = list(self.disks)[:16]
        self.wait_for_disks(mounted)
        self.wait_for_idle()
        self.wait_for_disks(mounted)
        words = {"sdq1": "17th", "sdz1": "26th", "sdaa1": "27th", "sdab1": "28th"}
        lines = self.wait_for_lines(*(f"sd{name}1" for name in names[16:]), limit=self.limit)
        self.assertEqual({name: lines[name][1:] for name in words},
                         {name: ["out-of-range", "-", f"{name} is on the {word} disk: out of range", "-"]
                          for name, word in words.items()})
        for serial in self.disks:
            self.vm.pull(serial)
        self.wait_for_mounts()
        self.wait_for_lines()
        self.assert_same(before, self.wait_for_idle())


@long_on()
class Hub(VmTest):
    """With three sticks in it; they run at a hub's full speed."""

    def test_a_hub_that_is_pulled_takes_its_sticks_along(self):
        before = self.wait_for_idle()
        self.vm.plug_hub("hub", "1")
        for number in (1, 2, 3):
            self.plug(f"stick{number}", Filesystem("ext4", files={"readme.txt": f"stick {number}\n"}),
                      serial=f"STICK{number}", port=f"1.{number}")
            self.wait_for_kernel(f"sd{'abc'[number - 1]}1")
        names = ("sda1", "sdb1", "sdc1")
        self.wait_for_mounts(*names)
        state = self.wait_for_idle()
        self.assertEqual([state.share(name)["Speed"] for name in names], ["12"] * 3)
        for number, name in enumerate(names, 1):
            self.assertEqual(state.share(name)["Serial"], f"STICK{number}")
            self.assert_file(name, f"stick {number}\n")
        self.vm.pull_hub("hub", "stick1", "stick2", "stick3")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())


@long_on()
class Hanging(WaitingTools):
    """Something hangs; everything else waits, and then happens."""

    devices = machine.USB + machine.card_slots("slot")

    def plug_second(self):
        """A disk that arrives while the service is held up."""
        self.plug("second", Filesystem("ext4", "SECOND"), serial="SECOND")
        self.wait_for_kernel("sdb1")

    def when(self, state, text):
        line = [line.time for line in state.log if line.text.startswith(text)]
        return line[-1] if line else None

    def test_a_hook_that_does_not_end_holds_everything_up_for_a_minute(self):
        """Whatever the calendar says meanwhile."""
        before = self.wait_for_idle()
        self.vm.run("touch /vm/hook.hold")
        self.plug("stick", Filesystem("ext4", "FIRST"), serial="FIRST")
        state = self.wait_until("the hook runs", lambda state: len(state.hook) == 1)
        begin = float(state.hook[0][0])
        self.vm.run("date -s '2035-06-01 12:00:00'")
        self.plug_second()
        self.vm.run("date -s '1999-12-31 23:59:59'")
        state = self.wait_until("the second disk's hook runs", lambda state: len(state.hook) == 2, 300)
        self.assertGreater(float(state.hook[1][0]) - begin, 58)
        self.assertLess(float(state.hook[1][0]) - begin, 90)  # its 300 looks may each take somewhat longer
        self.vm.run("rm /vm/hook.hold")
        self.wait_for_mounts("sda1", "sdb1")
        self.assert_file("sdb1", "this is SECOND\n")
        self.vm.pull("stick")
        self.vm.pull("second")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())  # nothing is left of the hooks that ended late

    def test_a_label_tool_that_does_not_end_costs_twenty_seconds_and_the_label(self):
        before = self.wait_for_idle()
        self.vm.run("touch /vm/mlabel.hold")
        self.plug("stick", Filesystem("fat32", "FIRST"), serial="FIRST")
        state = self.wait_until("the label tool runs", lambda state: state.of("mlabel"))
        begin = state.time
        self.plug_second()
        state = self.wait_until("the first disk is shared", lambda state: state.share("sda1"), 300)
        self.assertGreater(state.time - begin, 18)
        self.assertLess(state.time - begin, 35)  # its 100 looks may each take somewhat longer
        self.assertEqual(state.share("sda1")[""], "Drive(A1)")
        self.wait_until("the second disk is shared", lambda state: state.share("sdb1"), 300)
        self.wait_until("the label tool was ended", lambda state: all(
            tool["state"] == "Z" for tool in state.of("mlabel")))
        self.vm.run("rm /vm/mlabel.hold")
        self.vm.run("kill -HUP $(cat /var/run/vyhotplugd.pid)")
        self.wait_until("the label is read", lambda state: state.share("sda1")[""] == "FIRST(A1)")
        self.vm.pull("stick")
        self.vm.pull("second")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_a_card_that_is_changed_too_fast_hangs_its_mount_and_nothing_is_lost(self):
        """The kernel takes the new card for the old one and asks it again and again."""
        first, second = (self.image(Filesystem("ext4", label), size=64) for label in ("ONE", "TWO"))
        self.vm.insert("slot", first)
        self.wait_until("announced", lambda state: self.when(state, "recieve(#)ACTION=add,MAJOR=179,MINOR=1"))
        self.vm.eject("slot")
        self.vm.insert("slot", second)
        self.wait_until("a mount has begun, of the card or of its partition", lambda state: state.places)
        begin = self.vm.state().time
        self.plug("stick", Filesystem("ext4", "STICK"), serial="STICK")
        state = self.wait_until("the stick is mounted and shared", lambda state: state.share("sda1"), 300)
        self.assertGreater(state.time - begin, 20, "the kernel did not hang")
        self.assert_file("sda1", "this is STICK\n")
        self.vm.eject("slot")
        self.wait_until("the card has gone", lambda state: "mmcblk0" not in state.kernel, 300)
        self.wait_for_mounts("sda1")
        self.vm.insert("slot", second)
        self.wait_for_mounts("mmcblka1", "sda1")
        self.assert_file("mmcblka1", "this is TWO\n")

