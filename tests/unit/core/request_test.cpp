#include "core/request.h"

#include "busy_devices.h"
#include "config/filesystems.h"
#include "device/kinds.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "support/files.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::string>;

const char service_pid_file[] = "/var/run/vynas-fssd.pid";

class RequestTest : public BusyDevicesTest {
  protected:
    int request(const std::string& target, HotplugAction action, int32_t force = 0)
    {
        return hotplug_mount_request(&ctx, target.c_str(), action, force, ctx.config);
    }

    int mount(const std::string& target) { return request(target, HOTPLUG_ACTION_MOUNT); }

    int unmount(const std::string& target, int32_t force = 0)
    {
        return request(target, HOTPLUG_ACTION_UNMOUNT, force);
    }

    // Unmounts, and gives the names of what was selected, in order: the hook is run for each.
    Names selected_by(const std::string& target)
    {
        EXPECT_EQ(unmount(target), 0) << target;
        Names names;
        for (const std::string& call : hook_calls())
            names.push_back(call.substr(strlen("unmount ")));
        return names;
    }

    void add_disks()
    {
        add(MAJOR_SD, 0);
        add(MAJOR_SD, 1);
        add(MAJOR_MMC, 1, 8);
        add(MAJOR_SD, 15);
        add(MAJOR_SD, 16);
        add(MAJOR_SD, 17);
        add(MAJOR_SD, 31);
        add(MAJOR_MMC, 9, 8);
        add(MAJOR_SD, 33);
    }

    static void put_service(const std::string& pid) { write_file(service_pid_file, pid); }

    Names log_of(const std::string& target)
    {
        fake_log_clear();
        (void)unmount(target);
        Names texts;
        for (const FakeLogLine& line : fake_log_lines()) {
            if (line.priority == LOG_DEBUG && line.text.compare(0, 7, "daemon(") == 0)
                texts.push_back(line.text.substr(line.text.find(')') + 1));
        }
        return texts;
    }
};

// ---- which devices a target names ----

struct SelectionRow {
    const char* target;
    Names names;
};

void PrintTo(const SelectionRow& row, std::ostream* out)
{
    *out << row.target;
}

class SelectionTest : public RequestTest, public testing::WithParamInterface<SelectionRow> {};

const SelectionRow selections[] = {
    {"all", {"sda0", "sda1", "mmcblka1", "sda15", "sdb0", "sdb1", "sdb15", "mmcblkb1", "sdc1"}},
    {"sd", {"sda0", "sda1", "sda15", "sdb0", "sdb1", "sdb15", "sdc1"}},
    {"mmcblk", {"mmcblka1", "mmcblkb1"}},
    {"sda", {"sda0", "sda1", "sda15"}},
    {"sdb", {"sdb0", "sdb1", "sdb15"}},
    {"sdB", {"sdb0", "sdb1", "sdb15"}},
    {"sdd", {}},
    {"sda1", {"sda1"}},
    {"sdA1", {"sda1"}},
    {"sdb1", {"sdb1"}},
    {"sdb01", {"sdb1"}},
    {"sda2", {}},
    {"sda0", {"sda0"}},
    {"sda16", {"sdb0"}},  // the number is added, whatever the range
    {"sdb-1", {"sda15"}}, // a number all the same
    {"sda-1", {}},        // no minor is below 0
    {"sdbz", {"sda0"}},   // kept: what is no number selects minor 0 alone
    {"sdc1x", {"sda0"}},
    {"sda 1", {"sda1"}},
    {"sda1 ", {"sda0"}},
    {"sda99999999999", {"sda0"}}, // out of range is no number either
    {"sda2147483647", {}},
    {"mmcblka", {"mmcblka1"}},
    {"mmcblkb", {"mmcblkb1"}},
    {"mmcblkb1", {"mmcblkb1"}},
    {"mmcblka9", {"mmcblkb1"}},
    {"mmcblkzz", {}},
};

INSTANTIATE_TEST_SUITE_P(Each, SelectionTest, testing::ValuesIn(selections),
                         [](const auto& row) { return "Row" + std::to_string(row.index); });

TEST_P(SelectionTest, NamesTheseDevices)
{
    add_disks();
    EXPECT_EQ(selected_by(GetParam().target), GetParam().names) << GetParam().target;
}

TEST_F(RequestTest, AnUnknownTargetIsRefused)
{
    add_disks();
    for (const char* target :
         {"usb", "", "s", "SD", "SDA", "ALL", "allx", "al", "hda1", "xsda", "/dev/sda1", "sd1",
          "sd-", "sd ", "sd/", "mmcblk0", "mmcblk0p1", "mmc", " all"}) {
        EXPECT_EQ(unmount(target), -1) << target;
        EXPECT_EQ(mount(target), -1) << target;
    }
    EXPECT_EQ(hook_calls(), Names{});
    EXPECT_EQ(fake_world().count("umount"), 0);
    EXPECT_EQ(fake_world().count("mount"), 0);
}

TEST_F(RequestTest, ALetterThatIsNotAsciiIsRefused)
{
    add_disks();
    EXPECT_EQ(unmount("sd\xE4"), -1);
}

TEST_F(RequestTest, WholeKindsOfAnEmptySetAreServed)
{
    for (const char* target : {"all", "sd", "mmcblk"}) {
        EXPECT_EQ(mount(target), 0) << target;
        EXPECT_EQ(unmount(target), 0) << target;
    }
}

TEST_F(RequestTest, ADiskOfAnEmptySetIsRefused)
{
    for (const char* target : {"sda", "sda1", "sda-1", "sdbz", "mmcblka"}) {
        EXPECT_EQ(mount(target), -1) << target;
        EXPECT_EQ(unmount(target), -1) << target;
    }
}

TEST_F(RequestTest, ADiskOfAKindThatIsNotThereIsRefused)
{
    add(MAJOR_SD, 1);
    EXPECT_EQ(unmount("mmcblka"), -1);
    EXPECT_EQ(unmount("mmcblka1"), -1);
    EXPECT_EQ(unmount("mmcblk"), 0);
    EXPECT_EQ(hook_calls(), Names{});
}

TEST_F(RequestTest, TheFirstOfAKindTellsTheMinorsOfEach)
{
    add(MAJOR_MMC, 0, 4);
    add(MAJOR_SD, 1, 8);
    add(MAJOR_SD, 17, 16); // with 8 minors each this is the third disk
    EXPECT_EQ(selected_by("sdc"), (Names{"sdb1"}));
}

TEST_F(RequestTest, ARangeOfZeroIsRefused)
{
    add(MAJOR_SD, 1, 0);
    EXPECT_EQ(unmount("sda"), -1);
    EXPECT_EQ(unmount("sda1"), -1);
    EXPECT_EQ(hook_calls(), Names{});
    EXPECT_EQ(unmount("sd"), 0);
    EXPECT_EQ(hook_calls(), (Names{"unmount sda1"}));
}

TEST_F(RequestTest, LogsWhatATargetMeans)
{
    add(MAJOR_SD, 1, 16, false);
    add(MAJOR_MMC, 1, 8, false);
    EXPECT_EQ(log_of("all"), (Names{"unmount all (-1 0--1)"}));
    EXPECT_EQ(log_of("sd"), (Names{"unmount sd (8 0--1)"}));
    EXPECT_EQ(log_of("mmcblk"), (Names{"unmount mmcblk (179 0--1)"}));
    EXPECT_EQ(log_of("sdb"), (Names{"unmount sdb (8 16-31)"}));
    EXPECT_EQ(log_of("sdb1"), (Names{"unmount sdb1 (8 17-17)"}));
    EXPECT_EQ(log_of("sdbz"), (Names{"unmount sdbz (8 0-0)"}));
    EXPECT_EQ(log_of("mmcblkb"), (Names{"unmount mmcblkb (179 8-15)"}));
    EXPECT_EQ(log_of("usb"), Names{});
}

TEST_F(RequestTest, LogsTheWordOfTheRequest)
{
    EXPECT_EQ(mount("all"), 0);
    const std::vector<FakeLogLine> lines = fake_log_lines();
    ASSERT_EQ(lines.size(), 1U); // before it looks whether there is anything at all
    EXPECT_EQ(lines[0].priority, LOG_DEBUG);
    EXPECT_EQ(fake_log_texts()[0], "daemon(#)mount all (-1 0--1)");
}

// ---- mounting ----

TEST_F(RequestTest, MountsLogsAndRunsTheHook)
{
    MountEntry* entry = add(MAJOR_SD, 1, 16, false);
    EXPECT_EQ(mount("sda1"), 0);
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_EQ(hook_calls(), (Names{"mount sda1"}));
    const std::vector<FakeLogLine> lines = fake_log_lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1].priority, LOG_ERR);
    EXPECT_EQ(fake_log_texts()[1], "daemon(#)mount /media/dev/sda1 /media/mnt/sda1");
    EXPECT_EQ(fake_log_texts()[2].substr(0, 27), "daemon(#)action 3 mntpath (");
    const Names& journal = fake_world().journal;
    EXPECT_EQ(journal[2].substr(0, 6), "mount "); // behind mknod and mkdir
    EXPECT_EQ(journal[3].substr(0, 6), "spawn ");
    EXPECT_TRUE(fake_world().signals.empty());
}

TEST_F(RequestTest, MountsWithTheGivenOptions)
{
    add(MAJOR_SD, 1, 16, false);
    ConfHotplug options = config;
    options.defaultuid = 42;
    EXPECT_EQ(hotplug_mount_request(&ctx, "all", HOTPLUG_ACTION_MOUNT, 0, &options), 0);
    EXPECT_EQ(fake_world().mounts[directory_of("sda1")].options.substr(0, 7), "uid=42,");
}

TEST_F(RequestTest, AMountThatFailsIsAnErrorWithoutLogOrHook)
{
    MountEntry* entry = add(MAJOR_SD, 1, 16, false);
    fake_world().media.clear();
    EXPECT_EQ(mount("all"), -1);
    EXPECT_EQ(entry->mounted, 0);
    EXPECT_EQ(hook_calls(), Names{});
    EXPECT_EQ(fake_log_texts().size(), 1U);
}

TEST_F(RequestTest, WhatIsMountedAlreadyIsNoError)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    EXPECT_EQ(mount("all"), 0);
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_EQ(fake_world().count("mount"), 1); // it is tried all the same
    EXPECT_EQ(hook_calls(), Names{});
}

TEST_F(RequestTest, AnErrorDoesNotEndTheMounting)
{
    add(MAJOR_SD, 1, 16, false);
    MountEntry* second = add(MAJOR_SD, 2, 16, false);
    fake_world().media.erase(node_of("sda1"));
    EXPECT_EQ(mount("all"), -1);
    EXPECT_EQ(second->mounted, 1);
    EXPECT_EQ(hook_calls(), (Names{"mount sda2"}));
}

TEST_F(RequestTest, ALaterSuccessDoesNotHideAnError)
{
    add(MAJOR_SD, 1, 16, false);
    add(MAJOR_SD, 2, 16, false);
    fake_world().media.erase(node_of("sda2"));
    EXPECT_EQ(mount("all"), -1);
    EXPECT_EQ(mount("sda1"), 0);
}

// ---- unmounting ----

TEST_F(RequestTest, HookThenFlagThenSignalThenPauseThenUnmount)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    entry->sharename = strdup("Drive(A1)");
    write_file(config.smbconfigpath, "[Drive(A1)]\nPath=/media/mnt/sda1\n");
    put_service("4321\n");
    fake_world().programs["/tmp/vyhotplugd-evhook.sh"] = {{}};
    // The share's flag stands in the file before the service is told, and not before the hook.
    std::string at_the_signal;
    fake_world().on_sleep = [&](uint64_t) { at_the_signal = read_file(config.smbconfigpath); };
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_EQ(at_the_signal, "[Drive(A1)]\nPath=/media/mnt/sda1\n[Drive(A1)]\n");
    const Names journal = fake_world().journal;
    ASSERT_GE(journal.size(), 6U);
    EXPECT_EQ(journal[0].substr(0, 6), "spawn ");
    EXPECT_EQ(journal[1].substr(0, 7), "waitpid");
    EXPECT_EQ(journal[2], "kill 4321 1");
    EXPECT_EQ(journal[3], "nanosleep 400000");
    EXPECT_EQ(journal[4], "sync");
    EXPECT_EQ(journal[5], "umount /media/mnt/sda1");
    EXPECT_EQ(entry->mounted, 0);
    EXPECT_EQ(entry->gone, 0);
}

TEST_F(RequestTest, TheHookRunsBeforeTheShareIsFlagged)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    entry->sharename = strdup("Drive(A1)");
    write_file(config.smbconfigpath, "[Drive(A1)]\n");
    fake_world().programs["/tmp/vyhotplugd-evhook.sh"] = {
        {.wait_status = 0, .polls = 1, .output = ""}};
    std::string during_the_hook;
    fake_world().on_sleep = [&](uint64_t usec) {
        if (usec == 200000)
            during_the_hook = read_file(config.smbconfigpath);
    };
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_EQ(during_the_hook, "[Drive(A1)]\n");
    EXPECT_EQ(read_file(config.smbconfigpath), "[Drive(A1)]\n[Drive(A1)]\n");
}

TEST_F(RequestTest, LogsAnUnmount)
{
    add(MAJOR_SD, 1);
    EXPECT_EQ(unmount("sda1"), 0);
    const std::vector<FakeLogLine> lines = fake_log_lines();
    EXPECT_EQ(lines.back().priority, LOG_ERR);
    EXPECT_EQ(fake_log_texts().back(), "daemon(#)unmount /media/dev/sda1 /media/mnt/sda1");
}

TEST_F(RequestTest, TheHooksCodeIsTheRequests)
{
    add(MAJOR_SD, 1);
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_EQ(fake_log_texts()[1].substr(0, 27), "daemon(#)action 4 mntpath (");
}

TEST_F(RequestTest, WithoutAShareNothingIsFlagged)
{
    add(MAJOR_SD, 1);
    write_file(config.smbconfigpath, "");
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_EQ(read_file(config.smbconfigpath), "");
}

// What an earlier daemon left mounted has no name before the first refresh.
TEST_F(RequestTest, WhatWasAdoptedIsNamedBeforeItsShareIsFlagged)
{
    config.adopt = 1;
    MountEntry* entry = add(MAJOR_SD, 1);
    entry->fstype = CONF_DEV_FS_EXT3; // no label is looked for
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_STREQ(entry->sharename, "Drive(A1)");
    EXPECT_EQ(fake_world().calls("rename /tmp/vyhotplug.dir.conf.tmp").size(), 1U);
    const std::string shares = read_file(config.smbconfigpath);
    EXPECT_EQ(shares.find("[Drive(A1)]\nIdentifier="), 0U);
    EXPECT_EQ(shares.substr(shares.size() - 13), "\n[Drive(A1)]\n");
}

TEST_F(RequestTest, NothingElseIsNamedBeforeItsShareIsFlagged)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    EXPECT_EQ(unmount("sda1"), 0); // without the key
    config.adopt = 1;
    EXPECT_EQ(unmount("sda1"), 0); // not mounted
    EXPECT_EQ(entry->sharename, nullptr);
    EXPECT_EQ(mount("sda1"), 0);
    entry->sharename = strdup("Drive(A1)");
    EXPECT_EQ(unmount("sda1"), 0); // named
    EXPECT_TRUE(fake_world().calls("rename /tmp/vyhotplug.dir.conf.tmp").empty());
}

TEST_F(RequestTest, WithoutAServiceNobodyIsTold)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_TRUE(fake_world().signals.empty());
    EXPECT_EQ(fake_world().slept_usec, 400000U); // the pause is made all the same
    EXPECT_EQ(entry->mounted, 0);
}

TEST_F(RequestTest, ABusyFilesystemWithoutForceIsAnError)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    fake_world().busy[directory_of("sda1")] = EBUSY;
    EXPECT_EQ(unmount("sda1"), -1);
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_EQ(fake_world().count("umount2"), 0);
    for (const std::string& text : fake_log_texts())
        EXPECT_EQ(text.find("unmount /media"), std::string::npos) << text;
}

TEST_F(RequestTest, ABusyFilesystemYieldsToForce)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    fake_world().busy[directory_of("sda1")] = EBUSY;
    EXPECT_EQ(unmount("sda1", 1), 0);
    EXPECT_EQ(entry->mounted, 0);
}

TEST_F(RequestTest, AnErrorDoesNotEndTheUnmounting)
{
    add(MAJOR_SD, 1);
    MountEntry* second = add(MAJOR_SD, 2);
    fake_world().busy[directory_of("sda1")] = EBUSY;
    EXPECT_EQ(unmount("all"), -1);
    EXPECT_EQ(second->mounted, 0);
    EXPECT_EQ(hook_calls(), (Names{"unmount sda1", "unmount sda2"}));
}

TEST_F(RequestTest, WhatIsNotMountedGoesThroughAllTheSameAndIsNoError)
{
    MountEntry* entry = add(MAJOR_SD, 1, 16, false);
    put_service("77");
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_EQ(hook_calls(), (Names{"unmount sda1"}));
    EXPECT_EQ(fake_world().signals, (std::vector<std::pair<pid_t, int>>{{77, SIGHUP}}));
    EXPECT_EQ(fake_world().slept_usec, 400000U);
    EXPECT_EQ(fake_world().count("umount"), 1);
    EXPECT_EQ(entry->mounted, 0);
}

TEST_F(RequestTest, EntriesStayInTheSetAndCanBeMountedAgain)
{
    MountEntry* entry = add(MAJOR_SD, 1);
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_EQ(entries(), (std::vector<MountEntry*>{entry}));
    EXPECT_EQ(mount("sda1"), 0);
    EXPECT_EQ(entry->mounted, 1);
    EXPECT_EQ(entries(), (std::vector<MountEntry*>{entry}));
}

// Pulled out or not, what is in the set is served until the refresh takes it out.
TEST_F(RequestTest, WhatIsGoneIsSelectedToo)
{
    MountEntry* mounted = add(MAJOR_SD, 1);
    MountEntry* unmounted = add(MAJOR_SD, 2, 16, false);
    mounted->gone = 1;
    unmounted->gone = 1;
    EXPECT_EQ(unmount("sda1"), 0);
    EXPECT_EQ(mounted->mounted, 0);
    EXPECT_EQ(mount("sda2"), 0);
    EXPECT_EQ(unmounted->mounted, 1);
    EXPECT_EQ(hook_calls(), (Names{"unmount sda1", "mount sda2"}));
    EXPECT_EQ(mounted->gone, 1);
    EXPECT_EQ(unmounted->gone, 1);
}

// The type that was found once is what a later mount asks for.
TEST_F(RequestTest, MountingAgainAsksForTheSameFilesystem)
{
    add(MAJOR_SD, 1);
    EXPECT_EQ(unmount("sda1"), 0);
    fake_world().media[node_of("sda1")] = {"ext3"};
    EXPECT_EQ(mount("sda1"), -1);
    EXPECT_EQ(fake_world().count("mount"), 1);
}

} // namespace
