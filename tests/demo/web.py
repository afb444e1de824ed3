#!/usr/bin/python3
"""Shows the page in Cockpit with a stick plugged, until it is interrupted. Run by ./demo --web.

usage: web.py                         makes the door on this machine's loopback, and has the rest run in a private world
       web.py --inside NUMBER NUMBER  there, with the descriptors of the door and of this machine's table of connections
"""

import os
import signal
import socket
import subprocess
import sys
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "tests", "web"))
import web_world  # noqa: E402

FIRST_PORT, LAST_PORT = 9191, 9291


def say(text=""):
    print(text, flush=True)


# ---- on this machine ----


def make_door():
    for port in range(FIRST_PORT, LAST_PORT):
        try:
            return socket.create_server(("127.0.0.1", port))
        except OSError:
            pass  # the next one may be free
    raise SystemExit("no port is free on the loopback")


def run_outside():
    # A table of /proc/net tells of the network of whoever has opened it.
    with make_door() as door, open("/proc/net/tcp", encoding="ascii") as table:
        command = [os.environ["VY_WORLD_PROGRAM"], "--keep", ROOT, "--", "/usr/bin/python3", "-B",
                   os.path.abspath(__file__), "--inside",
                   str(door.fileno()), str(table.fileno())]
        # In a session of its own: an interruption is for this process, which has the rest end in order.
        with subprocess.Popen(command, pass_fds=[door.fileno(), table.fileno()], stdin=subprocess.PIPE, text=True, bufsize=1,
                              start_new_session=True) as world:
            threading.Thread(target=pass_keys, args=(world.stdin,), daemon=True).start()
            for number in (signal.SIGINT, signal.SIGTERM):
                signal.signal(number, lambda *_: world.stdin.write("end\n"))
            return world.wait()


def pass_keys(target):
    for _ in sys.stdin:
        target.write("enter\n")


# ---- in the world ----


def pass_on(source, target):
    try:
        while data := source.recv(65536):
            target.sendall(data)
        target.shutdown(socket.SHUT_WR)
    except OSError:
        pass  # one of them has gone


def user_of(port, door_port, table):
    """The number of the user of this machine who has connected; None when he has gone already."""
    os.lseek(table, 0, os.SEEK_SET)
    text = b""
    while part := os.read(table, 65536):
        text += part
    for line in text.decode().splitlines()[1:]:
        words = line.split()
        if [int(words[at].split(":")[1], 16) for at in (1, 2)] == [port, door_port]:
            return int(words[7])
    return None


def keep_door(door, table):
    """A socket belongs to the network in which it was made: what comes in there is passed on to Cockpit here, if it
    comes from root or from who has called for root. Behind the door is root, and other users have no business there."""
    invited = (0, int(os.environ.get("SUDO_UID", "0")))
    while True:
        client, (_, port) = door.accept()
        if user_of(port, door.getsockname()[1], table) not in invited:
            client.close()
            continue
        server = socket.create_connection(("127.0.0.1", web_world.PORT))
        for pair in ((client, server), (server, client)):
            threading.Thread(target=pass_on, args=pair, daemon=True).start()


class Demo(web_world.WebTest):
    def _tell(self):
        """Nothing: whoever looks at the page does not read logs."""

    def runTest(self):
        self.start_samba()
        self.plug("sda", files={"holiday.txt": "sun\n", "film": "x" * 3_000_000})
        self.wait_for_mount("sda1")
        door = socket.socket(fileno=int(sys.argv[2]))
        threading.Thread(target=keep_door, args=(door, int(sys.argv[3])), daemon=True).start()
        say()
        say(f"   http://127.0.0.1:{door.getsockname()[1]}/cockpit/@localhost/vyhotplug/index.html")
        say()
        say("   A stick is plugged. Users are anna, bert, carl and dora. There is no log-in, and nobody but you is let in.")
        self.follow()
        say("Ending")

    def follow(self):
        """Plugs and pulls by the keyboard."""
        say("   Enter pulls the stick and plugs it again; Ctrl-C ends.")
        for line in sys.stdin:
            if line == "end\n":
                return
            if self.disks:
                self.pull("sda")
                say("   pulled")
            else:
                self.plug("sda", files={"holiday.txt": "sun\n"})
                say("   plugged")


def main():
    if len(sys.argv) == 1:
        return run_outside()
    Demo().debug()
    say("Nothing on this machine was touched.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
