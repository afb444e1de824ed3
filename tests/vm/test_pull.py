"""Disks that are pulled at every moment."""

from machine import DEVICE_FILE
from media import Filesystem
from state import node_of, place_of
from vmtest import VmTest, WaitingTools, long_on


class Mounted(VmTest):
    def test_pulled_unmounted_by_hand_then_with_a_file_open_then_while_written(self):
        before = self.wait_for_idle()
        image = self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4"), serial="AC0042")
        for use in (self.unmount_by_hand, self.read_a_file, self.write_files):
            self.wait_for_mounts("sda1", "sda2")
            self.wait_for_idle()
            use()
            self.vm.pull("stick")
            self.wait_for_mounts()
            self.end_use()
            after = self.wait_for_idle()
            self.assert_same(before, after)
            self.vm.plug("stick", image, serial="AC0042")  # it must be sda again
        state = self.wait_for_mounts("sda1", "sda2")
        self.assertEqual(state.mount("sda1").device, "8:1")
        self.assert_file("sda1", "this is HOLIDAY\n")

    def unmount_by_hand(self):
        """Somebody else did: all that is left of it goes all the same."""
        self.vm.run(f"umount {place_of('sda1')}")

    def read_a_file(self):
        for name in ("sda1", "sda2"):
            self.start("user", f"sh -c 'echo $$ >>/vm/users; exec sleep 9999 <{place_of(name)}/readme.txt'")
        self.vm.run("until [ $(wc -l </vm/users) = 2 ]; do sleep 0.05; done")

    def write_files(self):
        for name in ("sda1", "sda2"):
            self.start("user", f"sh -c 'echo $$ >>/vm/users; cd {place_of(name)} && while :; do "
                               "dd if=/dev/zero of=big bs=64k count=100 || sleep 0.1; done'")
        self.vm.run(f"until [ $(wc -l </vm/users) = 2 ] && [ -s {place_of('sda1')}/big ]; do sleep 0.05; done")

    def end_use(self):
        """Whoever held on lets go; what is left then is the service's."""
        self.vm.run("[ ! -e /vm/users ] || { kill -9 $(cat /vm/users); rm /vm/users; }")
        self.wait_until("the users have ended", lambda state: not state.of("dd") or all(
            process["parent"] != 1 for process in state.of("dd")))


class Busy(WaitingTools):
    """Pulled while the service is at the device."""

    def plug_stick(self):
        self.vm.plug("stick", self.stick, serial="AC0042")

    def pull_stick(self, release=None):
        """Pulls it, lets what waits go on, and sees that nothing is left."""
        self.vm.pull("stick")
        self.wait_until("the disk has gone", lambda state: "sda" not in state.kernel)
        if release:
            self.vm.run(f"rm {release}")
        self.wait_for_mounts()
        self.assert_same(self.before, self.wait_for_idle())

    def test_pulled_during_the_hold_the_mount_the_hook_and_the_refresh(self):
        self.before = self.wait_for_idle()
        self.stick = self.image(Filesystem("fat32", "HOLIDAY"), Filesystem("ntfs"))

        self.plug_stick()
        state = self.wait_until("announced", lambda state: any(
            "ACTION=add,MAJOR=8,MINOR=1" in line.text for line in state.log))
        self.assertEqual(state.names, [])
        self.pull_stick()

        self.vm.run("touch /vm/ntfs-3g.hold")
        self.plug_stick()
        self.wait_until("the driver runs", lambda state: "sda2" in state.places and "sda2" not in state.names)
        self.pull_stick("/vm/ntfs-3g.hold")

        self.vm.run("touch /vm/hook.hold; rm -f /vm/hook.record")
        self.plug_stick()
        self.wait_until("the hook runs", lambda state: state.hook_calls() == [f"mount {place_of('sda1')} mounted"])
        self.pull_stick("/vm/hook.hold")

        self.vm.run("touch /vm/mlabel.hold")
        self.plug_stick()
        self.wait_until("the label tool runs", lambda state: state.of("mlabel"))
        self.pull_stick("/vm/mlabel.hold")

        self.plug_stick()
        self.wait_for_mounts("sda1", "sda2")
        self.assert_file("sda1", "this is HOLIDAY\n")


@long_on("mips")
class SlowDisk(VmTest):
    def test_pulled_while_the_kernel_mounts(self):
        before = self.wait_for_idle()
        image = self.image(Filesystem("ext4"))
        self.vm.plug_throttled("stick", image, serial="AC0042")
        self.wait_until("announced", lambda state: any("ACTION=add,MAJOR=8,MINOR=1" in line.text for line in state.log))
        self.vm.throttle("stick", 1)
        self.vm.run("echo 3 >/proc/sys/vm/drop_caches")
        self.wait_until("the mount has begun", lambda state: "sda1" in state.places)
        self.assertEqual(self.vm.state().names, [])
        self.vm.pull("stick")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())
        self.vm.plug("stick", image, serial="AC0042")
        self.wait_for_mounts("sda1")


class Settings(VmTest):
    def test_a_replugged_disk_finds_its_settings(self):
        """And what an earlier service left in its place does not hinder it."""
        self.vm.run(f"mkdir {place_of('sda1')} && mknod {node_of('sda1')} b 8 1")
        image = self.plug("stick", Filesystem("ext4"), Filesystem("ext4"), serial="AC0042")
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_idle()
        self.vm.run(f"sed -i '/AC0042:1/,/AC0042:2/s/^Share Name=$/Share Name=Music/' {DEVICE_FILE}")
        self.vm.run("kill -HUP $(cat /var/run/vyhotplugd.pid)")
        self.wait_until("the share has its name", lambda state: (state.share("sda1") or {}).get("") == "Music")
        self.vm.pull("stick")
        self.wait_for_mounts()
        state = self.wait_for_idle()
        self.assertIn("[46f4:0001:AC0042:1]\nShare Name=Music\n", state.devices)
        self.assertNotIn("AC0042:2", state.devices)
        self.vm.plug("stick", image, serial="AC0042")
        state = self.wait_for_mounts("sda1", "sda2")
        self.assertEqual((state.share("sda1")[""], state.share("sda2")[""]), ("Music", "Drive(A2)"))


@long_on()
class Twice(VmTest):
    def test_a_disk_that_goes_again_before_a_refresh_is_unmounted_after_it(self):
        """Kept: a remove message means the first entry with its numbers, and until the refresh that is the one
        that has gone; the agent repeats it. Messages about another device, each held back, keep the refresh away
        meanwhile."""
        before = self.wait_for_idle()
        image = self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4"), serial="AC0042")
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_idle()
        self.start("filler", "sh -c 'while [ ! -e /vm/enough ]; do /vm/guest send ACTION=add,MAJOR=7,MINOR=0; "
                             "sleep 0.5; done'")
        self.vm.pull("stick")
        self.wait_until("unmounted", lambda state: not state.names)
        self.vm.plug("stick", image, serial="AC0042")
        self.wait_until("mounted again", lambda state: sorted(state.names) == ["sda1", "sda2"])
        self.vm.pull("stick")
        self.wait_until("the disk has gone", lambda state: "sda" not in state.kernel)
        self.wait_until("the service has passed over the second mount", lambda state: len(
            [line for line in state.log if line.text.startswith("daemon(#)remove mount point ")]) >= 2)
        self.assertEqual(sorted(self.vm.state().names), ["sda1", "sda2"])
        self.vm.run("touch /vm/enough")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def test_a_disk_that_went_after_its_mount_had_been_taken_off_by_hand_is_unmounted_the_next_time(self):
        """Kept: the entry of a mount that somebody else took off stays until the refresh after another removal,
        and so is the first with its numbers when the disk goes again."""
        before = self.wait_for_idle()
        image = self.plug("stick", Filesystem("ext4"), serial="AC0042")
        self.wait_for_mounts("sda1")
        self.wait_for_idle()
        self.vm.run(f"umount {place_of('sda1')}")
        self.vm.pull("stick")
        self.wait_until("that is noticed", lambda state: any(
            line.text.startswith("daemon(#)faild unmount ") for line in state.log))
        self.wait_for_idle()
        self.vm.plug("stick", image, serial="AC0042")
        self.wait_until("mounted again", lambda state: state.names == ["sda1"])
        self.wait_for_idle()
        self.vm.pull("stick")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())
