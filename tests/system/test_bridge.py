"""Service, bridge and Samba together where time is short: a busy machine, a pulled stick, a restart."""

import contextlib
import hashlib
import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import time

import samba_world
import vyworld
from samba_world import SambaTest

BUSY = 20  # programs that never rest


@contextlib.contextmanager
def busy_machine():
    loops = [subprocess.Popen(["sh", "-c", "while :; do :; done"], stdin=subprocess.DEVNULL) for _ in range(BUSY)]
    try:
        yield
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()


class Together(SambaTest):
    def start_all(self, *names, **config):
        """The service, the bridge and Samba, with sticks; they are exported."""
        self.write_config(**config)
        self.start_bridge()
        self.start_samba()
        self.start_daemon(settled=False)
        self.sticks = [self.make_partition(name, files={"who": f"this is {name}\n"}) for name in names]
        for stick in self.sticks:
            vyworld.send(stick.add_message())
        self.wait_until("the sticks are exported", lambda: len(self.exported()) == len(names))

    @contextlib.contextmanager
    def browsing(self, name, stick):
        """A client that has looked at the share, and stays connected."""
        process = subprocess.Popen(
            ["smbclient", "-U", "anna%anna", f"//127.0.0.1/{name}"], stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env={"PATH": vyworld.PATH}, start_new_session=True)
        try:
            process.stdin.write(b"ls\n")
            process.stdin.flush()
            self.wait_until("Samba works there", lambda: stick.directory in samba_world.held_by_samba())
            yield process
        finally:
            process.kill()
            process.wait()
            process.stdin.close()


class BusyMachine(Together):
    ROUNDS = int(os.environ.get("VY_ROUNDS", "3"))

    def test_a_stick_that_a_client_browses_is_unmounted_by_request(self):
        """The service gives 400 ms."""
        self.start_all("sda1")
        stick = self.sticks[0]
        times = []
        answers = []
        with busy_machine():
            for _ in range(self.ROUNDS):
                with self.browsing("Drive(A1)", stick):
                    begin = time.monotonic()
                    answers.append(self.tool("vyunmount", "sda1").err)
                    times.append(time.monotonic() - begin)
                stick.lay_node()
                self.tool("vymount", "sda1")
                self.wait_until("it is exported", lambda: self.exported() == ["Drive(A1)"])
        done = answers.count("unmount sda1 - success.\n")
        vyworld.log(f"{done} of {len(answers)} unmounted, load {os.getloadavg()[0]:.0f}, "
                    f"{statistics.median(times):.2f} s, at most {max(times):.2f} s")
        self.assertEqual(done, len(answers))


class Mounts(Together):
    """What goes without the share file telling of it."""

    def test_a_share_goes_with_its_mount(self):
        directory = self.mount_disk("sda1")
        vyworld.write(vyworld.SHARE_FILE, samba_world.share("Stick", directory))
        self.start_bridge()
        self.start_samba()
        with self.held_open("Stick", f"{directory}/who", "anna"):
            self.assertEqual(vyworld.libc.umount2(directory.encode(), vyworld.MNT_DETACH), 0)
            begin = time.monotonic()
            self.wait_until("the share is withdrawn", lambda: self.exported() == [])
            self.wait_until("the client is sent away",
                            lambda: not any("who" in path for path in samba_world.held_by_samba()))
            vyworld.log(f"closed {time.monotonic() - begin:.2f} s after the unmount")
        self.assertEqual(self.listing("anna"), {})

    def test_what_else_is_mounted_disturbs_nobody(self):
        directory = self.mount_disk("sda1")
        vyworld.write(vyworld.SHARE_FILE, samba_world.share("Stick", directory))
        self.start_bridge()
        written = os.stat(samba_world.INCLUDE).st_mtime_ns
        other = self.mount_disk("sdb1")
        self.assertTrue(samba_world.can_unmount(other))
        self.wait_until("the bridge is done", self.bridge_waits)
        self.assertEqual(os.stat(samba_world.INCLUDE).st_mtime_ns, written)
        self.assertEqual(self.exported(), ["Stick"])


class Lists(Together):
    """A name where the device file wants a number."""

    def set_list(self, before, after):
        text = vyworld.read(vyworld.DEVICE_FILE)
        self.assertIn(before, text)
        vyworld.write(vyworld.DEVICE_FILE + ".new", text.replace(before, after), 0o644)
        os.rename(vyworld.DEVICE_FILE + ".new", vyworld.DEVICE_FILE)
        self.daemon.signal(signal.SIGHUP)

    def test_a_share_for_somebody_unknown_is_closed_until_the_number_is_there(self):
        self.start_all("sda1", strict="enable")
        self.set_list("Full Access Users=\n", "Full Access Users=anna\n")
        self.wait_for_log("bridge(#)share Drive(A1) (1234:00ab:SERA:1) is withheld: "
                          "Full Access Users has anna, which is no user id")
        self.assertEqual(self.exported(), [])
        self.daemon.signal(signal.SIGHUP)  # another refresh changes nothing
        time.sleep(2 * vyworld.IDLE_PAUSE)
        self.assertEqual(self.exported(), [])
        self.wait_until("nobody sees it", lambda: self.listing("bert") == {})
        self.set_list("Full Access Users=anna\n", "Full Access Users=5001\n")
        self.wait_until("it is shared", lambda: self.exported() == ["Drive(A1)"])
        self.wait_until("Samba has read it", lambda: self.fetch("Drive(A1)", "who", "anna") is not None)
        self.assertIsNone(self.fetch("Drive(A1)", "who", "bert"))


class Restart(Together):
    """Nobody notices a restart of the service where it takes over what stands mounted."""

    SIZE = 32 << 20
    LARGE = int(os.environ.get("VY_COPIED", str(200 << 20)))

    def make_big_stick(self, size):
        """A stick that holds a file of that size. Returns it and the file's digest."""
        content = "/tmp/content"
        digest = hashlib.sha256()
        os.mkdir(content)
        with open(f"{content}/big", "wb") as file:
            block = os.urandom(1 << 20)
            for number in range(size >> 20):
                part = number.to_bytes(8, "little") + block[8:]
                digest.update(part)
                file.write(part)
        stick = vyworld.Partition("sda1")
        with open("/tmp/sda1.image", "wb") as file:
            file.truncate(size + (64 << 20))
        vyworld.run("mkfs.ext4", "-q", "-F", "-m", "0", "-d", content, "/tmp/sda1.image")
        shutil.rmtree(content)
        stick.loop = vyworld.LoopDevice("/tmp/sda1.image")
        self.addCleanup(stick.loop.release)
        stick.lay_node()
        return stick, digest.hexdigest()

    def start_with_copy(self, size=SIZE, **config):
        """All together, and a client that copies the file for some seconds."""
        self.write_config(**config)
        self.start_bridge()
        self.start_samba()
        self.start_daemon(settled=False)
        self.stick, self.digest = self.make_big_stick(size)
        vyworld.send(self.stick.add_message())
        self.wait_until("the stick is exported", lambda: self.exported() == ["Drive(A1)"])
        self.copy = subprocess.Popen(
            ["smbclient", "-U", "anna%anna", "//127.0.0.1/Drive(A1)", "-c", "get big /tmp/fetched"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env={"PATH": vyworld.PATH})
        self.addCleanup(self.copy.wait)
        self.addCleanup(self.copy.kill)
        self.wait_until("the copy has begun", lambda: self.copied() > 0)
        self.copy.send_signal(signal.SIGSTOP)  # however quick the machine is, it lasts over the restart

    @staticmethod
    def copied():
        return os.path.getsize("/tmp/fetched") if os.path.exists("/tmp/fetched") else 0

    def first_refresh(self):
        """The new service's, which knows of no stick yet."""
        self.wait_until("the new service has written its share file",
                        lambda: "Path=" not in vyworld.read(vyworld.SHARE_FILE))
        time.sleep(vyworld.IDLE_PAUSE)
        self.wait_until("the bridge has seen it", lambda: not self.has_pending_signals())

    def has_pending_signals(self):
        status = vyworld.read(f"/proc/{self.bridge.pid}/status")
        return re.search(r"^ShdPnd:\s*0+$", status, re.MULTILINE) is None

    def finish_copy(self):
        """Returns the digest of what has come."""
        self.copy.send_signal(signal.SIGCONT)
        self.copy.wait(vyworld.LIMIT)
        with open("/tmp/fetched", "rb") as file:
            return hashlib.file_digest(file, "sha256").hexdigest()

    def check_restart(self, number, size=SIZE):
        self.start_with_copy(size, adopt="enable")
        mounts = vyworld.read("/proc/self/mountinfo")
        include = vyworld.read(samba_world.INCLUDE)
        written = os.stat(samba_world.INCLUDE).st_mtime_ns
        self.stop_daemon(number)
        self.start_daemon(settled=False)
        self.first_refresh()
        vyworld.send(self.stick.add_message())
        self.wait_for_log(f"daemon(#)adopt {self.stick.node} {self.stick.directory}")
        self.wait_until("the share file tells of it",
                        lambda: f"Path={self.stick.directory}\n" in vyworld.read(vyworld.SHARE_FILE))
        self.assertEqual(self.finish_copy(), self.digest)
        self.assertEqual(vyworld.read("/proc/self/mountinfo"), mounts)
        self.assertEqual(vyworld.read(samba_world.INCLUDE), include)
        self.assertEqual(os.stat(samba_world.INCLUDE).st_mtime_ns, written, "not even for a moment")
        self.assertEqual(self.log.matching(r"samba_control\(#\)close share .*"), [])
        self.assert_tool("vyunmount", "sda1", err="unmount sda1 - success.\n")
        self.wait_until("it is withdrawn", lambda: self.exported() == [])

    def test_a_copy_outlives_a_service_that_is_killed(self):
        self.check_restart(signal.SIGKILL, self.LARGE)

    def test_a_copy_outlives_a_service_that_is_stopped_and_started(self):
        self.check_restart(signal.SIGTERM)

    def test_a_copy_outlives_an_upgrade_of_both(self):
        """The bridge is started anew while the share file tells of nothing."""
        self.start_with_copy(adopt="enable")
        self.stop_daemon(signal.SIGTERM)
        self.start_daemon(settled=False)
        self.first_refresh()
        self.bridge.send_signal(signal.SIGTERM)
        self.assertEqual(self.bridge.wait(vyworld.LIMIT), 0)
        self.bridge = subprocess.Popen(self.command(), stdin=subprocess.DEVNULL, cwd="/", env=vyworld.environment())
        self.wait_for_log("main(#)start", 2)
        vyworld.send(self.stick.add_message())
        self.wait_until("the share file tells of it",
                        lambda: f"Path={self.stick.directory}\n" in vyworld.read(vyworld.SHARE_FILE))
        self.assertEqual(self.finish_copy(), self.digest)
        self.assertEqual(self.log.matching(r"samba_control\(#\)close share .*"), [])

    def test_without_the_key_the_new_service_is_believed_at_once(self):
        self.start_with_copy(self.LARGE)
        self.assertLess(self.copied(), self.LARGE, "the copy is under way")
        self.stop_daemon(signal.SIGKILL)
        self.start_daemon(settled=False)
        self.wait_for_log("samba_control(#)close share Drive(A1)")
        self.assertEqual(self.exported(), [])
        self.assertNotEqual(self.finish_copy(), self.digest)

    def test_what_is_pulled_while_the_service_is_new_goes_at_once(self):
        self.start_with_copy(adopt="enable")
        self.stop_daemon(signal.SIGKILL)
        self.start_daemon(settled=False)
        self.first_refresh()
        self.assertEqual(self.exported(), ["Drive(A1)"])
        vyworld.libc.umount2(self.stick.directory.encode(), vyworld.MNT_DETACH)
        self.wait_until("it is withdrawn", lambda: self.exported() == [])
        self.wait_for_log("samba_control(#)close share Drive(A1)")


class Command(Together):
    """What vyhotplugctl tells of Samba's clients and of what Samba shares."""

    def setUp(self):
        super().setUp()
        shutil.copy(os.path.join(os.environ["VY_BIN"], "vyhotplugctl"), vyworld.PROGRAMS)

    def ctl(self, *arguments):
        return self.tool("vyhotplugctl", "-f", vyworld.CONFIG, *arguments)

    def test_whom_samba_serves(self):
        self.start_all("sda1")
        path = self.sticks[0].directory + "/who"
        with self.held_open("Drive(A1)", path, "anna"):
            held = json.loads(self.ctl("who", "sda1", "--json").out)["holders"]
            self.assertIn((path, {"user": "anna", "machine": "127.0.0.1"}),
                          [(holder["file"], holder["client"]) for holder in held])
            done = self.ctl("unmount", "sda1", "--wait", "1")
            self.assertEqual(done.status, 4, done.err)
            self.assertRegex(done.err, rf"(?m)^  smbd \(process .*, file\) {re.escape(path)}, for anna at 127\.0\.0\.1$")

    def test_what_samba_shares(self):
        self.start_all("sda1", "sda2")
        section = vyworld.read(samba_world.INCLUDE).split("[Drive(A1)]\n")[1].split("[")[0]
        told = json.loads(self.ctl("show", "sda1", "--json").out)["samba"]
        self.assertEqual(told, {"name": "Drive(A1)", "parameters": dict(re.findall(r"\t(.*?) = (.*)\n", section))})
        self.assertEqual(told["parameters"]["path"], self.sticks[0].directory)
        self.assertIn("          in Samba  Drive(A1)\n" + " " * 20 + f"path = {self.sticks[0].directory}\n",
                      self.ctl("show", "sda1").out)
