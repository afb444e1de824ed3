"""From the kernel's event to the first byte that a client of Samba reads: agent, service, bridge and Samba."""

import contextlib
import os
import shutil
import signal
import subprocess
import sys
import time

import measure
import vyworld
from measure import wait_until

import agent_world
import samba_world

# Where the time goes. Each begins where the one before ends.
PARTS = ["agent", "mount", "refresh", "bridge", "samba"]
WAITS_BEHIND_MOUNT = measure.CHILD_POLL + measure.IDLE_PAUSE  # the hook, and the pause before a refresh
FILE = "who"  # on every loop device


class Chain:
    """The agent on a sysfs of files, the service and the bridge."""

    def __init__(self, stack, partitions, level=vyworld.ERR):
        os.makedirs(agent_world.PROC + "/self", exist_ok=True)
        vyworld.write(agent_world.PROC + "/self/mountinfo", "")
        vyworld.write(agent_world.PROC + "/swaps", "")
        self.sysfs = agent_world.FakeSysfs()
        self.service = measure.Service(stack, level, told=False)
        self.bridge = self._start(stack, "vynas-samba", "-f", vyworld.CONFIG, "-c", samba_world.OWN_CONFIG)
        wait_until("the bridge", lambda: os.path.exists(samba_world.INCLUDE))
        self.agent = self._start(stack, "vyhotplug-agent", "--monitor", "--sysfs", agent_world.SYSFS, "--proc",
                                 agent_world.PROC, "--mounts", vyworld.MOUNT_DIR)
        wait_until("the agent", lambda: os.path.exists(agent_world.STATE))
        self.partitions = [measure.make_partition(stack, f"sda{number + 1}") for number in range(partitions)]
        for partition in self.partitions:  # what the service looks at: a disk with partitions is none to be mounted
            os.makedirs(f"/sys/block/sda/{partition.name}")
        self.pids = {"vyhotplugd": self.service.pid, "agent": self.agent.pid, "bridge": self.bridge.pid}

    @staticmethod
    def _start(stack, program, *arguments):
        process = subprocess.Popen([os.path.join(measure.BIN, program), *arguments], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd="/")
        stack.callback(measure.end_process, process)
        return process

    def shares(self):
        return samba_world.names_in(vyworld.read(samba_world.INCLUDE))

    def plug(self):
        """Returns when the agent was told. No kernel tells of a device that is none: SIGHUP stands for its event,
        and has the agent look through sysfs as that does."""
        for partition in self.partitions:
            partition.lay_node()
        self.sysfs.add_stick("sda", parts=range(1, len(self.partitions) + 1))
        began = time.monotonic()
        self.agent.send_signal(signal.SIGHUP)
        return began

    def wait_for_shares(self, count):
        wait_until(f"{count} shares", lambda: len(self.shares()) == count and len(vyworld.mounts()) == count)

    def pull(self):
        self.sysfs.remove("sda")
        self.agent.send_signal(signal.SIGHUP)
        self.wait_for_shares(0)
        time.sleep(2 * measure.IDLE_PAUSE)  # by then the service has forgotten them


class Samba:
    """A Samba, and a client that is connected to it and asks for the stick's share again and again."""

    USER = "anna"

    def __init__(self, stack):
        for name in ("log", "lock", "state", "cache", "private", "pid", "ncalrpc"):
            os.makedirs(f"{samba_world.SAMBA}/{name}")
        for folder in (os.path.dirname(samba_world.SMB_CONF), "/var/log/samba", samba_world.FIXED):
            os.makedirs(folder)
        vyworld.write(samba_world.SMB_CONF, f"{samba_world.GLOBAL}\ninclude = {samba_world.INCLUDE}\n"
                      f"[fixed]\npath = {samba_world.FIXED}\n")
        with open("/etc/passwd", "a", encoding="utf-8") as file:
            file.write(f"{self.USER}:x:5001:100::/tmp:/bin/false\n")
        subprocess.run(["smbpasswd", "-s", "-a", self.USER], input=f"{self.USER}\n{self.USER}\n".encode(),
                       stdout=subprocess.DEVNULL, check=True)
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, "start_new_session": True}
        smbd = subprocess.Popen(["smbd", "--foreground", "--no-process-group"], stdin=subprocess.DEVNULL, **quiet)
        stack.callback(measure.end_process, smbd)
        login = ["smbclient", "-U", f"{self.USER}%{self.USER}", "//127.0.0.1/fixed"]
        wait_until("Samba answers", lambda: subprocess.call(
            [*login, "-c", "ls"], stdin=subprocess.DEVNULL, **quiet) == 0)
        self.client = subprocess.Popen(login, stdin=subprocess.PIPE, **quiet)
        stack.callback(measure.end_process, self.client)

    def first_byte(self, share):
        """When it has come."""
        place = "/tmp/fetched"
        with contextlib.suppress(FileNotFoundError):
            os.unlink(place)

        def has_come():
            self.client.stdin.write(f'tcon "{share}"\nget {FILE} {place}\n'.encode())
            self.client.stdin.flush()
            end = time.monotonic() + 0.02
            while time.monotonic() < end:
                if os.path.exists(place) and os.path.getsize(place) > 0:
                    return time.monotonic()
                time.sleep(0.0005)
            return None

        came = wait_until("the first byte", has_come, pause=0)
        self.client.stdin.write(b"tdis\n")
        self.client.stdin.flush()
        return came


def line_behind(log, began, pattern):
    """When the first such line came that did so behind `began`."""
    found = [line.time for line in log.matching(pattern) if line.time > began]
    return found[0] if found else None


def measure_once(chain, samba, log):
    """Seconds of each part, the fixed waits taken off."""
    began = chain.plug()
    written = wait_until("the share is written",
                         lambda: chain.shares() and line_behind(log, began, r"^bridge\(#\).* is written$"), pause=0.002)
    byte = samba.first_byte(chain.shares()[0])
    told = line_behind(log, began, r"^recieve\(#\)ACTION=add,.*DEVTYPE=partition")
    mounted = line_behind(log, began, r"^daemon\(#\)mount ")
    # A file's time is the wall clock's.
    shared = os.stat(vyworld.SHARE_FILE).st_mtime - time.time() + time.monotonic()
    times = [began, told, mounted - measure.ADD_HOLD, shared - measure.ADD_HOLD - WAITS_BEHIND_MOUNT,
             written - measure.ADD_HOLD - WAITS_BEHIND_MOUNT, byte - measure.ADD_HOLD - WAITS_BEHIND_MOUNT]
    return [after - before for before, after in zip(times, times[1:])]


def plug(results, stack):
    missing = [program for program in samba_world.NEEDED if shutil.which(program) is None]
    if missing:
        results.cannot("plug.total", f"{missing[0]} is not installed")
        return
    log = vyworld.SystemLog()
    chain = Chain(stack, 1, vyworld.DEBUG)
    samba = Samba(stack)
    runs = []
    for _ in range(measure.rounds(15, 3)):
        runs.append(measure_once(chain, samba, log))
        chain.pull()
    results.add("plug.total", [sum(run) for run in runs], "s")
    for name, part in zip(PARTS, zip(*runs)):
        results.add(f"plug.{name}", part, "s")


if __name__ == "__main__":
    sys.exit(measure.main(plug))
