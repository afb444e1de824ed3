#include "ctl/machine.h"

#include "fake/fake_world.h"
#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// A folder in which programs are looked for, in place of the machine's.
class MachineProgram : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(mount("x", folder, "tmpfs", 0, nullptr), 0);
        write_file(std::string(folder) + "/tool", "");
        EXPECT_EQ(chmod((std::string(folder) + "/tool").c_str(), 0755), 0);
        write_file(std::string(folder) + "/text", "");
        EXPECT_EQ(chmod((std::string(folder) + "/text").c_str(), 0644), 0);
    }

    static void answers(int wait_status, const std::string& output, int polls = 0)
    {
        fake_world().programs[std::string(folder) + "/tool"].push_back(
            {wait_status, polls, output});
    }

    static constexpr char folder[] = "/usr/local/sbin";
};

} // namespace

// ---- processes ----

TEST(MachinePidFile, IsOfAProcessThatThereIs)
{
    char name[machine_name_size];
    const std::string own = std::to_string(getpid());
    write_file("/tmp/pid", own + "\n");
    EXPECT_TRUE(machine_pid_file_is_alive("/tmp/pid", name));
    std::string comm = read_file("/proc/self/comm");
    comm.pop_back();
    EXPECT_EQ(name, comm);
    write_file("/tmp/pid", own);
    EXPECT_TRUE(machine_pid_file_is_alive("/tmp/pid", name));
    for (const std::string& text : {std::string("999999"), std::string("0"), std::string("-1"),
                                    std::string("self"), std::string(), own + "x"}) {
        write_file("/tmp/pid", text);
        EXPECT_FALSE(machine_pid_file_is_alive("/tmp/pid", name)) << text;
        EXPECT_STREQ(name, "") << text;
    }
    EXPECT_FALSE(machine_pid_file_is_alive("/tmp/none", name));
}

TEST(MachinePidFile, WhoMayNotReadItBelievesIt)
{
    write_file("/tmp/pid", "0");
    ASSERT_EQ(chmod("/tmp/pid", 0600), 0);
    const ChildResult child = run_child([] {
        char name[machine_name_size] = "x";
        // access(2) asks for the real user.
        if (setuid(1) != 0)
            return 99;
        return machine_pid_file_is_alive("/tmp/pid", name) && name[0] == '\0' ? 0 : 1;
    });
    EXPECT_EQ(child.status, 0);
}

// ---- programs ----

TEST_F(MachineProgram, IsWhatCanBeRun)
{
    EXPECT_TRUE(machine_has_program("tool"));
    EXPECT_FALSE(machine_has_program("text"));
    EXPECT_FALSE(machine_has_program("tools"));
    EXPECT_TRUE(machine_has_program("sh")) << "in the last of the folders";
}

TEST_F(MachineProgram, IsAskedWithOneWord)
{
    FileBytes answer;
    answers(0, "so it is\n");
    EXPECT_TRUE(machine_ask("tool", "--word", &answer));
    EXPECT_STREQ(answer.bytes.get(), "so it is\n");
    EXPECT_EQ(answer.size, 9U);
    EXPECT_EQ(fake_world().spawned,
              (std::vector<std::vector<std::string>>{{std::string(folder) + "/tool", "--word"}}));
}

TEST_F(MachineProgram, OneThatIsNotThereIsNotAsked)
{
    FileBytes answer;
    EXPECT_FALSE(machine_ask("tools", "x", &answer));
    EXPECT_EQ(fake_world().count("spawn"), 0);
    fake_world().fail("spawn", 1, EAGAIN);
    EXPECT_FALSE(machine_ask("tool", "x", &answer));
}

TEST_F(MachineProgram, OneThatFailsHasNotAnswered)
{
    FileBytes answer;
    answers(1 << 8, "no\n");
    EXPECT_FALSE(machine_ask("tool", "x", &answer));
    answers(0, "no end\n", -1);
    EXPECT_FALSE(machine_ask("tool", "x", &answer));
    EXPECT_EQ(fake_world().signals.size(), 1U) << "one that does not end is ended";
}

// ---- files and devices ----

TEST(MachineFiles, AnyOfAFolderMayHaveIt)
{
    fs::create_directories("/tmp/folder/inner");
    write_file("/tmp/folder/a", "nothing");
    write_file("/tmp/folder/inner/c", "wanted");
    EXPECT_FALSE(machine_any_file_has("/tmp/folder", "wanted"));
    write_file("/tmp/folder/b", "it is wanted here");
    EXPECT_TRUE(machine_any_file_has("/tmp/folder", "wanted"));
    EXPECT_FALSE(machine_any_file_has("/tmp/none", "wanted"));
}

TEST(MachineUuid, IsThatOfTheDeviceWithTheseNumbers)
{
    char uuid[machine_uuid_size] = "";
    EXPECT_FALSE(machine_uuid(7, 3, uuid)) << "without udev";
    fs::create_directories("/dev/disk/by-uuid");
    fs::create_symlink("../../loop3", "/dev/disk/by-uuid/ABCD-1234");
    fs::create_symlink("../../loop4", "/dev/disk/by-uuid/0000-4444");
    fs::create_symlink("../../none", "/dev/disk/by-uuid/FFFF-0000");
    fs::create_symlink("../../null", "/dev/disk/by-uuid/NULL-0000");
    EXPECT_TRUE(machine_uuid(7, 3, uuid));
    EXPECT_STREQ(uuid, "ABCD-1234");
    EXPECT_TRUE(machine_uuid(7, 4, uuid));
    EXPECT_STREQ(uuid, "0000-4444");
    EXPECT_FALSE(machine_uuid(7, 5, uuid));
    EXPECT_FALSE(machine_uuid(8, 3, uuid));
    EXPECT_FALSE(machine_uuid(1, 3, uuid)) << "no block device";
    const std::string fits(machine_uuid_size - 1, 'f');
    fs::create_symlink("../../loop6", "/dev/disk/by-uuid/" + fits);
    fs::create_symlink("../../loop7", "/dev/disk/by-uuid/" + fits + "f");
    EXPECT_TRUE(machine_uuid(7, 6, uuid));
    EXPECT_EQ(uuid, fits);
    EXPECT_FALSE(machine_uuid(7, 7, uuid));
}

// ---- the kernel ----

TEST(MachineKernel, HasAModuleOfThatName)
{
    utsname system = {};
    ASSERT_EQ(uname(&system), 0);
    if (!exists("/lib/modules"))
        GTEST_SKIP() << "this system has no /lib/modules";
    ASSERT_EQ(mount("x", "/lib/modules", "tmpfs", 0, nullptr), 0);
    const std::string folder = std::string("/lib/modules/") + system.release;
    EXPECT_FALSE(machine_has_module("vfat"));
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    write_file(folder + "/modules.dep",
               "kernel/fs/other.ko.xz:\nkernel/fs/fat/vfat.ko: kernel/fs/fat/fat.ko\n");
    write_file(folder + "/modules.builtin", "kernel/fs/ext4/ext4.ko\n");
    for (const char* name : {"vfat", "ext4", "other"})
        EXPECT_TRUE(machine_has_module(name)) << name;
    for (const char* name : {"fat2", "xt4", "ext", "vfa"})
        EXPECT_FALSE(machine_has_module(name)) << name;
    EXPECT_TRUE(machine_has_filesystem("other")) << "as a module";
    EXPECT_TRUE(machine_has_filesystem("tmpfs"));
    EXPECT_TRUE(machine_has_filesystem("proc"));
    EXPECT_FALSE(machine_has_filesystem("tmpf"));
    EXPECT_FALSE(machine_has_filesystem("mpfs"));
}
