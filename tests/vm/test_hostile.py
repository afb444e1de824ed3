"""Devices whose texts are made to break things."""

from machine import DEVICE_FILE, SHARE_FILE
from media import Filesystem
from state import place_of
from vmtest import VmTest

KEYS = {"Identifier", "Path", "Volume Label", "Comment", "File System", "VID", "PID", "Serial", "Manufactuare",
        "Product", "Speed"}

# The kernel takes texts of 126 bytes.
GADGET = """mount -t configfs none /sys/kernel/config 2>/dev/null
mkdir /sys/kernel/config/usb_gadget/evil && cd /sys/kernel/config/usb_gadget/evil
echo 0x1234 >idVendor
echo 0xabcd >idProduct
mkdir strings/0x409 configs/c.1 functions/mass_storage.0
{strings}
echo /vm/stick >functions/mass_storage.0/lun.0/file
ln -s functions/mass_storage.0 configs/c.1/
echo dummy_udc.0 >UDC"""


class Hostile(VmTest):
    def assert_sane(self, state, names):
        """As many sections as mounts, and nothing in them but what belongs there."""
        lines = state.shares.splitlines()
        self.assertEqual(len([line for line in lines if line.startswith("[")]), len(names), state.shares)
        self.assertEqual([line for line in lines if not line.startswith("[") and line.split("=")[0] not in KEYS], [])
        self.assertEqual(sorted(lines["Path"] for lines in state.sections().values()),
                         sorted(place_of(name) for name in names))
        self.assertTrue(all(line == "" or line.startswith("[") or "=" in line for line in state.devices.splitlines()))
        self.assertEqual(len([line for line in state.devices.splitlines() if line.startswith("[")]), len(names))

    def test_serials_and_labels_that_look_like_lines_and_items(self):
        before = self.wait_for_idle()
        serial = "A,MAJOR=8,MINOR=99\n[Evil]\nPath=/etc"
        self.plug("stick", Filesystem("fat32", raw_label=b"[E]\nPath=/e"), Filesystem("ntfs", "a]\n[b]\nPath=/etc"),
                  Filesystem("fat16", raw_label=b"\xff\x80\x01..;|$ '\""), Filesystem("ext4", "$(reboot)"),
                  serial=serial, vendor="a\n[b],=", product="MAJOR=7,MINOR=0")
        names = ("sda1", "sda2", "sda3", "sda4")
        self.wait_for_mounts(*names)
        state = self.wait_for_idle()
        self.assert_sane(state, names)
        clean = "A_MAJOR=8_MINOR=99__Evil__Path=/etc"
        self.assertEqual([state.share(name)["Identifier"] for name in names],
                         [f"46f4:0001:{clean}:{number}" for number in (1, 2, 3, 4)])
        self.vm.pull("stick")
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())


class Gadget(VmTest):
    """The guest itself plays the stick, so that its USB strings can be anything."""

    machines = ("x86",)

    def test_names_of_a_usb_device(self):
        self.vm.run("sh /vm/load more")
        before = self.wait_for_idle()
        for texts, serial in (({"manufacturer": "=Evil],\\n[x]", "product": "Path=/etc,force",
                                "serialnumber": "a,b]\\n[c"}, "a_b___c"),
                              ({"manufacturer": "ä" * 63, "product": "€" * 42, "serialnumber": "𝄞" * 31}, "𝄞" * 31),
                              ({}, "")):
            self.plug_gadget(texts)
            self.wait_for_mounts("sda0")
            state = self.wait_for_idle()
            self.assert_sane(state, ["sda0"])
            self.assertEqual(state.share("sda0")["Identifier"], f"1234:abcd:{serial}:0")
            if not texts:
                self.look_at_scsi_names(state.share("sda0"))
            self.vm.run("cd /sys/kernel/config/usb_gadget/evil && echo >UDC; rm configs/c.1/mass_storage.0; "
                        "rmdir configs/c.1 functions/mass_storage.0 strings/0x409; cd / && "
                        "rmdir /sys/kernel/config/usb_gadget/evil")
            self.wait_for_mounts()
            self.assertEqual(self.wait_for_idle().footprint()["descriptors"], before.footprint()["descriptors"])

    def look_at_scsi_names(self, share):
        """A USB device that has no name is called as its disk calls itself."""
        vendor, model = (line.rstrip() for line in
                         self.vm.run("cd /sys/block/sda/device && cat vendor model").splitlines())
        self.assertTrue(vendor and model)
        self.assertEqual((share.get("Manufactuare"), share.get("Product")), (vendor, model))

    def plug_gadget(self, texts):
        self.vm.run("dd if=/dev/zero of=/vm/stick bs=1k count=0 seek=40960; mkdosfs -n GADGET /vm/stick")
        self.vm.run(GADGET.format(strings="\n".join(
            f"printf '{text}' >strings/0x409/{name}" for name, text in texts.items())))

    assert_sane = Hostile.assert_sane


class Planted(VmTest):
    """What a user of the machine lays in the way of a strict service, with the kernel's protections on and off.

    Each thing leaves a trace of its own where the service falls for it: its victim is written to, it is still there,
    the file that took its place is not root's, or the refresh does not end.
    """

    configuration = "strict = enable\\n"
    TEMPORARY = {"/tmp/vyhotplug.dir.conf.tmp": SHARE_FILE, "/tmp/vyhotplug.dev.conf.tmp": DEVICE_FILE}
    # What would hold the service up comes last.
    KINDS = {"link": "ln -s {victim} {path}", "file": "echo '[Etc]' >{path}", "directory": "mkdir {path}",
             "second name": "ln {victim} {path}", "fifo": "mkfifo {path}"}

    def test_nothing_of_it_is_followed_or_holds_anything_up(self):
        self.vm.run("chmod 1777 /tmp")
        self.plug("stick", Filesystem("ext4", "Stick"))
        self.wait_for_mounts("sda1")
        for protection in (1, 0):
            for name in ("symlinks", "hardlinks", "regular", "fifos"):
                self.vm.run(f"echo {protection} >/proc/sys/fs/protected_{name}")
            for kind in self.KINDS:
                for path, target in self.TEMPORARY.items():
                    with self.subTest(kind=kind, path=path, protection=protection):
                        self.lay(kind, path)
                        self.look(path, target)

    def lay(self, kind, path):
        self.vm.run("rm -f /tmp/victim; echo untouched >/tmp/victim; chmod 644 /tmp/victim")
        self.vm.run(self.KINDS[kind].format(victim="/tmp/victim", path=path))
        if kind != "second name":
            self.vm.run(f"chown -h 1234 {path}")

    def look(self, path, target):
        try:
            state = self.refresh()
        finally:  # who waits for a reader of a FIFO goes on
            self.vm.run(f"[ ! -p {path} ] || timeout 2 cat {path} >/dev/null; true")
        left = self.vm.run(f"[ ! -L {path} ] && [ ! -e {path} ] || echo {path}; rm -rf {path}; cat /tmp/victim; "
                           f"ls -n {target}").splitlines()
        self.assertEqual(left[:-1], ["untouched"])
        self.assertEqual(left[-1].split()[:4:2], ["-rw-r--r--", "0"], left)
        self.assertEqual([lines["Path"] for lines in state.sections().values()], [place_of("sda1")])

    def refresh(self):
        before = self.vm.state()
        process, = before.of("vyhotplugd")
        self.vm.run(f"kill -HUP {process['pid']}")
        return self.wait_until("a refresh", lambda state: state.signals > before.signals)
