"""The matrix of access, held against Samba and against what ksmbd is told."""

import os
import subprocess

import samba_world
import vyworld
from vyworld import CONFIG, SHARE_FILE

import access_matrix

SAMPLE = 32  # shares, where the bridge alone is what the build is about


class Samba(samba_world.SambaTest):
    USERS = access_matrix.USERS

    def try_shares(self, rows):
        """Has Samba share these and no others. Returns what was found of each."""
        vyworld.write(SHARE_FILE, "".join(row.section(samba_world.FIXED) for row in rows))
        vyworld.write(samba_world.INCLUDE, "")  # nothing is to be closed
        self.assertEqual(self.run_bridge("--once").status, 0)
        last = [row.name for row in rows if row.access("root") != "none"][-1]
        self.wait_until(f"{last} is shared", lambda: self.do(last, "ls", "root").status == 0)
        found = {}
        for user in access_matrix.CLIENTS:
            found |= access_matrix.found_access("127.0.0.1", rows, user, user)
        return found

    def test_every_cell_of_the_matrix_is_as_it_should_be(self):
        """All that a share can be, Samba can."""
        rows = access_matrix.sample(SAMPLE) if os.environ.get("VY_SANITIZE") else access_matrix.rows()
        vyworld.write("/tmp/to-put", "written\n")
        vyworld.write(f"{samba_world.FIXED}/readme.txt", "hello\n")
        os.makedirs(os.path.dirname(samba_world.INCLUDE))
        self.start_samba()
        os.chdir("/tmp")
        found = {}
        for portion in access_matrix.portions(rows):
            found |= self.try_shares(portion)
        self.assertEqual(access_matrix.differences(found, access_matrix.cells(rows)), {})
        self.assertEqual(set(found.values()), set(access_matrix.LEVELS))
        written = {f"{name}-{user}" for (name, user), level in found.items() if level == "write"}
        self.assertEqual(set(os.listdir(samba_world.FIXED)), written | {"readme.txt"})


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
        done = subprocess.run([samba_world.KSMBD_BRIDGE, "-f", CONFIG, "-c", "/tmp/none", "--print"], stdin=subprocess.DEVNULL,
                              capture_output=True, check=True, timeout=vyworld.LIMIT, env=vyworld.environment())
        return done.stdout.decode()

    def test_what_it_is_told_is_as_the_matrix_says_and_what_cannot_be_said_is_closed(self):
        with open("/etc/passwd", "a", encoding="ascii") as file:
            file.write("anna:x:5001:100::/tmp:/bin/false\nbert:x:5002:100::/tmp:/bin/false\n")
        rows = access_matrix.rows()
        sections = ksmbd_sections(self.print_shares("".join(row.section(samba_world.FIXED) for row in rows)))
        shared = [row for row in rows if not row.hides() and not row.guests_only_read()]
        self.assertEqual(set(sections), {row.name for row in shared})
        wrong = [(row, user) for row in shared for user in access_matrix.CLIENTS
                 if ksmbd_access(sections[row.name], user) != row.access(user)]
        self.assertEqual(wrong, [])
