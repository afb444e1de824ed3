"""What is plugged, and what is done with the service and with Samba on every machine."""

import contextlib
import hashlib
import os
import re
import shutil
import signal
import stat
import threading
import time

import debian_world
import vyworld
from debian_world import EXCHANGE, Scenario

PACKAGES = ("vyhotplugd", "vynas-samba", "cockpit-vyhotplug")
COMMANDS = ("vyhotplugd", "vymount", "vyunmount", "vyhotpluginfo", "vyhotplug-agent", "vynas-samba",
            "vynas-samba-setup")
LIBEXEC = "/usr/libexec/vyhotplugd"
FILES_BEFORE = EXCHANGE + "/files-before.json"

DEVICE_FILE = "/run/vyhotplugd/files/hotplug.dev.conf"
SHARE_FILE = "/run/vyhotplugd/files/vynas.dir.conf"
SETTINGS_COPY = "/var/lib/vyhotplugd/hotplug.dev.conf"
INCLUDED = "/run/vynas-samba/shares.conf"
SHARE_SERVICE_PID = "/run/vynas-fssd.pid"
GUEST = ("-N",)
ANNA = ("-U", "anna%secret")

INSTALL_GUIDE = vyworld.read(os.path.join(debian_world.HERE, "../../docs/install.md"))

NONINTERACTIVE = {"DEBIAN_FRONTEND": "noninteractive"}
APT_INSTALL = ("apt-get", "-qy", "-o", "Dpkg::Use-Pty=0", "--no-install-recommends", "install")

# Where the package tools and the log keep their own.
NOT_COMPARED = ("/proc", "/sys", "/exchange", "/images", "/var/lib/dpkg", "/var/lib/apt", "/var/cache",
                "/var/log", "/dev", "/var/lib/systemd")


# ---- files ----


def list_files():
    """What lies in the root directory: kind and permissions by path, for /etc what is in the files too."""
    found = {}
    for folder, folders, files in os.walk("/"):
        folders[:] = [name for name in folders if os.path.join(folder, name) not in NOT_COMPARED]
        for name in folders + files:
            path = os.path.join(folder, name)
            status = os.lstat(path)
            what = stat.filemode(status.st_mode)
            if stat.S_ISLNK(status.st_mode):
                what += " " + os.readlink(path)
            elif stat.S_ISREG(status.st_mode) and path.startswith("/etc/"):
                with open(path, "rb") as file:
                    what += " " + hashlib.sha256(file.read()).hexdigest()
            found[path] = what
    return found


# ---- what is plugged ----


class Stick:
    """A USB disk with partitions: in /sys as the kernel shows it, its nodes leading to loop devices.

    Majors and minors are those of a disk, which is not there: so a thread stands in for the kernel, and lays
    the nodes below /dev/vyhotplug whenever they are missing while the stick is plugged.
    """

    USB = "/sys/devices/pci0000:00/usb1"

    def __init__(self, case, letter, serial, vendor="Acme", product="FlashKey", **partitions):
        self.letter = letter
        self.attributes = {"idVendor": "1234", "idProduct": "00ab", "serial": serial, "manufacturer": vendor,
                           "product": product, "speed": "480"}
        self.disk = f"sd{letter}"
        self.usb = f"{self.USB}/1-{ord(letter) - ord('a') + 1}"
        self.device = f"{self.usb}/host0/target0:0:0/0:0:0:0"
        self.partitions = []
        self.plugged = False
        for name, (filesystem, label, files) in partitions.items():
            partition = vyworld.Partition(f"{self.disk}{name.removeprefix('p')}", SID=serial, VNAME=vendor,
                                          PNAME=product)
            partition.image = f"/images/{partition.name}-{serial[:4]}"
            vyworld.make_image(partition.image, filesystem, files, label)
            partition.loop = vyworld.LoopDevice(partition.image)
            case.addCleanup(partition.loop.release)
            self.partitions.append(partition)
        threading.Thread(target=self._keep_nodes, daemon=True).start()

    def _keep_nodes(self):
        while True:
            for partition in self.partitions:
                if self.plugged:
                    with contextlib.suppress(OSError):
                        partition.lay_node()
            time.sleep(0.02)

    def _write(self, folder, **attributes):
        os.makedirs(folder + "/holders")
        for name, value in attributes.items():
            vyworld.write(f"{folder}/{name}", f"{value}\n")

    def put_in(self):
        """The kernel finds it; nobody is told."""
        folder = f"{self.device}/block/{self.disk}"
        first = self.partitions[0]
        minor = first.minor - first.minor % first.range
        self._write(folder, dev=f"8:{minor}", range=16, removable=1, ro=0, size=16384, diskseq=1)
        for name, value in self.attributes.items():
            vyworld.write(f"{self.usb}/{name}", value + "\n")
        os.symlink(self.device, folder + "/device")
        for partition in self.partitions:
            self._write(f"{folder}/{partition.name}", dev=f"8:{partition.minor}", ro=0, size=16000,
                        partition=partition.minor % 16)
        os.makedirs("/sys/block", exist_ok=True)
        os.symlink(folder, f"/sys/block/{self.disk}")
        os.makedirs("/sys/dev/block", exist_ok=True)
        for partition in self.partitions:
            os.symlink(f"{folder}/{partition.name}", self._by_number(partition))
        self.plugged = True
        for partition in self.partitions:
            with contextlib.suppress(OSError):
                partition.lay_node()

    @staticmethod
    def _by_number(partition):
        """Where the kernel shows the device that the node leads to."""
        number = partition.loop.device
        return f"/sys/dev/block/{os.major(number)}:{os.minor(number)}"

    def take_out(self):
        self.plugged = False
        for partition in self.partitions:
            os.remove(self._by_number(partition))
        shutil.rmtree(self.usb)
        os.remove(f"/sys/block/{self.disk}")

    def announce(self):
        for partition in self.partitions:
            vyworld.send(partition.add_message())

    def withdraw(self):
        for partition in self.partitions:
            vyworld.send(partition.remove_message())

    def events(self, action):
        """What the kernel would put into the environment of a program that it starts for each event."""
        for partition in self.partitions:
            yield {"ACTION": action, "SUBSYSTEM": "block", "DEVTYPE": "partition", "DEVNAME": partition.name,
                   "DEVPATH": f"{self.device}/block/{self.disk}/{partition.name}".removeprefix("/sys"),
                   "MAJOR": "8", "MINOR": str(partition.minor)}


# ---- the machine ----



class Machine(Scenario):
    """What is done with the service and with Samba on every machine."""

    HOOK = "#!/bin/sh\necho \"$1 $2\" >>/images/hook.record\n"

    def collect_log(self):
        """As the machine's system log, which is told at the end."""
        log = vyworld.SystemLog()

        def dump():
            for line in log.lines:
                self.tell(f"log: {line}")

        self.addCleanup(dump)

    def start_by_init_scripts(self):
        for name in ("smbd", "vyhotplugd", "vynas-samba"):
            self.run_ok(f"/etc/init.d/{name}", "start")

    def add_anna(self):
        self.run_ok("useradd", "--create-home", "--groups", "users", "anna")
        self.run_ok("smbpasswd", "-a", "-s", "anna", stdin="secret\nsecret\n")

    # ---- Samba ----

    def shares(self, who=GUEST):
        status, text = self.run_any("smbclient", "-g", *who, "-L", "127.0.0.1")
        names = re.findall(r"^Disk\|([^|]*)\|", text, re.MULTILINE)
        return {name for name in names if name not in ("print$", "anna", "nobody")} if status == 0 else None

    def wait_for_shares(self, *names, who=GUEST, limit=debian_world.LIMIT):
        self.wait_until(f"shares {names}", lambda: self.shares(who) == set(names), limit)

    def client(self, share, commands, who=GUEST):
        """Lets a client work on a share; returns its status and what it said."""
        return self.run_any("smbclient", *who, f"//127.0.0.1/{share}", "-c", commands)

    def fetch(self, share, name, who=GUEST):
        """What a client gets for a file; the client's message where it gets none."""
        if os.path.exists("/images/fetched"):
            os.remove("/images/fetched")
        status, text = self.client(share, f'get "{name}" /images/fetched', who)
        return self.read("/images/fetched") if status == 0 else text

    # ---- the service ----

    def plug(self, stick):
        """The kernel's event cannot be had here: the agent is told to look."""
        stick.put_in()
        agent, = self.pids_of("vyhotplug-agent")
        os.kill(agent, signal.SIGHUP)

    @staticmethod
    def mounted():
        return set(vyworld.mounted_names())

    def wait_for_mounts(self, *names):
        self.wait_until(f"mounts {names}", lambda: self.mounted() == set(names))

    def section_of(self, identifier):
        """The device file's text before a device's section, in it and behind it."""
        text = self.read(DEVICE_FILE)
        before, header, rest = text.partition(f"[{identifier}]\n")
        self.assertTrue(header, text)
        section, following, others = rest.partition("\n[")
        return before + header, section, following + others

    def set_for_device(self, identifier, **settings):
        """As an administrator would: a new device file is moved into place; again where a refresh that had read the
        one before writes it anew."""
        wanted = {key.replace("_", " ").title(): value for key, value in settings.items()}
        while True:
            before, section, behind = self.section_of(identifier)
            for words, value in wanted.items():
                section = re.sub(f"^{words}=.*$", f"{words}={value}", section, flags=re.MULTILINE)
                self.assertIn(f"{words}={value}", section)
            self.write(DEVICE_FILE + ".new", before + section + behind)
            moved = os.stat(DEVICE_FILE + ".new").st_ino
            os.rename(DEVICE_FILE + ".new", DEVICE_FILE)
            os.kill(self.pids_of("vyhotplugd")[0], signal.SIGHUP)
            self.wait_until("a refresh", lambda moved=moved: os.stat(DEVICE_FILE).st_ino != moved)
            section = self.section_of(identifier)[1]
            if all(f"{words}={value}" in section for words, value in wanted.items()):
                return

    def assert_testparm(self):
        """Samba's own judgement of its configuration; returns the shares' names in it."""
        said = self.run_ok("testparm", "-s", "--suppress-prompt")
        self.assertNotRegex(said, r"(?i)unknown parameter|ignoring|error")
        return set(re.findall(r"^\[(.*)\]$", said, re.MULTILINE)) - {"global", "homes", "printers", "print$"}
