"""The hotplug agent: what it tells the daemon, of which devices, and how often."""

import contextlib
import glob
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import time

import vyworld
from agent_world import AGENT_TRACE, PROC, RECORD, STATE, STICK_ITEMS, SYSFS, AgentTest, FakeDaemon

NETLINK_KOBJECT_UEVENT = 15
KERNEL_GROUP = 1
LOOP = "/sys/devices/virtual/block/loop0"


def add_event(devpath, major, minor):
    items = ["ACTION=add", f"DEVPATH={devpath}", "SUBSYSTEM=block", f"MAJOR={major}",
             f"MINOR={minor}", "DEVNAME=" + devpath.rsplit("/", 1)[1], "SEQNUM=1"]
    return "".join(item + "\0" for item in [f"add@{devpath}", *items]).encode()


def held_files():
    """Of all processes."""
    found = set()
    for path in glob.glob("/proc/[0-9]*/fd/*"):
        with contextlib.suppress(OSError):
            found.add(os.readlink(path))
    return found


class ColdPlug(AgentTest):
    def test_what_is_plugged_at_the_start_is_told_in_order(self):
        for letters in ("aa", "b", "a"):
            self.sysfs.add_stick("sd" + letters, parts=(2, 1, 10))
        self.sysfs.add_card("mmcblk0", parts=(2, 1))
        FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1", "+8:2", "+8:10", "+8:16", "+8:17", "+8:18", "+8:26",
                           "+65:160", "+65:161", "+65:162", "+65:170", "+179:0", "+179:1",
                           "+179:2")
        self.assertEqual(self.messages()[1], "ACTION=add,MAJOR=8,MINOR=1,DEVTYPE=partition,"
                         "RANGE=16,RM=1,RO=0," + STICK_ITEMS)
        self.assertEqual(self.messages()[12], "ACTION=add,MAJOR=179,MINOR=0,DEVTYPE=disk,RANGE=8,"
                         "RM=0,RO=0,SID=0x1f2e3d4c,PNAME=SD32G")

    def test_each_message_has_a_connection_of_its_own_and_one_more_looks_who_is_there(self):
        self.sysfs.add_stick("sda")
        FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        self.assertEqual(self.connections()[0], None)
        self.assertEqual(len(self.connections()), 3)

    def test_with_nothing_to_do_it_waits_for_news_alone(self):
        self.sysfs.add_stick("sda")
        FakeDaemon(self)
        agent = self.start_agent()
        self.wait_for_told("+8:0", "+8:1")

        def waits():
            call = vyworld.read(f"/proc/{agent.pid}/syscall").split()
            return len(call) > 3 and re.fullmatch("0x[1-9a-f]", call[2]) and re.fullmatch("0x(f{8}){1,2}", call[3])

        self.wait_until("it waits without a limit", waits, 30)

    def test_an_empty_drive_is_not_told_of(self):
        self.sysfs.add_stick("sda", parts=(), size="0")
        self.sysfs.add_stick("sdb", parts=())
        FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:16")
        self.settle()
        self.assertEqual(self.told(), ["+8:16"])

    def test_the_daemon_may_come_later(self):
        self.sysfs.add_stick("sda")
        self.start_agent()
        self.settle()
        self.sysfs.add_stick("sdb")
        FakeDaemon(self)
        self.wait_for_told("+8:0", "+8:1", "+8:16", "+8:17")

    def test_a_hangup_has_the_agent_look_again(self):
        self.sysfs.add_stick("sda")
        FakeDaemon(self)
        agent = self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        self.sysfs.remove("sda")
        self.sysfs.add_stick("sdb")
        os.kill(agent.pid, signal.SIGHUP)
        self.wait_for_told("+8:0", "+8:1", "-8:1", "-8:0", "+8:16", "+8:17")

    def test_what_went_and_is_still_mounted_is_taken_back_again(self):
        self.sysfs.add_stick("sda")
        FakeDaemon(self)
        agent = self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        self.set_mounts(**{vyworld.MOUNT_DIR + "/sda1": "8:1"})
        self.sysfs.remove("sda")
        os.kill(agent.pid, signal.SIGHUP)
        told = ["+8:0", "+8:1", "-8:1", "-8:0"]
        self.wait_for_told(*told)
        self.wait_for_told(*told, "-8:1")  # seconds later
        self.wait_for_log("announcer(#)sda1 (8:1) is still mounted")
        self.set_mounts()
        self.sysfs.add_stick("sda")
        os.kill(agent.pid, signal.SIGHUP)
        self.wait_for_told(*told, "-8:1", "+8:0", "+8:1")

    def test_hostile_texts_are_made_harmless(self):
        self.sysfs.add_stick("sda", parts=(), usb={
            "idVendor": "12,4", "idProduct": "00ab", "serial": " [a],b\x01=\udcff ",
            "manufacturer": "=Acme,MAJOR=9", "product": "\t", "speed": "480"})
        FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:0")
        self.assertEqual(self.messages()[0], "ACTION=add,MAJOR=8,MINOR=0,DEVTYPE=disk,RANGE=16,"
                         "RM=1,RO=0,PID=00ab,SID=_a__b_=_,VNAME=_Acme_MAJOR=9,SPEED=480")

    def test_a_message_is_never_longer_than_the_daemon_reads(self):
        self.sysfs.add_stick("sda", parts=(), usb={
            "idVendor": "1234", "serial": "\u20ac" * 126, "manufacturer": "\u20ac" * 126,
            "product": "\u20ac" * 126})
        FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:0")
        message = self.messages()[0]
        self.assertIn(",SID=" + "\u20ac" * 126 + ",", message)
        self.assertGreater(len(message.encode()), 505)
        self.assertLessEqual(len(message.encode()), 511)


class MachinesDisks(AgentTest):
    def setUp(self):
        super().setUp()
        self.sysfs.add_stick("sda", parts=(1, 2))
        self.sysfs.add_stick("sdb")

    def assert_only_sdb_is_told_of(self):
        FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:16", "+8:17")
        os.kill(self.agent.pid, signal.SIGHUP)
        self.settle()
        self.assertEqual(self.told(), ["+8:16", "+8:17"])

    def test_a_disk_with_the_root_filesystem_is_not_told_of(self):
        self.set_mounts(**{"/": "8:2"})
        self.assert_only_sdb_is_told_of()
        self.wait_for_log("announcer(#)sda not announced: sda2 is mounted at /")

    def test_a_disk_with_swap_is_not_told_of(self):
        self.set_swaps("/dev/sda1")
        self.assert_only_sdb_is_told_of()

    def test_a_disk_in_a_raid_is_not_told_of(self):
        self.sysfs.hold("sda/sda2", "md0")
        self.assert_only_sdb_is_told_of()

    def test_all_disks_are_told_of_by_request(self):
        self.set_mounts(**{"/": "8:2"})
        FakeDaemon(self)
        self.start_agent("--all")
        self.wait_for_told("+8:0", "+8:1", "+8:2", "+8:16", "+8:17")

    def test_an_event_of_such_a_disk_is_not_told_of(self):
        self.set_mounts(**{"/": "8:2"})
        FakeDaemon(self)
        done = self.run_agent("--once", event={
            "ACTION": "add", "DEVPATH": "/block/sda/sda1", "SUBSYSTEM": "block", "MAJOR": "8",
            "MINOR": "1"})
        self.assertEqual((done.status, done.out, done.err), (0, "", ""))
        self.wait_for_log("errand(#)sda1 not announced: sda2 is mounted at /")
        self.assertEqual(self.connections(), [])

    def test_the_list_says_what_is_told_of_and_what_not(self):
        self.set_mounts(**{"/": "8:2", "/media/x": ("0:45", "/dev/sdb1")})
        self.sysfs.add_stick("sdc", parts=(), size="0")
        self.sysfs.add_card("mmcblk0", parts=())
        self.assertEqual(self.list(), [
            "# sda: not announced: sda2 is mounted at /",
            "# sda1: not announced: sda2 is mounted at /",
            "# sda2: not announced: mounted at /",
            "# sdb: not announced: sdb1 is mounted at /media/x",
            "# sdb1: not announced: mounted at /media/x",
            "# sdc: not announced: no medium",
            "ACTION=add,MAJOR=179,MINOR=0,DEVTYPE=disk,RANGE=8,RM=0,RO=0,SID=0x1f2e3d4c,"
            "PNAME=SD32G"])

    def test_the_list_knows_what_the_service_has_mounted(self):
        FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1", "+8:2", "+8:16", "+8:17")
        self.wait_until("the state is kept", lambda: " sdb1 " in vyworld.read(STATE))
        self.set_mounts(**{"/any": "8:1"})
        self.assertEqual([line[:10] for line in self.list()], ["ACTION=add"] * 5)
        self.assertEqual([line[:5] for line in self.list("--state", "")],
                         ["# sda", "# sda", "# sda", "ACTIO", "ACTIO"])

    def test_a_list_looks_at_each_thing_once(self):
        self.require_strace()
        for letters in ("c", "d"):
            self.sysfs.add_stick("sd" + letters, parts=range(1, 16))
        self.sysfs.remove("sda")
        self.sysfs.remove("sdb")
        self.set_mounts(**{"/": "8:34"})
        subprocess.run(["strace", "-f", "-y", "-qq", "-o", AGENT_TRACE, "-e", "trace=/^open", "-e",
                        "signal=none", *self.command("--list")],
                       check=True, stdout=subprocess.DEVNULL, env=vyworld.environment(True))
        opens = [os.path.join(match[1] or "/", match[2])
                 for match in (re.search(r'\((?:[^<"]*<([^>]*)>, )?"([^"]*)"', line)
                               for line in vyworld.read_lines(AGENT_TRACE)) if match]
        self.assertEqual(opens.count(PROC + "/swaps"), 1)
        self.assertEqual(opens.count(PROC + "/self/mountinfo"), 1)
        files = [path for path in opens if path.endswith(("/dev", "/ro", "/size", "/holders", "/idVendor"))]
        self.assertEqual(len([path for path in files if path.endswith("/dev")]), 32)
        for path in set(files):
            self.assertEqual(opens.count(path), 1, path)
        if not os.environ.get("VY_SANITIZE"):  # whose libraries open files of their own
            self.assertLess(len(opens), 150)

    def test_a_partition_that_is_made_anew_while_it_is_read_is_not_listed(self):
        """Half of it would be the old one's, and the next look would take it for a third."""
        self.require_strace()
        self.set_mounts()
        directory = os.path.realpath(SYSFS + "/block/sda/sda2")
        with subprocess.Popen(["strace", "-qq", "-o", AGENT_TRACE, "-P", "sda2/ro", "-e",
                               "inject=/^open:delay_exit=4000000:when=1", "-e", "signal=none", *self.command("--list")],
                              stdout=subprocess.PIPE, env=vyworld.environment(True)) as agent:
            self.wait_until("it reads", lambda: directory + "/ro" in held_files())
            shutil.copytree(directory, directory + "-anew")
            shutil.rmtree(directory)  # with all that is in it, as the kernel does
            os.rename(directory + "-anew", directory)
            listed = agent.stdout.read().decode()
        self.assertIn("ACTION=add,MAJOR=8,MINOR=1,", listed)
        self.assertNotIn("MINOR=2,", listed)
        self.assertIn("ACTION=add,MAJOR=8,MINOR=2,", "\n".join(self.list()))

    def test_this_machines_own_disks_are_safe(self):
        # Whatever runs the tests: its root is on none of the devices that would be told of.
        done = vyworld.Finished(subprocess.run(
            [vyworld.PROGRAMS + "/vyhotplug-agent", "--list"], capture_output=True, check=False,
            env=vyworld.environment()))
        self.assertEqual((done.status, done.err), (0, ""))
        root = os.stat("/").st_dev
        self.assertNotIn(f"MAJOR={os.major(root)},MINOR={os.minor(root)},", done.out)


class Again(AgentTest):
    """Daemon and agent are started again."""

    def setUp(self):
        super().setUp()
        self.sysfs.add_stick("sda")

    def test_an_agent_that_is_started_again_tells_nothing_twice(self):
        FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        for count in (1, 2):
            self.assertEqual(self.stop_agent(), 0)
            self.start_agent()
            self.wait_for_log("monitor(#)daemon %d knows what it was told before" %
                              self.fake_daemon_pid(), count)
        self.assertEqual(self.stop_agent(), 0)
        self.sysfs.add_stick("sdb")
        self.sysfs.remove_partition("sda", 1)
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1", "-8:1", "+8:16", "+8:17")

    def test_an_agent_that_was_killed_tells_nothing_twice(self):
        FakeDaemon(self)
        agent = self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        self.wait_until("the state is kept", lambda: " sda1 " in vyworld.read(STATE))
        agent.kill()
        agent.wait()
        self.start_agent()
        self.wait_for_log("monitor(#)daemon %d knows what it was told before" %
                          self.fake_daemon_pid())
        self.settle()
        self.assertEqual(self.told(), ["+8:0", "+8:1"])

    def fake_daemon_pid(self):
        return int(vyworld.read(STATE).split()[3])

    def test_a_daemon_that_is_started_again_is_told_everything(self):
        daemon = FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        daemon.kill()
        self.sysfs.add_stick("sdb")
        self.settle()
        FakeDaemon(self)
        self.wait_for_told("+8:0", "+8:1", "+8:0", "+8:1", "+8:16", "+8:17")

    def test_without_a_pidfd_a_daemon_that_is_started_again_is_noticed_some_seconds_later(self):
        self.require_strace()
        daemon = FakeDaemon(self)
        self.start_agent(strace=["-e", "inject=pidfd_open:error=ENOSYS", "-e", "signal=none"])
        self.wait_for_told("+8:0", "+8:1")
        self.wait_until("it is logged, once", lambda: len(self.log.matching(
            r"^monitor\(#\)a restart of the daemon will be noticed some seconds later")) == 1)
        daemon.kill()
        FakeDaemon(self)
        self.wait_for_told("+8:0", "+8:1", "+8:0", "+8:1")
        self.settle()
        self.assertEqual(len(self.told()), 4)

    def test_without_a_pidfd_the_end_of_a_daemon_is_noticed_too(self):
        self.require_strace()
        daemon = FakeDaemon(self)
        self.start_agent(strace=["-e", "inject=pidfd_open:error=ENOSYS", "-e", "signal=none"])
        self.wait_for_told("+8:0", "+8:1")
        daemon.kill()
        self.wait_for_log("monitor(#)the daemon has gone")

    def test_a_daemon_that_stands_still_is_told_when_it_goes_on(self):
        daemon = FakeDaemon(self)
        agent = self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        with daemon.stopped():
            self.sysfs.add_stick("sdb")
            os.kill(agent.pid, signal.SIGHUP)
            time.sleep(6)  # a message counts as delivered meanwhile
        self.wait_for_told("+8:0", "+8:1", "+8:16", "+8:17")

    def test_a_message_that_was_not_read_is_sent_again(self):
        FakeDaemon(self, "3")
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        self.assertEqual(self.connections().count("unread"), 3)

    def test_no_state_is_kept_without_a_directory_and_that_is_told_once(self):
        FakeDaemon(self)
        self.start_agent("--state", "/run/nothing/state")
        self.wait_for_told("+8:0", "+8:1")
        self.settle()
        line = "monitor(#)no state is kept: /run/nothing/state: No such file or directory"
        self.assertEqual(len(self.log.find(line)), 1)


class RealDaemon(AgentTest):
    """The daemon itself, which mounts what it is told of."""

    def setUp(self):
        super().setUp()
        self.sysfs.add_stick("sda")
        self.partition = self.make_partition("sda1")
        os.makedirs("/sys/block/sda/sda1")  # for the daemon, which looks there itself

    def mounted(self):
        return self.log.find(f"daemon(#)mount {self.partition.node} {self.partition.directory}")

    def wait_for_mount(self, count):
        self.wait_until("it is mounted", lambda: len(self.mounted()) >= count)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(self.partition.read_file("readme.txt"), "this is sda1\n")

    def take_off_leftovers(self):
        """What the service's start-up does before the daemon."""
        for mount in vyworld.mounts():
            vyworld.libc.umount2(mount.directory.encode(), vyworld.MNT_DETACH)

    def test_a_plugged_stick_is_mounted_and_a_pulled_one_unmounted(self):
        self.start_daemon()
        agent = self.start_agent("--proc", "/proc")
        self.wait_for_mount(1)
        self.wait_until("it has a record",
                        lambda: "[1234:00ab:ABC:1]" in vyworld.read(vyworld.DEVICE_FILE))
        self.sysfs.remove("sda")
        os.kill(agent.pid, signal.SIGHUP)
        self.wait_for_log(f"daemon(#)unmount {self.partition.node} {self.partition.directory}")
        self.wait_until("no trace is left",
                        lambda: "1234:00ab" not in vyworld.read(vyworld.DEVICE_FILE))
        self.assertEqual(vyworld.mounts(), [])

    def test_an_agent_that_is_started_again_has_nothing_mounted_twice(self):
        self.start_daemon()
        self.start_agent("--proc", "/proc")
        self.wait_for_mount(1)
        self.assertEqual(self.stop_agent(), 0)
        self.start_agent("--proc", "/proc")
        self.wait_for_log("monitor(#)daemon %d knows what it was told before" % self.daemon.pid)
        time.sleep(vyworld.ADD_HOLD + 1)
        self.assertEqual(len(self.mounted()), 1)
        self.assertTrue(os.path.exists(self.partition.node))
        self.assert_alive()

    def test_a_daemon_that_is_started_again_mounts_everything_again(self):
        self.start_daemon()
        self.start_agent("--proc", "/proc")
        self.wait_for_mount(1)
        self.assertEqual(self.stop_daemon(), 0)
        self.wait_for_log("monitor(#)the daemon has gone")
        self.take_off_leftovers()
        if not os.path.exists(self.partition.node):
            self.partition.lay_node()
        self.start_daemon(settled=False)
        self.wait_for_mount(2)


    def test_where_the_daemons_queue_is_full_a_stick_is_announced_later(self):
        self.write_config(strict="enable")
        self.start_daemon()
        busy = self.make_partition("sdb1")
        self.hold_hook()
        vyworld.send(busy.add_message())
        self.wait_until("the hook holds the daemon up", lambda: self.log.matching(r"^daemon\(#\)action 1 "))
        refused = 0
        while refused == 0:  # some 4,096 are taken
            with vyworld.connect() as connection:
                try:
                    connection.sendall(b"ACTION=remove,MAJOR=8,MINOR=250\0")
                    connection.recv(1)
                except (BrokenPipeError, ConnectionResetError):
                    refused += 1
        self.start_agent("--proc", "/proc")
        self.wait_until("its message is reset", lambda: self.log.matching(
            r"^courier\(#\)message not delivered, will be sent again \((Connection reset by peer|Broken pipe)\)"))
        self.assertEqual(vyworld.mounted_names(), ["sdb1"])
        self.let_hook_go()
        self.wait_until("it is mounted", lambda: self.mounted())
        self.assertEqual(len(self.mounted()), 1)
        self.assertEqual(self.log.matching(r"^monitor\(#\)the daemon has gone"), [])


class Stranger(AgentTest):
    """Another user has taken the daemon's name while it was away."""

    USER = 1234

    def setUp(self):
        super().setUp()
        self.sysfs.add_stick("sda")
        vyworld.write(RECORD, "")
        os.chmod(RECORD, 0o666)

    def test_is_told_nothing_and_the_daemon_everything(self):
        stranger = FakeDaemon(self, user=self.USER)
        self.start_agent()
        told = (rf"courier\(#\)process {stranger.process.pid} of user {self.USER} listens in the daemon's place and "
                "is not believed")
        self.wait_until("it is told of", lambda: self.log.matching(told))
        self.wait_until("it is tried again", lambda: len(self.connections()) > 3)
        self.assertEqual(set(self.connections()), {None})
        self.assertEqual(len(self.log.matching(told)), 1)
        stranger.kill()
        FakeDaemon(self)
        self.wait_for_told("+8:0", "+8:1")

    def test_gets_nothing_of_what_the_daemon_before_was_told(self):
        daemon = FakeDaemon(self)
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        daemon.kill()
        stranger = FakeDaemon(self, user=self.USER)
        self.wait_until("it is told of", lambda: self.log.matching("is not believed"))
        self.sysfs.remove("sda")
        os.kill(self.agent.pid, signal.SIGHUP)
        self.settle()
        self.assertEqual(self.told(), ["+8:0", "+8:1"])
        stranger.kill()
        self.sysfs.add_stick("sdb")
        FakeDaemon(self)
        self.wait_for_told("+8:0", "+8:1", "+8:16", "+8:17")

    def test_is_told_nothing_by_a_scan(self):
        FakeDaemon(self, user=self.USER)
        done = self.run_agent("--scan", "--wait", "1")
        self.assertEqual(done.status, 1)
        self.assertEqual(set(self.connections()), {None})
        self.wait_for_log("errand(#)the daemon cannot be reached, 2 messages dropped")


class Once(AgentTest):
    def once(self, action, devpath, major, minor, **items):
        done = self.run_agent("--once", event={
            "ACTION": action, "DEVPATH": devpath, "SUBSYSTEM": "block", "MAJOR": str(major),
            "MINOR": str(minor), **items})
        self.assertEqual((done.status, done.out, done.err), (0, "", ""))

    def test_one_event_of_each_kind_is_told(self):
        FakeDaemon(self)
        self.sysfs.add_stick("sda")
        self.once("add", "/devices/x/block/sda", 8, 0, DEVTYPE="disk")
        self.once("add", "/devices/x/block/sda/sda1", 8, 1, DEVTYPE="partition")
        self.sysfs.remove("sda")
        self.once("remove", "/devices/x/block/sda/sda1", 8, 1)
        self.once("remove", "/devices/x/block/sda", 8, 0)
        self.once("add", "/devices/x/block/sda", 8, 0)  # is there no more
        self.once("add", "/devices/virtual/block/loop0", 7, 0)
        self.once("change", "/devices/x/block/sda", 8, 0)
        self.assertEqual(self.told(), ["+8:0", "+8:1", "-8:1", "-8:0"])

    def test_a_changed_medium_is_told(self):
        FakeDaemon(self)
        self.sysfs.add_stick("sda", parts=(1, 2))
        self.once("change", "/devices/x/block/sda", 8, 0, DISK_MEDIA_CHANGE="1")
        self.assertEqual(self.told(), ["-8:1", "-8:2", "-8:0", "+8:0", "+8:1", "+8:2"])
        self.sysfs.remove_partition("sda", 1)
        self.sysfs.remove_partition("sda", 2)
        self.sysfs.set("sda/size", "0")
        self.once("change", "/devices/x/block/sda", 8, 0, DISK_MEDIA_CHANGE="1")
        self.assertEqual(self.told()[6:], ["-8:0"])

    def test_a_disk_with_a_changed_medium_is_opened(self):
        FakeDaemon(self)
        self.require_strace()
        self.sysfs.add_stick("sda")
        event = {"ACTION": "change", "DEVPATH": "/x/block/sda", "SUBSYSTEM": "block",
                 "MAJOR": "8", "MINOR": "0", "DISK_MEDIA_CHANGE": "1"}
        subprocess.run(
            ["strace", "-qq", "-o", AGENT_TRACE, "-e", "trace=/^open", *self.command("--once")],
            check=True, env={**vyworld.environment(True), **event})
        trace = [line for line in vyworld.read_lines(AGENT_TRACE) if '"/dev/sda"' in line]
        self.assertEqual(len(trace), 1)
        self.assertIn("O_RDONLY", trace[0])

    def test_an_absent_daemon_is_waited_for(self):
        self.sysfs.add_stick("sda")
        process = subprocess.Popen(
            self.command("--scan", "--wait", str(vyworld.LIMIT)), env=vyworld.environment())
        self.settle()
        FakeDaemon(self)
        self.assertEqual(process.wait(vyworld.LIMIT), 0)
        self.assertEqual(self.told(), ["+8:0", "+8:1"])

    def test_a_daemon_that_stays_away_is_a_failure(self):
        self.sysfs.add_stick("sda")
        for mode in ("--scan", "--once"):
            event = {"ACTION": "remove", "DEVPATH": "/block/sda", "MAJOR": "8", "MINOR": "0"}
            done = self.run_agent(mode, "--wait", "1", event=event)
            self.assertEqual(done.status, 1)
        self.wait_for_log("errand(#)the daemon cannot be reached, 2 messages dropped")
        self.wait_for_log("errand(#)the daemon cannot be reached, 1 messages dropped")

    def test_a_scan_tells_of_everything(self):
        FakeDaemon(self)
        self.sysfs.add_stick("sda")
        self.sysfs.add_card("mmcblk0")
        self.assertEqual(self.run_agent("--scan").status, 0)
        self.assertEqual(self.told(), ["+8:0", "+8:1", "+179:0", "+179:1"])


class Events(AgentTest):
    """The kernel's own messages, and others'."""

    def send(self, data, address):
        with socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM,
                           NETLINK_KOBJECT_UEVENT) as sender:
            sender.bind((0, 0))
            sender.sendto(data, address)

    def agent_port(self):
        """The number under which the agent's socket can be written to."""
        for line in vyworld.read_lines("/proc/net/netlink")[1:]:
            _, protocol, port, groups = line.split()[:4]
            if int(protocol) == NETLINK_KOBJECT_UEVENT and int(groups, 16) == KERNEL_GROUP:
                return int(port)
        return None

    def assert_dropped(self, data, address):
        before = len(self.log.matching(r"^netlink\(#\)dropped: message of process \d+, user 0$"))
        self.send(data, address)
        self.wait_until("the agent has dropped it", lambda: len(self.log.matching(
            r"^netlink\(#\)dropped: message of process \d+, user 0$")) > before)

    def test_messages_of_other_processes_are_dropped(self):
        FakeDaemon(self)
        self.sysfs.add_stick("sda")
        agent = self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        self.sysfs.add_stick("sdb")
        event = add_event("/devices/x/block/sdb", 8, 16)
        self.assert_dropped(event, (0, KERNEL_GROUP))
        self.assert_dropped(event, (self.agent_port(), 0))
        # The kernel passes this one on as if it were its own.
        self.assert_dropped(struct.pack("=IHHII", 16 + len(event), 16, 1, 1, 0) + event, (0, 0))
        self.settle()
        self.assertEqual(self.told(), ["+8:0", "+8:1"])
        os.kill(agent.pid, signal.SIGHUP)
        self.wait_for_told("+8:0", "+8:1", "+8:16", "+8:17")

    def test_the_kernels_own_message_arrives(self):
        if not os.path.exists(LOOP + "/uevent"):
            self.skipTest("this kernel has no loop0")
        FakeDaemon(self)
        self.sysfs.add_stick("sda")
        self.start_agent(strace=["-e", "trace=recvmsg", "-e", "signal=none"])
        self.wait_for_told("+8:0", "+8:1")
        vyworld.write(LOOP + "/uevent", "add")
        found = self.wait_until("the event is received", lambda: [
            line for line in vyworld.read_lines(AGENT_TRACE)
            if "add@/devices/virtual/block/loop0\\0" in line])
        self.assertRegex(found[0], r"nl_pid=0, nl_groups=0x0*1\b")
        self.assertRegex(found[0], r"SCM_CREDENTIALS.*pid=0, uid=0, gid=0")
        self.settle()
        self.assertEqual(self.told(), ["+8:0", "+8:1"])  # a loop device is no business of its
        self.assertEqual(self.log.matching(r"^netlink\(#\)dropped"), [])

    def assert_asleep(self):
        """No system call in five seconds, but those for events of the machine that runs the test."""
        for _ in range(12):
            before = len(vyworld.read_lines(AGENT_TRACE))
            time.sleep(5)
            calls = vyworld.read_lines(AGENT_TRACE)[before:]
            if not calls:
                return
            self.assertTrue([call for call in calls if "@/" in call], calls)
            self.assertEqual([call for call in calls if "Timeout" in call], [])

    def test_nothing_is_done_while_nothing_happens(self):
        FakeDaemon(self)
        self.sysfs.add_stick("sda")
        self.start_agent(strace=["-e", "signal=none"])
        self.wait_for_told("+8:0", "+8:1")
        self.wait_for_log("lookout(#)sda1 has no filesystem that is known")  # which nobody has mounted
        self.settle()
        self.assert_asleep()

    def test_nothing_is_done_while_there_is_nothing_to_tell_an_absent_daemon(self):
        self.start_agent(strace=["-e", "signal=none"])
        self.wait_until("it waits", lambda: any(
            "poll(" in line for line in vyworld.read_lines(AGENT_TRACE)))
        self.settle()
        self.assert_asleep()


class CommandLine(AgentTest):
    def assert_refused(self, *arguments, reason):
        done = self.tool("vyhotplug-agent", *arguments)
        self.assertEqual((done.status, done.out), (2, ""))
        self.assertTrue(done.err.endswith(
            f"vyhotplug-agent: {reason}\nTry 'vyhotplug-agent --help'.\n"), done.err)

    def test_a_wrong_command_line_of_the_agent_is_refused(self):
        self.assert_refused(reason="no mode given")
        self.assert_refused("--monitor", "--list", reason="more than one mode")
        self.assert_refused("--monitor", "x", reason="unexpected argument: x")
        self.assert_refused("--nothing", reason="wrong command line")
        self.assert_refused("--scan", "--wait", "soon",
                            reason="not a number of seconds up to a day: soon")
        self.assert_refused("--list", "--sysfs", "sys", reason="not an absolute path: sys")

    def test_the_agent_has_the_services_version(self):
        version = self.tool("vyhotplugd", "-v").err.split()[3]
        done = self.tool("vyhotplug-agent", "--version")
        self.assertEqual((done.status, done.err), (0, ""))
        number = re.escape(re.sub(r"\.(alpha|beta|rc)", r"~\1", version.removesuffix("-bk")))
        self.assertRegex(done.out, rf"^vyhotplug-agent {number}(\+\d+)?(\.g[0-9a-f]+)?(\.dirty)?\n$")

    def test_the_agent_explains_itself(self):
        done = self.tool("vyhotplug-agent", "--help")
        self.assertEqual((done.status, done.err), (0, ""))
        for option in ("--monitor", "--once", "--scan", "--list", "--all", "--state", "--wait"):
            self.assertIn(option, done.out)

    def test_an_environment_without_an_event_is_a_failure(self):
        self.assertEqual(self.run_agent("--once").status, 1)
        self.wait_for_log("errand(#)no event in the environment: ACTION, DEVPATH, MAJOR, MINOR")

    def test_the_agent_logs_under_its_own_name(self):
        self.start_agent()
        self.assertEqual(self.stop_agent(signal.SIGINT), 0)
        line = self.wait_for_log("monitor(#)ends")[0]
        self.assertEqual((line.program, line.facility), ("vyhotplug-agent", 3))

    def test_no_broken_pipe_kills_the_agent(self):
        self.start_agent()
        self.assertTrue(self.signal_mask("SigIgn") >> (signal.SIGPIPE - 1) & 1)
        reader, writer = os.pipe()
        os.close(reader)
        try:
            done = subprocess.run(self.command("--help"), stdout=writer, stderr=subprocess.PIPE,
                                  check=False)
        finally:
            os.close(writer)
        self.assertEqual(done.returncode, 1)

    def test_a_full_disk_is_a_failure_of_what_prints(self):
        self.sysfs.add_stick("sda")
        for mode in ("--list", "--help", "--version"):
            with open("/dev/full", "w", encoding="utf-8") as full:
                done = subprocess.run(self.command(mode), stdout=full, stderr=subprocess.PIPE,
                                      check=False)
            self.assertEqual((done.returncode, done.stderr),
                             (1, b"vyhotplug-agent: cannot write to standard output\n"), mode)

    def test_nothing_of_debug_level_is_logged(self):
        FakeDaemon(self)
        self.sysfs.add_stick("sda")
        self.start_agent()
        self.wait_for_told("+8:0", "+8:1")
        self.assertEqual(self.stop_agent(), 0)
        self.wait_for_log("monitor(#)ends")
        self.assertEqual([line for line in self.log.lines if line.priority > vyworld.INFO], [])

    def test_sysfs_that_is_not_there_is_a_failure_of_the_list(self):
        done = self.run_agent("--list", "--sysfs", "/tmp/nothing")
        self.assertEqual((done.status, done.out), (1, ""))
        self.assertIn("/tmp/nothing/block: No such file or directory", done.err)
        self.assertTrue(os.path.isdir(SYSFS))
