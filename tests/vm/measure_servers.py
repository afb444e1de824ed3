"""Samba and ksmbd with the service, and Samba behind udisks2 and udiskie, side by side in one virtual machine: what they keep
in memory, how long a stick takes from its plug to the first byte that a client reads, and how long the usual jobs take.

All three run in a Debian that lies on a disk, one after the other in each round. Times are of the machine that the script runs
on, where the client is; what happens in the guest is told by its own clock, set against that one before each plug.
"""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

import kit
import machine
from machine import CONFIG
from media import Filesystem, make_disk
from servers import NETWORK, PASSWORD, free_port

PACKAGES = "samba,udisks2,udiskie,dbus,udev,psmisc,procps"
ROOT = "/debian"  # where it is mounted before it becomes the root
MEMORY = 768  # MB
LIMIT = 240  # seconds
FILE = "readme.txt"
CONTENT = "hello\n"
LABEL = "MUSIC"
USERS = {"anna": 5001, "ben": 5002}
# The service's, by design: of an add message; of the hook, and before a refresh.
ADD_WAIT, REFRESH_WAIT = 2, 0.2 + 1.2

SETTINGS = f"""
smbconfigpath = /run/vyhotplugd/files/vynas.dir.conf
deviceconfigpath = /run/vyhotplugd/files/hotplug.dev.conf
mountpath = /media/vyhotplug
devicepath = /dev/vyhotplug
defaultuid = {USERS["anna"]}
defaultgid = 100
defaultfilepermission = 640
defaultdirectorypermission = 750
"""
GLOBAL = """[global]
server role = standalone server
netbios name = BOX
smb ports = 445
disable netbios = yes
load printers = no
disable spoolss = yes
map to guest = bad user
logging = file
log file = /var/log/samba/smbd.log
usershare path = /var/lib/samba/usershares
usershare max shares = 100
usershare owner only = no
"""
KSMBD = "[global]\n\tguest account = nobody\n"
BUS = """<busconfig><type>system</type><listen>unix:path=/run/dbus/system_bus_socket</listen>
<auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
<allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/></policy></busconfig>
"""
# Once, by hand: what udisks mounts is root's, below a directory that is closed to others; the stick is to be anna's here, too.
MOUNT_OPTIONS = f"""[defaults]
vfat_defaults=uid={USERS["anna"]},gid=100,shortname=mixed,utf8=1,showexec,flush,umask=0027
vfat_allow=uid={USERS["anna"]},gid=100,flush,utf8,shortname,umask,dmask,fmask,codepage,iocharset,usefree,showexec
"""

# Tells when the kernel's mount table changes, without looking again and again.
MOUNT_WATCH = """import select, time
table = open("/proc/self/mountinfo")
poll = select.poll()
poll.register(table, select.POLLPRI | select.POLLERR)
had = None
while True:
    table.seek(0)
    has = any(" /media/" in line for line in table)
    if has != had:
        print(f"{time.monotonic():.3f} {'mounted' if has else 'none'}", flush=True)
    had = has
    poll.poll()
"""
MEMORY_OF_ALL = r"""for place in /proc/[0-9]*; do
    sum=$(awk '/^Pss:/ { pss = $2 } /^Private_/ { own += $2 } END { print pss + 0, own + 0 }' $place/smaps_rollup 2>/dev/null)
    [ "${sum:-0 0}" = "0 0" ] || echo "$(cat $place/comm) $sum"
done"""


# ---- the Debian on a disk ----


def debian_image(kind):
    """A Debian with Samba, udisks2 and udiskie, as a filesystem; made once."""
    image = os.path.join(kind.folder, "debian.img")
    if not os.path.exists(image):
        kit.say("downloading a Debian")
        with tempfile.TemporaryDirectory(dir=kind.folder) as folder:
            kit.run("debootstrap", "--variant=minbase", f"--include={PACKAGES}", "bookworm", folder + "/root", kit.archive())
            kit.run("mkfs.ext4", "-q", "-O", "^has_journal", "-d", folder + "/root", image + ".part", "1200M")
        os.rename(image + ".part", image)
    return image


def boot(kind, folder, port):
    """A machine whose commands run in the Debian."""
    machine.MEMORY = MEMORY
    vm = machine.Machine(kind.name, folder, machine.USB + (
        f"-netdev user,id=net,hostfwd=tcp:127.0.0.1:{port}-:445", "-device e1000,netdev=net,romfile=",
        f"-drive if=none,id=debian,format=raw,snapshot=on,file={debian_image(kind)}", "-device virtio-blk-pci,drive=debian"))
    vm.boot()
    vm.run(f"sh /vm/load disk; {NETWORK}; sh /vm/load ksmbd; mkdir {ROOT} && mount -t ext4 /dev/vda {ROOT}")
    vm.run(f"for place in proc sys dev; do mount -o bind /$place {ROOT}/$place; done; mount -t tmpfs run {ROOT}/run; "
           f"mkdir -p {ROOT}/run/lock {ROOT}/dev/pts; mount -t tmpfs tmp {ROOT}/tmp")
    # The server in the kernel has the first filesystem's root: what is mounted below /media is to be there, too.
    vm.run(f"mkdir /media; mount -o bind {ROOT}/media {ROOT}/media && mount --make-shared {ROOT}/media && "
           f"mount -o bind {ROOT}/media /media")
    for place in (*kit.PROGRAMS, *(name for name in kit.LINKS if name.startswith("usr/")), "ksmbd", "vm",
                  *(f"usr/sbin/ksmbd.{name}" for name in kit.SERVER_PROGRAMS), "etc/vyhotplugd"):
        vm.run(f"mkdir -p {ROOT}/{os.path.dirname(place)} && cp -a /{place} {ROOT}/{place}")
    vm.exchange(f"exec chroot {ROOT} /bin/bash -c 'echo in Debian; exec /bin/bash'", rb"in Debian\n")
    vm.run("export PATH=/usr/libexec/vyhotplugd:/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8")
    return vm


class Guest:
    """The machine, with what all alternatives need."""

    def __init__(self, kind, folder):
        self.folder = folder
        self.port = free_port()
        self.vm = boot(kind, folder, self.port)
        self.image = make_disk(os.path.join(folder, "stick.img"), Filesystem("fat32", LABEL, {FILE: CONTENT}))
        self.plugged = 0
        self.prepare()

    def prepare(self):
        run, write = self.vm.run, self.vm.write
        run("mkdir -p -m 755 /media/root; mkdir -p /srv /run/dbus /run/udisks2 /var/lib/samba/usershares /etc/ksmbd /run/samba; chmod 1777 /srv /tmp; "
            "chmod 1770 /var/lib/samba/usershares; ln -sfn ../run /var/run; : >/etc/fstab; ln -sf /proc/self/mounts /etc/mtab")
        for name, number in USERS.items():
            run(f"echo {name}:x:{number}:100::/srv:/bin/sh >>/etc/passwd")
        write("/etc/samba/smb.conf", GLOBAL)
        write("/etc/ksmbd/ksmbd.conf", KSMBD)
        write(CONFIG, SETTINGS.lstrip())
        write("/etc/vyhotplugd/evhook", "#!/bin/sh\nexit 0\n", 0o755)
        write("/etc/udisks2/mount_options.conf", MOUNT_OPTIONS)
        write("/run/bus.conf", BUS)
        write("/vm/mount-watch", MOUNT_WATCH)
        for name in USERS:
            run(f"printf '{PASSWORD}\\n{PASSWORD}\\n' | smbpasswd -s -a {name} && ksmbd.adduser -a {name} -p {PASSWORD}")
        self.start("log", "/vm/guest log")
        self.start("watch", "python3 /vm/mount-watch")
        self.start("udevd", "/lib/systemd/systemd-udevd")  # in every Debian, whatever mounts
        run("udevadm trigger; udevadm settle")

    def start(self, name, command):
        self.vm.run(f"setsid {command} >>/vm/{name}.out 2>&1 &")

    def wait(self, what, command):
        """Until a command succeeds in the guest."""
        if self.vm.attempt(f"(for i in $(seq {LIMIT * 10}); do {command} && exit 0; sleep 0.1; done; exit 1)", LIMIT + 10)[0] != 0:
            raise RuntimeError(f"{what} does not come")

    def end(self, *names):
        """Ends programs, and waits for their end."""
        for name in names:
            self.vm.attempt(f"pkill -x {name[:15]}")
        for name in names:
            self.wait(f"the end of {name}", f"! pgrep -x {name[:15]} >/dev/null")

    def clock(self):
        """What is to be added to the guest's seconds, so that they are this machine's."""
        offsets = []
        for _ in range(5):
            before = time.monotonic()
            told = float(self.vm.run("read now _ </proc/uptime; echo $now"))
            offsets.append((time.monotonic() - before, (time.monotonic() + before) / 2 - told))
        return min(offsets)[1]

    def plug(self):
        self.plugged += 1
        began = time.monotonic()
        self.vm.plug(f"stick{self.plugged}", self.image, serial="MUSIC")
        return began

    def pull(self):
        self.vm.pull(f"stick{self.plugged}")
        self.wait("the end of the mount", "! grep -q ' /media/' /proc/mounts")

    def log_time(self, since, pattern):
        """The guest's seconds of the first such line behind `since`."""
        for line in self.vm.run("cat /vm/log").splitlines():
            found = re.match(r"([\d.]+) ", line)
            if found and float(found[1]) > since and re.search(pattern, line):
                return float(found[1])
        raise RuntimeError(f"no line {pattern}")

    def kernel_time(self, since):
        """When it had read the partition table."""
        for line in self.vm.run("dmesg | grep ' sda: sda1'").splitlines():
            seconds = float(re.search(r"\[ *([\d.]+)\]", line)[1])
            if seconds > since - 0.1:
                return seconds
        raise RuntimeError("no partition")

    def mount_time(self, since):
        for line in self.vm.run("cat /vm/watch.out").splitlines():
            seconds, word = line.split()
            if float(seconds) > since and word == "mounted":
                return float(seconds)
        raise RuntimeError("no mount")


# ---- a client ----


class Client:
    """Connected to the server, and asking for shares by and by."""

    def __init__(self, guest, user):
        self.folder = tempfile.mkdtemp(dir=guest.folder)
        self.asked = 0
        self.command = ["smbclient", "//127.0.0.1/IPC$", "-p", str(guest.port), "-U", f"{user}%{PASSWORD}", "-t", "60"]
        self.connect()

    def connect(self):
        end = time.monotonic() + LIMIT
        while True:
            far, self.near = os.pipe2(os.O_DIRECT)  # a line is a packet: it reads one at a time, and waits for the next
            self.process = subprocess.Popen(self.command, stdin=far, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                            cwd=self.folder)
            os.close(far)
            try:
                self.ask("pwd")
                return
            except BrokenPipeError:
                self.close()
            if time.monotonic() > end:
                raise RuntimeError("the server does not answer")
            time.sleep(0.5)

    def ask(self, *commands):
        """What it says to these."""
        self.asked += 1
        mark = f"asked-{self.asked}"
        for command in (*commands, f"!echo {mark}"):
            os.write(self.near, f"{command}\n".encode())
        said = b""
        while f"{mark}\n".encode() not in said:
            more = os.read(self.process.stdout.fileno(), 1 << 16)
            if not more:
                raise BrokenPipeError(said)
            said += more
        return said.decode("utf-8", "replace")

    def reads(self, share):
        place = os.path.join(self.folder, "got")
        if os.path.exists(place):
            os.unlink(place)
        self.ask(f'tcon "{share}"', f"get {FILE} {place}")
        return os.path.exists(place) and os.path.getsize(place) == len(CONTENT)

    def writes(self, share):
        with open(os.path.join(self.folder, "put"), "w", encoding="ascii") as file:
            file.write("written\n")
        return "NT_STATUS" not in self.ask(f'tcon "{share}"', "put put put")

    def until(self, look, share):
        """When it succeeded. ksmbd ends the connection of who asks for a share that is not there."""
        end = time.monotonic() + LIMIT
        while not look(share):
            if time.monotonic() > end:
                raise RuntimeError(f"{share} is not served")
            if "CONNECTION" in self.ask("tdis"):
                self.close()
                self.connect()
            time.sleep(0.1)
        return time.monotonic()

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.near)
        self.process.stdout.close()


# ---- what is compared ----


class Samba:
    """Samba with the service."""

    name = "Samba"
    share = f"{LABEL}(A1)"
    bridge, extra = "vynas-samba", ""
    serving = ("smbd",)
    mounting = ("vyhotplugd", "vyhotplug-agent", "vynas-samba")
    parts = ("kernel, agent", "mount", "refresh, bridge", "server")
    written = "grep -c 'bridge.* is written' /vm/log"

    def start(self, guest):
        guest.vm.run(f"vyhotplug-prepare -f {CONFIG}; vyhotplugd -f {CONFIG}")
        self.start_server(guest)
        guest.start("bridge", f"{self.bridge} -f {CONFIG} -c /etc/none.conf")
        guest.wait("the bridge", "[ -s /run/vynas-fssd.pid ]")
        guest.start("agent", "vyhotplug-agent --monitor")

    def start_server(self, guest):
        guest.vm.write("/etc/samba/smb.conf", GLOBAL + "include = /run/vynas-samba/shares.conf\n")
        guest.start("smbd", "smbd --foreground --no-process-group")

    def stop(self, guest):
        guest.end("vyhotplug-agent", self.bridge, "vyhotplugd")
        self.stop_server(guest)

    def stop_server(self, guest):
        guest.end("smbd")
        guest.vm.run("rm -f /run/vynas-fssd.pid")

    def moments(self, guest, since):
        """The ends of all parts but the last, in the guest's seconds."""
        return [guest.log_time(since, r"sda1 \(8:1\) is announced"), guest.log_time(since, r"daemon\(\d+\)mount "),
                guest.log_time(since, r"bridge\(\d+\).* is written")]

    def less(self, times):
        """Seconds of each part, less the waits."""
        return [times[0], times[1] - ADD_WAIT, times[2] - REFRESH_WAIT, times[3]]

    def when_shared(self, guest):
        """The command that succeeds when the server is to know of the next stick."""
        return f"[ $({self.written}) -gt {guest.vm.attempt(self.written)[1].strip()} ]"

    def module(self, _):
        return {}


class Ksmbd(Samba):
    name = "ksmbd"
    bridge = "vynas-ksmbd"
    serving = ("ksmbd.mountd",)
    mounting = ("vyhotplugd", "vyhotplug-agent", "vynas-ksmbd")

    def start_server(self, guest):
        guest.vm.attempt(f"{self.bridge} -f {CONFIG} -c /etc/none.conf --once")
        guest.vm.run("ksmbd.mountd --config=/run/vynas-ksmbd/ksmbd.conf")

    def stop_server(self, guest):
        guest.vm.attempt("ksmbd.control -s")
        guest.vm.attempt("pkill -f ksmbd.tools; rm -f /run/ksmbd.lock /run/vynas-fssd.pid")
        guest.wait("the end of ksmbd", "! pgrep -f ksmbd.tools >/dev/null")

    def module(self, guest):
        size = guest.vm.run("awk '$1 == \"ksmbd\" { print $2 }' /proc/modules")
        return {"the module": int(size) // 1024}


class Udisks:
    """Samba behind udisks2 and udiskie, the stick's directory in smb.conf."""

    name = "udisks2 and udiskie"
    share = "stick"
    serving = Samba.serving
    mounting = ("udisksd", "udiskie", "dbus-daemon")
    parts = ("kernel", "mount", "server")

    def start(self, guest):
        guest.vm.write("/etc/samba/smb.conf", GLOBAL + f"[stick]\npath = /media/root/{LABEL}\nread only = no\n")
        guest.vm.run("rm -f /run/dbus/pid")
        guest.start("bus", "dbus-daemon --config-file=/run/bus.conf --nofork --nopidfile")
        guest.wait("the bus", "[ -S /run/dbus/system_bus_socket ]")
        guest.start("udisks", "/usr/libexec/udisks2/udisksd")
        guest.wait("udisksd", "udisksctl status >/dev/null 2>&1")
        guest.start("udiskie", "env HOME=/root udiskie --no-notify --no-tray --no-file-manager")
        guest.wait("udiskie", "pgrep -x udiskie >/dev/null")
        guest.start("smbd", "smbd --foreground --no-process-group")
        time.sleep(20)  # udiskie says nothing when it is ready

    def stop(self, guest):
        guest.end("udiskie", "udisksd", "dbus-daemon", "smbd")

    def moments(self, guest, since):
        return [guest.kernel_time(since), guest.mount_time(since)]

    def less(self, times):
        return times

    def when_shared(self, _):
        return "grep -q ' /media/' /proc/mounts"

    def module(self, _):
        return {}


# The usual jobs: what is typed, and who is asked whether it holds: nobody, a client that is to read or write, or the guest.
IDENTITY = f"46f4:0001:{LABEL}:1"
DIRECTORY = f"/media/root/{LABEL}"
ADD = f'net usershare add music {DIRECTORY} ""'
UNMOUNTED = "! grep -q ' /media/' /proc/mounts"
GONE = "[ ! -e /sys/block/sda ]"
JOBS = {
    Samba.name: (
        ("see what is plugged, mounted, shared", "vyhotplugctl", None),
        ("share it as Music, for anna to write", "vyhotplugctl set sda1 share=Music full=anna", ("anna", Client.writes)),
        ("let ben read, too", "vyhotplugctl set Music readers=ben", ("ben", Client.reads)),
        ("find out who holds it", "vyhotplugctl who Music", None),
        ("unmount it", "vyhotplugctl unmount Music", UNMOUNTED),
        (None, "vyhotplugctl mount sda1", ("anna", Client.reads)),
        ("take it out", "vyhotplugctl eject Music", GONE),
        (None, f"vyhotplugctl forget {IDENTITY}", None)),
    Udisks.name: (
        ("see what is plugged, mounted, shared", "udisksctl status; lsblk; net usershare info", None),
        # Users are looked up by a helper of Samba's that takes longer to start here than is waited for it.
        (None, "until net usershare add warm /srv '' anna:f; do sleep 1; done; net usershare delete warm", None),
        ("share it as Music, for anna to write", f"{ADD} anna:f", ("anna", Client.writes)),
        ("let ben read, too", f"{ADD} anna:f,ben:r", ("ben", Client.reads)),
        ("find out who holds it", f"fuser -vm {DIRECTORY}; smbstatus", None),
        ("unmount it", "net usershare delete music; udisksctl unmount -b /dev/sda1", UNMOUNTED),
        (None, f"udisksctl mount -b /dev/sda1 && {ADD} anna:f,ben:r", ("anna", Client.reads)),
        ("take it out", "net usershare delete music; udiskie-umount --detach /dev/sda1", GONE)),
}

ALTERNATIVES = (Samba(), Ksmbd(), Udisks())


def memory(guest, alternative):
    """kB by program: the proportional share, and what is its own."""
    found = {}
    for line in guest.vm.run(MEMORY_OF_ALL).splitlines():
        name, pss, own = line.rsplit(" ", 2)
        name = {"smbd-notifyd": "smbd", "cleanupd": "smbd", "ld-linux-x86-64": "ksmbd.mountd"}.get(name, name)
        before = found.get(name, (0, 0))
        found[name] = (before[0] + int(pss), before[1] + int(own))
    del found["bash"]
    return {"programs": found, **alternative.module(guest)}


def plug_once(guest, alternative):
    """Seconds of each part, and of all."""
    client = Client(guest, "anna")
    offset = guest.clock()
    shared = alternative.when_shared(guest)
    began = guest.plug()
    guest.wait(alternative.share, shared)
    byte = client.until(client.reads, alternative.share)
    ends = [moment + offset for moment in alternative.moments(guest, began - offset)] + [byte]
    times = [after - before for before, after in zip([began, *ends], ends)]
    kept = memory(guest, alternative)
    client.close()
    guest.pull()
    time.sleep(6)  # the service has forgotten it
    return times, kept


def hold(guest, job, clients):
    """Seconds until the command came back, and until what it is for was true."""
    name, command, look = job
    if name == "find out who holds it":
        clients["anna"].ask('tcon "Music"', f"open {FILE}")
    if look in (UNMOUNTED, GONE):  # nobody is connected
        for user in list(clients):
            clients.pop(user).close()
        time.sleep(3)
    began = time.monotonic()
    status, said = guest.vm.attempt(command)
    ended = held = time.monotonic()
    if status != 0:
        raise RuntimeError(f"{command}: {status}: {said}")
    if isinstance(look, str):
        guest.wait(command, look)
        held = time.monotonic()
    elif look:
        user, question = look
        if user not in clients:
            clients[user] = Client(guest, user)
        held = clients[user].until(lambda share: question(clients[user], share), "Music")
    return ended - began, held - began


def do_jobs(guest, alternative):
    clients = {user: Client(guest, user) for user in USERS}
    guest.plug()
    clients["anna"].until(clients["anna"].reads, alternative.share)
    clients["anna"].close()  # it is in the share
    clients["anna"] = Client(guest, "anna")
    found = {}
    for job in JOBS[alternative.name]:
        times = hold(guest, job, clients)
        if job[0]:
            found[job[0]] = times
            kit.say(f"{alternative.name}: {job[0]}: {times[0]:.2f} {times[1]:.2f}")
    for client in clients.values():
        client.close()
    guest.pull()
    time.sleep(3)
    return found


def measure_jobs(guest, rounds, results):
    for _ in range(rounds):
        for alternative in (Samba(), Udisks()):
            alternative.start(guest)
            results[alternative.name].setdefault("jobs", []).append(do_jobs(guest, alternative))
            alternative.stop(guest)


def measure(guest, rounds, plugs, results):
    for _ in range(rounds):
        for alternative in ALTERNATIVES if plugs else ():
            alternative.start(guest)
            for _ in range(plugs):
                times, kept = plug_once(guest, alternative)
                results[alternative.name]["plugs"].append(times)
                results[alternative.name]["memory"].append(kept)
                kit.say(f"{alternative.name}: {' '.join(f'{part:.2f}' for part in times)}; {kept}")
            alternative.stop(guest)


def tell_memory(alternative, runs):
    for names in (alternative.serving, alternative.mounting):
        for name in names:
            pss, own = zip(*(run["programs"][name] for run in runs))
            kit.say(f"{alternative.name}: {name}: Pss {statistics.median(pss)} kB, private {statistics.median(own)} kB")


def tell(results):
    for alternative in ALTERNATIVES:
        runs = results[alternative.name]["plugs"]
        sums = [sum(times) for times in runs]
        less = [alternative.less(times) for times in runs]
        for job in results[alternative.name].get("jobs", [{}])[0]:
            ended, held = zip(*(run[job] for run in results[alternative.name]["jobs"]))
            kit.say(f"{alternative.name}: {job}: {statistics.median(held):.2f} s ({min(held):.2f} to {max(held):.2f}), "
                    f"the command {statistics.median(ended):.2f}")
        if not runs:
            continue
        tell_memory(alternative, results[alternative.name]["memory"])
        kit.say(f"{alternative.name}: {statistics.median(sums):.2f} s ({min(sums):.2f} to {max(sums):.2f}), less the waits "
                f"{statistics.median(sum(times) for times in less):.2f}: " + ", ".join(
                    f"{name} {statistics.median(part):.2f}" for name, part in zip(alternative.parts, zip(*less))))


def main():
    parser = argparse.ArgumentParser(prog="tests/vm/measure-servers")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--plugs", type=int, default=3, help="in a round, of each")
    parser.add_argument("--no-build", dest="build", action="store_false", help="with what was built last")
    parser.add_argument("--jobs", type=int, default=3, help="rounds of the usual jobs")
    parser.add_argument("--results", default=os.path.join(kit.PROJECT, "build", "vm-servers.json"))
    options = parser.parse_args()
    kind = kit.prepare("server", options.build)
    folder = os.path.join(kit.PROJECT, "build", "vm-servers")
    os.makedirs(folder, exist_ok=True)
    guest = Guest(kind, folder)
    results = {alternative.name: {"plugs": [], "memory": []} for alternative in ALTERNATIVES}
    try:
        measure(guest, options.rounds, options.plugs, results)
        measure_jobs(guest, options.jobs, results)
    except BaseException:
        kit.say(guest.vm.attempt("tail -n 40 /vm/log; tail -n 5 /vm/*.out; cat /proc/mounts; ps ax")[1])
        raise
    finally:
        guest.vm.close()
        with open(options.results, "w", encoding="utf-8") as file:
            json.dump(results, file, indent=1)
    tell(results)
    return 0


if __name__ == "__main__":
    sys.exit(main())
