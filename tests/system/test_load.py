"""Eight clients at once, thousands of messages of all kinds: all requests end, nothing is left."""

import collections
import os
import random
import re
import resource
import socket
import threading
import time

import vyworld
from vyworld import LIMIT, SystemTest

SANITIZED = bool(os.environ.get("VY_SANITIZE"))
CLIENTS = 8
BATCH = 90  # connections that a client has open at once; a daemon waits for 1024 at most
MESSAGES = 3200 if SANITIZED else 10000
MEMORY_TOLERANCE = 256  # KiB
OVERLOAD = 3000  # connections at once, more than a daemon can wait for
DESCRIPTORS = 4096  # that a process may have, here and in the daemon
FEW_DESCRIPTORS, MANY = 64, 150

SUCCESS, FAILD, NOTHING = b"success\0", b"faild\0", b""

# One use of a connection: how, the bytes sent, the answer expected (None: nobody waits for it).
Exchange = collections.namedtuple("Exchange", "kind payload answer")

# The partition that is plugged is sdz1, in use, so that no unmount request detaches it. No machine
# has so many disks: the node that a mount request may make leads nowhere.
REQUESTS = [
    ("ACTION=mount,all", SUCCESS), ("ACTION=mount,sdz1", SUCCESS), ("ACTION=mount,sdz", SUCCESS),
    ("ACTION=mount,sd", SUCCESS), ("ACTION=mount,sdb", SUCCESS), ("ACTION=mount,sdb3", SUCCESS),
    ("ACTION=mount,mmcblk", SUCCESS), ("ACTION=mount,mmcblka", FAILD), ("ACTION=mount,usb", FAILD),
    ("ACTION=mount", FAILD), ("ACTION=mount,RANGE=x,force,sdz1", SUCCESS),
    ("ACTION=unmount,sdb9", SUCCESS), ("ACTION=unmount,mmcblk,force", SUCCESS),
    ("ACTION=unmount,mmcblkb1", FAILD), ("ACTION=unmount,none", FAILD), ("ACTION=unmount", FAILD),
]
UNKNOWN = ["ACTION=change,MAJOR=8", "ACTION=", "MAJOR=8,ACTION=add", "", "action=mount,all"]


def make_exchange(source):
    """What a client may send in any number."""
    draw = source.random()
    if draw < 0.60:
        text, answer = source.choice(REQUESTS)
        return Exchange("request", vyworld.to_bytes(text), answer)
    if draw < 0.68:
        text, answer = source.choice(REQUESTS)
        return Exchange("half-closed", vyworld.to_bytes(text), answer)
    if draw < 0.73:
        return Exchange("left", vyworld.to_bytes(source.choice(REQUESTS)[0]), None)
    if draw < 0.83:
        return Exchange("unknown", vyworld.to_bytes(source.choice(UNKNOWN)), NOTHING)
    if draw < 0.90:
        return Exchange("garbage", b"\xff" + source.randbytes(source.randint(0, 510)), NOTHING)
    if draw < 0.94:
        payload = b"ACTION=mount,all".ljust(512, b",") + source.randbytes(source.randint(1, 90))
        return Exchange("too long", payload, SUCCESS)
    return Exchange("empty", b"", NOTHING)


class Client(threading.Thread):
    """Sends its exchanges in batches and counts what became of them."""

    def __init__(self, exchanges):
        super().__init__(daemon=True)
        self.exchanges = exchanges
        self.lost = collections.Counter()  # by kind: no answer where there should be one
        self.wrong = collections.Counter()  # by kind: another answer than expected
        self.example = None  # of another answer
        self.unfinished = 0  # neither answered nor closed
        self.done = 0
        self.error = None

    def run(self):
        try:
            for at in range(0, len(self.exchanges), BATCH):
                self.exchange_all(self.exchanges[at:at + BATCH])
        except Exception as error:  # told by the test
            self.error = error

    def exchange_all(self, batch):
        opened = [(exchange, self.begin(exchange)) for exchange in batch]
        for exchange, connection in opened:
            if exchange.answer is not None:
                self.finish(exchange, connection)
            connection.close()
            self.done += 1

    @staticmethod
    def begin(exchange):
        # Without a limit: a connection that has one is refused while the daemon's backlog is full.
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connection.connect(vyworld.socket_address())
        connection.settimeout(LIMIT)
        try:
            connection.sendall(exchange.payload)
            if exchange.kind in ("half-closed", "empty"):
                connection.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # closed by the daemon already
        if exchange.kind == "left":
            connection.close()
        return connection

    def finish(self, exchange, connection):
        try:
            answer = vyworld.receive_all(connection)
        except TimeoutError:
            self.unfinished += 1
            return
        if answer == exchange.answer:
            return
        if answer == NOTHING:
            self.lost[exchange.kind] += 1
        else:
            self.wrong[exchange.kind] += 1
            self.example = exchange, answer


class Load(SystemTest):
    def setUp(self):
        super().setUp()
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (DESCRIPTORS, max(hard, DESCRIPTORS)))
        self.write_config(mountfs="ext")  # no driver is started for each refused mount
        self.start_daemon(level=vyworld.ERR, options=())
        self.partition = self.make_partition("sdz1")
        self.plug(self.partition)
        self.source = random.Random(20240817)
        user = open(self.partition.directory + "/readme.txt", encoding="ascii")
        self.addCleanup(user.close)

    # ---- what the daemon holds ----

    def memory(self):
        status = vyworld.read(f"/proc/{self.daemon.pid}/status")
        return int(re.search(r"^VmRSS:\s*(\d+) kB", status, re.MULTILINE)[1])

    def held(self):
        return self.daemon.descriptors(), self.daemon.children(), self.daemon.threads()

    def let_it_come_to_rest(self):
        """A request's answer comes after all that was sent before it; then nothing is queued."""
        refreshes = self.service.count()
        self.assert_alive()
        self.wait_for_refresh(refreshes + 1)

    # ---- the load ----

    def send_all(self, exchanges, silent=0):
        """Divides the exchanges among the clients; silent connections come in between."""
        clients = [Client(exchanges[at::CLIENTS]) for at in range(CLIENTS)]
        began = time.monotonic()
        for client in clients:
            client.start()
        quiet = []
        for _ in range(silent):
            quiet.append(vyworld.socket.socket(socket.AF_UNIX))
            quiet[-1].connect(vyworld.socket_address())
        for client in clients:
            client.join(240)
        took = time.monotonic() - began
        for connection in quiet:
            connection.settimeout(LIMIT)
            self.assertEqual(vyworld.receive_all(connection), b"", "a silent connection")
            connection.close()
        self.assertEqual([client.error for client in clients if client.error], [])
        self.assertEqual(sum(client.done for client in clients), len(exchanges))
        self.assertEqual(sum(client.unfinished for client in clients), 0,
                         "connections neither answered nor closed")
        lost = sum((client.lost for client in clients), collections.Counter())
        wrong = sum((client.wrong for client in clients), collections.Counter())
        vyworld.log(f"{len(exchanges)} messages in {took:.1f} s: lost {dict(lost)}, "
                    f"other answer {dict(wrong)}")
        for client in clients:
            if client.example is not None:
                vyworld.log(f"such as {client.example}")
        return lost, wrong

    def make_exchanges(self, count):
        return [make_exchange(self.source) for _ in range(count)]

    def check_load(self, exchanges, silent):
        """The load after a first helping, which makes room in memory for what waits at once."""
        if SANITIZED:
            vyworld.log(f"sanitized: {MESSAGES} messages, the memory is not compared")
        self.send_all(self.make_exchanges(CLIENTS * BATCH))
        self.let_it_come_to_rest()
        held, memory = self.held(), self.memory()
        outcome = self.send_all(exchanges, silent)
        self.let_it_come_to_rest()
        self.wait_until("it holds what it held", lambda: self.held() == held)
        grown = self.memory() - memory
        vyworld.log(f"resident {memory} KiB, afterwards {grown:+} KiB")
        if not SANITIZED:
            self.assertLessEqual(abs(grown), MEMORY_TOLERANCE, "KiB of resident memory")
        self.check_stop()
        return outcome

    def check_stop(self):
        began = time.monotonic()
        self.assertEqual(self.stop_daemon(), 0)
        self.assertLess(time.monotonic() - began, 30)
        self.assertEqual(vyworld.mounted_names(), ["sdz1"])

    def test_without_hotplug_messages_every_request_is_answered(self):
        exchanges = self.make_exchanges(MESSAGES)
        for at in range(8):  # each waits 400 ms for the share service
            exchanges[at * 100] = Exchange("request", b"ACTION=unmount,sdz1\0", FAILD)
        lost, wrong = self.check_load(exchanges, silent=4)
        self.assertEqual((lost, wrong), ({}, {}))

    def test_among_hotplug_messages_every_connection_ends(self):
        """One that is closed on receipt is closed again later, as somebody else's: a request in
        between may lose its answer, and the answer may go to who has the number by then."""
        exchanges = self.make_exchanges(MESSAGES)
        hotplug = 0
        for at in range(0, len(exchanges), 9):
            text = f"ACTION=remove,MAJOR=8,MINOR={at % 300 + 1}"  # none of them is there
            if at % (len(exchanges) // 4) < 9:
                text = f"ACTION=add,MAJOR=7,MINOR={at % 100}"  # waits two seconds, mounts nothing
            exchanges[at] = Exchange("hotplug", vyworld.to_bytes(text), NOTHING)
            hotplug += 1
        lost, wrong = self.check_load(exchanges, silent=4)
        vyworld.log(f"{hotplug} hotplug messages cost {lost.total()} answers and misled "
                    f"{wrong.total()}")
        self.assertLessEqual(lost.total(), hotplug)

    def test_more_connections_than_it_can_wait_for_all_end_and_it_recovers(self):
        self.let_it_come_to_rest()
        held = self.held()
        answers = collections.Counter()
        opened = []
        waiting = threading.Thread(target=self.open_many, args=(opened, OVERLOAD), daemon=True)
        waiting.start()
        waiting.join(LIMIT)
        self.assertEqual(len(opened), OVERLOAD)
        for connection in opened:
            answers[vyworld.receive_all(connection)] += 1
            connection.close()
        vyworld.log(f"{OVERLOAD} connections at once: {dict(answers)}")
        self.assertLessEqual(set(answers), {SUCCESS, NOTHING})
        self.assertGreater(answers[SUCCESS], 0)
        self.let_it_come_to_rest()
        self.wait_until("it holds what it held", lambda: self.held() == held)
        self.check_stop()

    def test_connections_that_find_no_descriptor_free_wait_and_are_answered(self):
        self.let_it_come_to_rest()
        held = self.held()
        limits = resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.daemon.pid, resource.RLIMIT_NOFILE, (FEW_DESCRIPTORS, limits[1]))
        opened = []
        waiting = threading.Thread(target=self.open_many, args=(opened, MANY), daemon=True)
        waiting.start()
        waiting.join(LIMIT)
        self.assertEqual(len(opened), MANY)
        answers = collections.Counter()
        for connection in opened:
            answers[vyworld.receive_all(connection)] += 1
            connection.close()
        refused = len(self.log.matching("accept socket"))
        vyworld.log(f"{MANY} connections, {FEW_DESCRIPTORS} descriptors: {dict(answers)}, "
                    f"{refused} lines of refusal")
        self.log.lines = [line for line in self.log.lines if "accept socket" not in line.text]
        self.assertEqual(answers, {SUCCESS: MANY})
        self.let_it_come_to_rest()
        self.wait_until("it holds what it held", lambda: self.held() == held)
        self.check_stop()

    @staticmethod
    def open_many(opened, count):
        for _ in range(count):
            opened.append(Client.begin(Exchange("request", b"ACTION=mount,mmcblk\0", SUCCESS)))
