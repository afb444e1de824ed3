"""A virtual machine: its process, its control connection, a shell inside, disks and cards to plug.

The processor is emulated in software, always. Three wires lead out: the kernel's messages into a file,
commands and their output over a second serial port, QEMU's control protocol.
"""

import ctypes
import hashlib
import json
import os
import re
import shlex
import select
import signal
import socket
import subprocess
import time

import kit
from state import LogLine, State

LIMIT = 180  # seconds; nothing takes this long unless it hangs
MEMORY = 256  # MB
STEP = 0.2  # between two looks
SHARE_FILE = "/run/vyhotplugd/files/vynas.dir.conf"
DEVICE_FILE = "/run/vyhotplugd/files/hotplug.dev.conf"
CONFIG = "/etc/vyhotplugd/vyhotplugd.conf"


class GuestError(Exception):
    """A command in the guest failed, or the guest did."""


def die_with_parent():
    """A test that is killed takes its machine along."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Wire:
    """One end of a socket pair; the other end is the machine's."""

    def __init__(self):
        self.near, self.far = socket.socketpair()
        self.buffer = b""

    def read_more(self, limit):
        """Appends what comes within `limit` seconds; returns whether anything came."""
        if not select.select([self.near], [], [], max(0.0, limit))[0]:
            return False
        try:
            data = self.near.recv(1 << 16)
        except ConnectionResetError:
            data = b""
        if not data:
            raise GuestError("the machine has ended")
        self.buffer += data
        return True

    def read_line(self, limit):
        """A line without its end; None when none comes."""
        end = time.monotonic() + limit
        while b"\n" not in self.buffer:
            if not self.read_more(end - time.monotonic()) and time.monotonic() >= end:
                return None
        line, self.buffer = self.buffer.split(b"\n", 1)
        return line


class Booted:
    """Machines that have booted, in a folder, for others of the same make; without one, every machine boots."""

    def __init__(self, folder, *make):
        self.path = folder and os.path.join(folder, hashlib.sha256(repr(make).encode()).hexdigest()[:16])

    def exists(self):
        return bool(self.path) and os.path.exists(self.path)

    def is_wanted(self):
        """At the second boot of a make: most kinds of machines are used once. One of several at a time keeps it."""
        if not self.path:
            return False
        with open(self.path + ".boots", "ab", buffering=0) as boots:
            boots.write(b"x")
            return boots.tell() == 2


class Machine:
    """A running machine of a kind ("x86", "mips", ...). `folder` keeps its logs.

    It starts where another of the same kind and devices, kept in the folder `booted`, was behind its boot and the
    command `prepared` in its shell.
    """

    def __init__(self, kind, folder, devices=(), append="", booted="", prepared="true"):
        self.kind = kit.KINDS[kind]
        self.folder = folder
        self.prepared = prepared
        make = [re.sub(r"hostfwd=[^,]*", "", device) for device in devices]  # what leads out of a machine is no part of it
        # A slot for cards goes on with an interrupt that nobody answers.
        can_be_kept = self.kind.can_be_kept and not any("sdhci" in device for device in devices)
        self.booted = Booted(booted if can_be_kept else "", kind, make, append, prepared)
        self.goes_on = self.booted.exists()
        self.events = []
        self.commands = 0
        self.log_offset = 0
        self.log = []
        self.usb = {}  # name of a plugged disk: its block nodes
        self.cards = {}  # name of a slot: the block node in it
        self.drives = set()  # slots that are drives with a tray
        self.control, self.shell = Wire(), Wire()
        self.record = open(os.path.join(folder, "commands.log"), "wb")
        self.process = self._start(devices, append)
        self.control.read_line(LIMIT)  # the greeting
        self.qmp("qmp_capabilities")

    def _start(self, devices, append):
        control, shell = self.control.far.fileno(), self.shell.far.fileno()
        command = [*self.kind.qemu, "-accel", "tcg", "-display", "none", "-nodefaults", "-no-reboot",
                   "-m", str(MEMORY), "-kernel", self.kind.kernel_image, "-initrd", self.kind.initramfs,
                   "-append", f"console=ttyS0 panic=-1 mitigations=off {self.kind.append} {append}",
                   "-serial", f"file:{self.folder}/console.log",
                   "-chardev", f"socket,id=shell,fd={shell}", "-serial", "chardev:shell",
                   "-chardev", f"socket,id=control,fd={control}", "-mon", "chardev=control,mode=control"]
        for device in devices:
            command += device.split(" ", 1)
        if self.goes_on:
            command += ["-incoming", f"exec:cat {shlex.quote(self.booted.path)}"]
        with open(os.path.join(self.folder, "qemu.log"), "wb") as errors:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=errors, stderr=errors,
                                       pass_fds=(control, shell), preexec_fn=die_with_parent)
        self.control.far.close()
        self.shell.far.close()
        return process

    def boot(self):
        """Waits for the guest's shell, in which the command `prepared` has been run."""
        if self.goes_on:
            self._wait_for_status("query-migrate", "completed")
            self.qmp("cont")
            return
        self._expect(rb"guest ready\n", LIMIT)
        self.run(self.prepared)
        if self.booted.is_wanted():
            self._keep()

    def _keep(self):
        """For others: all of its memory, and what its devices know."""
        self.qmp("stop")
        self.qmp("migrate", uri=f"exec:cat >{shlex.quote(self.booted.path)}.part")
        self._wait_for_status("query-migrate", "completed")
        self._wait_for_status("query-status", "postmigrate")  # which comes a little later; before, it cannot go on
        os.rename(f"{self.booted.path}.part", self.booted.path)
        self.qmp("cont")

    def _wait_for_status(self, query, wanted):
        """Until its state is written or read."""
        end = time.monotonic() + LIMIT
        while (status := self.qmp(query).get("status")) != wanted:
            if status == "failed" or time.monotonic() >= end:
                raise GuestError(f"its state is not written or read: {status}")
            time.sleep(0.02)

    def close(self):
        self.process.kill()
        self.process.wait()
        self.record.close()

    # ---- control protocol ----

    def qmp(self, command, **arguments):
        """Underscores in names of arguments stand for hyphens."""
        message = {"execute": command}
        if arguments:
            message["arguments"] = {name.replace("_", "-"): value for name, value in arguments.items()}
        self.control.near.sendall(json.dumps(message).encode() + b"\n")
        while True:
            line = self.control.read_line(LIMIT)
            if line is None:
                raise GuestError(f"no answer to {command}")
            answer = json.loads(line)
            if "event" in answer:
                self.events.append(answer)
            elif "error" in answer:
                raise GuestError(f"{command}: {answer['error']['desc']}")
            else:
                return answer["return"]

    def wait_for_event(self, name, device):
        end = time.monotonic() + LIMIT
        while True:
            for event in self.events:
                if event["event"] == name and event.get("data", {}).get("device") == device:
                    self.events.remove(event)
                    return
            line = self.control.read_line(end - time.monotonic())
            if line is None:
                raise GuestError(f"no event {name} of {device}")
            self.events.append(json.loads(line))

    # ---- commands in the guest ----

    def _expect(self, pattern, limit):
        """What came before the pattern, and the match."""
        end = time.monotonic() + limit
        while True:
            match = re.search(pattern, self.shell.buffer)
            if match:
                before, self.shell.buffer = self.shell.buffer[:match.start()], self.shell.buffer[match.end():]
                return before, match
            if not self.shell.read_more(end - time.monotonic()) and time.monotonic() >= end:
                raise GuestError(f"no {pattern!r} within {limit} s after {self.shell.buffer[-500:]!r}")

    def attempt(self, command, limit=LIMIT, record=True):
        """Runs a shell command; its exit status and output."""
        self.commands += 1
        mark = f"end-{self.commands}"
        self.shell.near.sendall(f"{{ {command}\n}} </dev/null 2>&1; echo \"{mark}\"\": $?;\"\n".encode())
        output, match = self._expect(mark.encode() + rb": (\d+);\n", limit)
        if record:
            self.record.write(f"$ {command}\n".encode() + output + f"[{match[1].decode()}]\n".encode())
            self.record.flush()
        return int(match[1]), output.decode("utf-8", "surrogateescape")

    def exchange(self, command, answer):
        """Has another shell take the place of this one; nothing is sent to it before it answers."""
        self.shell.near.sendall(command.encode() + b"\n")
        self._expect(answer, LIMIT)

    def run(self, command, limit=LIMIT):
        """Runs a shell command that must succeed, and returns its output."""
        status, output = self.attempt(command, limit)
        if status != 0:
            raise GuestError(f"{command}: status {status}: {output}")
        return output

    def write(self, path, text, mode=None):
        """A file in the guest; it must end in a line feed."""
        self.run(f"cat >{path} <<'END-OF-FILE'\n{text}END-OF-FILE")
        if mode is not None:
            self.run(f"chmod {mode:o} {path}")

    def state(self):
        """Everything a test looks at; see state.py."""
        raw = json.loads(self.attempt(f"{self.kind.guest} state {self.log_offset}", record=False)[1])
        self.log_offset += raw["log_bytes"]
        self.log += [LogLine(line) for line in raw["log"]]
        return State(raw, list(self.log))

    # ---- disks ----

    def _add_image(self, node, image, readonly):
        self.qmp("blockdev-add", driver="raw", node_name=node, read_only=readonly,
                 file={"driver": "file", "filename": image, "read-only": readonly})

    def plug(self, name, *images, readonly=False, **options):
        """Plugs a USB disk in, one unit for each image; for `options` see _attach()."""
        nodes = [f"{name}-{unit}" for unit in range(len(images))]
        for node, image in zip(nodes, images):
            self._add_image(node, image, readonly)
        self._attach(name, nodes, **options)

    def _attach(self, name, nodes, bus="usb.0", port=None, serial=None, **identity):
        """`identity`: SCSI `vendor` and `product`, and whether `removable`."""
        place = {"bus": bus, **({"port": port} if port else {}), **({} if serial is None else {"serial": serial})}
        self.qmp("device_add", driver="usb-bot", id=name, attached=False, **place)
        for unit, node in enumerate(nodes):
            self.qmp("device_add", driver="scsi-hd", bus=f"{name}.0", lun=unit, drive=node, id=f"{node}-unit",
                     **identity)
        self.usb[name] = list(nodes)
        self.qmp("qom-set", path=f"/machine/peripheral/{name}", property="attached", value=True)

    def plug_throttled(self, name, image, **options):
        """Plugs in a disk that throttle() can slow down."""
        self.qmp("object-add", qom_type="throttle-group", id=f"{name}-brake")
        self._add_image(f"{name}-file", image, False)
        self.qmp("blockdev-add", driver="throttle", node_name=f"{name}-0", throttle_group=f"{name}-brake",
                 file=f"{name}-file")
        self._attach(name, [f"{name}-0"], **options)
        self.usb[name].append(f"{name}-file")

    def throttle(self, name, requests=0, size=0):
        """So many requests and bytes a second; 0 for as many as there are."""
        self.qmp("qom-set", path=f"/objects/{name}-brake", property="limits",
                 value={"iops-total": requests, "bps-total": size})

    def pull(self, name):
        """Pulls a USB disk out, whatever goes on with it."""
        self.qmp("device_del", id=name)
        self.wait_for_event("DEVICE_DELETED", name)
        for node in self.usb.pop(name):
            self.qmp("blockdev-del", node_name=node)

    def plug_hub(self, name, port):
        """Plugs in a hub; ports of its own are called PORT.1 and so on."""
        self.qmp("device_add", driver="usb-hub", id=name, bus="usb.0", port=port)

    def pull_hub(self, name, *disks):
        """Pulls a hub out, with these disks in it."""
        self.qmp("device_del", id=name)
        for disk in disks:
            self.wait_for_event("DEVICE_DELETED", disk)
            for node in self.usb.pop(disk):
                self.qmp("blockdev-del", node_name=node)

    def plug_reader(self, name, drive):
        """Plugs in a card reader: a disk whose medium comes and goes; `drive` is one of card_drives()."""
        self.qmp("device_add", driver="usb-bot", id=f"{name}-bus", attached=False, bus="usb.0", serial=name.upper())
        self.qmp("device_add", driver="scsi-hd", bus=f"{name}-bus.0", lun=0, drive=drive, id=name, removable=True)
        self.drives.add(name)
        self.qmp("qom-set", path=f"/machine/peripheral/{name}-bus", property="attached", value=True)

    # ---- cards and other media ----

    def insert(self, slot, image):
        node = f"medium-{slot}"
        self._add_image(node, image, False)
        if slot in self.drives:
            self.qmp("blockdev-open-tray", id=slot, force=True)
        self.qmp("blockdev-insert-medium", id=slot, node_name=node)
        if slot in self.drives:
            self.qmp("blockdev-close-tray", id=slot)
        self.cards[slot] = node

    def eject(self, slot):
        if slot in self.drives:
            self.qmp("blockdev-open-tray", id=slot, force=True)
        self.qmp("blockdev-remove-medium", id=slot)
        self.qmp("blockdev-del", node_name=self.cards.pop(slot))


# ---- what machines are made of ----

# Ports for 15 disks at 480 Mbit/s.
USB = ("-device qemu-xhci,id=usb,p2=15,p3=0",)


def card_drives(*names):
    return tuple(f"-drive if=none,id={name}" for name in names)


def card_slots(*names):
    devices = []
    for name in names:
        devices += [f"-drive if=none,id=drive-{name}", f"-device sdhci-pci,id=host-{name}",
                    f"-device sd-card,id={name},drive=drive-{name}"]
    return tuple(devices)
