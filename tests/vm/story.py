"""Plugs a stick in, looks at what the service makes of it, and pulls it: see story."""

import re
import sys
import tempfile

import kit
from kit import testkit
import machine
import media
from machine import CONFIG, DEVICE_FILE, LIMIT, SHARE_FILE, Machine
from media import Filesystem
from state import place_of

say = kit.say


def chapter(text):
    say(f"\n== {text}")


def show(text):
    for line in text.splitlines():
        say("   " + line)


class Story:
    def __init__(self, kind, folder):
        self.folder = folder
        self.vm = Machine(kind, folder, machine.USB)

    def shell(self, command):
        """What somebody at the machine would type."""
        say("# " + command)
        show(self.vm.attempt(command)[1])

    def wait_for(self, what, condition):
        def look():
            state = self.vm.state()
            return condition(state) and state

        return testkit.wait_until(what, look, LIMIT, machine.STEP)

    def show_mounts(self):
        state = self.vm.state()
        show("/etc/mtab:  " + (state.table.strip().replace("\n", "\n            ") or "(empty)"))
        for mount in state.mounts:
            files = " ".join(self.vm.run(f"ls {mount.directory}").split())
            show(f"the kernel: {mount.directory} is {mount.type}, device {mount.device}, and holds: {files}")

    def start(self):
        self.vm.boot()
        show(self.vm.run("uname -srm").strip() + f", {machine.MEMORY} MB of memory, under QEMU")
        for command in ("/vm/guest log", "/vm/guest share-service"):
            self.vm.run(f"setsid {command} >/dev/null 2>&1 &")
        self.vm.run("until [ -S /dev/log ] && [ -e /var/run/vynas-fssd.pid ]; do sleep 0.05; done")
        self.vm.run("insmod /modules/exfat.ko")
        self.shell(f"echo 'otherfs = exfat' >>{CONFIG}; echo 'labels = all' >>{CONFIG}")
        self.shell(f"vyhotplug-prepare -f {CONFIG}")
        self.shell(f"vyhotplugd -f {CONFIG}")
        say("# vyhotplug-agent --monitor --by-share &")
        self.vm.run("setsid vyhotplug-agent --monitor --by-share >/dev/null 2>&1 &")
        self.wait_for("the first signal to the file-sharing service", lambda state: state.signals)

    def tell(self):
        chapter("A machine of its own starts, and the service in it")
        self.start()
        stick = media.make_disk(
            self.folder + "/stick.img",
            Filesystem("fat32", "HOLIDAY", {"sun.txt": "sun\n", "sea.txt": "sea\n"}),
            Filesystem("ext4", "WORK", {"report.txt": "done\n"}), Filesystem("ntfs", "Musik", {"song.txt": "la la\n"}),
            Filesystem("exfat", "Video"), Filesystem("swap"), logical=2)

        chapter("A stick with FAT, ext4, NTFS, exFAT and a swap area is plugged in; the kernel finds it")
        signals = self.vm.state().signals
        self.vm.plug("stick", stick, serial="AC0042", vendor="Acme", product="FlashKey")
        self.wait_for("the stick's partitions", lambda state: "sda6" in state.kernel)
        show(self.vm.run("dmesg | grep -E 'usb [0-9]-|sd [0-9]|sda' | tail -n 12"))
        say("   (the agent has told the service, which gives a new disk 2 seconds to settle)")
        state = self.wait_for("four mounts and a signal", lambda now: len(now.mounts) == 4 and now.signals > signals)

        chapter("All but one are mounted, and the administrator's hook was called")
        self.show_mounts()
        for call in state.hook_calls():
            show("hook: " + call)

        chapter("The file-sharing service got its share file and a SIGHUP")
        self.shell(f"cat {SHARE_FILE}")

        chapter("Each share has a name that stays, and what is not mounted has a reason")
        self.wait_for("the reason", lambda _: self.vm.attempt("[ -s /run/vyhotplugd/not-mounted ]")[0] == 0)
        self.shell("cd /media/vyhotplug/by-share && ls -l | sed 's/.* 1970 //; s/.*[0-9][0-9]:[0-9][0-9] //'")
        self.shell("cat /run/vyhotplugd/not-mounted")

        chapter("What does the service know?")
        self.shell("vyhotpluginfo -l")
        self.shell("vyhotpluginfo 46f4:0001:AC0042:1")

        chapter("The administrator names the share, in the device file")
        self.shell(f"sed -i '2s/.*/Share Name=Holiday/' {DEVICE_FILE}")
        self.shell("kill -HUP $(cat /var/run/vyhotplugd.pid)  # look at the files again")
        state = self.wait_for("the share's name", lambda now: "[Holiday]" in now.shares)
        show("shares are now: " + " ".join(re.findall(r"^\[.*\]$", state.shares, re.MULTILINE)))

        chapter("Unmount one partition, and mount it again")
        self.shell("vyunmount sda1")
        self.show_mounts()
        self.shell("vymount sda1")
        self.show_mounts()

        chapter("The stick is pulled, while a file on it is open")
        self.vm.run(f"sleep 600 <{place_of('sda2')}/report.txt &")
        self.vm.pull("stick")
        self.wait_for("nothing mounted, nothing shared", lambda now: not now.mounts and not now.shares)
        self.wait_for("the unused records forgotten", lambda now: "AC0042:2" not in now.devices)
        self.show_mounts()
        self.shell("ls -A /media/vyhotplug /dev/vyhotplug")
        self.shell(f"grep -A1 '^.46f4' {DEVICE_FILE}  # remembered, because the administrator named it")

        chapter("The stick is plugged in again: it has its name back")
        self.vm.plug("stick", stick, serial="AC0042", vendor="Acme", product="FlashKey")
        state = self.wait_for("four shares", lambda now: len(now.sections()) == 4)
        show("shares are now: " + " ".join(re.findall(r"^\[.*\]$", state.shares, re.MULTILINE)))

        chapter("What was logged")
        for line in self.vm.state().log:
            if line.priority <= 5:
                show(f"{line.program}: {line.text}")
        say("\nThe machine is switched off. Nothing on this one was touched.")


def main():
    kind = sys.argv[1]
    if kind not in kit.KINDS:
        sys.exit("usage: tests/vm/story [x86|mips]")
    kit.prepare(kind)
    with tempfile.TemporaryDirectory(prefix="vyhotplug-story.") as folder:
        story = Story(kind, folder)
        try:
            story.tell()
        finally:
            story.vm.close()


if __name__ == "__main__":
    main()
