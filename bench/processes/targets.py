"""What is to be reached, in one place: the rows of the table, and what each must keep.

A row has the keys of its own values and of those beside it, and its targets. A target is a text and a
function of the values, which says whether it is met; it is not asked where a value is missing.
"""

import collections

Row = collections.namedtuple("Row", "what own beside targets")
Target = collections.namedtuple("Target", "text keys met")

# How values are told: unit of measurement to unit of the table, factor and digits.
UNITS = {"s": ("ms", 1e3, 3), "s/h": ("s/h", 1, 3), "kB": ("kB", 1, 0), "bytes": ("bytes", 1, 0),
         "MB/s": ("MB/s", 1, 1), "/s": ("/s", 1, 0), "/min": ("/min", 1, 1),
         "/million": ("/million", 1, 1), "instructions": ("M instructions", 1e-6, 3),
         "instructions/byte": ("instr./byte", 1, 2), "": ("", 1, 2)}

# How what stands beside is called in the table: by key, or by its last word.
NAMES = {"mount.bare": "mount(2) alone", "mount.mount8": "mount(8)", "bare": "a bare loop",
         "mount.delivered": "with the packages' keys",
         "mount8_each": "mount(8)", "lsblk_one": "lsblk NODE", "blkid_one": "blkid -p NODE",
         "udisksctl": "udisksctl", "cpu_each_few": "a quarter as many",
         "by_hand": "a loop by hand", "getsubopt": "getsubopt(3)", "glib": "GLib",
         "plug.refresh": "hook and refresh", "udevd": "systemd-udevd", "mdev": "mdev -d",
         **{f"refresh.time.1000.{mounts}": "1,000 sections" for mounts in (0, 10, 200)},
         "lookup.udisksctl": "udisksctl status", "mount.udisksctl": "udisksctl mount"}


def below(key, limit, text):
    return Target(text, [key], lambda value: value[key] < limit)


def at_most(key, limit, text):
    return Target(text, [key], lambda value: value[key] <= limit)


def exactly(key, wanted, text):
    return Target(text, [key], lambda value: value[key] == wanted)


def is_measured(group, key):
    return Target(f"the benchmark {group} measures", [key], lambda value: True)


def times_less(own, other, factor, text):
    return Target(text, [own, other], lambda value: value[own] * factor <= value[other])


def within(own, other, more, text):
    """At most so much more than the other."""
    return Target(text, [own, other], lambda value: value[own] <= value[other] + more)


def share_of(own, other, share, text):
    """At least that share of the other."""
    return Target(text, [own, other], lambda value: value[own] >= value[other] * share)


def least_of(own, others, text):
    """Less than each of the others that were measured."""
    return [Target(text.format(name), [own, key], lambda value, key=key: value[own] < value[key])
            for name, key in others.items()]


def not_slower(group, given):
    return [Target(f"not slower than {who}", [f"speed.{group}.{given}.vyhotplugd",
                                             f"speed.{group}.{given}.{who}"],
                   lambda value, who=who: value[f"speed.{group}.{given}.vyhotplugd"]
                   >= value[f"speed.{group}.{given}.{who}"])
            for who in ("inih", "iniparser", "glib")]


def ini_row(what, group, given):
    return Row(what, [f"speed.{group}.{given}.vyhotplugd"],
               [f"speed.{group}.{given}.{who}" for who in ("inih", "iniparser", "glib")],
               not_slower(group, given))


# What the row of the whole box has beside it: the parts, and others.
BOX = ["vyhotplugd", "agent", "bridge", "udisksd", "udiskie", "blockd"]

ROWS = [
    Row("start, exec to the socket (udisksd: to its bus name)",
        ["start.vyhotplugd"], ["start.udisksd"],
        [below("start.vyhotplugd", 0.005, "< 5 ms"),
         times_less("start.vyhotplugd", "start.udisksd", 5, "5 times faster than udisksd")]),
    Row("memory, Rss, 8 mounts", ["memory.rss.vyhotplugd"],
        ["memory.rss.udisksd", "memory.rss.mdev", "memory.rss.udevd"], []),
    Row("memory, Pss, 8 mounts", ["memory.pss.vyhotplugd"],
        ["memory.pss.udisksd", "memory.pss.mdev", "memory.pss.udevd"],
        [below("memory.pss.vyhotplugd", 350, "< 350 kB"),
         times_less("memory.pss.vyhotplugd", "memory.pss.udisksd", 15, "1/15 of udisksd")]),
    Row("memory, private dirty, 8 mounts", ["memory.dirty.vyhotplugd"],
        ["memory.dirty.udisksd", "memory.dirty.mdev", "memory.dirty.udevd"],
        [below("memory.dirty.vyhotplugd", 200, "< 200 kB")]),
    Row("executable, stripped, x86-64 glibc", ["size.x86_64"], ["size.udisksd", "size.busybox"], []),
    Row("executable, stripped, MIPS uClibc, dynamic", ["size.mips_dynamic"], [],
        [below("size.mips_dynamic", 64 * 1024, "< 64 kB")]),
    Row("executable, stripped, MIPS uClibc, static", ["size.mips_static"], [],
        [below("size.mips_static", 190 * 1024, "< 190 kB")]),
    Row("idle: wake-ups", ["idle.wakeups.vyhotplugd"],
        ["idle.wakeups.udisksd", "idle.wakeups.mdev"],
        [at_most("idle.wakeups.vyhotplugd", 112, "the two polls: 60 + 50 a minute")]),
    Row("idle: system calls", ["idle.calls.vyhotplugd"], ["idle.calls.udisksd", "idle.calls.mdev"],
        [exactly("idle.other_calls.vyhotplugd", 0, "none but the two polls")]),
    Row("idle: processor time", ["idle.cpu.vyhotplugd"], ["idle.cpu.udisksd", "idle.cpu.mdev"], []),
    Row("service, agent and bridge, private memory, 8 mounts", ["box.private.own"],
        [f"box.private.{name}" for name in BOX],
        [times_less("box.private.own", "box.private.udisksd", 10, "1/10 of udisksd"),
         times_less("box.private.own", "box.private.both", 10, "1/10 of udisksd with udiskie")]),
    Row("the same, idle: wake-ups", ["box.wakeups.own"], [f"box.wakeups.{name}" for name in BOX],
        [at_most("box.wakeups.own", 112, "the service's two polls")]),
    Row("the same, idle: system calls", ["box.calls.own"], [f"box.calls.{name}" for name in BOX],
        [at_most("box.calls.own", 112, "the service's two polls")]),
    Row("plug, event to a client's first byte, less the fixed waits", ["plug.total"],
        [f"plug.{part}" for part in ("agent", "mount", "refresh", "bridge", "samba")],
        [below("plug.total", 0.1, "< 100 ms")]),
    Row("mount request, ext4, less the fixed waits", ["mount.vyhotplugd"],
        ["mount.delivered", "mount.bare", "mount.mount8", "mount.udisksctl"],
        [within("mount.vyhotplugd", "mount.bare", 0.001, "within 1 ms of mount(2)"),
         below("mount.keys", 0.03, "the keys cost less than 3 %")]),
    Row("the client `vymount` by itself", ["mount.client"], [], []),
    Row("burst: each mount, less the fixed waits", ["burst.each"], ["burst.mount8_each"], []),
    Row("burst: partitions lost", ["burst.lost"], [], [exactly("burst.lost", 0, "none")]),
    Row("burst: refreshes", ["burst.refreshes"], [], [exactly("burst.refreshes", 1, "one")]),
    Row("burst: processor time each, beside a quarter as many", ["burst.cpu_each"],
        ["burst.cpu_each_few"], [below("burst.cpu_growth", 2, "linear: less than twice")]),
    Row("burst: peak memory", ["burst.peak"], [], []),
    Row("refresh, 10,000 sections, no mounts", ["refresh.time.10000.0"], ["refresh.time.1000.0"],
        [below("refresh.time.10000.0", 0.1, "< 100 ms"),
         below("refresh.growth.0", 11, "linear: < 11 times 1,000 sections")]),
    Row("refresh, 10,000 sections, 10 mounts", ["refresh.time.10000.10"], ["refresh.time.1000.10"],
        [below("refresh.time.10000.10", 0.1, "< 100 ms"),
         below("refresh.growth.10", 11, "linear: < 11 times 1,000 sections")]),
    Row("refresh, 10,000 sections, 200 mounts", ["refresh.time.10000.200"],
        ["refresh.time.1000.200"],
        [below("refresh.time.10000.200", 0.1, "< 100 ms"),
         below("refresh.growth.200", 11, "linear: < 11 times 1,000 sections")]),
    Row("refresh, each section", ["refresh.per_section"], [], []),
    ini_row("INI, one lookup, 1.5 kB", "ini_one", "small"),
    ini_row("INI, all keys, 1.5 kB", "ini_all", "small"),
    ini_row("INI, one lookup, 10 MB", "ini_one", "big"),
    ini_row("INI, all keys, 10 MB", "ini_all", "big"),
    Row("option map of an add message", ["speed.options.message.vyhotplugd"],
        ["speed.options.message.getsubopt", "speed.options.message.by_hand"], []),
    Row("option map: allocations for a message", ["allocations.options.message.vyhotplugd"],
        ["allocations.options.message.getsubopt", "allocations.options.message.by_hand"], []),
    Row("messages through the socket, one client", ["messages.1.vyhotplugd"], ["messages.1.bare"],
        [share_of("messages.1.vyhotplugd", "messages.1.bare", 0.8, "80 % of a bare loop")]),
    Row("messages through the socket, eight clients", ["messages.8.vyhotplugd"],
        ["messages.8.bare"],
        [share_of("messages.8.vyhotplugd", "messages.8.bare", 0.8, "80 % of a bare loop")]),
    Row("`vyhotpluginfo -l`, 1,000 sections", ["lookup.list"],
        ["lookup.lsblk", "lookup.blkid", "lookup.udisksctl"],
        least_of("lookup.list", {"lsblk": "lookup.lsblk", "blkid": "lookup.blkid",
                                 "udisksctl status": "lookup.udisksctl"}, "faster than {}")),
    Row("`vyhotpluginfo IDENTIFIER`, 1,000 sections", ["lookup.one"],
        ["lookup.lsblk_one", "lookup.blkid_one", "lookup.udisksctl"],
        least_of("lookup.one", {"lsblk of one": "lookup.lsblk_one",
                                "blkid of one": "lookup.blkid_one",
                                "udisksctl status": "lookup.udisksctl"}, "faster than {}")),
    Row("`vyhotplugctl status`, 1,000 sections", ["lookup.status"],
        ["lookup.lsblk", "lookup.udisksctl"],
        least_of("lookup.status", {"lsblk": "lookup.lsblk", "udisksctl status": "lookup.udisksctl"},
                 "faster than {}")),
]

# Groups that measure times, and what each must have measured: --brief runs them, and holds no more of them.
TIMED = {"functions": "speed.ini_one.small.vyhotplugd", "lookups": "lookup.list",
         "start": "start.vyhotplugd", "messages": "messages.8.vyhotplugd", "mounts": "mount.vyhotplugd",
         "resident": "memory.pss.vyhotplugd", "box": "box.private.own", "plug": "plug.total"}

# What --brief holds: counts and sizes, which a loaded machine does not change.
BRIEF = [
    below("size.x86_64", 76000, "the stripped executable is smaller than 76,000 bytes"),
    at_most("allocations.options.message.vyhotplugd", 60, "an option map takes 60 allocations at most"),
    at_most("allocations.message.message.vyhotplugd", 64, "a message takes 64 allocations at most"),
    at_most("allocations.ini_one.small.vyhotplugd", 6, "a lookup takes 6 allocations at most"),
    at_most("refresh.opens", 5, "a refresh opens 5 files at most"),
    below("refresh.growth.0", 11, "10 times the sections are less than 11 times the instructions"),
    below("refresh.growth.200", 11, "the same with 200 mounts"),
    below("refresh.mounts_growth", 60, "20 times the mounts are less than 60 times the instructions"),
    below("per_byte.ini_one.small.vyhotplugd", 15, "a lookup takes less than 15 instructions a byte"),
    exactly("burst.lost", 0, "of partitions announced at once none is lost"),
    exactly("burst.refreshes", 1, "a burst is followed by one refresh"),
    at_most("mount.calls.more", 13, "the packages' keys cost a mount request 13 system calls at most"),
    exactly("idle.other_calls.vyhotplugd", 0, "an idle daemon makes no call but its two polls"),
]
