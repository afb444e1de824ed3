"""With busybox in place of the usual tools, and as init."""

import contextlib
import os
import re
import shutil
import signal
import subprocess

import debian_world
import vyworld
from machine import ANNA, SETTINGS_COPY, SHARE_FILE, SHARE_SERVICE_PID, Machine, Stick


class BusyboxScript(Machine):
    """The init script where there is nothing but busybox: its shell and its tools."""

    SCRIPT = "/etc/init.d/vyhotplugd"
    BRIDGE_SCRIPT = "/etc/init.d/vynas-samba"
    TOOLS = ("sh", "grep", "sleep", "rm", "cat", "mkdir", "seq", "kill", "awk", "umount")

    def test_the_shell_is_busybox(self):
        self.collect_log()
        for name in self.TOOLS:
            path = f"/usr/bin/{name}"
            with contextlib.suppress(FileNotFoundError):
                os.remove(path)
            os.symlink("/usr/bin/busybox", path)
        for path in ("/lib/lsb/init-functions",):
            os.remove(path)
        self.assertIn("BusyBox", self.run_any("grep", "--help")[1])
        self.run_ok("sh", "-n", self.SCRIPT)
        self.run_ok("sh", "-n", self.BRIDGE_SCRIPT)

    def test_wrong_words_are_refused(self):
        self.assertEqual(self.run_any(self.SCRIPT)[0], 2)
        self.assertEqual(self.run_any(self.SCRIPT, "begin")[0], 2)

    def test_nothing_runs_at_first(self):
        self.assertEqual(self.run_any(self.SCRIPT, "status")[0], 3)
        self.run_ok(self.SCRIPT, "stop")

    def test_start(self):
        self.run_ok(self.SCRIPT, "start")
        self.run_ok(self.SCRIPT, "start")
        self.run_ok(self.SCRIPT, "status")
        self.assertEqual(len(self.pids_of("vyhotplugd")), 1)
        self.assertEqual(len(self.pids_of("vyhotplug-agent")), 1)

    def test_the_service_has_no_more_descriptors_than_it_can_wait_for(self):
        limits = self.read(f"/proc/{self.pids_of('vyhotplugd')[0]}/limits")
        self.assertRegex(limits, r"Max open files\s+1024\s+1024\s")

    def test_the_kernel_looks_into_card_readers(self):
        self.assertEqual(vyworld.read(debian_world.READER_POLL), "2000\n")
        self.write(debian_world.READER_POLL, "500\n")
        self.run_ok(self.SCRIPT, "restart")
        self.assertEqual(vyworld.read(debian_world.READER_POLL), "500\n")

    def test_it_serves_a_stick(self):
        self.stick = Stick(self, "a", "STICK1", p1=("ext4", None, {"a.txt": "one\n"}))
        self.plug(self.stick)
        self.wait_for_mounts("sda1")

    def test_one_that_is_missing_is_told(self):
        agent, = self.pids_of("vyhotplug-agent")
        os.kill(agent, signal.SIGKILL)
        self.wait_until("its end", lambda: not os.path.exists(f"/proc/{agent}"))
        self.assertEqual(self.run_any(self.SCRIPT, "status")[0], 1)

    def test_restart(self):
        old = self.pids_of("vyhotplugd")
        self.run_ok(self.SCRIPT, "restart")
        self.assertNotEqual(self.pids_of("vyhotplugd"), old)
        self.run_ok(self.SCRIPT, "status")
        self.wait_for_mounts("sda1")
        self.wait_until("it is told of", lambda: "sda1" in self.read(SHARE_FILE))

    def test_a_pid_file_of_somebody_else_misleads_nobody(self):
        self.run_ok(self.SCRIPT, "stop")
        sleeper = subprocess.Popen(["/bin/sleep", "600"])
        self.addCleanup(sleeper.kill)
        for path in ("/run/vyhotplugd.pid", "/run/vyhotplug-agent.pid", SHARE_SERVICE_PID):
            self.write(path, f"{sleeper.pid}\n")
        self.assertEqual(self.run_any(self.SCRIPT, "status")[0], 3)
        self.run_ok(self.SCRIPT, "stop")
        self.assertIsNone(sleeper.poll())
        self.assertEqual(self.mounted(), {"sda1"})  # which the share service is told of at the start
        self.run_ok(self.SCRIPT, "start")
        self.run_ok(self.SCRIPT, "status")
        self.assertEqual(vyworld.read(SHARE_SERVICE_PID), "")
        self.wait_for_mounts("sda1")
        self.wait_until("a refresh", lambda: "sda1" in self.read(SHARE_FILE))
        self.assertIsNone(sleeper.poll())

    def test_the_bridge_is_started_and_stopped(self):
        self.write(SHARE_SERVICE_PID, "999999\n")
        for word in ("start", "start", "restart"):
            self.run_ok(self.BRIDGE_SCRIPT, word)
            self.run_ok(self.BRIDGE_SCRIPT, "status")
        bridge, = self.pids_of("vynas-samba")
        self.assertEqual(vyworld.read(SHARE_SERVICE_PID), f"{bridge}\n")
        self.run_ok(self.SCRIPT, "restart")
        self.assertEqual(vyworld.read(SHARE_SERVICE_PID), f"{bridge}\n")
        self.run_ok(self.BRIDGE_SCRIPT, "stop")
        self.assertEqual(self.run_any(self.BRIDGE_SCRIPT, "status")[0], 3)
        self.assertEqual((self.pids_of("vynas-samba"), vyworld.read(SHARE_SERVICE_PID)), ([], ""))

    def test_a_bridge_that_has_to_be_killed_leaves_no_number(self):
        self.run_ok(self.BRIDGE_SCRIPT, "start")
        os.kill(self.pids_of("vynas-samba")[0], signal.SIGSTOP)
        self.run_ok(self.BRIDGE_SCRIPT, "stop")
        self.wait_until("its end", lambda: not self.pids_of("vynas-samba"))
        self.assertEqual(vyworld.read(SHARE_SERVICE_PID), "")

    def test_what_is_started_holds_no_directory(self):
        os.mkdir("/images/stick")
        for script in (self.SCRIPT, self.BRIDGE_SCRIPT):
            self.run_ok(script, "restart", cwd="/images/stick")
        for name in ("vyhotplugd", "vyhotplug-agent", "vynas-samba"):
            self.assertEqual(os.readlink(f"/proc/{self.pids_of(name)[0]}/cwd"), "/", name)
        self.run_ok(self.BRIDGE_SCRIPT, "stop")

    def test_an_agent_that_takes_its_time(self):
        slow = "/usr/local/sbin/slow-agent"
        self.write(slow, '#!/bin/sh\nsleep 2\nexec /usr/sbin/vyhotplug-agent "$@"\n')
        os.chmod(slow, 0o755)
        self.run_ok(self.SCRIPT, "stop")
        self.write("/etc/default/vyhotplugd", f"agent={slow}\n")
        self.run_ok(self.SCRIPT, "start")
        self.run_ok(self.SCRIPT, "status")

    def test_options_of_the_machine(self):
        self.run_ok(self.SCRIPT, "stop")
        self.write("/etc/default/vyhotplugd", "daemon_options='-l 7'\nagent=\nshare_service=\n")
        self.write(SHARE_SERVICE_PID, "999999\n")
        self.run_ok(self.SCRIPT, "start")
        self.run_ok(self.SCRIPT, "status")
        self.assertEqual(vyworld.read(SHARE_SERVICE_PID), "999999\n")
        self.assertEqual(self.pids_of("vyhotplug-agent"), [])
        self.assertIn("-l\x007\x00", self.read(f"/proc/{self.pids_of('vyhotplugd')[0]}/cmdline"))

    def test_mdev_tells_the_agent(self):
        """As the kernel's helper for each event, with the line of the example."""
        shutil.copy("/usr/share/doc/vyhotplugd/examples/appliance/mdev.conf", "/etc/mdev.conf")
        self.run_ok("umount", "/media/vyhotplug/sda1")  # it has outlived the restart
        for path, what in (("/run/started", self.stick.events("add")), ("/run/gone", self.stick.events("remove"))):
            if path == "/run/started":
                self.wait_for_mounts()
            for event in what:
                self.run_ok("busybox", "mdev", env=event)
            if path == "/run/started":
                self.wait_for_mounts("sda1")
        self.wait_for_mounts()

    def test_stop(self):
        self.run_ok(self.SCRIPT, "stop")
        self.run_ok(self.SCRIPT, "stop")
        self.assertEqual(self.run_any(self.SCRIPT, "status")[0], 3)
        self.assertEqual(self.pids_of("vyhotplugd"), [])


class BusyboxInit(Machine):
    """The lines for an inittab, under busybox's init."""

    init = (["/usr/bin/busybox", "init"], {"PATH": debian_world.PATH})

    @classmethod
    def before_init(cls):
        vyworld.write("/etc/inittab", "".join(
            line + "\n" for line in ("::sysinit:/bin/true", "::sysinit:/etc/init.d/smbd start",
                                     "::respawn:/usr/sbin/vynas-samba",
                                     vyworld.read("/usr/share/doc/vyhotplugd/examples/appliance/inittab"))))

    def test_init_has_started_everything(self):
        self.collect_log()
        for name in ("vyhotplugd", "vyhotplug-agent", "vynas-samba"):
            self.wait_until(name, lambda name=name: len(self.pids_of(name)) == 1)
        self.wait_until("it listens", lambda: "@vyhotplugd@" in self.read("/proc/net/unix"))
        self.run_ok("vynas-samba-setup", "enable")
        self.add_anna()

    def test_a_stick_is_shared(self):
        self.stick = Stick(self, "a", "STICK1", p1=("ext4", None, {"a.txt": "one\n"}))
        self.plug(self.stick)
        self.wait_for_shares("Drive(A1)", who=ANNA)

    def test_whoever_ends_is_started_again(self):
        for name in ("vyhotplug-agent", "vyhotplugd", "vynas-samba"):
            old = self.pids_of(name)
            os.kill(old[0], signal.SIGKILL)
            self.wait_until(f"another {name}", lambda: self.pids_of(name) and self.pids_of(name) != old)

    def test_and_shares_what_is_plugged(self):
        self.wait_until("a new announcement", lambda: "sda1" in self.read(SHARE_FILE))
        self.wait_for_mounts("sda1")
        self.wait_for_shares("Drive(A1)", who=ANNA)
        self.assertEqual(self.fetch("Drive(A1)", "a.txt", ANNA), "one\n")

    def test_a_shutdown_saves_the_settings(self):
        self.set_for_device(self.stick.partitions[0].identifier, share_name="Cinema")
        self.wait_for_shares("Cinema", who=ANNA)
        line, = re.findall("^::shutdown:(.*)$", self.read("/etc/inittab"), re.MULTILINE)
        self.run_ok(*line.split())
        self.assertIn("Share Name=Cinema", self.read(SETTINGS_COPY))
