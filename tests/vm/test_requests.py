"""vymount and vyunmount."""

import machine
from media import Filesystem
from state import place_of
from vmtest import VmTest


class Requests(VmTest):
    devices = machine.USB + machine.card_slots("slot")
    every = ("mmcblka1", "sda1", "sda2")

    def plug_all(self):
        self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4", "WORK"), serial="AC0042")
        self.wait_for_kernel("sda2")
        self.card("slot", Filesystem("fat16", "CARD"))
        self.wait_for_mounts(*self.every)
        return self.wait_for_idle()  # no hotplug message waits, so no answer is lost

    def wait_for_unmounted(self, *names):
        """These and no others are unmounted, and the share file says so."""
        mounted = sorted(set(self.every) - set(names))
        return self.wait_until(f"unmounted: {names}", lambda state:
                               sorted(state.names) == sorted(state.places) == sorted(state.nodes) == mounted
                               and all((state.share(name) or {}).get("Status") == ("Unmount" if name in names else None)
                                       for name in self.every))

    def ask(self, tool, target, outcome="success"):
        self.assertEqual(self.tool(f"vy{tool} {target}"), f"{tool} {target} - {outcome}.\n")

    def test_every_form_of_target_and_a_pull_of_what_is_unmounted(self):
        before = self.wait_for_idle()
        mounted = self.plug_all()
        for target, names in (("sda1", ("sda1",)), ("sda", ("sda1", "sda2")), ("sd", ("sda1", "sda2")),
                              ("mmcblk", ("mmcblka1",)), ("mmcblka1", ("mmcblka1",)), ("all", self.every)):
            self.ask("unmount", target)
            self.wait_for_unmounted(*names)
            self.ask("mount", target)
            self.wait_for_unmounted()
        state = self.wait_for_idle()
        # A request to mount what is mounted already succeeds and takes the node away: none was made.
        self.assertEqual({name: state.share(name) for name in self.every},
                         {name: mounted.share(name) for name in self.every})
        self.assert_file("sda1", "this is HOLIDAY\n")
        self.assert_file("mmcblka1", "this is CARD\n")

        self.ask("unmount", "sda1")
        self.ask("unmount", "mmcblk")
        self.wait_for_unmounted("mmcblka1", "sda1")
        self.wait_for_idle()
        self.vm.pull("stick")
        self.vm.eject("slot")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_what_is_in_use_goes_by_force_only(self):
        before = self.wait_for_idle()
        self.plug_all()
        self.start("user", f"sh -c 'echo $$ >/vm/user; exec sleep 9999 <{place_of('sda1')}/readme.txt'")
        self.vm.run("until [ -s /vm/user ]; do sleep 0.05; done")
        self.ask("unmount", "sda1", "failed")
        state = self.wait_for_unmounted()
        self.assert_file("sda1", "this is HOLIDAY\n")
        self.assertEqual(state.hook_calls()[-1], f"unmount {place_of('sda1')} mounted")
        self.ask("unmount", "sda1,force")
        self.wait_for_unmounted("sda1")
        self.assertIn("HOLIDAY", self.vm.run("cat /proc/$(cat /vm/user)/fd/0"))  # who has it open, has it
        self.vm.run("kill $(cat /vm/user)")
        self.ask("mount", "sda1")
        self.wait_for_unmounted()
        self.assert_file("sda1", "this is HOLIDAY\n")
        self.wait_for_idle()
        self.vm.pull("stick")
        self.vm.eject("slot")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())
