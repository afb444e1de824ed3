"""ksmbd, the kernel's file server, with a real client on the machine that the tests run on."""

import os
import socket
import subprocess
import time

import machine
from machine import CONFIG, LIMIT, SHARE_FILE
from media import Filesystem
from state import place_of
from vmtest import VmTest

import access_matrix  # noqa: E402  (its folder is known by now)

BRIDGE = f"vynas-ksmbd -f {CONFIG} -c /etc/vynas-ksmbd.conf"
MADE = "/run/vynas-ksmbd/ksmbd.conf"
PASSWORD = "secret"
CLIENTS = (None, "anna", "bert", "root")
ACCOUNTS = "".join(f"{name}:x:{uid}:{uid}::/:/bin/sh\n" for name, uid in (*access_matrix.USERS.items(), ("nobody", 65534)))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class KsmbdTest(VmTest):
    """The bridge, and ksmbd with the users of the matrix; a port of this machine leads to it."""

    machines = ("server",)
    patience = LIMIT  # seconds for a client's commands
    answer = 20  # seconds in which the server has to answer

    def setUp(self):
        self.port = free_port()
        self.devices = machine.USB + (f"-netdev user,id=net,hostfwd=tcp:127.0.0.1:{self.port}-:445",
                                      "-device e1000,netdev=net,romfile=")
        super().setUp()

    def start_neighbours(self):
        self.start("log", "/vm/guest log")
        self.vm.run("until [ -S /dev/log ]; do sleep 0.05; done")
        self.vm.run("sh /vm/load server && ifconfig lo up && ifconfig eth0 10.0.2.15 netmask 255.255.255.0 up")
        self.vm.write("/etc/passwd", ACCOUNTS)
        self.vm.run("mkdir -p /etc/ksmbd /srv && chmod 777 /srv && echo hello >/srv/readme.txt")
        self.vm.write("/etc/ksmbd/ksmbd.conf", "[global]\n\tguest account = nobody\n\twrite list = anna\n")
        for name in access_matrix.USERS:
            self.vm.run(f"ksmbd.adduser -a {name} -p {PASSWORD}")

    def start_daemon(self, environment=""):
        """Its share file is there once its first refresh is over."""
        self.vm.run(f"vyhotplug-prepare -f {CONFIG} && {environment} vyhotplugd -f {CONFIG} -l 7")
        self.vm.run(f"until [ -e {SHARE_FILE} ]; do sleep 0.1; done")

    def start_service(self):
        super().start_service()
        self.start_server()
        self.start_bridge()

    def start_bridge(self):
        self.start("bridge", BRIDGE)
        self.vm.run("until [ -s /var/run/vynas-fssd.pid ]; do sleep 0.1; done")

    def start_server(self):
        """As the unit and the init script do: its configuration first."""
        self.vm.attempt(f"{BRIDGE} --once")  # fails to tell a server that does not run
        self.vm.run(f"ksmbd.mountd --config={MADE}")
        testing = f"smbclient -L 127.0.0.1 -p {self.port} -U anna%{PASSWORD}".split()
        end = time.monotonic() + LIMIT
        while subprocess.run(testing, stdin=subprocess.DEVNULL, capture_output=True, check=False).returncode != 0:
            self.assertLess(time.monotonic(), end, "ksmbd does not answer")
            time.sleep(0.2)

    # ---- clients ----

    def client(self, name, commands, user="anna"):
        """What a client prints."""
        login = ["-N"] if user is None else ["-U", f"{user}%{PASSWORD}"]
        done = subprocess.run(["smbclient", f"//127.0.0.1/{name}", "-p", str(self.port), *login, "-t", str(self.answer),
                               "-c", commands],
                              stdin=subprocess.DEVNULL, capture_output=True, check=False, timeout=self.patience,
                              cwd=self.folder)
        return (done.stdout + done.stderr).decode("utf-8", "replace")

    def wait_for_share(self, name):
        self.wait_until(f"{name} is shared", lambda _: "blocks of size" in self.client(name, "ls"))

    def local_file(self, size):
        path = os.path.join(self.folder, "to-put")
        with open(path, "wb") as file:
            file.write(os.urandom(size))
        return path

    def copy_in_background(self, name):
        """A client in the middle of a copy."""
        self.local_file(24 << 20)
        process = subprocess.Popen(["smbclient", f"//127.0.0.1/{name}", "-p", str(self.port), "-U",
                                    f"anna%{PASSWORD}", "-c", "put to-put big"], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd=self.folder)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def hold_share(self, name):
        """A client that is connected to a share, and does nothing: the server keeps its directory in use."""
        process = subprocess.Popen(["smbclient", f"//127.0.0.1/{name}", "-p", str(self.port), "-U", f"anna%{PASSWORD}"],
                                   stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT)
        self.addCleanup(process.stdin.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.wait_until("it is connected", lambda _: ":01BD" in self.vm.run(
            "grep ' 01 ' /proc/net/tcp /proc/net/tcp6 || :"))
        time.sleep(2)  # it logs in, and enters the share


class Life(KsmbdTest):
    def test_a_stick_is_read_and_written_refused_cut_off_and_pulled(self):
        self.plug("stick", Filesystem("ext4", "WORK", {"readme.txt": "hello\n"}), serial="AC1")
        self.wait_until("mounted", lambda state: state.names == ["sda1"])
        self.vm.run(f"chmod 777 {place_of('sda1')}")
        name = "Drive(A1)"
        self.wait_for_share(name)
        self.local_file(100000)
        said = self.client(name, "get readme.txt got; put to-put back; get back again")
        self.assertNotIn("NT_STATUS", said)
        with open(os.path.join(self.folder, "to-put"), "rb") as put, \
                open(os.path.join(self.folder, "again"), "rb") as got:
            self.assertEqual(put.read(), got.read())
        self.assertIn("NT_STATUS", self.client(name, "ls", None))  # no guests without Guest Access

        copy = self.copy_in_background(name)
        self.wait_until("the copy has begun", lambda _: "big" in self.vm.run(f"ls {place_of('sda1')}"))
        self.assertEqual(self.tool("vyunmount sda1"), "unmount sda1 - success.\n")
        self.assertNotEqual(copy.wait(LIMIT), 0)
        self.assertIn("NT_STATUS", self.client(name, "ls"))

        self.assertEqual(self.tool("vymount sda1"), "mount sda1 - success.\n")
        self.wait_for_share(name)
        self.hold_share(name)
        self.assertEqual(self.tool("vyunmount sda1"), "unmount sda1 - success.\n")
        self.vm.state()
        asked, ended = (max(line.time for line in self.vm.log if words in line.text)
                        for words in ("close share", "connections are ended"))
        self.assertLess(ended - asked, 2)  # the service waits 400 ms on a machine of its own
        self.note(f"connections ended after {ended - asked:.3f} s")

        self.assertEqual(self.tool("vymount sda1"), "mount sda1 - success.\n")
        self.wait_for_share(name)
        copy = self.copy_in_background(name)
        self.wait_until("the copy has begun", lambda _: "big" in self.vm.run(f"ls {place_of('sda1')}"))
        self.vm.pull("stick")
        state = self.wait_until("all is gone", lambda state: not state.mounts and not state.places)
        self.assertEqual(state.nodes, {})
        self.assertNotIn(name, self.vm.run(f"cat {MADE}"))
        copy.wait(LIMIT)


class Matrix(KsmbdTest):
    SAMPLE = 24

    def start_service(self):
        """Without the daemon: the share file is the test's."""
        self.vm.run(f"vyhotplug-prepare -f {CONFIG}")
        self.start_server()
        self.start_bridge()

    def test_no_cell_is_more_open_than_it_should_be(self):
        rows = [row for row in access_matrix.sample(4 * self.SAMPLE) if not row.hides()][:self.SAMPLE - 4]
        rows += [row for row in access_matrix.sample(100) if row.hides()][:4]
        self.vm.write(SHARE_FILE, "".join(row.section("/srv") for row in rows))
        self.vm.run("kill -HUP $(cat /var/run/vynas-fssd.pid)")
        shared = [row for row in rows if not row.hides()]
        self.vm.run(f"until grep -q '^.{shared[-1].name}.$' {MADE}; do sleep 0.1; done; sleep 1")
        path = self.local_file(100)
        found = {(row.name, user): access_matrix.found_access("127.0.0.1", row.name, user, PASSWORD, self.port, path)
                 for row in rows for user in CLIENTS}
        wanted = {(row.name, user): "none" if row.hides() else row.access(user) for row in rows for user in CLIENTS}
        self.maxDiff = None
        self.assertEqual(found, wanted)
        self.assertEqual(set(wanted.values()), set(access_matrix.LEVELS))


class Failing(KsmbdTest):
    def test_a_server_that_is_not_there_or_dies_holds_nothing_up(self):
        self.plug("stick", Filesystem("ext4", "WORK", {"readme.txt": "hello\n"}), serial="AC1")
        self.wait_for_share("Drive(A1)")
        self.vm.run("kill -9 $(pidof ld-linux-x86-64.so.2)")  # under its loader, see kit.add_server()
        self.assertEqual(self.tool("vyunmount sda1"), "unmount sda1 - success.\n")
        self.assertEqual(self.tool("vymount sda1"), "mount sda1 - success.\n")
        self.vm.run("ksmbd.control -s; rm -f /run/ksmbd.lock")
        self.start_server()
        self.wait_for_share("Drive(A1)")
        self.assertEqual(self.vm.attempt(BRIDGE)[0], 1)  # one at a time
