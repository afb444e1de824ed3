#!/usr/bin/python3
"""Plugs a stick in, looks at what the service makes of it, and pulls it. Run by ./demo in a private world."""

import os
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))
import samba_world  # noqa: E402
import vyworld  # noqa: E402

PROGRAMS = os.environ["VY_BIN"]
LIMIT = 30


def say(text=""):
    print(text, flush=True)


def chapter(text):
    say()
    say(f"== {text}")


def show(text):
    for line in text.splitlines():
        say("   " + line)


def run(*command):
    say("$ " + " ".join(command))
    done = subprocess.run([os.path.join(PROGRAMS, command[0]), *command[1:]], check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    show(done.stdout)


def wait_for(what, condition):
    return vyworld.testkit.wait_until(what, condition, LIMIT)


def show_mounts():
    table = vyworld.read(vyworld.MOUNT_TABLE)
    show("/etc/mtab:  " + (table.strip() or "(empty)"))
    for mount in vyworld.mounts():
        files = ", ".join(sorted(set(os.listdir(mount.directory)) - {"lost+found"}))
        show(f"the kernel: {mount.directory} is {mount.type} and holds: {files}")


class Surroundings:
    """What stands around the service on an appliance: configuration, hook, file-sharing service."""

    def __init__(self, **changes):
        for folder in (vyworld.CONFIG_DIR, vyworld.DEVICE_DIR, vyworld.MOUNT_DIR):
            os.mkdir(folder)
        config = {"smbconfigpath": vyworld.SHARE_FILE, "deviceconfigpath": vyworld.DEVICE_FILE,
                  "mountpath": vyworld.MOUNT_DIR, "devicepath": vyworld.DEVICE_DIR,
                  "mountfs": "fat,ntfs,ext", "defaultuid": "1000", **changes}
        vyworld.write(vyworld.CONFIG, "".join(f"{key} = {value}\n" for key, value in config.items()))
        vyworld.write(vyworld.HOOK, f'#!/bin/sh\necho "hook: $1 $2" >> {vyworld.HOOK_RECORD}\n', 0o755)
        self.log = vyworld.SystemLog()
        self.service = vyworld.ShareService()
        wait_for("the file-sharing service", lambda: os.path.exists(vyworld.SERVICE_PID_FILE))
        self.daemon = subprocess.Popen([os.path.join(PROGRAMS, "vyhotplugd"), "-d", "-f", vyworld.CONFIG],
                                       stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.wait_for_reload(1)

    def wait_for_reload(self, count):
        wait_for("a signal to the file-sharing service", lambda: self.service.count() >= count)

    def reloads(self):
        return self.service.count()

    def refresh(self):
        """Has the daemon look at its files again."""
        reloads = self.reloads()
        self.daemon.send_signal(1)
        self.wait_for_reload(reloads + 1)

    def end_service(self):
        self.service.process.kill()
        self.service.process.wait()

    def end(self):
        self.daemon.terminate()
        status = self.daemon.wait(LIMIT)
        self.end_service()
        return status


class Samba:
    """A Samba on this world's own loopback, and the bridge that feeds it."""

    def __init__(self):
        for name in ("log", "lock", "state", "cache", "private", "pid", "ncalrpc"):
            os.makedirs(f"{samba_world.SAMBA}/{name}")
        for path in (samba_world.SMB_CONF, samba_world.INCLUDE, "/var/log/samba/any"):
            os.makedirs(os.path.dirname(path), exist_ok=True)
        vyworld.write(samba_world.SMB_CONF, f"{samba_world.GLOBAL}\ninclude = {samba_world.INCLUDE}\n")
        os.unlink(vyworld.SERVICE_PID_FILE)
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.processes = [
            subprocess.Popen([os.path.join(PROGRAMS, "vynas-samba"), "-f", vyworld.CONFIG], **quiet),
            # Of a session of its own: it ends its whole process group when it ends.
            subprocess.Popen(["smbd", "--foreground", "--no-process-group"], start_new_session=True, **quiet)]
        wait_for("Samba's answer", lambda: self.client("-L", "//127.0.0.1").returncode == 0)

    @staticmethod
    def client(*arguments):
        return subprocess.run(["smbclient", "-N", *arguments], check=False, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def shares(self):
        lines = self.client("-g", "-L", "//127.0.0.1").stdout.splitlines()
        return [line.split("|")[1] for line in lines if line.startswith("Disk|")]

    def end(self):
        for process in self.processes:
            process.terminate()
            process.wait(LIMIT)


def share_on_the_network(around, partition):
    chapter("It is plugged in again, on a machine with Samba")
    missing = [program for program in samba_world.NEEDED if shutil.which(program) is None]
    if missing:
        say(f"   skipped: {', '.join(missing)} not installed")
        return
    run("vyhotplugctl", "unset", "Holiday", "full")
    run("vyhotplugctl", "set", "Holiday", "guest=yes")
    around.end_service()
    samba = Samba()
    partition.lay_node()
    vyworld.send(partition.add_message())
    wait_for("the share on the network", lambda: "Holiday" in samba.shares())
    for command in (["-L", "//127.0.0.1"], ["//127.0.0.1/Holiday", "-c", "get holiday.txt -"]):
        say("$ smbclient -N " + " ".join(command))
        show(samba.client(*command).stdout)
    samba.end()


def make_stick():
    """Two partitions of a stick as the kernel would show them."""
    partitions = []
    for name, filesystem, files in (("sda1", "ext4", {"holiday.txt": "sun\n", "report.txt": "done\n"}),
                                    ("sda2", "ntfs", {"music.txt": "la la\n"})):
        partition = vyworld.Partition(name, SID="AC0042")
        image = f"/tmp/{name}.image"
        vyworld.make_image(image, filesystem, files)
        partition.loop = vyworld.LoopDevice(image)
        partition.lay_node()
        partitions.append(partition)
    return partitions


def main():
    around = Surroundings()
    sticks = make_stick()
    first = sticks[0]

    chapter("A stick with an ext4 and an NTFS partition is plugged in; the hotplug agent says so")
    reloads = around.reloads()
    for partition in sticks:
        show(partition.add_message())
        vyworld.send(partition.add_message())
    say("   (the service gives a new disk 2 seconds to settle)")
    wait_for("both partitions mounted",
             lambda: set(vyworld.mounted_names()) >= {partition.name for partition in sticks})
    around.wait_for_reload(reloads + 1)

    chapter("Both are mounted, and the administrator's hook was called")
    show_mounts()
    show(vyworld.read(vyworld.HOOK_RECORD))

    chapter(f"The file-sharing service got its share file ({vyworld.SHARE_FILE}) and a SIGHUP")
    show(vyworld.read(vyworld.SHARE_FILE))

    chapter("What is there?")
    run("vyhotplugctl")
    run("vyhotplugctl", "show", "sda1")

    chapter("The administrator names the share, and a user who may write")
    run("vyhotplugctl", "set", "sda1", "share=Holiday", "full=root,daemon")
    wait_for("the new name", lambda: "[Holiday]" in vyworld.read(vyworld.SHARE_FILE))
    say("   shares are now: " + " ".join(line for line in vyworld.read_lines(vyworld.SHARE_FILE)
                                         if line.startswith("[")))

    chapter("Unmount one partition, and mount it again")
    with open(first.directory + "/holiday.txt", encoding="utf-8"):
        say("(a program reads holiday.txt)")
        run("vyhotplugctl", "unmount", "Holiday")
    run("vyhotplugctl", "unmount", "Holiday")
    show_mounts()
    first.lay_node()  # on an appliance the node is made anew for the device; here it leads to a loop device
    run("vyhotplugctl", "mount", "Holiday")
    show_mounts()

    chapter("The stick is pulled")
    for partition in sticks:
        show(partition.remove_message())
        vyworld.send(partition.remove_message())
    wait_for("nothing mounted", lambda: not vyworld.mounts())
    wait_for("no shares", lambda: not vyworld.read(vyworld.SHARE_FILE))
    wait_for("the unused record forgotten",
             lambda: sticks[1].identifier not in vyworld.read(vyworld.DEVICE_FILE))
    show_mounts()
    show(f"{vyworld.SHARE_FILE}: " + (vyworld.read(vyworld.SHARE_FILE).strip() or "(no shares)"))
    show("remembered for the next time, because the administrator named it: " + ", ".join(
        line for line in vyworld.read_lines(vyworld.DEVICE_FILE) if line.startswith("[")))

    chapter("What the service logged")
    for line in around.log.lines:
        if line.program == "vyhotplugd":
            show(line.raw)

    share_on_the_network(around, first)
    status = around.end()
    say()
    say(f"The daemon ended with status {status}. Nothing on this machine was touched.")
    return status


if __name__ == "__main__":
    sys.exit(main())
