"""Who may do what on a share, derived once from what the share file means, and held against each file server.

A row is a share with its settings, a cell a user's access to it: "none", "read" or "write". Of several entries of
one user the strictest counts. Where somebody may enter by a list, only those listed may; the administrator, unless
kept out, is one of them. Guests need Guest Access; they are the guest account, which may be in lists as well, but not to
keep them out of a share that only those listed may enter. A share may be stricter than its cell, never more open.
"""

import dataclasses
import itertools
import re
import subprocess

LEVELS = ("none", "read", "write")
USERS = {"anna": 5001, "bert": 5002, "root": 0}  # the administrator is root
CLIENTS = (None, *USERS)  # None is a guest
GUEST = "nobody"  # who guests are
IDS = {**USERS, GUEST: 65534}
REFUSED = ("NT_STATUS_ACCESS_DENIED", "NT_STATUS_BAD_NETWORK_NAME")  # by which a server keeps somebody out of a share
CUT_OFF = "NT_STATUS_CONNECTION_DISCONNECTED"
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
            lines += [f"{key}={''.join(f'{IDS[user]},' for user in users)}"] if users else []
        return "\n".join([*lines, f"Path={path}", ""])

    def entry(self, user):
        """The strictest entry of a user; None without one."""
        entries = [kind for kind, users in enumerate(self.lists) if user in users]
        if user == "root":
            entries.append(self.administrator)
        return max(entries, default=None)

    def access(self, user):
        """The cell."""
        if user is None and (not self.guest or self.guest_hide):
            return "none"
        entry = self.entry(user or GUEST)
        selective = user is not None and bool(self.lists[FULL] or self.lists[READ])
        if entry in (BLOCK, HIDE) or (entry is None and selective):
            return "none"
        return "read" if self.readonly or entry == READ else "write"

    def hides(self):
        """Whether it is to be hidden from somebody."""
        return self.guest_hide or self.administrator == HIDE or bool(self.lists[HIDE])

    def guests_only_read(self):
        """Whether guests may but read what others write."""
        return not self.readonly and self.access(None) == "read"


def rows():
    """Every combination: anna in each of the 16 sets of lists, and beside her bert in one or none, or the guest account."""
    switches = (False, True)
    anna = list(itertools.product(switches, repeat=4))
    beside = ((), ("bert", FULL), ("bert", READ), ("bert", BLOCK), *((GUEST, kind) for kind in range(4)))
    made = []
    for readonly, guest, guest_hide, administrator, in_lists, other in itertools.product(
            switches, switches, switches, ADMINISTRATOR, anna, beside):
        lists = tuple((("anna",) if held else ()) + (other[:1] if other[1:] == (kind,) else ())
                      for kind, held in enumerate(in_lists))
        made.append(Row(f"S{len(made):04}", readonly, guest, guest_hide, administrator, lists))
    return made


def sample(count):
    """So many rows, spread so that neighbours differ in everything."""
    every = rows()
    return [every[number * 619 % len(every)] for number in range(count)]  # a prime that does not divide their number


def portions(shares):
    """So few at a time that a command line holds them, and that a server finds each of them quickly."""
    return [shares[begin:begin + 512] for begin in range(0, len(shares), 512)]


def cells(shares):
    """What is to be found, by share and client."""
    return {(row.name, user): row.access(user) for row in shares for user in CLIENTS}


def found_access(server, shares, user, password, port=445, file="to-put"):
    """What a client can do in each share, by trying: its cells.

    There is to be a readme.txt. What is put has a name of its own, <share>-<user>, since Samba lets no guest replace a file.
    It is one session as long as the server lets it be one: with ksmbd it is over when a user has been refused something.
    """
    found = {}
    while len(found) < len(shares):
        left = shares[len(found):]
        answered = list(itertools.takewhile(lambda said: not said.startswith(f"failed: {CUT_OFF}"),
                                            _try_shares(server, left, user, password, port, file)))
        assert answered, f"{user} cannot log in"
        found |= {(row.name, user): _level(said) for row, said in zip(left, answered)}
    return found


def _try_shares(server, shares, user, password, port, file):
    """What the client says of each."""
    login = ["-N"] if user is None else ["-U", f"{user}%{password}"]
    tasks = "".join(f"tcon {row.name};ls readme.txt;put {file} {row.name}-{user};tdis;" for row in shares)
    done = subprocess.run(["smbclient", f"//{server}/IPC$", "-p", str(port), *login, "-m", "SMB3", "-c", tasks],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False, timeout=600)
    return re.split("^tcon ", done.stdout.decode("utf-8", "replace"), flags=re.MULTILINE)[1:]


def _level(said):
    if said.startswith("failed"):
        assert any(word in said.split("\n", 1)[0] for word in REFUSED), said
        return "none"
    assert CUT_OFF not in said, said
    if "blocks of size" not in said:
        return "none"
    return "read" if "NT_STATUS" in said else "write"


def differences(found, wanted):
    """The cells that are not as they should be."""
    assert set(found) == set(wanted)
    return {cell: (level, wanted[cell]) for cell, level in found.items() if level != wanted[cell]}
