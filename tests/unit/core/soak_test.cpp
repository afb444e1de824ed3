// Thousands of devices that come and go: memory, descriptors and the world stay as they were.
#include "busy_devices.h"
#include "core/command.h"
#include "core/refresh.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// What must not grow, besides memory.
struct Held {
    int descriptors;
    size_t entries;
    size_t mounts;
    int files; // in the places that the service writes to
    std::string devices;
    std::string shares;
};

int count_names(const char* directory)
{
    int count = 0;
    DIR* open = opendir(directory);
    if (open == nullptr)
        return -1;
    while (readdir(open) != nullptr)
        count++;
    closedir(open);
    return count;
}

class SoakTest : public BusyDevicesTest {
  protected:
    SoakTest()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        write_file("/var/run/vynas-fssd.pid", "4321\n");
        write_file(device_file, "[internal:1]\nPath=/tmp/folder\nFull Access Users=500,501,\n");
    }
    ~SoakTest() override
    {
        close(ends[0]);
        close(ends[1]);
    }

    // Handles a message as the run loop does; one that is held back waits on the pretended clock.
    int handle(std::string text, int fd = -1, uint64_t delay_usec = 0)
    {
        const HotplugCmd cmd = {.fd = fd,
                                .len = static_cast<int32_t>(text.size() + 1),
                                .text = text.data(),
                                .reserved = 0,
                                .due =
                                    delay_usec == 0 ? 0 : fake_world().monotonic_usec + delay_usec};
        return command_handle(&ctx, &cmd);
    }

    std::string request(const std::string& text)
    {
        EXPECT_EQ(handle(text, ends[0]), -1);
        char answer[16];
        const ssize_t length = recv(ends[1], answer, sizeof answer, MSG_DONTWAIT);
        return length < 0 ? "nothing" : std::string(answer, static_cast<size_t>(length - 1));
    }

    // Plug, mount, refresh, unmount, mount, unmount, refresh, pull, refresh. Every cycle has a
    // fresh world, whose journal and children would grow, and every second one another filesystem.
    void live(int cycle)
    {
        fake_world_reset();
        fake_log_clear();
        fake_world().media[node_of("sda1")] = {cycle % 2 == 0 ? "vfat" : "ext4"};
        fake_world().programs["/tmp/vyhotplugd-evhook.sh"].resize(5); // five successes
        const bool read_only = cycle % 3 == 0;
        ASSERT_EQ(handle(std::string("ACTION=add,MAJOR=8,MINOR=1,RANGE=16,VID=1234,PID=00ab,"
                                     "SID=ABC,VNAME=Acme,PNAME=FlashKey,SPEED=480,RO=") +
                             (read_only ? "1" : "0"),
                         -1, 2000000),
                  DIRTY_ADDED);
        refresh_tables(&ctx, DIRTY_ADDED);
        ASSERT_NE(read_file(share_file).find("[Drive(A1)]\n"), std::string::npos);
        ASSERT_EQ(request("ACTION=unmount,sda1"), "success");
        ASSERT_EQ(request("ACTION=mount,sda1"), "success");
        ASSERT_EQ(request("ACTION=mount,usb"), "faild");
        ASSERT_EQ(fake_world().mounts.size(), 1U);
        refresh_tables(&ctx, 0);
        if (cycle % 2 == 0) {
            ASSERT_EQ(request("ACTION=unmount,all,force"), "success"); // pulled out unmounted
        }
        ASSERT_EQ(handle("ACTION=add,MAJOR=8,MINOR=18"), -1); // nothing that can be mounted
        ASSERT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=18"), -1);
        ASSERT_EQ(handle("ACTION=remove,MAJOR=8,MINOR=1"), DIRTY_REMOVED);
        refresh_tables(&ctx, DIRTY_REMOVED);
    }

    // A static executable counts the test's own strings too: the log's are given back.
    static long blocks_held()
    {
        fake_log_clear();
        return memory_blocks();
    }

    Held held()
    {
        const Held now = {.descriptors = open_descriptors(),
                          .entries = entries().size(),
                          .mounts = fake_world().mounts.size(),
                          .files = count_names("/tmp") + count_names(node_of("").c_str()) +
                                   count_names(directory_of("").c_str()),
                          .devices = read_file(device_file),
                          .shares = read_file(share_file)};
        return now;
    }

    int ends[2];
};

TEST_F(SoakTest, TwoThousandDevicesLeaveNothingBehind)
{
    for (int cycle = 1; cycle <= 8; cycle++)
        ASSERT_NO_FATAL_FAILURE(live(cycle)) << cycle;
    const Held before = held();
    ASSERT_NO_FATAL_FAILURE(live(9));
    ASSERT_NO_FATAL_FAILURE(live(10));
    const long memory = blocks_held();
    for (int cycle = 11; cycle <= 2000; cycle++)
        ASSERT_NO_FATAL_FAILURE(live(cycle)) << cycle;
    EXPECT_EQ(blocks_held(), memory) << "blocks of memory";
    const Held after = held();
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.files, before.files) << "names in the file system";
    EXPECT_EQ(after.entries, 0U);
    EXPECT_EQ(after.mounts, 0U);
    EXPECT_EQ(after.devices, before.devices);
    EXPECT_EQ(after.shares, before.shares);
    EXPECT_EQ(read_table(), "");
}

} // namespace
