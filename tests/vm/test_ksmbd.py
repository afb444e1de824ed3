"""ksmbd, the kernel's file server, with a real client on the machine that the tests run on."""

import os

from machine import CONFIG, LIMIT, SHARE_FILE
from media import Filesystem
from servers import PASSWORD, KsmbdTest
from state import place_of
from vmtest import long_on

import access_matrix  # noqa: E402  (its folder is known by now)


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
        self.assertNotIn(name, self.vm.run(f"cat {self.made}"))
        copy.wait(LIMIT)


class Matrix(KsmbdTest):
    SAMPLE = 24
    WITHHELD = 4  # of these, that users try in spite of it

    def start_service(self):
        """Without the daemon: the share file is the test's."""
        self.vm.run(f"vyhotplug-prepare -f {CONFIG}")
        self.start_server()
        self.start_bridge()

    def set_shares(self, rows):
        """Returns once the server goes by them."""
        self.vm.write(SHARE_FILE, "".join(row.section("/srv") for row in rows))
        self.vm.run("kill -HUP $(cat /var/run/vynas-fssd.pid)")
        last = [row.name for row in rows if not self.is_withheld(row) and row.access("root") != "none"][-1]
        self.wait_for_share(last, "root")

    @staticmethod
    def is_withheld(row):
        """What ksmbd cannot do as it is meant."""
        return row.hides() or row.guests_only_read()

    def try_shares(self, rows, file):
        """Returns what was found of each. What is withheld a guest tries, and users a few: each costs them a session."""
        withheld = [row for row in rows if self.is_withheld(row)]
        shared = [row for row in rows if not self.is_withheld(row)]
        names = self.vm.run(f"grep '^.S' {self.made}").split()
        self.assertEqual(names, [f"[{row.name}]" for row in shared])
        found = access_matrix.found_access("127.0.0.1", rows, None, PASSWORD, self.port, file)
        for user in access_matrix.USERS:
            tried = shared + withheld[:self.WITHHELD]
            found |= access_matrix.found_access("127.0.0.1", tried, user, PASSWORD, self.port, file)
        return found

    def check(self, rows):
        file = self.local_file(100)
        found = {}
        for portion in access_matrix.portions(rows):
            self.set_shares(portion)
            found |= self.try_shares(portion, file)
        wanted = access_matrix.cells(rows)
        wanted |= {(row.name, user): "none" for row in rows for user in access_matrix.CLIENTS if self.is_withheld(row)}
        self.assertEqual(access_matrix.differences(found, {cell: wanted[cell] for cell in found}), {})
        self.assertEqual(set(found.values()), set(access_matrix.LEVELS))
        written = {f"{name}-{user}" for (name, user), level in found.items() if level == "write"}
        self.assertEqual(set(self.vm.run("ls /srv").split()), written | {"readme.txt"})
        self.note(f"{len(found)} cells were tried")

    def test_cells_of_every_kind_are_as_they_should_be(self):
        rows = access_matrix.sample(8 * self.SAMPLE)
        shared = [row for row in rows if not self.is_withheld(row)][:self.SAMPLE - self.WITHHELD]
        self.check([row for row in rows if self.is_withheld(row)][:self.WITHHELD] + shared)

    @long_on("server")
    def test_every_cell_is_as_it_should_be(self):
        self.check(access_matrix.sample(len(access_matrix.rows())))  # spread, so that some of each portion are shared


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
        self.assertEqual(self.vm.attempt(self.bridge)[0], 1)  # one at a time

    def test_a_server_that_hangs_holds_nothing_up(self):
        """Its helper does: the kernel has a client, and nobody answers its questions."""
        self.plug("stick", Filesystem("ext4", "WORK", {"readme.txt": "hello\n"}), serial="AC1")
        name = "Drive(A1)"
        self.wait_for_share(name)
        self.hold_share(name)
        helpers = self.vm.run("pidof ld-linux-x86-64.so.2").strip()  # under its loader, see kit.add_server()
        self.vm.run(f"kill -STOP {helpers}")
        self.assertEqual(self.tool("vyunmount sda1"), "unmount sda1 - success.\n")
        self.assertEqual(self.vm.state().names, [])
        self.assertNotIn(name, self.vm.run(f"cat {self.made}"))
        self.assertIn("NT_STATUS", self.client(name, "ls"))
        self.vm.run(f"kill -CONT {helpers}")
        self.assertEqual(self.tool("vymount sda1"), "mount sda1 - success.\n")
        self.wait_for_share(name)
        self.assertIn("readme.txt", self.client(name, "ls"))
