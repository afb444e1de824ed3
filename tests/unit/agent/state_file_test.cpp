// The state file: what of the announcer's devices it brings back.
#include "agent/state_file.h"
#include "support/files.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

static constexpr char path[] = "/tmp/state";

static int count_files(const std::string& directory)
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        count += entry.exists() ? 1 : 0;
    return count;
}

class StateFile : public testing::Test {
  protected:
    ~StateFile() override { unlink(path); }

    void put(DeviceState state, int32_t minor, const char* text = "sda1", uint64_t identity = 1)
    {
        Device* device = announcer_.devices.begin() + used();
        ASSERT_TRUE(block_name_parse(text, &device->name));
        device->state = state;
        device->major = 8;
        device->minor = minor;
        device->identity = identity;
    }

    const Device* find(int32_t minor) const
    {
        for (const Device& device : announcer_.devices) {
            if (device.state != DEVICE_UNSEEN && device.major == 8 && device.minor == minor)
                return &device;
        }
        return nullptr;
    }

    int used() const
    {
        int count = 0;
        for (const Device& device : announcer_.devices)
            count += device.state != DEVICE_UNSEEN ? 1 : 0;
        return count;
    }

    int save(const char* file = path) { return state_save(file, daemon_, announcer_); }
    int load(const char* file = path) { return state_load(file, &read_, &announcer_); }

    const DaemonIdentity daemon_ = {4711, 123456789012345ULL, "boot-id"};
    DaemonIdentity read_ = {};
    Announcer announcer_;
};

TEST_F(StateFile, BringsBackWhatTheDaemonWasTold)
{
    put(DEVICE_TOLD, 1, "sda1", 0xfedcba9876543210ULL);
    put(DEVICE_LEAVING, 2);
    put(DEVICE_SENT, 3);
    put(DEVICE_GONE, 4);
    put(DEVICE_PASSING, 5);
    put(DEVICE_PASSED, 6);
    put(DEVICE_TOLD, 12, "mmcblk0p12");
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(read_file(path), "vyhotplug-agent 1\ndaemon 4711 123456789012345 boot-id\n"
                               "8 1 sda1 fedcba9876543210\n8 2 sda1 0000000000000000\n"
                               "8 12 mmcblk0p12 0000000000000001\n");
    ASSERT_EQ(load(), 0);
    EXPECT_TRUE(daemon_is_same(read_, daemon_));
    EXPECT_EQ(used(), 3);
    const Device* told = find(1);
    ASSERT_NE(told, nullptr);
    EXPECT_EQ(told->identity, 0xfedcba9876543210ULL);
    EXPECT_EQ(told->state, DEVICE_TOLD);
    EXPECT_STREQ(told->name.text, "sda1");
    ASSERT_NE(find(2), nullptr); // the daemon has it still, but sysfs never shows it
    EXPECT_EQ(find(2)->identity, 0U);
    ASSERT_NE(find(12), nullptr);
    EXPECT_EQ(find(12)->name.partition, 12);
    struct stat status;
    ASSERT_EQ(stat(path, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(StateFile, BringsBackADaemonWithoutABootId)
{
    const DaemonIdentity daemon = {1, 2, ""};
    ASSERT_EQ(state_save(path, daemon, announcer_), 0);
    ASSERT_EQ(load(), 0);
    EXPECT_TRUE(daemon_is_same(read_, daemon));
    EXPECT_EQ(used(), 0);
}

TEST_F(StateFile, HoldsAFullTable)
{
    for (uint32_t i = 0; i < agent_table_limit; i++)
        put(DEVICE_TOLD, static_cast<int>(1000000 + i), "mmcblk9999p9999", UINT64_MAX);
    ASSERT_EQ(save(), 0);
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(used(), static_cast<int>(agent_table_limit));
}

TEST_F(StateFile, IsNotThereAtFirst)
{
    put(DEVICE_TOLD, 7);
    EXPECT_EQ(load(), -ENOENT);
    EXPECT_EQ(used(), 0);
}

TEST_F(StateFile, IsKeptNowhereWithoutAName)
{
    EXPECT_EQ(save(""), 0);
    EXPECT_EQ(load(""), -ENOENT);
}

TEST_F(StateFile, CannotBeKeptWithoutItsDirectory)
{
    EXPECT_EQ(save("/tmp/nothing/state"), -ENOENT);
    EXPECT_EQ(save(std::string(5000, 'x').c_str()), -ENAMETOOLONG);
}

TEST_F(StateFile, ReplacesALinkAndNotWhatItLeadsTo)
{
    write_file("/tmp/victim", "untouched");
    ASSERT_EQ(symlink("/tmp/victim", path), 0);
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(read_file("/tmp/victim"), "untouched");
    EXPECT_EQ(load(), 0);
}

TEST_F(StateFile, KeepsWhatIsThereWhenItsNameIsTaken)
{
    ASSERT_EQ(mkdir(path, 0755), 0);
    EXPECT_EQ(save(), -EISDIR);
    EXPECT_EQ(rmdir(path), 0); // empty, as before
}

TEST_F(StateFile, KeepsTheOldFileWhenTheDiskIsFull)
{
    mkdir("/tmp/small", 0755);
    ASSERT_EQ(mount("small", "/tmp/small", "tmpfs", 0, "size=64k"), 0);
    ASSERT_EQ(save("/tmp/small/state"), 0);
    const std::string before = read_file("/tmp/small/state");
    const int rest = open("/tmp/small/rest", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    while (write(rest, before.data(), before.size()) > 0) {
    } // until nothing more goes in
    close(rest);
    EXPECT_EQ(save("/tmp/small/state"), -ENOSPC);
    EXPECT_EQ(read_file("/tmp/small/state"), before);
    unlink("/tmp/small/rest");
    EXPECT_EQ(count_files("/tmp/small"), 1); // nothing is left beside it
    EXPECT_EQ(umount("/tmp/small"), 0);
}

TEST_F(StateFile, IsRefusedWhenItIsNotInItsForm)
{
    const std::string head = "vyhotplug-agent 1\n";
    const std::string daemon = "daemon 12 34 boot\n";
    const std::string entry = "8 1 sda1 0123456789abcdef\n";
    const std::string wrong[] = {
        "",
        "vyhotplug-agent 2\n" + daemon,
        head,
        head + entry,
        head + "daemon\n",
        head + "daemon x 34 boot\n",
        head + "daemon 12 x boot\n",
        head + "daemon 12 34 " + std::string(100, 'b') + "\n",
        head + daemon + "8 1 sda1\n",
        head + daemon + "8 1 sda1 xyz\n",
        head + daemon + "8 1 sda1 123456789abcdef0123\n",
        head + daemon + "8 1 loop0 12\n",
        head + daemon + "8 x sda1 12\n",
        head + daemon + "x 1 sda1 12\n",
        head + daemon + entry + "\n",
        head + daemon + "8 1 sda1 12 13\n",
        head + daemon + entry + std::string(10000, 'x'),
        head + daemon + entry + std::string(10, '\0'),
    };
    for (const std::string& text : wrong) {
        write_file(path, text);
        announcer_forget(&announcer_);
        put(DEVICE_TOLD, 7);
        EXPECT_EQ(load(), -EINVAL) << text;
        EXPECT_EQ(used(), 0) << text;
        EXPECT_EQ(read_.pid, 0) << text;
    }
    write_file(path, head + daemon + entry);
    EXPECT_EQ(load(), 0);
}

TEST_F(StateFile, IsRefusedWhenItHoldsTooMuch)
{
    std::string text = "vyhotplug-agent 1\ndaemon 12 34 boot\n";
    for (uint32_t i = 0; i <= agent_table_limit; i++)
        text += "8 " + std::to_string(i) + " sda1 1\n";
    write_file(path, text);
    EXPECT_EQ(load(), -EINVAL);
    EXPECT_EQ(used(), 0);
}

TEST_F(StateFile, IsRefusedWhenItCannotBeRead)
{
    mkdir("/tmp/state-directory", 0755);
    EXPECT_NE(load("/tmp/state-directory"), 0);
    rmdir("/tmp/state-directory");
}
