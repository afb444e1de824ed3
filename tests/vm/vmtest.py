"""What the tests in virtual machines share: a machine for each test, the service in it, waiting, images.

No test waits for a fixed time to pass except where nothing is to happen: wait_until() looks again and
again, with a limit that only a hanging machine reaches.
"""

import json
import os
import signal
import unittest

import machine
import media
from kit import testkit
from machine import CONFIG, LIMIT
from state import TABLE, as_text, node_of, place_of

BY_SHARE = "by-share"  # what the agent may lay beside the mount directories
NOT_MOUNTED = "/run/vyhotplugd/not-mounted"
QUIET = 2.5  # seconds in which the service would go on if it had anything left to do
SETTINGS = ("Comment=\nRead Only=Disable\nGuest Access=Disable\nGuest Hide=Disable\nFull Access Users=\n"
            "Read Only Users=\nBlock Users=\nHide Users=\n")


BOTH = ("x86", "mips")


class TooLong(Exception):
    """Whoever runs the tests has lost patience."""


def give_up(*_):
    raise TooLong("interrupted")


def long_on(*machines):
    """Marks a test, or a class of them, as one of the long tests of these machines; without names, of both."""
    def mark(test):
        test.long = machines or BOTH
        return test
    return mark


class VmTest(unittest.TestCase):
    machines = BOTH
    long = ()
    devices = machine.USB
    append = ""
    prepared = "true"  # what is run in the guest's shell before anything else
    reasons = {}  # what lines() found last
    configuration = ""  # lines behind those of guest/vyhotplugd.conf; the last line of a key counts

    def setUp(self):
        signal.signal(signal.SIGINT, give_up)  # an exception like others, so that the traces are kept
        self.folder = os.environ["VY_VM_FOLDER"]
        self.images = 0
        boots_alone = type(self).before_boot is not VmTest.before_boot
        self.vm = machine.Machine(os.environ["VY_VM_MACHINE"], self.folder, self.devices, self.append,
                                  "" if boots_alone else os.environ.get("VY_VM_BOOTED", ""), self.prepared)
        self.addCleanup(self.vm.close)
        self.addCleanup(self._keep_traces)
        self.before_boot()
        self.vm.boot()
        self.configure(self.configuration)
        self.start_neighbours()
        self.start_service()

    def tearDown(self):
        state = self.vm.state()
        if state.table_link is None:
            self.assertEqual(state.table[:len(TABLE)], TABLE)  # no test may cost what others noted there

    def before_boot(self):
        """What is plugged when the machine starts; whoever has something there boots a machine of his own."""

    def start_service(self):
        self.start_daemon()
        self.start_agent()

    def _keep_traces(self):
        """For the reader of a failure; whoever runs the tests throws them away after a success."""
        if self.vm.process.poll() is not None:
            return
        try:
            self.vm.attempt("true")  # behind the end of a command that was interrupted
            state = self.vm.state()
            with open(os.path.join(self.folder, "state.json"), "w", encoding="ascii") as file:
                json.dump(state.raw, file, indent=1)
            with open(os.path.join(self.folder, "service.log"), "w", encoding="latin-1") as file:
                file.write("".join(line.raw + "\n" for line in self.vm.log))
            self.vm.attempt("ps; dmesg | tail -n 100; cat /vm/*.out", 20)
        except machine.GuestError as error:
            with open(os.path.join(self.folder, "state.json"), "w", encoding="utf-8") as file:
                file.write(f"no state: {error}\n")

    # ---- the service and its neighbours ----

    def start(self, name, command):
        """Starts what is to run on, apart from the shell."""
        self.vm.run(f"setsid {command} >>/vm/{name}.out 2>&1 &")

    def start_neighbours(self):
        self.start("log", "/vm/guest log")
        self.start("service", "/vm/guest share-service")
        self.vm.run("until [ -S /dev/log ] && [ -e /var/run/vynas-fssd.pid ]; do sleep 0.05; done")

    def start_daemon(self, environment=""):
        """Starts it as the appliance does; returns when its first refresh is over."""
        state = self.vm.state()
        begun = len(state.said("recieve(#)start recieve loop"))
        self.vm.run(f"vyhotplug-prepare -f {CONFIG}")
        self.vm.run(f"{environment} vyhotplugd -f {CONFIG} -l 7")
        return self.wait_until("the daemon's first refresh", lambda now:
                               len(now.said("recieve(#)start recieve loop")) > begun
                               and now.signals > state.signals)

    def configure(self, text):
        """For the daemon's next start."""
        self.vm.run(f"printf '{text}' >>{CONFIG}")

    def start_agent(self):
        self.start("agent", "vyhotplug-agent --monitor")

    def stop(self, program):
        """Ends a program in order and waits for its end."""
        process, = self.vm.state().of(program)
        self.vm.run(f"kill {process['pid']}")
        return self.wait_until(f"{program} has ended", lambda state: not state.of(program))

    def note(self, text):
        """For whoever wants to know: the folder of a test that has passed is thrown away."""
        with open(os.environ.get("VY_VM_NOTES", os.devnull), "a", encoding="ascii") as notes:
            notes.write(f"{self.id()}: {text}\n")

    # ---- waiting ----

    def wait_until(self, what, condition, limit=LIMIT):
        """Returns the first state that fulfils the condition."""
        state = None

        def look():
            nonlocal state
            state = self.vm.state()
            return condition(state) and state

        return testkit.wait_until(what, look, limit, machine.STEP,
                                  lambda: f"; mounted: {state.mounts}, shares: {state.shares!r}")

    def wait_for_idle(self, quiet=QUIET):
        """Returns a state in which the service has done nothing for a while, and runs nothing.

        What the file-sharing service could read when it was told for the last time is what stands there now.
        """
        def is_idle(state):
            last = max([line.time for line in state.log] + [signal["time"] for signal in state.service] + [0])
            daemons = {process["pid"] for process in state.of("vyhotplugd")}
            children = [process for process in state.processes if process["parent"] in daemons]
            # Before the signal the service writes everything to the disks, and says nothing however long that takes.
            told = not state.service or as_text(state.service[-1]["shares"]) == state.shares
            return state.time - last > quiet and not children and told
        return self.wait_until("the service is idle, and has told what is shared", is_idle)

    def wait_for_mounts(self, *names):
        """Mounted are these and no others, and all of them are shared."""
        return self.wait_until(
            f"mounted and shared: {', '.join(names) or 'nothing'}", lambda state:
            sorted(state.names) == sorted(names) == sorted(set(state.places) - {BY_SHARE}) == sorted(state.nodes)
            and sorted(lines.get("Path", "") for lines in state.sections().values())
            == sorted(place_of(name) for name in names))

    def lines(self):
        """The file of what is not mounted: name to (numbers, code, type, words, command)."""
        text = self.vm.run(f"cat {NOT_MOUNTED} 2>/dev/null || :")
        return {line.split("\t")[0]: line.split("\t")[1:] for line in text.splitlines()}

    def wait_for_lines(self, *names, limit=LIMIT * 2):
        """Until the file tells of these and no others."""
        def look(_):
            self.reasons = self.lines()
            return sorted(self.reasons) == sorted(names)
        self.wait_until(f"not mounted, and said why: {', '.join(names) or 'nothing'}", look, limit)
        return self.reasons

    def assert_same(self, before, after, without=()):
        """Two states' footprints, without these parts."""
        self.maxDiff = None
        self.assertEqual(before.footprint(without), after.footprint(without))

    def assert_table(self, state, others=""):
        """/etc/mtab has what the service has mounted by itself, and what stood there before, with these lines."""
        mounted = [f"{node_of(mount.name)} {place_of(mount.name)} {mount.type} {mount.flags[0]} 0 0"
                   for mount in state.mounts if mount.type != "fuseblk"]
        self.assertEqual(state.table[:len(TABLE + others)], TABLE + others)
        self.assertEqual(sorted(state.table[len(TABLE + others):].splitlines()), sorted(mounted))

    # ---- media ----

    def image(self, *filesystems, **options):
        self.images += 1
        path = os.path.join(self.folder, f"medium-{self.images}.img")
        return media.make_disk(path, *filesystems, **options)

    def plug(self, name, *filesystems, table="dos", numbers=None, logical=0, **options):
        """Makes a disk with these filesystems and plugs it in; returns its image."""
        image = self.image(*filesystems, table=table, numbers=numbers, logical=logical)
        self.vm.plug(name, image, **options)
        return image

    def card(self, slot, *filesystems, table="dos", size=64):
        """Makes a card and puts it into a slot; returns its image."""
        image = self.image(*filesystems, table=table, size=size)
        self.vm.insert(slot, image)
        return image

    def wait_for_kernel(self, *names):
        """Until the kernel has these."""
        return self.wait_until(f"the kernel has {names}", lambda state: set(names) <= set(state.kernel))

    # ---- users of what is mounted ----

    def use(self, name, file="readme.txt"):
        """Opens a file for reading, and keeps it open; returns the process's number."""
        self.vm.run("rm -f /vm/user")
        self.start("user", f"sh -c 'echo $$ >/vm/user; exec sleep 9999 <{place_of(name)}/{file}'")
        return self.vm.run(f"until [ -s /vm/user ] && [ $(readlink /proc/$(cat /vm/user)/fd/0) = "
                           f"{place_of(name)}/{file} ]; do sleep 0.05; done; cat /vm/user").strip()

    # ---- looks ----

    def assert_file(self, name, text, file="readme.txt"):
        self.assertEqual(self.vm.run(f"timeout 20 cat {place_of(name)}/{file}"), text)

    def tool(self, command):
        """What a client prints."""
        return self.vm.attempt(command)[1]


class WaitingTools(VmTest):
    """With label tool and NTFS driver that wait as long as /vm/mlabel.hold and /vm/ntfs-3g.hold exist."""

    SCRIPT = '#!/bin/sh\nwhile [ -e /vm/{name}.hold ]; do sleep 0.1; done\nexec {program} "$@"\n'

    def start_service(self):
        self.vm.run("mkdir /vm/bin")
        for name in ("mlabel", "ntfs-3g"):
            program = self.vm.run(f"which {name}").strip()
            self.vm.write(f"/vm/bin/{name}", self.SCRIPT.format(name=name, program=program), 0o755)
        self.start_daemon("PATH=/vm/bin:$PATH")
        self.start_agent()
