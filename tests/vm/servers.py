"""The base of the tests with a file server in the guest, and a real client on the machine that the tests run on."""

import os
import socket
import subprocess
import time

import machine
from kit import SAMBA_DISK
from machine import CONFIG, LIMIT, SHARE_FILE
from vmtest import VmTest

import access_matrix  # noqa: E402  (its folder is known by now)

PASSWORD = "secret"
ACCOUNTS = "".join(f"{name}:x:{uid}:{uid}::/:/bin/sh\n" for name, uid in (*access_matrix.USERS.items(), ("nobody", 65534)))
NETWORK = "sh /vm/load network && ifconfig lo up && ifconfig eth0 10.0.2.15 netmask 255.255.255.0 up"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class ServerTest(VmTest):
    """A server with the users of the matrix, and its bridge; a port of this machine leads to it."""

    machines = ("server",)
    patience = LIMIT  # seconds for a client's commands
    answer = 20  # seconds in which the server has to answer
    bridge = ""  # the bridge's command line
    made = ""  # what it writes

    def setUp(self):
        self.port = free_port()
        self.devices = self.devices + (f"-netdev user,id=net,hostfwd=tcp:127.0.0.1:{self.port}-:445",
                                       "-device e1000,netdev=net,romfile=")
        super().setUp()

    def prepare_server(self):
        """Its configuration, and its users."""
        raise NotImplementedError

    def run_server(self):
        raise NotImplementedError

    def start_neighbours(self):
        self.start("log", "/vm/guest log")
        self.vm.run(f"until [ -S /dev/log ]; do sleep 0.05; done; {NETWORK}")
        self.vm.write("/etc/passwd", ACCOUNTS)
        self.vm.run("mkdir -p /srv && chmod 777 /srv && echo hello >/srv/readme.txt")
        self.prepare_server()

    def start_daemon(self, environment=""):
        """Its share file is there once its first refresh is over."""
        self.vm.run(f"vyhotplug-prepare -f {CONFIG} && {environment} vyhotplugd -f {CONFIG} -l 7")
        self.vm.run(f"until [ -e {SHARE_FILE} ]; do sleep 0.1; done")

    def start_service(self):
        super().start_service()
        self.start_server()
        self.start_bridge()

    def start_bridge(self):
        self.start("bridge", self.bridge)
        self.vm.run("until [ -s /var/run/vynas-fssd.pid ]; do sleep 0.1; done")

    def start_server(self):
        """As the unit and the init script do: its configuration first."""
        self.vm.attempt(f"{self.bridge} --once")  # fails to tell a server that does not run
        self.run_server()
        testing = f"smbclient -L 127.0.0.1 -p {self.port} -U anna%{PASSWORD}".split()
        end = time.monotonic() + LIMIT
        while subprocess.run(testing, stdin=subprocess.DEVNULL, capture_output=True, check=False).returncode != 0:
            self.assertLess(time.monotonic(), end, "the server does not answer")
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

    def wait_for_share(self, name, user="anna"):
        self.wait_until(f"{name} is shared", lambda state: self.is_told(state)
                        and "blocks of size" in self.client(name, "ls", user))

    def is_told(self, state):
        """Whether the bridge waits for no program that tells the server something: to close a share, maybe."""
        bridge = {process["pid"] for process in state.of(self.bridge.split(" ", 1)[0])}
        return not any(process["parent"] in bridge for process in state.processes)

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


class KsmbdTest(ServerTest):
    """The server in the kernel."""

    bridge = f"vynas-ksmbd -f {CONFIG} -c /etc/vynas-ksmbd.conf"
    made = "/run/vynas-ksmbd/ksmbd.conf"

    def prepare_server(self):
        self.vm.run("sh /vm/load ksmbd && mkdir -p /etc/ksmbd")
        self.vm.write("/etc/ksmbd/ksmbd.conf", "[global]\n\tguest account = nobody\n\twrite list = anna\n")
        for name in access_matrix.USERS:
            self.vm.run(f"ksmbd.adduser -a {name} -p {PASSWORD}")

    def run_server(self):
        self.vm.run(f"ksmbd.mountd --config={self.made}")


class SambaTest(ServerTest):
    """Samba, from a disk of its own that is only read."""

    bridge = f"vynas-samba -f {CONFIG} -c /etc/vynas-samba.conf"
    made = "/run/vynas-samba/shares.conf"
    conf = ("[global]\nserver role = standalone server\nnetbios name = BOX\nsmb ports = 445\ndisable netbios = yes\n"
            "load printers = no\ndisable spoolss = yes\nmap to guest = bad user\ndos charset = ASCII\n"
            f"logging = file\nlog file = /vm/smbd.log\ninclude = {made}\n")

    def setUp(self):
        kind = machine.kit.KINDS[os.environ["VY_VM_MACHINE"]]
        self.devices = self.devices + (f"-drive if=none,id=samba,format=raw,readonly=on,file={kind.samba_disk}",
                                       "-device virtio-blk-pci,drive=samba")
        super().setUp()

    def prepare_server(self):
        self.vm.run(f"sh /vm/load disk && mount -t ext4 -o ro /dev/vda /{SAMBA_DISK}")
        self.vm.run("mkdir -p /etc/samba /run/samba /var/log/samba /var/cache/samba /var/lib/samba/private")
        self.vm.write("/etc/samba/smb.conf", self.conf)
        for name in access_matrix.USERS:
            self.vm.run(f"printf '{PASSWORD}\\n{PASSWORD}\\n' | smbpasswd -s -a {name}")

    def run_server(self):
        self.start("smbd", "smbd --foreground --no-process-group")
