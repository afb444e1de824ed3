"""Who may do what on a share, derived once from what the share file means, and held against each file server.

A row is a share with its settings, a cell a user's access to it: "none", "read" or "write". Of several entries of
one user the strictest counts. Where somebody may enter by a list, only those listed may; the administrator, unless
kept out, is one of them. Guests need Guest Access. A share may be stricter than its cell, never more open.
"""

import dataclasses
import itertools
import subprocess

LEVELS = ("none", "read", "write")
USERS = {"anna": 5001, "bert": 5002, "root": 0}  # the administrator is root; None is a guest
GUEST = "nobody"
FULL, READ, BLOCK, HIDE = range(4)
LISTS = ("Full Access Users", "Read Only Users", "Block Users", "Hide Users")
ADMINISTRATOR = {FULL: "", READ: "ReadOnly", BLOCK: "Block", HIDE: "HideT"}


@dataclasses.dataclass(frozen=True)
class Row:
    """A share; `lists` holds the users of each of the four."""

    name: str
    readonly: bool
    guest: bool
    guest_hide: bool
    administrator: int
    lists: tuple

    def section(self, path):
        """As the service writes it."""
        lines = [f"[{self.name}]"]
        for key, on in (("Read Only", self.readonly), ("Guest Access", self.guest), ("Guest Hide", self.guest_hide)):
            lines += [f"{key}=Enable"] if on else []
        if self.administrator != FULL:
            lines.append(f"Administrator={ADMINISTRATOR[self.administrator]}")
        for key, users in zip(LISTS, self.lists):
            lines += [f"{key}={''.join(f'{USERS[user]},' for user in users)}"] if users else []
        return "\n".join([*lines, f"Path={path}", ""])

    def entry(self, user):
        """The strictest entry of a user; None without one."""
        entries = [kind for kind, users in enumerate(self.lists) if user in users]
        if user == "root":
            entries.append(self.administrator)
        return max(entries, default=None)

    def access(self, user):
        """The cell."""
        if user is None:
            if not self.guest or self.guest_hide:
                return "none"
            return "read" if self.readonly else "write"
        entry = self.entry(user)
        selective = bool(self.lists[FULL] or self.lists[READ])
        if entry in (BLOCK, HIDE) or (entry is None and selective):
            return "none"
        return "read" if self.readonly or entry == READ else "write"

    def hides(self):
        """Whether it is to be hidden from somebody."""
        return self.guest_hide or self.administrator == HIDE or bool(self.lists[HIDE])


def rows():
    """Every combination: anna in each of the 16 sets of lists, bert in one or none."""
    switches = (False, True)
    anna = list(itertools.product(switches, repeat=4))
    made = []
    for readonly, guest, guest_hide, administrator, in_lists, bert in itertools.product(
            switches, switches, switches, ADMINISTRATOR, anna, (None, FULL, READ, BLOCK)):
        lists = tuple((("anna",) if held else ()) + (("bert",) if bert == kind else ())
                      for kind, held in enumerate(in_lists))
        made.append(Row(f"S{len(made):04}", readonly, guest, guest_hide, administrator, lists))
    return made


def sample(count):
    """So many rows, spread so that neighbours differ in everything."""
    every = rows()
    return [every[number * 619 % len(every)] for number in range(count)]  # a prime that does not divide their number


def found_access(server, name, user, password, port=445, file="to-put"):
    """What a client can do, by trying; its file has a name of its own, since Samba lets no guest replace one."""
    login = ["-N"] if user is None else ["-U", f"{user}%{password}"]
    done = subprocess.run(["smbclient", f"//{server}/{name}", "-p", str(port), *login, "-m", "SMB3", "-c",
                           f"ls; put {file} {name}-{user}"], stdin=subprocess.DEVNULL, capture_output=True, check=False,
                          timeout=120)
    said = (done.stdout + done.stderr).decode("utf-8", "replace")
    if "blocks of size" not in said:
        return "none"
    return "read" if "NT_STATUS" in said or done.returncode != 0 else "write"


def more_open(found, cell):
    return LEVELS.index(found) > LEVELS.index(cell)
