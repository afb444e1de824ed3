"""The examples for a box: lamp, button, messages, with a vyhotplugctl that prints what it is given."""

import json
import os
import shutil
import socket
import subprocess
import time

import vyworld

BOX = os.path.join(vyworld.FOLDER, "../../docs/examples/box")
APPLIANCE = os.path.join(vyworld.FOLDER, "../../docs/examples/appliance")
IMAGE = os.path.join(vyworld.FOLDER, "../../packaging/image")
BIN = "/tmp/box-bin"
TOLD = "/tmp/told"


def item(name, state="shared", label="A", size=100, used=10):
    return {"name": name, "identity": '{"name":"sdz9"', "state": state, "reason": None, "share": label, "label": label,
            "directory": "/media", "filesystem": "ext4", "size_bytes": size, "used_bytes": used, "free_bytes": size - used}


def line(value):
    return json.dumps(value, separators=(",", ":")) + "\n"


class Box(vyworld.SystemTest):
    def setUp(self):
        super().setUp()
        os.mkdir(BIN)
        self.program("vyhotplugctl", 'case $1 in eject) echo "$*" >>' + TOLD + '; [ $2 != sdb ] ;; *) cat /tmp/$1 ;; esac')
        self.program("curl", f'cat >>{TOLD}; echo "$*" >>{TOLD}')
        self.program("mail", f'cat >>{TOLD}; echo "mail $*" >>{TOLD}')
        vyworld.write(TOLD, "")

    @staticmethod
    def program(name, script):
        vyworld.write(f"{BIN}/{name}", f"#!/bin/sh\n{script}\n")
        os.chmod(f"{BIN}/{name}", 0o755)

    def run_example(self, name, *arguments, **environment):
        done = subprocess.run([os.path.join(BOX, name), *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                              check=False, timeout=vyworld.LIMIT,
                              env={"PATH": f"{BIN}:{vyworld.PATH}", **environment})
        self.assertEqual(done.stderr, b"")
        return done.returncode

    def test_the_lamp_follows_the_disks(self):
        os.mkdir("/tmp/lamp")
        os.mkfifo("/tmp/watch")
        lamp = subprocess.Popen([os.path.join(BOX, "led"), "/tmp/lamp"], stdin=subprocess.DEVNULL,
                                env={"PATH": f"{BIN}:{vyworld.PATH}"})
        self.addCleanup(lamp.wait)
        self.addCleanup(lamp.kill)
        with open("/tmp/watch", "w", encoding="utf-8", buffering=1) as events:
            for event, name, wanted in (("present", "sda1", ("none", "255")), ("shared", "sdb1", ("none", "255")),
                                        ("busy", "sda1", ("timer", "255")), ("unmounted", "sda1", ("none", "255")),
                                        ("busy", "sdb1", ("timer", "255")), ("shared", "sdb1", ("none", "255")),
                                        ("pulled", "sdb1", ("none", "0"))):
                vyworld.write("/tmp/lamp/brightness", "255\n")
                time.sleep(0.1)
                events.write(line({"call": "watch", "version": 1, "time_s": 1, "event": event, "item": item(name)}))
                self.wait_until(f"{event} {name}: {wanted}", lambda wanted=wanted: tuple(
                    vyworld.read(f"/tmp/lamp/{name}").strip() for name in ("trigger", "brightness")) == wanted)
        self.assertEqual(lamp.wait(vyworld.LIMIT), 0)

    def test_the_button_ejects_each_disk_once(self):
        items = [item("sda1", label='{"name":"sdx1","state":"shared"'), item("sda2", "busy"), item("sdc1", "unmounted"),
                 item("mmcblka1", "mounted"), item("sdd1", "not_mounted")]
        vyworld.write("/tmp/status", line({"call": "status", "version": 1, "service_runs": True, "items": items}))
        self.assertEqual(self.run_example("eject-all"), 0)
        self.assertEqual(vyworld.read(TOLD), "eject mmcblka\neject sda\n")
        vyworld.write("/tmp/status", line({"items": [item("sdb1")]}))
        self.assertEqual(self.run_example("eject-all"), 1)

    def test_messages_tell_what_comes_goes_and_fills(self):
        vyworld.write("/tmp/watch", "".join(line({"event": event, "item": item(name)}) for event, name in (
            ("present", "sda1"), ("plugged", "sdb1"), ("shared", "sdb1"), ("not_mounted", "sdc1"), ("unmounted", "sda1"),
            ("pulled", "sda1"))))
        self.assertEqual(self.run_example("message", "watch"), 0)
        self.assertEqual(vyworld.read(TOLD).split("\n")[::2], [
            "sdb1 is shared", "sdc1 cannot be mounted: see vyhotplugctl show sdc1", "sda1 is unmounted", "sda1 was pulled", ""])
        vyworld.write(TOLD, "")
        vyworld.write("/tmp/status", line({"items": [item("sda1", used=91), item("sdb1", used=90),
                                                     {**item("sdc1"), "size_bytes": None, "used_bytes": None}]}))
        self.assertEqual(self.run_example("message", "full", "90", NOTIFY_URL="https://example.org/x"), 0)
        told = vyworld.read(TOLD)
        self.assertTrue(told.startswith("sda1 is 91 % full\n"), told)
        self.assertIn("https://example.org/x", told)
        self.assertEqual(told.count("full"), 1)


class Appliance(vyworld.SystemTest):
    """The script around the service, with programs in its place that do nothing."""

    def setUp(self):
        super().setUp()
        os.makedirs("/etc/default", exist_ok=True)
        os.makedirs(BIN)
        bridges = " ".join(f"{BIN}/{name}" for name in ("vynas-samba", "vynas-ksmbd"))
        self.options = f"daemon=/bin/true\nprepare=/bin/true\nagent=\nshare_service='{bridges}'\n"
        vyworld.write("/etc/default/vyhotplugd", self.options)
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(b"\0vyhotplugd\0")
        listener.listen()

    def start(self):
        done = subprocess.run([f"{APPLIANCE}/vyhotplugd.init", "start"], stdin=subprocess.DEVNULL, capture_output=True,
                              check=False, timeout=vyworld.LIMIT)
        self.assertEqual((done.returncode, done.stderr), (0, b""), done.stdout)

    def left_in_pid_file(self, number):
        vyworld.write(vyworld.SERVICE_PID_FILE, f"{number}\n")
        self.start()
        return vyworld.read(vyworld.SERVICE_PID_FILE)

    def test_only_a_bridge_keeps_its_number(self):
        sleeper = subprocess.Popen(["/bin/sleep", "1000"])
        self.addCleanup(sleeper.wait)
        self.addCleanup(sleeper.kill)
        kept = f"{sleeper.pid}\n"
        self.assertEqual(self.left_in_pid_file(sleeper.pid), kept, "of another file-sharing service nothing is known")
        for name in ("vynas-ksmbd", "vynas-samba"):
            shutil.copy("/bin/sleep", f"{BIN}/{name}")
            self.assertEqual(self.left_in_pid_file(sleeper.pid), "", name)
            with subprocess.Popen([f"{BIN}/{name}", "1000"]) as bridge:
                self.wait_until("it runs", lambda name=name, bridge=bridge: vyworld.read(f"/proc/{bridge.pid}/comm") == name + "\n")
                self.assertEqual(self.left_in_pid_file(bridge.pid), f"{bridge.pid}\n", name)
                bridge.kill()

    def test_with_mdev_a_service_is_told_once_of_what_came_before_it(self):
        """By the options that the Buildroot package installs, where mdev is chosen."""
        root = "/tmp/box-root"
        subprocess.run(["make", "-s", "-C", IMAGE, "install", f"TARGET_DIR={root}", "BR2_PACKAGE_VYHOTPLUGD_AGENT=",
                        "BR2_PACKAGE_VYHOTPLUGD_MDEV=y"], check=True, capture_output=True, timeout=vyworld.LIMIT)
        self.assertNotIn("adopt =", vyworld.read(f"{root}/etc/vyhotplugd/vyhotplugd.conf"))
        self.assertIn("/usr/sbin/vyhotplug-agent --once", vyworld.read(f"{root}/etc/mdev.conf"))
        options = vyworld.read(f"{root}/etc/default/vyhotplugd")
        self.assertEqual(options, "agent=\nscan=/usr/sbin/vyhotplug-agent\n")
        vyworld.write(TOLD, "")
        Box.program("vyhotplug-agent", f'echo "$*" >>{TOLD}')
        vyworld.write("/etc/default/vyhotplugd", self.options + options.replace("/usr/sbin", BIN))
        self.start()
        self.assertEqual(vyworld.read(TOLD), "--scan\n")
        shutil.copy("/bin/sleep", f"{BIN}/vyhotplugd")
        with subprocess.Popen([f"{BIN}/vyhotplugd", "1000"]) as service:
            self.wait_until("it runs", lambda: vyworld.read(f"/proc/{service.pid}/comm") == "vyhotplugd\n")
            vyworld.write(vyworld.PID_FILE, f"{service.pid}\n")
            self.start()
            service.kill()
        self.assertEqual(vyworld.read(TOLD), "--scan\n", "it runs, and knows")
        vyworld.write("/etc/default/vyhotplugd", self.options)
        os.unlink(vyworld.PID_FILE)
        self.start()
        self.assertEqual(vyworld.read(TOLD), "--scan\n", "nobody asks for it")

    def test_the_agent_keeps_links_of_names(self):
        """By either way of starting it, as the packages' unit does."""
        with open(f"{APPLIANCE}/../../../packaging/systemd/vyhotplug-agent.service", encoding="utf-8") as file:
            self.assertIn("--monitor --by-share\n", file.read())
        self.assertIn("vyhotplug-agent --monitor --by-share\n", vyworld.read(f"{APPLIANCE}/inittab"))
        Box.program("vyhotplug-agent", f'echo "$*" >>{TOLD}; sleep 1000')
        vyworld.write(TOLD, "")
        vyworld.write("/etc/default/vyhotplugd", self.options + f"agent={BIN}/vyhotplug-agent\n")
        self.start()
        self.wait_until("it is started", lambda: vyworld.read(TOLD) == "--monitor --by-share\n")
