"""Under systemd, and by the lines of its unit files."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

import debian_world
import vyworld
from debian_world import EXCHANGE
from machine import (ANNA, APT_INSTALL, DEVICE_FILE, INCLUDED, INSTALL_GUIDE, NONINTERACTIVE, PACKAGES,
                     SETTINGS_COPY, SHARE_FILE, SHARE_SERVICE_PID, Machine, Stick)


NOT_MOUNTED = "/run/vyhotplugd/not-mounted"

MS_REC, MS_SHARED = 0x4000, 0x100000


class UnitLines(Machine):
    """The command lines of the unit files do what they should, whoever runs them."""

    def lines(self, unit, key):
        return re.findall(f"^{key}=-?(.*)$", self.read(f"/lib/systemd/system/{unit}.service"), re.MULTILINE)

    def run_unit(self, unit):
        """Runs its lines as systemd would, by hand."""
        environment = {"PATH": debian_world.PATH, **dict(line.split("=", 1)
                                                        for line in self.lines(unit, "Environment"))}
        for line in self.lines(unit, "ExecStartPre"):
            self.run_ok(*line.split(), env=environment)
        line, = self.lines(unit, "ExecStart")
        process = subprocess.Popen(line.split(), env=environment, stdin=subprocess.DEVNULL, stdout=self.log,
                                   stderr=self.log)
        self.addCleanup(process.kill)
        return process

    def test_the_services_run_and_share(self):
        self.collect_log()
        self.run_ok("/etc/init.d/smbd", "start")
        self.service = self.run_unit("vyhotplugd")
        self.agent = self.run_unit("vyhotplug-agent")
        self.bridge = self.run_unit("vynas-samba")
        self.run_ok("vynas-samba-setup", "enable")
        self.add_anna()
        self.stick = Stick(self, "a", "STICK1", p1=("ntfs", "Films", {"a.txt": "one\n"}))
        self.plug(self.stick)
        self.wait_for_shares("Films(A1)", who=ANNA)
        self.assertEqual(self.fetch("Films(A1)", "a.txt", ANNA), "one\n")

    def test_a_second_service_is_refused_and_touches_nothing(self):
        line, = self.lines("vyhotplugd", "ExecStartPre")
        self.assertEqual(self.run_any(*line.split())[0], 1)
        self.assertEqual(self.mounted(), {"sda1"})

    def test_changed_settings_are_saved(self):
        self.set_for_device(self.stick.partitions[0].identifier, share_name="Cinema")
        self.wait_for_shares("Cinema", who=ANNA)
        line, = self.lines("vyhotplugd-settings", "ExecStart")
        self.run_ok(*line.split())
        self.assertIn("Share Name=Cinema", self.read(SETTINGS_COPY))

    def test_the_service_ends_and_its_drivers_live_on(self):
        self.service.terminate()
        self.assertEqual(self.service.wait(debian_world.LIMIT), 0)
        for line in self.lines("vyhotplugd", "ExecStopPost"):
            self.run_ok(*line.split())
        self.assertEqual(self.mounted(), {"sda1"})
        self.assertEqual(self.stick.partitions[0].read_file("a.txt"), "one\n")

    def test_the_next_one_has_it_all_again(self):
        self.service = self.run_unit("vyhotplugd")
        self.wait_for_mounts("sda1")
        self.wait_for_shares("Cinema", who=ANNA)
        self.assertEqual(self.fetch("Cinema", "a.txt", ANNA), "one\n")

    def test_all_end_when_they_are_told(self):
        for process in (self.agent, self.bridge, self.service):
            process.terminate()
            self.assertEqual(process.wait(debian_world.LIMIT), 0)


class Systemd(Machine):
    """On a machine that systemd runs."""

    init = (["/lib/systemd/systemd", "--system", "--log-target=journal", "--show-status=no"],
            {"PATH": debian_world.PATH, "container": "other"})
    cgroups = True
    UNITS = ("vyhotplugd.service", "vyhotplug-agent.service", "vyhotplugd-settings.path", "vynas-samba.service")

    @classmethod
    def before_init(cls):
        with open("/images/apt.log", "wb") as log:
            subprocess.run([*APT_INSTALL, "--no-download", "systemd-sysv", "dbus"], check=True, stdout=log, stderr=log,
                           stdin=subprocess.DEVNULL, env={"PATH": debian_world.PATH, **NONINTERACTIVE})
        vyworld.write("/etc/machine-id", "0123456789abcdef0123456789abcdef\n")
        for name in ("systemd-udevd.service", "systemd-udevd-kernel.socket", "systemd-udevd-control.socket",
                     "nmbd.service", "console-getty.service"):
            os.symlink("/dev/null", "/etc/systemd/system/" + name)
        os.makedirs("/sys/fs/cgroup")
        debian_world.mount("cgroup2", "/sys/fs/cgroup", "cgroup2")
        # As systemd does on a machine, but not in a container.
        debian_world.mount(None, "/", None, MS_REC | MS_SHARED)

    def show(self, unit, name):
        return self.run_ok("systemctl", "show", "--value", "--property", name, unit).strip()

    def wait_for_unit(self, unit, state="active"):
        self.wait_until(f"{unit} is {state}", lambda: self.show(unit, "ActiveState") == state)

    def test_units_are_sound(self):
        paths = [f"/lib/systemd/system/{unit}" for unit in (*self.UNITS, "vyhotplugd-settings.service")]
        self.assertEqual(self.run_ok("systemd-analyze", "verify", "--man=no", *paths), "")

    def test_the_machine_has_started(self):
        self.wait_until("systemd", lambda: os.path.exists("/run/systemd/private"))
        for unit in (*self.UNITS, "smbd.service"):
            self.wait_for_unit(unit)

    def test_installing_starts_everything(self):
        """Purged and installed anew, for they were installed where no systemd ran."""
        self.run_ok("apt-get", "-qy", "purge", *PACKAGES, env=NONINTERACTIVE)
        for unit in self.UNITS:
            self.assertNotEqual(self.show(unit, "ActiveState"), "active", unit)
        packages = sorted(str(path) for path in pathlib.Path(EXCHANGE).glob("*.deb"))
        self.run_ok(*APT_INSTALL, *packages, env=NONINTERACTIVE)
        for unit in self.UNITS:
            self.wait_for_unit(unit)
            self.run_ok("systemctl", "is-enabled", unit)

    def test_they_see_the_mounts_of_everybody(self):
        for name in ("vyhotplugd", "vynas-samba"):
            self.assertEqual(os.readlink(f"/proc/{self.pids_of(name)[0]}/ns/mnt"), os.readlink("/proc/1/ns/mnt"))
        self.assertIn("master:", self.read(f"/proc/{self.pids_of('vyhotplug-agent')[0]}/mountinfo"))

    def test_they_may_do_little_else(self):
        for unit in ("vyhotplug-agent.service", "vyhotplugd-settings.service", "vynas-samba.service"):
            text = self.run_any("systemd-analyze", "security", "--no-pager", unit)[1]
            exposure = float(re.search(r"Overall exposure level for \S+: ([\d.]+)", text)[1])
            self.tell(f"{unit}: {exposure}")
            self.assertLess(exposure, 3.5, unit)
        for name in ("vyhotplug-agent", "vynas-samba"):
            status = self.read(f"/proc/{self.pids_of(name)[0]}/status")
            self.assertIn("\nNoNewPrivs:\t1\n", status, name)
            self.assertIn("\nSeccomp:\t2\n", status, name)

    def test_the_service_has_no_more_descriptors_than_it_can_wait_for(self):
        limits = self.read(f"/proc/{self.pids_of('vyhotplugd')[0]}/limits")
        self.assertRegex(limits, r"Max open files\s+1024\s+1024\s")

    def test_the_bridge_comes_before_busy_programs(self):
        self.assertEqual(os.getpriority(os.PRIO_PROCESS, self.pids_of("vynas-samba")[0]), -15)

    def test_sticks_are_shared(self):
        self.run_ok("vynas-samba-setup", "enable")
        self.add_anna()
        self.stick = Stick(self, "a", "STICK1", p1=("ext4", None, {"a.txt": "one\n"}),
                           p2=("ntfs", "Films", {"b.txt": "two\n"}))
        self.plug(self.stick)
        self.wait_for_shares("Drive(A1)", "Films(A2)", who=ANNA)
        mounts = self.read(f"/proc/{self.pids_of('vyhotplug-agent')[0]}/mountinfo")
        for partition in self.stick.partitions:
            self.assertIn(f" {partition.directory} ", mounts, "the agent sees it too")

    def test_why_a_disk_is_not_mounted_is_found_out_with_few_rights(self):
        stick = Stick(self, "c", "SWAP", p1=("ext4", None, {}))
        node = "/dev/" + stick.partitions[0].name
        vyworld.run("mkswap", stick.partitions[0].loop.path)
        os.mknod(node, 0o60600, stick.partitions[0].loop.device)
        self.addCleanup(os.unlink, node)
        self.plug(stick)
        self.wait_until("the agent tells", lambda: os.path.exists(NOT_MOUNTED) and "swap" in self.read(NOT_MOUNTED))
        self.tell(self.read(NOT_MOUNTED))
        stick.take_out()
        os.kill(self.pids_of("vyhotplug-agent")[0], signal.SIGHUP)
        self.wait_until("it forgets", lambda: not os.path.exists(NOT_MOUNTED) or "swap" not in self.read(NOT_MOUNTED))

    def test_the_guides_commands_name_a_share_and_open_it(self):
        """What docs/install.md tells the newcomer to type."""
        command, = re.findall("^vyhotplugctl set .*$", INSTALL_GUIDE, re.MULTILINE)
        self.shell(command.replace("Music", "Cinema"))
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)
        self.wait_until("a guest reads", lambda: self.fetch("Cinema", "a.txt") == "one\n")

    def test_changed_settings_are_saved_at_once(self):
        self.wait_until("a copy", lambda: "Share Name=Cinema" in self.read(SETTINGS_COPY))

    def is_saved(self, comment):
        """Whether it is in the copy. A refresh that has read the file before writes it anew without it: then again."""
        line = f"Comment={comment}\n"
        text = self.read(DEVICE_FILE)
        if line not in text:
            self.write(DEVICE_FILE + ".new", re.sub("^Comment=.*\n", line, text, flags=re.MULTILINE))
            os.rename(DEVICE_FILE + ".new", DEVICE_FILE)
        return line in self.read(SETTINGS_COPY)

    def test_as_many_changes_as_come_are_saved(self):
        for number in range(8):
            # While the service that saves them runs the file is not watched.
            self.wait_until("a watch", lambda: self.show("vyhotplugd-settings.path", "SubState") == "waiting")
            self.wait_until("a copy", lambda number=number: self.is_saved(f"change {number}"))
        self.assertEqual(self.show("vyhotplugd-settings.path", "ActiveState"), "active")

    def journal(self, unit):
        """What its processes and the service manager have logged of a unit."""
        return self.run_ok("journalctl", "--quiet", "--output=cat", "--unit", unit).splitlines()

    def test_saving_them_logs_what_it_replaces_and_nothing_else(self):
        for line in self.journal("vyhotplugd-settings.service"):
            self.assertRegex(line, "settings are gone or changed, those of before are in .*/hotplug.dev.conf.1$")
        self.assertIn("Started vyhotplugd.service - Storage hotplug service.", self.journal("vyhotplugd.service"))

    def test_nothing_is_logged_at_debug_level(self):
        for name in ("vyhotplug-agent", "vyhotplug-prepare", "vynas-samba"):
            self.assertEqual(self.run_ok("journalctl", "--quiet", "--output=cat", "--priority=debug..debug",
                                         "--identifier", name), "", name)
        self.assertIn("main(", self.run_ok("journalctl", "--output=cat", "--identifier", "vynas-samba"))

    def test_failed_starts_do_not_refuse_a_restart(self):
        """Not even many, within a short time, once the configuration is correct."""
        config = "/etc/vyhotplugd/vyhotplugd.conf"
        right = self.read(config)
        self.write(config, re.sub("^mountpath.*\n", "", right, flags=re.MULTILINE))
        for _ in range(8):
            self.assertEqual(self.run_any("systemctl", "restart", "vyhotplugd")[0], 1)
        self.write(config, right)
        self.run_ok("systemctl", "restart", "vyhotplugd")
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)
        self.wait_for_unit("vyhotplug-agent.service")

    def test_a_corrected_configuration_starts_by_itself(self):
        config = "/etc/vyhotplugd/vyhotplugd.conf"
        right = self.read(config)
        self.write(config, re.sub("^mountpath.*\n", "", right, flags=re.MULTILINE))
        self.assertEqual(self.run_any("systemctl", "restart", "vyhotplugd")[0], 1)
        self.wait_until("more tries", lambda: int(self.show("vyhotplugd.service", "NRestarts")) >= 2)
        self.write(config, right)
        self.wait_for_unit("vyhotplugd.service")
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)

    def test_taking_leftovers_off_may_take_its_time(self):
        self.assertEqual(self.show("vyhotplugd.service", "TimeoutStartUSec"), "infinity")

    def with_drop_in(self, unit, text):
        folder = f"/run/systemd/system/{unit}.d"
        os.makedirs(folder, exist_ok=True)
        self.write(f"{folder}/test.conf", text)
        self.run_ok("systemctl", "daemon-reload")

    def test_a_bridge_that_crashes_leaves_no_number(self):
        self.with_drop_in("vynas-samba.service", "[Service]\nRestart=no\n")
        os.kill(self.pids_of("vynas-samba")[0], signal.SIGKILL)
        self.wait_for_unit("vynas-samba.service", "failed")
        self.assertEqual(vyworld.read(SHARE_SERVICE_PID), "")

    def test_one_that_finds_another_running_leaves_its_number(self):
        by_hand = subprocess.Popen(["/usr/sbin/vynas-samba"], stdin=subprocess.DEVNULL)
        self.addCleanup(by_hand.kill)
        self.wait_until("its number", lambda: self.read(SHARE_SERVICE_PID) == f"{by_hand.pid}\n")
        self.run_ok("systemctl", "reset-failed", "vynas-samba.service")
        self.run_any("systemctl", "start", "vynas-samba.service")
        self.wait_for_unit("vynas-samba.service", "failed")
        self.assertEqual(self.read(SHARE_SERVICE_PID), f"{by_hand.pid}\n")
        for _ in range(8):  # must not make the start below one too many
            self.run_any("systemctl", "start", "vynas-samba.service")
        by_hand.terminate()
        self.assertEqual(by_hand.wait(debian_world.LIMIT), 0)
        self.with_drop_in("vynas-samba.service", "")
        self.run_ok("systemctl", "start", "vynas-samba.service")

    def test_where_the_bridge_is_stopped_nothing_is_shared(self):
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)
        self.run_ok("systemctl", "stop", "vynas-samba")
        self.assertFalse(os.path.exists(INCLUDED))
        begun = time.monotonic()
        self.wait_for_shares(who=ANNA, limit=30)
        self.tell(f"no share any more {time.monotonic() - begun:.1f} s after the bridge had ended")
        self.run_ok("systemctl", "start", "vynas-samba")
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)

    def times_closed(self):
        return self.run_ok("journalctl", "--output=cat", "--identifier", "vynas-samba").count("close share")

    @staticmethod
    def mounts_of_sticks():
        return [line for line in vyworld.read_lines("/proc/self/mountinfo") if " /media/vyhotplug/" in line]

    def test_nobody_notices_a_restart(self):
        """The service's, by an administrator and by a crash, and that of all, as in an upgrade."""
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)
        mounts, closed = self.mounts_of_sticks(), self.times_closed()
        self.assertEqual(len(mounts), 2)
        for units in (["vyhotplugd"], ["vyhotplugd", "vynas-samba"]):
            written = self.read(SHARE_FILE)
            self.run_ok("systemctl", "restart", *units)
            self.wait_until("a share file without them", lambda: "Path=" not in self.read(SHARE_FILE))
            self.wait_until("they are told of again", lambda: self.read(SHARE_FILE).count("Path=/media/") == 2)
            self.assertEqual(self.read(SHARE_FILE), written)
            self.assertEqual(self.fetch("Films(A2)", "b.txt", ANNA), "two\n")
        os.kill(self.pids_of("vyhotplugd")[0], signal.SIGKILL)
        self.wait_until("a share file without them", lambda: "Path=" not in self.read(SHARE_FILE))
        self.wait_until("they are told of again", lambda: self.read(SHARE_FILE).count("Path=/media/") == 2)
        self.assertEqual(self.mounts_of_sticks(), mounts)
        self.assertEqual(self.times_closed(), closed)

    def test_a_restart_shares_everything_again(self):
        agent = self.pids_of("vyhotplug-agent")
        begun = time.monotonic()
        self.run_ok("systemctl", "restart", "vyhotplugd")
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA, limit=60)  # "some seconds", as the guide says
        self.tell(f"shared again {time.monotonic() - begun:.1f} s after the restart was asked for")
        self.assertNotEqual(self.pids_of("vyhotplug-agent"), agent)
        self.assertEqual(self.fetch("Films(A2)", "b.txt", ANNA), "two\n")

    def test_whoever_crashes_is_started_again(self):
        for name in ("vyhotplug-agent", "vynas-samba", "vyhotplugd"):
            old = self.pids_of(name)
            os.kill(old[0], signal.SIGKILL)
            self.wait_until(f"another {name}", lambda: self.pids_of(name) and self.pids_of(name) != old)
        self.wait_until("a new announcement", lambda: "sda2" in self.read(SHARE_FILE))
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)

    def test_a_stop_leaves_mounts_and_their_drivers(self):
        self.run_ok("systemctl", "stop", "vyhotplugd")
        self.assertEqual(self.pids_of("vyhotplugd") + self.pids_of("vyhotplug-agent"), [])
        self.assertEqual(self.mounted(), {"sda1", "sda2"})
        self.assertEqual(self.stick.partitions[1].read_file("b.txt"), "two\n")

    def test_a_start_starts_the_agent_too(self):
        self.run_ok("systemctl", "start", "vyhotplugd")
        self.wait_until("the agent", lambda: self.pids_of("vyhotplug-agent"))
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)

    def make_newer_packages(self, folder):
        """Those that are installed, as of a later build. Returns their version."""
        newer = ""
        for path in pathlib.Path(EXCHANGE).glob("*.deb"):
            self.run_ok("dpkg-deb", "--raw-extract", str(path), "/images/package")
            control = self.read("/images/package/DEBIAN/control")
            version, = re.findall("^Version: (.*)$", control, re.MULTILINE)
            newer = re.sub(r"\+\d{4}", "+2999", version)
            self.write("/images/package/DEBIAN/control", control.replace(version, newer))
            os.makedirs(folder, exist_ok=True)
            self.run_ok("dpkg-deb", "--build", "--root-owner-group", "/images/package", f"{folder}/{path.name}")
            shutil.rmtree("/images/package")
        return newer

    def test_an_upgrade_keeps_what_was_set_and_shares_everything_again(self):
        old = self.pids_of("vyhotplugd")
        self.run_ok("sed", "-i", "s/^defaultgid = .*/defaultgid = 60/", "/etc/vyhotplugd/vyhotplugd.conf")
        version = self.make_newer_packages("/images/newer")
        self.run_ok(*APT_INSTALL, *sorted(map(str, pathlib.Path("/images/newer").glob("*.deb"))),
                    env=NONINTERACTIVE, limit=600)
        self.assertEqual({self.run_ok("dpkg-query", "-W", "-f", "${Version}", name) for name in PACKAGES}, {version})
        self.assertNotEqual(self.pids_of("vyhotplugd"), old)
        self.assertIn("defaultgid = 60\n", self.read("/etc/vyhotplugd/vyhotplugd.conf"))
        self.wait_for_mounts("sda1", "sda2")
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)
        self.assertEqual(os.stat("/media/vyhotplug/sda2/b.txt").st_gid, 100, "what stays mounted keeps its options")
        self.run_ok("vyunmount", "sda2")
        self.wait_for_mounts("sda1")
        self.run_ok("vymount", "sda2")
        self.wait_for_mounts("sda1", "sda2")
        self.assertEqual(os.stat("/media/vyhotplug/sda2/b.txt").st_gid, 60)
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)

    def unmount_and_mount(self, *names):
        """Each by request; all are shared again in the end."""
        for name in names:
            self.assertEqual(self.run_ok("vyunmount", name), f"unmount {name} - success.\n")
            self.wait_for_mounts(*(other for other in names if other != name))
            self.assertEqual(self.run_ok("vymount", name), f"mount {name} - success.\n")
            self.wait_for_mounts(*names)
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)

    def test_the_service_starts_with_fewer_rights(self):
        """The drop-in of the documentation."""
        folder = "/etc/systemd/system/vyhotplugd.service.d"
        os.makedirs(folder)
        shutil.copy("/usr/share/doc/vyhotplugd/docs/examples/hardened.conf", folder)
        self.run_ok("systemctl", "daemon-reload")
        self.run_ok("systemctl", "stop", "vyhotplugd")
        began = time.time()
        self.run_ok("systemctl", "start", "vyhotplugd", "vyhotplug-agent")
        self.wait_until("the service", lambda: self.pids_of("vyhotplugd"))
        pid = self.pids_of("vyhotplugd")[0]
        self.wait_until("it is restricted", lambda: "\nSeccomp:\t2\n" in self.read(f"/proc/{pid}/status"))
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)
        # What was shared before is shared still; requests are for what the new service knows.
        self.wait_until("it has taken over", lambda: os.stat(SHARE_FILE).st_mtime > began
                        and self.read(SHARE_FILE).count("Path=/media/vyhotplug/") == 2)
        self.unmount_and_mount("sda1", "sda2")
        shutil.rmtree(folder)
        self.run_ok("systemctl", "daemon-reload")
        self.run_ok("systemctl", "restart", "vyhotplugd")
        self.wait_for_shares("Cinema", "Films(A2)", who=ANNA)

    def test_the_init_script_hands_over_to_systemd(self):
        old = self.pids_of("vyhotplugd")
        self.run_ok("/etc/init.d/vyhotplugd", "restart")
        self.wait_until("another service", lambda: self.pids_of("vyhotplugd") not in ([], old))
        self.assertEqual(str(self.pids_of("vyhotplugd")[0]), self.show("vyhotplugd", "MainPID"))
        self.wait_for_mounts("sda1", "sda2")

    def test_cleaning_spares_what_the_service_has_in_tmp(self):
        old = time.time() - 400 * 86400
        places = ("/tmp/vyhotplugd/hotplug.dev.conf", "/tmp/vyhotplugd", "/tmp/vynasmira")
        self.write("/tmp/somebodys", "")
        for path in ("/tmp/somebodys", *places):
            os.utime(path, (old, old))
        self.write("/etc/tmpfiles.d/tmp.conf", "q /tmp 1777 root root aAmM:1d\n")
        self.run_ok("systemd-tmpfiles", "--clean")
        self.assertFalse(os.path.exists("/tmp/somebodys"))
        for path in (*places, "/tmp/vyhotplugd-evhook.sh", "/tmp/vynasmira/vyhotplugd.conf"):
            self.assertTrue(os.path.lexists(path), path)

    def test_stopping_while_settings_are_saved_is_no_failure(self):
        unit = "vyhotplugd-settings.service"
        folder = f"/run/systemd/system/{unit}.d"
        os.makedirs(folder)
        self.write(folder + "/slow.conf", "[Service]\nExecStart=\nExecStart=/bin/sleep 60\n")
        self.run_ok("systemctl", "daemon-reload")
        self.run_ok("systemctl", "start", "--no-block", unit)
        self.wait_until("it saves", lambda: self.show(unit, "ActiveState") == "activating" and self.show(unit, "MainPID") != "0")
        self.run_ok("systemctl", "stop", unit)
        self.assertEqual(self.show(unit, "ActiveState"), "inactive")
        shutil.rmtree(folder)
        self.run_ok("systemctl", "daemon-reload")

    def test_removing_ends_and_unmounts_it_all(self):
        self.run_ok("apt-get", "-qy", "purge", *PACKAGES, env=NONINTERACTIVE)
        self.stick.plugged = False
        for name in ("vyhotplugd", "vyhotplug-agent", "vynas-samba", "ntfs-3g", "mount.ntfs-3g"):
            self.wait_until(f"no {name}", lambda name=name: not self.pids_of(name))
        self.assertEqual(self.mounted(), set())
        self.assertEqual(self.run_ok("systemctl", "list-units", "--failed", "--plain", "--no-legend"), "")
        for folder in ("/tmp", "/run", "/dev", "/media", "/etc", "/var/lib"):
            self.assertEqual([name for name in os.listdir(folder) if name.startswith("vy")], [], folder)
