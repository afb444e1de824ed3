"""The administrator's settings: device file, share file, removals, restarts; the refreshes."""

import os
import signal

import vyworld
from vyworld import DEVICE_FILE, SHARE_FILE, SystemTest

EDITED = """[1234:00ab:SERA:1]
Share Name=Music
Comment=The band's
File System=EXT3
Sync=Enable
Read Only=Enable
Guest Access=Enable
Guest Hide=Enable
Administrator=Hide
Full Access Users=500,501,
Read Only Users=502,
Block Users=503,
Hide Users=504,
"""

EDITED_SHARE = """[Music]
Comment=The band's
File System=EXT3
Sync=Enable
Read Only=Enable
Guest Access=Enable
Guest Hide=Enable
Administrator=HideT
Full Access Users=500,501,
Read Only Users=502,
Block Users=503,
Hide Users=504,
Identifier=1234:00ab:SERA:1
Path=/tmp/hotplug/sda1
VID=4660
PID=171
Serial=SERA
Manufactuare=Acme
Product=FlashKey
Speed=480
"""


class Settings(SystemTest):
    def setUp(self):
        super().setUp()
        self.start_daemon()
        self.partition = self.make_partition("sda1")

    def refresh(self):
        """Has the daemon write the files anew."""
        count = self.service.count()
        self.daemon.signal(signal.SIGHUP)
        self.wait_for_refresh(count + 1)

    def test_an_edit_shows_in_the_share_file_after_a_refresh(self):
        self.plug(self.partition)
        vyworld.write(DEVICE_FILE, EDITED)
        self.refresh()
        self.assertEqual(vyworld.read(SHARE_FILE), EDITED_SHARE)
        self.assertEqual(vyworld.read(DEVICE_FILE), EDITED)

    def test_an_edit_by_hand_is_written_back_in_the_usual_form(self):
        self.plug(self.partition)
        vyworld.write(DEVICE_FILE, "# mine\r\n[1234:00ab:SERA:1]\r\nshare name =  Music  \r\n"
                      "READONLY=1\nadministrator=ro\nfull access users = 500, 500,7x, 501\n"
                      "sync=yes\nfilesystem=ext4\n")
        self.refresh()
        self.assertEqual(vyworld.read(DEVICE_FILE), """[1234:00ab:SERA:1]
Share Name=Music
Comment=
File System=DefFS
Read Only=Enable
Guest Access=Disable
Guest Hide=Disable
Administrator=ReadOnly
Full Access Users=500,501,
Read Only Users=
Block Users=
Hide Users=
""")

    def test_settings_outlive_removal_and_restart(self):
        self.plug(self.partition)
        vyworld.write(DEVICE_FILE, EDITED)
        self.unplug(self.partition)
        self.assertEqual(vyworld.read(SHARE_FILE), "")
        self.assertEqual(vyworld.read(DEVICE_FILE), EDITED)
        self.assertEqual(self.stop_daemon(), 0)
        self.start_daemon()
        self.assertEqual(vyworld.read(DEVICE_FILE), EDITED)
        self.partition.lay_node()
        self.plug(self.partition)
        self.assertEqual(vyworld.read(SHARE_FILE), EDITED_SHARE)

    def test_records_without_settings_go_with_their_device(self):
        other = self.make_partition("sdb1")
        self.plug(self.partition, other)
        vyworld.write(DEVICE_FILE, "[1234:00ab:SERA:1]\n[1234:00ab:SERB:1]\n[never:seen::1]\n"
                      "[9:9:kept:2]\nGuest Access=1\n")
        self.unplug(other)
        self.assert_tool("vyhotpluginfo", "-l", out="1234:00ab:SERA:1\n9:9:kept:2\n")

    def test_a_record_that_was_deleted_costs_the_share_until_the_next_device(self):
        self.plug(self.partition)
        os.unlink(DEVICE_FILE)
        self.refresh()
        line, = self.wait_for_log("config_file_dir(#)Error - External Directory Config.")
        self.assertEqual(line.priority, vyworld.ERR)
        self.assertEqual(vyworld.read(SHARE_FILE) + vyworld.read(DEVICE_FILE), "")
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.plug(self.make_partition("sdb1"))
        self.assertIn("[Drive(A1)]\n", vyworld.read(SHARE_FILE))
        self.assert_tool("vyhotpluginfo", "-l", out="1234:00ab:SERA:1\n1234:00ab:SERB:1\n")

    def test_fixed_directories_are_shared_before_the_partitions(self):
        vyworld.write(DEVICE_FILE, "[internal:1]\nPath=/tmp/one\n[internal:2]\nPath=/tmp/two\n"
                      "Comment=Second\n[internal:3]\nShare Name=Third\nPath=/tmp/three\n"
                      "[bad]\nPath=relative\n[internal:4]\nPath=/tmp/four\n")
        self.plug(self.partition)
        shares = vyworld.read(SHARE_FILE)
        self.assertTrue(shares.startswith("""[Disk(0)]
Path=/tmp/one
Comment=Internal Disk
Identifier=internal:1
[Disk(1)]
Comment=Second
Path=/tmp/two
Identifier=internal:2
[Third]
Path=/tmp/three
Comment=Internal Disk
Identifier=internal:3
[Disk(2)]
Path=/tmp/four
Comment=Internal Disk
Identifier=internal:4
[Drive(A1)]
"""), shares)
        self.assertNotIn("[bad]", vyworld.read(DEVICE_FILE))
        done = self.tool("vyhotpluginfo", "internal:1")
        self.assertTrue(done.out.startswith("DevType=InternalDisk\nShare Name=\n"), done.out)
        self.assertIn("Status=Mount\nAuto Mount Share Name=Disk(0)\n", done.out)

    def test_a_partition_with_a_fixed_path_is_shared_once(self):
        vyworld.write(DEVICE_FILE, "[1234:00ab:SERA:1]\nPath=/tmp/fixed\n")
        count = self.service.count()
        vyworld.send(self.partition.add_message())
        self.wait_for_refresh(count + 1)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertEqual(vyworld.read(SHARE_FILE), "[Disk(0)]\nPath=/tmp/fixed\n"
                         "Comment=Internal Disk\nIdentifier=1234:00ab:SERA:1\n")

    def test_two_partitions_may_have_one_share_name(self):
        other = self.make_partition("sda2")
        self.plug(self.partition, other)
        vyworld.write(DEVICE_FILE, "[1234:00ab:SERA:1]\nShare Name=Same\n"
                      "[1234:00ab:SERA:2]\nShare Name=Same\n")
        self.refresh()
        sections = [line for line in vyworld.read_lines(SHARE_FILE) if line.startswith("[")]
        self.assertEqual(sections, ["[Same]", "[Same]"])


class Refresh(SystemTest):
    def test_the_first_refresh_drops_what_has_no_settings(self):
        vyworld.write(DEVICE_FILE, "[a:b::1]\n" + EDITED + "[c:d::1]\nFile System=EXT2\n")
        self.start_daemon()
        self.assertEqual(vyworld.read(DEVICE_FILE), EDITED)
        self.assertEqual(vyworld.read(SHARE_FILE), "")

    def test_a_hangup_of_an_idle_daemon_refreshes_once(self):
        self.start_daemon()
        for count in (2, 3):
            vyworld.write(SHARE_FILE, "stale")
            self.daemon.signal(signal.SIGHUP)
            self.wait_for_refresh(count)
            self.let_it_idle()
            self.assertEqual(self.service.count(), count)
            self.assertEqual(vyworld.read(SHARE_FILE), "")

    def test_an_idle_daemon_leaves_its_files_alone(self):
        self.start_daemon()
        before = os.stat(SHARE_FILE).st_ino, os.stat(DEVICE_FILE).st_ino
        self.let_it_idle()
        self.assertEqual((os.stat(SHARE_FILE).st_ino, os.stat(DEVICE_FILE).st_ino), before)
        self.assertEqual(self.service.count(), 1)

    def test_a_hangup_does_not_read_the_configuration_again(self):
        self.start_daemon()
        self.write_config(smbconfigpath="/tmp/other.conf")
        self.daemon.signal(signal.SIGHUP)
        self.wait_for_refresh(2)
        self.assertFalse(os.path.exists("/tmp/other.conf"))

    def test_without_a_share_service_all_else_is_the_same(self):
        self.start_daemon()
        for content in (None, "", "12x\n", "999999999\n"):
            if content is None:
                os.unlink(vyworld.SERVICE_PID_FILE)
            else:
                vyworld.write(vyworld.SERVICE_PID_FILE, content)
            vyworld.write(SHARE_FILE, "stale")
            self.daemon.signal(signal.SIGHUP)
            self.wait_until("the share file is new", lambda: vyworld.read(SHARE_FILE) == "")
        self.assertEqual(self.service.count(), 1)
        self.assert_alive()

    def test_a_file_that_cannot_be_replaced_stops_nothing_and_leaves_no_temporary_one(self):
        os.makedirs(SHARE_FILE + "/full")
        self.start_daemon()
        partition = self.make_partition("sda1")
        vyworld.send(partition.add_message())
        self.wait_for_refresh(2)
        self.assertEqual(vyworld.mounted_names(), ["sda1"])
        self.assertIn(partition.identifier, vyworld.read(DEVICE_FILE))
        self.assertFalse(os.path.exists("/tmp/vyhotplug.dir.conf.tmp"))
