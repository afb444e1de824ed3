"""The matrix of access, held against Samba and against what ksmbd is told."""

import os
import subprocess

import samba_world
import vyworld
from vyworld import CONFIG, SHARE_FILE

import access_matrix

KSMBD_BRIDGE = os.path.join(os.environ.get("VY_BIN", ""), "vynas-ksmbd")
CLIENTS = (None, "anna", "bert", "root")
SAMPLE = 32


class Samba(samba_world.SambaTest):
    USERS = access_matrix.USERS

    def test_no_cell_of_the_matrix_is_more_open_than_it_should_be(self):
        rows = access_matrix.sample(SAMPLE)
        vyworld.write("/tmp/to-put", "written\n")
        self.start_bridge()
        self.set_shares("".join(row.section(samba_world.FIXED) for row in rows))
        self.start_samba()
        os.chdir("/tmp")
        found = {(row.name, user): access_matrix.found_access("127.0.0.1", row.name, user, user)
                 for row in rows for user in CLIENTS}
        wanted = {(row.name, user): row.access(user) for row in rows for user in CLIENTS}
        self.maxDiff = None
        self.assertEqual(found, wanted)  # all that a share can be, Samba can
        self.assertEqual(set(wanted.values()), set(access_matrix.LEVELS))


def ksmbd_sections(text):
    """As ksmbd.conf(5) says: the first line of a key counts, and a hash or a semicolon begins a comment."""
    sections = {}
    for line in text.split("\n"):
        line = line.split("#")[0].split(";")[0].strip()
        if line.startswith("["):
            section = sections.setdefault(line[1:-1], {})
        elif line:
            key, value = (part.strip() for part in line.split("=", 1))
            if value:
                section.setdefault(key, value)
    del sections["global"]
    return sections


def ksmbd_access(section, user):
    """Invalid users before all others, valid users where there are any, the read list before "read only = no"."""
    lists = {key: [name.strip() for name in section.get(key, "").split(",") if name.strip()]
             for key in ("valid users", "invalid users", "read list")}
    may_write = section["read only"] == "no"
    if user is None:
        return "none" if section["guest ok"] != "yes" else "write" if may_write else "read"
    if user in lists["invalid users"] or ("valid users" in section and user not in lists["valid users"]):
        return "none"
    return "write" if may_write and user not in lists["read list"] else "read"


class Ksmbd(samba_world.BridgeTest):
    def print_shares(self, text):
        vyworld.write(SHARE_FILE, text)
        done = subprocess.run([KSMBD_BRIDGE, "-f", CONFIG, "-c", "/tmp/none", "--print"], stdin=subprocess.DEVNULL,
                              capture_output=True, check=True, timeout=vyworld.LIMIT, env=vyworld.environment())
        return done.stdout.decode()

    def test_what_it_is_told_is_as_the_matrix_says_and_what_cannot_be_said_is_closed(self):
        with open("/etc/passwd", "a", encoding="ascii") as file:
            file.write("anna:x:5001:100::/tmp:/bin/false\nbert:x:5002:100::/tmp:/bin/false\n")
        rows = access_matrix.rows()
        sections = ksmbd_sections(self.print_shares("".join(row.section(samba_world.FIXED) for row in rows)))
        self.assertEqual(set(sections), {row.name for row in rows if not row.hides()})
        wrong = [(row, user) for row in rows if not row.hides() for user in CLIENTS
                 if ksmbd_access(sections[row.name], user) != row.access(user)]
        self.assertEqual(wrong, [])
