"""What the tests of the page in Cockpit share: the real service with agent, bridge and command in a private world, a
real Cockpit on its loopback, and a real browser."""

import contextlib
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys
import threading
import time

FOLDER = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(FOLDER))
sys.path.insert(0, os.path.join(ROOT, "tests", "system"))
import agent_world  # noqa: E402
import samba_world  # noqa: E402
import vyworld  # noqa: E402

LIMIT = int(os.environ.get("VY_WEB_LIMIT", "120"))  # seconds, for what takes one or two where nothing else runs
PORT = 9990
BRIDGE = "/usr/bin/cockpit-bridge"
WEB_SERVICE = "/usr/lib/cockpit/cockpit-ws"
DATA = "/tmp/share"
HOME = "/tmp/home"
FONTS = """<?xml version="1.0"?><!DOCTYPE fontconfig SYSTEM "fonts.dtd">
<fontconfig><dir>/usr/share/fonts</dir><cachedir>/tmp/fonts</cachedir>
<alias><family>monospace</family><prefer><family>DejaVu Sans Mono</family></prefer></alias></fontconfig>
"""

STICK = {"idVendor": "1234", "idProduct": "00ab", "serial": "ABC", "manufacturer": "Acme",
         "product": "FlashKey", "speed": "480"}


def environment():
    return {"PATH": vyworld.PATH, "HOME": HOME, "XDG_DATA_DIRS": f"{DATA}:/usr/share", "XDG_RUNTIME_DIR": HOME,
            "LANG": "C.UTF-8", "FONTCONFIG_FILE": "/tmp/fonts.conf", "TZ": "UTC"}


class WebTest(samba_world.SambaTest):
    """The service runs, the agent tells it of disks, and Cockpit shows the page. Nothing is plugged."""

    def setUp(self):
        with open("/etc/passwd", "r+", encoding="utf-8") as file:  # this machine's own people are no business of the page's
            system = [line for line in file if not 1000 <= int(line.split(":")[2]) < 60000]
            file.seek(0)
            file.writelines(system)
            file.truncate()
        super().setUp()
        self.disks = {}
        self.make_machine()
        self.write_config(mountfs="ext")  # not every kernel has the others
        self.start_daemon(settled=False)
        self.start_bridge()
        self.start_agent()
        self.start_cockpit(self.make_session())

    # ---- the machine ----

    def make_machine(self):
        for program in ("vyhotplug-agent", "vyhotplugctl"):
            shutil.copy(os.path.join(os.environ["VY_BIN"], program), vyworld.PROGRAMS)
        vyworld.run("mount", "-t", "tmpfs", "none", "/sys")
        self.sysfs = agent_world.FakeSysfs("/sys")
        os.makedirs("/run/vyhotplugd")
        for name in (HOME, "/tmp/fonts", DATA + "/cockpit"):
            os.makedirs(name)
        vyworld.write("/tmp/fonts.conf", FONTS)
        os.symlink(os.path.join(ROOT, "web"), DATA + "/cockpit/vyhotplug")
        self.over = threading.Event()
        layer = threading.Thread(target=self._lay_nodes)
        layer.start()
        self.addCleanup(layer.join)
        self.addCleanup(self.over.set)

    def _lay_nodes(self):
        """The service takes a disk's node away when it unmounts; here it comes again while the disk is plugged."""
        while not self.over.wait(0.01):
            for partition in [one for disk in list(self.disks.values()) for one in disk]:
                with contextlib.suppress(FileExistsError):
                    partition.lay_node()

    def start_agent(self):
        command = [vyworld.PROGRAMS + "/vyhotplug-agent", "--monitor", "--mounts", vyworld.MOUNT_DIR,
                   "--config", vyworld.CONFIG]
        self.agent = subprocess.Popen(command, stdin=subprocess.DEVNULL, env=vyworld.environment())
        self.addCleanup(self.agent.wait)
        self.addCleanup(self.agent.terminate)
        self.wait_until("the agent handles signals", self._agent_is_ready)

    def _agent_is_ready(self):
        status = vyworld.read(f"/proc/{self.agent.pid}/status")
        blocked = int(status.split("SigBlk:")[1].split()[0], 16)
        return "vyhotplug-agent" in status and blocked >> (signal.SIGTERM - 1) & 1

    def plug(self, disk, parts=None, usb=None, files=None, port=False):
        """Plugs a disk: its partitions' filesystems by number. Port: it can be switched off, which leaves its traces in
        files."""
        parts = {1: "ext4"} if parts is None else parts
        usb = {**STICK, "serial": disk.upper(), **(usb or {})}
        made = []
        for number, filesystem in parts.items():
            partition = vyworld.Partition(f"{disk}{number}", SID=usb["serial"])
            image = f"/tmp/{partition.name}.image"
            with contextlib.suppress(FileNotFoundError):
                os.unlink(image)
            vyworld.make_image(image, filesystem, files or {"who": f"this is {partition.name}\n"})
            partition.loop = vyworld.LoopDevice(image)
            self.addCleanup(partition.loop.release)
            made.append(partition)
        for partition in made:
            partition.lay_node()
            os.mknod(f"/dev/{partition.name}", stat.S_IFBLK | 0o600, partition.loop.device)  # where the agent looks
        self.disks[disk] = made
        self.sysfs.add_stick(disk, parts=tuple(parts), usb=usb)
        # What is ejected is flushed and stopped by its numbers: never this machine's own disk.
        self.sysfs.set(f"{disk}/dev", f"{os.major(made[0].loop.device)}:{os.minor(made[0].loop.device)}")
        if port:
            vyworld.write(self.switch_of(disk, "delete"), "")
            vyworld.write(self.switch_of(disk, "remove"), "")
        os.kill(self.agent.pid, signal.SIGHUP)
        return made

    @staticmethod
    def switch_of(disk, name):
        """The file that takes the disk from the kernel (delete), or its port from the bus (remove)."""
        device = os.path.realpath(f"/sys/block/{disk}/device")
        return os.path.normpath(f"{device}/{'' if name == 'delete' else '../../../..'}/{name}")

    def pull(self, disk):
        for partition in self.disks.pop(disk):
            partition.loop.release()
            os.unlink(f"/dev/{partition.name}")
        self.sysfs.remove(disk)
        os.kill(self.agent.pid, signal.SIGHUP)

    def wait_for_mount(self, *names):
        self.wait_until(f"{names} mounted", lambda: set(names) <= set(vyworld.mounted_names()))

    # ---- Cockpit ----

    def make_session(self):
        """What Cockpit starts for who logs in: root here."""
        return BRIDGE

    def start_cockpit(self, bridge):
        with open("/tmp/cockpit.log", "wb") as log:
            process = subprocess.Popen(
                [WEB_SERVICE, "--no-tls", f"--local-session={bridge}", "-a", "127.0.0.1", "-p", str(PORT)],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=environment())
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        self.wait_until("Cockpit listens", self._listens)

    @staticmethod
    def _listens():
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", PORT), 5):
            return True
        return False

    # ---- the browser ----

    def open_page(self, **options):
        from browser import Page  # what only shows the page to people needs no browser of its own
        page = Page(self, **options)
        self.addCleanup(page.close)
        return page


def pause(seconds):
    """Only where nothing is to happen meanwhile."""
    time.sleep(seconds)
