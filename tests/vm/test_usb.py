"""A USB disk from the plug to the pull."""

from media import Filesystem
from state import PLACES, node_of, place_of
from vmtest import SETTINGS, VmTest

# Lines of /etc/mtab that have one thing or the other in common with the service's.
OTHERS = (f"{node_of('sda1')} /elsewhere vfat rw 0 0\n"
          f"/dev/elsewhere {place_of('sda1')} vfat rw 0 0\n")

SHARES = """[HOLIDAY(A1)]
Identifier=46f4:0001:AC0042:1
Path=/media/vyhotplug/sda1
Volume Label=HOLIDAY
Comment=USB Storage Device ({vendor}/{product})
File System=FAT
VID=18164
PID=1
Serial=AC0042
Manufactuare={vendor}
Product={product}
Speed=480
[Drive(A2)]
Identifier=46f4:0001:AC0042:2
Path=/media/vyhotplug/sda2
Comment=USB Storage Device ({vendor}/{product})
VID=18164
PID=1
Serial=AC0042
Manufactuare={vendor}
Product={product}
Speed=480
"""


class Stick(VmTest):
    def test_two_partitions_come_and_go_without_a_trace(self):
        self.vm.run(f"printf '{OTHERS}' >>/etc/mtab")
        before = self.wait_for_idle()
        self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4", "WORK"), serial="AC0042",
                  vendor="Acme", product="FlashKey")
        self.wait_for_mounts("sda1", "sda2")
        state = self.wait_for_idle()
        self.look_at_messages(state)
        self.look_at_mounts(state)
        self.look_at_files(state)
        self.assertEqual(state.signals, before.signals + 1)
        self.assertEqual(state.hook_calls(),
                         [f"mount {place_of(name)} mounted" for name in ("sda1", "sda2")])

        self.vm.pull("stick")
        self.wait_for_mounts()
        after = self.wait_for_idle()
        self.assert_same(before, after)
        self.assertEqual(after.signals, before.signals + 2)
        self.assertEqual(sorted(after.hook_calls()[2:]),
                         [f"unmount {place_of(name)} mounted" for name in ("sda1", "sda2")])

    def look_at_messages(self, state):
        """One of each device, with all that sysfs tells of it."""
        vendor, product = self.names()
        self.assertEqual(state.announcements(), [
            f"ACTION=add,MAJOR=8,MINOR={minor},DEVTYPE={kind},RANGE=16,RM=0,RO=0,VID=46f4,PID=0001,SID=AC0042,"
            f"VNAME={vendor},PNAME={product},SPEED=480"
            for minor, kind in enumerate(("disk", "partition", "partition"))])

    def look_at_mounts(self, state):
        fat, ext = state.mount("sda1"), state.mount("sda2")
        self.assertEqual((fat.type, fat.source, fat.device), ("vfat", node_of("sda1"), "8:1"))
        for option in ("rw", "uid=1000", "gid=100", "fmask=0137", "dmask=0027", "utf8"):
            self.assertIn(option, fat.options)
        self.assertEqual(fat.flags, ["rw", "relatime"])
        self.assertEqual((ext.type, ext.source, ext.device), ("ext4", node_of("sda2"), "8:2"))
        self.assertIn("rw", ext.options)
        self.assertEqual(ext.flags, ["rw", "nodev", "relatime"])
        self.assertEqual(state.nodes, {"sda1": [1, 8, 1], "sda2": [1, 8, 2]})
        self.assert_table(state, OTHERS)
        self.assertEqual(self.vm.run(f"cd {PLACES}/sda1 && stat -c '%u %g %a' . readme.txt"),
                         "1000 100 750\n1000 100 640\n")
        self.assert_file("sda1", "this is HOLIDAY\n")
        self.assert_file("sda2", "this is WORK\n")

    def look_at_files(self, state):
        vendor, product = self.names()
        self.assertEqual(state.shares, SHARES.format(vendor=vendor, product=product))
        self.assertEqual(state.devices, "".join(
            f"[46f4:0001:AC0042:{number}]\nShare Name=\n{SETTINGS}" for number in (1, 2)))

    def names(self):
        """Manufacturer and product, as the USB device calls them."""
        return self.vm.run("cat /sys/bus/usb/devices/1-1/manufacturer /sys/bus/usb/devices/1-1/product").splitlines()
