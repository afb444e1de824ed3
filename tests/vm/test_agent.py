"""Events that get lost, that come twice, and that somebody else passes on."""

from media import Filesystem
from vmtest import VmTest

FLOOD = "n=0; while [ $n -lt 4000 ]; do echo change >/sys/class/mem/null/uevent; n=$((n + 1)); done"


class Events(VmTest):
    def test_lost_and_repeated_events_and_partitions_that_are_read_anew(self):
        before = self.wait_for_idle()
        agent, = before.of("vyhotplug-agent")
        self.vm.run(f"kill -STOP {agent['pid']}")
        self.vm.run(FLOOD)  # more than the kernel keeps for one who does not listen
        image = self.plug("stick", Filesystem("fat32", "HOLIDAY"), Filesystem("ext4"), serial="AC0042")
        self.wait_for_kernel("sda2")
        self.vm.run(f"kill -CONT {agent['pid']}")
        self.wait_for_mounts("sda1", "sda2")
        state = self.wait_for_idle()
        self.assertTrue(state.said("monitor(#)events were lost, all will be looked through"))

        self.vm.run("echo add >/sys/class/block/sda/uevent; echo add >/sys/class/block/sda1/uevent")
        self.assertNotEqual(self.vm.attempt("blockdev --rereadpt /dev/sda")[0], 0)  # it is in use
        after = self.wait_for_idle()
        self.assert_same(state, after)
        self.assertEqual(after.announcements(), state.announcements())
        self.assertEqual(after.signals, state.signals)

        self.vm.run("vyunmount sda && blockdev --rereadpt /dev/sda")
        self.wait_for_mounts("sda1", "sda2")
        self.assert_file("sda1", "this is HOLIDAY\n")
        self.assertEqual(len(self.wait_for_idle().announcements()), len(state.announcements()) + 2)

        self.stop("vyhotplug-agent")
        self.pass_on_single_events(image)
        self.start_agent()
        self.wait_until("the agent is there", lambda now: now.of("vyhotplug-agent"))
        self.wait_for_mounts()
        self.assert_same(before, self.wait_for_idle())

    def pass_on_single_events(self, image):
        """As another device manager would."""
        path = self.vm.run("readlink -f /sys/class/block/sda1").strip().removeprefix("/sys")

        def once(action, minor):
            self.vm.run(f"ACTION={action} DEVPATH={path[:-1]}{minor} SUBSYSTEM=block MAJOR=8 MINOR={minor} "
                        "vyhotplug-agent --once")
        self.vm.pull("stick")
        self.wait_until("the disk has gone", lambda now: "sda" not in now.kernel)
        once("remove", 1)
        self.wait_for_mounts("sda2")
        once("remove", 2)
        self.wait_for_mounts()
        self.wait_for_idle()
        self.vm.plug("stick", image, serial="AC0042")
        self.wait_for_kernel("sda2")
        once("add", 2)
        self.wait_for_mounts("sda2")
        state = self.wait_for_idle()
        self.assertEqual(state.share("sda2")["Identifier"], "46f4:0001:AC0042:2")
        self.vm.pull("stick")
        self.wait_until("the disk has gone", lambda now: "sda" not in now.kernel)
        once("remove", 2)
