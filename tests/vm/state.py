"""What the guest looks like at one moment."""

import os
import re

PLACES = "/media/vyhotplug"
NODES = "/dev/vyhotplug"
TABLE = "rootfs / rootfs rw 0 0\n"  # /etc/mtab, before the service adds to it


class Mount:
    """A line of the kernel's mount table."""

    def __init__(self, line):
        left, right = line.split(" - ", 1)
        _, _, self.device, _, self.directory, flags = left.split(" ")[:6]
        self.type, self.source, options = right.split(" ", 2)
        self.flags = flags.split(",")  # of the mount
        self.options = options.split(",")  # of the filesystem
        self.name = os.path.basename(self.directory)

    def __repr__(self):
        return f"<{self.directory} {self.device} {self.source} {self.type} {self.flags} {self.options}>"


class LogLine:
    """One line as a program sent it, and when; `text` has "#" in place of a module's line number."""

    FORM = re.compile(r"([\d.]+) <(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]+)(?:\[(\d+)\])?: (.*)", re.DOTALL)

    def __init__(self, raw):
        self.raw = raw
        line = as_text(raw)
        match = self.FORM.fullmatch(line)
        if match is None:
            raise ValueError(f"no syslog line: {line!r}")
        self.time = float(match[1])
        self.priority = int(match[2]) % 8
        self.program = match[3]
        self.text = re.sub(r"^(\w+)\(\d+\)", r"\1(#)", match[5], count=1)


def as_text(value):
    """A byte for each character, as the guest sends it, made UTF-8 text again."""
    return None if value is None else value.encode("latin-1").decode("utf-8", "surrogateescape")


class State:
    def __init__(self, raw, log):
        self.raw = raw
        self.time = raw["time"]  # seconds since the guest's start
        self.all_mounts = [Mount(line) for line in raw["mountinfo"]]
        self.mounts = [mount for mount in self.all_mounts if mount.directory.startswith(PLACES + "/")]
        self.names = [mount.name for mount in self.mounts]
        self.table = as_text(raw["mtab"])
        self.table_link = raw["mtab_link"]
        self.shares = as_text(raw["shares"])
        self.devices = as_text(raw["devices"])
        self.nodes = raw["nodes"]  # name: [whether a block device, major, minor]
        self.places = raw["places"]
        self.tmp = raw["tmp"]
        self.kernel = raw["kernel"]
        self.hook = [line.split(" ") for line in raw["hook"]]  # time, word, directory, whether mounted
        self.service = raw["service"]
        self.signals = len(self.service)
        self.processes = raw["processes"]
        self.log = log

    def mount(self, name):
        found = [mount for mount in self.mounts if mount.name == name]
        return found[-1] if found else None

    def sections(self):
        """The share file, read as its readers do: the last section of a name, the last line of a key."""
        return sections_of(self.shares or "")

    def exported(self):
        """The sections that say something: not those of shares that are just being withdrawn."""
        return {title: lines for title, lines in self.sections().items() if lines}

    def share(self, name):
        """The section of a partition, found by its path; None without one."""
        for title, lines in self.exported().items():
            if lines.get("Path") == f"{PLACES}/{name}":
                return {"": title, **lines}
        return None

    def hook_calls(self):
        return [" ".join(call[1:]) for call in self.hook]

    def of(self, program):
        """The processes of a name. The kernel keeps 15 characters of it."""
        return [process for process in self.processes if process["name"] == program[:15]]

    def said(self, text):
        """The log lines with exactly that text."""
        return [line for line in self.log if line.text == text]

    def announcements(self):
        """The add messages that arrived, as they stand."""
        return [line.text.removeprefix("recieve(#)") for line in self.log
                if line.text.startswith("recieve(#)ACTION=add")]

    def footprint(self, without=()):
        """What must be the same again when the same is plugged: no trace is left of anything else."""
        parts = {
            "mounts": sorted(f"{mount.device} {mount.directory} {mount.type} {mount.source}"
                             for mount in self.all_mounts),
            "table": self.table, "shares": self.shares, "devices": self.devices, "nodes": self.nodes,
            "places": self.places, "tmp": self.tmp, "kernel": self.kernel,
            "processes": sorted(process["name"] for process in self.processes),
            "descriptors": sorted((process["name"], re.sub(r"\[\d+\]|(?<=^/proc/)\d+", "", target or "gone"))
                                  for process in self.processes
                                  for target in process.get("descriptors", {}).values()),
        }
        return {name: part for name, part in parts.items() if name not in without}


def sections_of(text):
    sections = {}
    lines = {}
    for line in text.splitlines():
        if line.startswith("["):
            lines = sections[line[1:line.rindex("]")]] = {}
        elif "=" in line:
            key, value = line.split("=", 1)
            lines[key] = value
    return sections


def node_of(name):
    return f"{NODES}/{name}"


def place_of(name):
    return f"{PLACES}/{name}"
