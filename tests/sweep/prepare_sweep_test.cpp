// What is kept for a next start, with every allocation and call failing once.
#include "fake/fake_world.h"
#include "prepare/adoption.h"
#include "prepare/leftovers.h"
#include "prepare/lock.h"
#include "prepare/settings.h"
#include "support/files.h"
#include "sweep/sweep.h"

#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <set>
#include <string>

namespace {

char mount_folder[] = "/tmp/hotplug";
char device_folder[] = "/tmp/hotdev";
char share_file[] = "/tmp/vynas.dir.conf";

// ---- the settings' copy and its generations ----

constexpr char device_file[] = "/tmp/hotplug.dev.conf";
const std::string copy = settings_copy;
const std::string before = "[1:2:3:1]\nShare Name=Music\n";
const std::string after = "[1:2:3:1]\nShare Name=Films\n";

void expect_nothing_unfinished(const char* folder, std::set<std::string> finished)
{
    for (const std::string& name : names_in(folder))
        EXPECT_EQ(finished.count(name), 1U) << name;
}

// A copy that is said not to be there, once, is not kept: nobody can do better.
struct Saving {
    int result = 0;
    int not_there = 0;
};

Scenario saving(Saving* saving)
{
    Scenario scenario;
    scenario.prepare = [] {
        mkdir("/var/lib", 0755);
        mkdir("/var/lib/vyhotplugd", 0755);
        write_file(device_file, after);
        write_file(copy, before);
        for (int number = 1; number <= settings_generations; number++)
            write_file(copy + "." + std::to_string(number),
                       "[g]\nShare Name=" + std::to_string(number));
        unlink((copy + ".0").c_str());
    };
    scenario.run = [saving] { saving->result = settings_save(device_file, nullptr); };
    scenario.finish = [] {};
    scenario.check = [saving](bool struck) {
        EXPECT_LE(saving->result, 0);
        EXPECT_TRUE(saving->result == 0 || struck);
        EXPECT_EQ(read_file(device_file), after);
        // Nothing of the administrator's is lost, whatever failed.
        const bool kept = read_file(copy + ".1") == before || read_file(copy + ".0") == before;
        saving->not_there += read_file(copy) == after && !kept ? 1 : 0;
        EXPECT_LE(saving->not_there, struck ? 1 : 0);
        EXPECT_TRUE(read_file(copy) == before || read_file(copy) == after);
        EXPECT_TRUE(struck || read_file(copy) == after);
        for (const char* number : {"1", "2", "3", "4"}) {
            int found = 0;
            for (int place = 1; place <= settings_generations; place++)
                found += read_file(copy + "." + std::to_string(place)) ==
                         "[g]\nShare Name=" + std::string(number);
            EXPECT_EQ(found, 1) << number;
        }
        expect_nothing_unfinished("/var/lib/vyhotplugd",
                                  {"hotplug.dev.conf", "hotplug.dev.conf.0", "hotplug.dev.conf.1",
                                   "hotplug.dev.conf.2", "hotplug.dev.conf.3", "hotplug.dev.conf.4",
                                   "hotplug.dev.conf.5"});
    };
    return scenario;
}

TEST(Sweep, KeepingAGenerationOfTheSettingsWithoutMemory)
{
    Saving run;
    sweep_allocations(saving(&run));
    EXPECT_EQ(run.not_there, 0);
}

TEST(Sweep, KeepingAGenerationOfTheSettingsWithFailingCalls)
{
    Saving run;
    sweep_calls(saving(&run));
}

// ---- notes of what is mounted ----

struct Noting {
    ConfHotplug config = {};
    MountinfoGuard table;
    int result = 0;

    Noting()
    {
        config.mountpath = mount_folder;
        config.devicepath = device_folder;
        config.mountext = 1;
        const std::string text = "36 35 7:0 / /tmp/hotplug/sda1 rw - ext4 /tmp/hotdev/sda1 rw\n";
        EXPECT_EQ(mountinfo_parse(text.data(), text.size(), table.out()), 0);
    }

    Scenario scenario()
    {
        Scenario scenario;
        scenario.prepare = [] {
            mkdir(mount_folder, 0755);
            mkdir(device_folder, 0755);
            (void)mknod("/tmp/hotdev/sda1", S_IFBLK | 0600, makedev(7, 0)); // may be there
            mkdir("/run/vyhotplugd", 0755);
            write_file(adoption_notes_path, "old\n");
        };
        scenario.run = [this] { result = adoption_note(&config, table.get()); };
        scenario.finish = [] {};
        scenario.check = [this](bool struck) {
            EXPECT_TRUE(result == 0 || struck);
            const std::string notes = read_file(adoption_notes_path);
            EXPECT_TRUE(result == 0 ? notes != "old\n" && notes.back() == '\n' : notes == "old\n");
            expect_nothing_unfinished("/run/vyhotplugd", {"mounts"});
        };
        return scenario;
    }
};

TEST(Sweep, NotingMountsWithoutMemory)
{
    Noting noting;
    sweep_allocations(noting.scenario());
}

TEST(Sweep, NotingMountsWithFailingCalls)
{
    Noting noting;
    sweep_calls(noting.scenario());
}

// ---- taking off some of what is mounted ----

const char* refuse_second(void*, const MountinfoEntry& mount)
{
    return strcmp(mount.directory, "/tmp/hotplug/sdb1") == 0 ? "it was pulled" : nullptr;
}

struct TakingOff {
    ConfHotplug config = {};
    MountinfoGuard table;
    int result = 0;

    TakingOff()
    {
        config.mountpath = mount_folder;
        config.devicepath = device_folder;
        config.smbconfigpath = share_file;
        const std::string text = "36 35 8:1 / /tmp/hotplug/sda1 rw - ext4 /dev/x rw\n"
                                 "37 35 8:17 / /tmp/hotplug/sdb1 rw - ext4 /dev/y rw\n";
        EXPECT_EQ(mountinfo_parse(text.data(), text.size(), table.out()), 0);
    }

    Scenario scenario()
    {
        Scenario scenario;
        scenario.prepare = [] {
            mkdir(mount_folder, 0755);
            for (const char* directory : {"/tmp/hotplug/sda1", "/tmp/hotplug/sdb1"}) {
                mkdir(directory, 0755);
                fake_world().mounts[directory] = {"/dev/x", "ext4", 0, ""};
            }
            write_file(share_file, "[A]\nPath=/tmp/hotplug/sda1\n[B]\nPath=/tmp/hotplug/sdb1\n");
        };
        scenario.run = [this] {
            result = leftovers_take_off(&config, table.get(), refuse_second, nullptr);
        };
        scenario.finish = [] {};
        scenario.check = [this](bool struck) {
            EXPECT_TRUE(result == 0 || struck);
            EXPECT_EQ(fake_world().mounts.count("/tmp/hotplug/sda1"), 1U);
            EXPECT_TRUE(fake_world().mounts.count("/tmp/hotplug/sdb1") == 0 || struck);
            EXPECT_EQ(read_file(share_file).find("[A]\nPath=/tmp/hotplug/sda1\n[B]\n"), 0U);
            EXPECT_TRUE(struck || read_file(share_file).ends_with("sdb1\n[B]\n"));
        };
        return scenario;
    }
};

TEST(Sweep, TakingSomeMountsOffWithoutMemory)
{
    TakingOff taking;
    sweep_allocations(taking.scenario());
}

TEST(Sweep, TakingSomeMountsOffWithFailingCalls)
{
    TakingOff taking;
    sweep_calls(taking.scenario());
}

// ---- the lock ----

TEST(Sweep, TakingTheLockWithFailingCalls)
{
    int result = 0;
    FdGuard lock;
    Scenario scenario;
    scenario.prepare = [] {
        unlink("/var/run/vyhotplugd.pid");
        write_file("/var/run/vynas-fssd.pid", "1\n");
    };
    scenario.run = [&] { result = lock_take(&lock); };
    scenario.finish = [&] { lock.reset(-1); };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(result == 0 || struck);
        EXPECT_EQ(read_file("/var/run/vynas-fssd.pid"), "1\n");
    };
    sweep_calls(scenario);
}

} // namespace
