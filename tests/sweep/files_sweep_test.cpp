// Configuration, messages, tables and files with every allocation and call failing once.
#include "config/config_file.h"
#include "config/ini.h"
#include "core/message.h"
#include "records/conf_dev_file.h"
#include "records/config_file_dir.h"
#include "support/files.h"
#include "sweep/sweep.h"
#include "tools/info_tool.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr char config_path[] = "/tmp/sweep.conf";
constexpr char device_path[] = "/tmp/hotplug.dev.conf";
constexpr char share_path[] = "/tmp/vynas.dir.conf";

// ---- configuration ----

struct LoadConfig {
    ConfHotplug* config = nullptr;

    Scenario scenario()
    {
        Scenario result;
        result.prepare = [] {
            write_file(config_path, "smbtype=samba\nds/naswork=disable\nsmbconfigpath=/a/share\n"
                                    "deviceconfigpath=/a/device\nmountpath=/a/mnt\n"
                                    "devicepath=/a/dev\ndefaultuid=500\ndefaultfilepermission=600\n"
                                    "vfatoptions=iocharset\nntfsoptions=big\nextfsoptions=acl\n"
                                    "mountfs=ntfs,ext\nfatvolumelabel=disable\n");
        };
        result.run = [this] { config = load_config_hotplug(config_path); };
        result.finish = [] {};
        result.check = [this](bool struck) {
            check(struck);
            release();
        };
        return result;
    }

    // A path or text is what the file says, its default, or missing.
    static void expect_text(const char* text, const char* file, const char* fallback)
    {
        if (text != nullptr) {
            EXPECT_TRUE(strcmp(text, file) == 0 || strcmp(text, fallback) == 0) << text;
        }
    }

    void check(bool struck)
    {
        if (config == nullptr) {
            EXPECT_TRUE(struck);
            return;
        }
        expect_text(config->smbconfigpath, "/a/share", "/tmp/vynas.dir.conf");
        expect_text(config->deviceconfigpath, "/a/device", "/tmp/hotplug.dev.conf");
        expect_text(config->mountpath, "/a/mnt", "/tmp/hotplug.dev.conf");
        expect_text(config->devicepath, "/a/dev", "/tmp/hotplug.dev.conf");
        expect_text(config->vfatoptions, "iocharset", "utf8");
        expect_text(config->ntfsoptions, "big", "big");
        EXPECT_TRUE(config->defaultuid == 500 || struck);
        EXPECT_TRUE(config->mountvfat == 0 || struck);
    }

    void release()
    {
        if (config == nullptr)
            return;
        free(config->vfatoptions);
        free(config->ntfsoptions);
        free(config->extfsoptions);
        config->vfatoptions = config->ntfsoptions = config->extfsoptions = nullptr;
        free_config_hotplug(config);
        config = nullptr;
    }
};

TEST(Sweep, LoadingTheConfigurationWithoutMemory)
{
    LoadConfig load;
    sweep_allocations(load.scenario());
}

TEST(Sweep, LoadingTheConfigurationWithFailingCalls)
{
    LoadConfig load;
    sweep_calls(load.scenario());
}

// ---- messages ----

TEST(Sweep, ParsingAMessageWithoutMemory)
{
    int result = 0;
    ControlMessage message = {};
    Scenario scenario;
    scenario.prepare = [&] { message = {}; };
    scenario.run = [&] {
        result = message_parse("ACTION=add,MAJOR=8,MINOR=17,VID=12ab,SID=XYZ,VNAME=Acme ,"
                               "PNAME=Key,SPEED=480,force,sda1",
                               &message);
    };
    scenario.finish = [&] { message_clear(&message); };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(result == 0 || result == -1);
        EXPECT_TRUE(result == 0 || struck);
        EXPECT_TRUE(struck || message.dev.minor == 17);
    };
    sweep_allocations(scenario);
}

// ---- single values ----

TEST(Sweep, ReadingValuesWithoutMemory)
{
    int result = 0;
    int list_result = 0;
    char* value = nullptr;
    vylist* sections = nullptr;
    Scenario scenario;
    scenario.prepare = [&] {
        value = nullptr;
        sections = nullptr;
        write_file(config_path, "[a]\nkey=one\nkey=\n[b]\n" + std::string(6000, 'x') + "=y\n");
    };
    scenario.run = [&] {
        result = config_get_ini_string(config_path, "a", "key", &value, -1);
        list_result = config_get_section_list(config_path, &sections);
    };
    scenario.finish = [&] {
        config_release_string(value);
        config_release_section_list(sections);
    };
    scenario.check = [&](bool struck) {
        EXPECT_TRUE(result == 0 || (struck && result == -ENOMEM && value == nullptr)) << result;
        EXPECT_TRUE(list_result == 0 || (struck && list_result == -ENOMEM && sections == nullptr));
    };
    sweep_allocations(scenario);
}

// ---- tables and their files ----

const std::string stored = "[1234:00ab:ABC:1]\nShare Name=Music\nComment=\nFile System=NTFS\n"
                           "Sync=Enable\nRead Only=Enable\nGuest Access=Disable\n"
                           "Guest Hide=Disable\nAdministrator=Block\nFull Access Users=\n"
                           "Read Only Users=500,501,\nBlock Users=\nHide Users=\n"
                           "[fixed]\nShare Name=\nPath=/srv/fixed\nComment=Ours\n"
                           "Read Only=Disable\nGuest Access=Disable\nGuest Hide=Disable\n"
                           "Full Access Users=\nRead Only Users=\nBlock Users=\nHide Users=\n";

const std::string added = "[0001:0002::3]\nShare Name=\nComment=\nRead Only=Disable\n"
                          "Guest Access=Disable\nGuest Hide=Disable\nFull Access Users=\n"
                          "Read Only Users=\nBlock Users=\nHide Users=\n";

// One refresh's work on the device file and the share file, without the busy-device set.
Scenario tables_scenario(int* saved, int* loaded)
{
    Scenario scenario;
    scenario.prepare = [] {
        write_file(device_path, stored);
        write_file(share_path, "[Old]\n");
    };
    scenario.run = [=] {
        *saved = -1;
        *loaded = -1;
        const ConfDevTableGuard table(conf_dev_create());
        if (!table)
            return;
        *loaded = conf_dev_load(device_path, table.get());
        if (*loaded != 0)
            return;
        conf_dev_add(table.get(), 1, 2, nullptr, 3);
        *saved = conf_dev_save(device_path, table.get());
    };
    return scenario;
}

// Whole records only, as far as the file goes: each begins with its header and ends with its last
// line.
bool holds_whole_records(const std::string& text)
{
    const std::string last = "Hide Users=";
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = text.find(last, at);
        const size_t line_end = end == std::string::npos ? end : text.find('\n', end);
        if (text[at] != '[' || line_end == std::string::npos)
            return false;
        at = line_end + 1;
    }
    return true;
}

// What cannot be read cannot be saved again; but no record is ever written in part.
TEST(Sweep, TablesWithFailingCalls)
{
    int saved = 0;
    int loaded = 0;
    Scenario scenario = tables_scenario(&saved, &loaded);
    scenario.check = [&](bool struck) {
        const std::string now = read_file(device_path);
        EXPECT_TRUE(struck || now == stored + added) << now;
        EXPECT_TRUE(holds_whole_records(now)) << now;
        EXPECT_TRUE(loaded == 0 || now == stored) << now;
    };
    sweep_calls(scenario);
}

TEST(Sweep, ASavedDeviceFileIsTheOldOneOrTheNewOne)
{
    ConfDevTable* table = nullptr;
    int result = 0;
    Scenario scenario;
    scenario.prepare = [&] {
        write_file(device_path, stored);
        table = conf_dev_create();
        ASSERT_EQ(conf_dev_load(device_path, table), 0);
        ASSERT_NE(conf_dev_add(table, 1, 2, nullptr, 3), nullptr);
    };
    scenario.run = [&] { result = conf_dev_save(device_path, table); };
    scenario.finish = [&] {
        conf_dev_free(table);
        table = nullptr;
    };
    scenario.check = [&](bool struck) {
        const std::string now = read_file(device_path);
        EXPECT_TRUE(now == stored || now == stored + added) << now;
        EXPECT_TRUE(struck || now == stored + added);
        EXPECT_TRUE(result == 0 || now == stored);
    };
    sweep_calls(scenario);
}

TEST(Sweep, TablesWithoutMemory)
{
    int saved = 0;
    int loaded = 0;
    Scenario scenario = tables_scenario(&saved, &loaded);
    scenario.check = [&](bool struck) {
        const std::string now = read_file(device_path);
        EXPECT_TRUE(struck || now == stored + added) << now;
        EXPECT_TRUE(loaded == 0 || loaded == -1);
        EXPECT_TRUE(loaded == 0 || now == stored) << now;
        EXPECT_FALSE(exists("/tmp/vyhotplug.dev.conf.tmp"));
    };
    sweep_allocations(scenario);
}

// ---- the information tool ----

// Runs `action` with standard output on /dev/null.
void silently(const std::function<void()>& action)
{
    fflush(stdout);
    const int kept = dup(STDOUT_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
    action();
    fflush(stdout);
    dup2(kept, STDOUT_FILENO);
    close(kept);
}

Scenario info_scenario(int* listed, int* described)
{
    Scenario scenario;
    scenario.prepare = [] {
        write_file(device_path, stored);
        write_file(share_path,
                   "[Music]\nIdentifier=1234:00ab:ABC:1\nPath=/tmp\nProduct=Key\nVID=1\n");
    };
    scenario.run = [=] {
        silently([=] {
            *listed = hotplug_info_list(device_path);
            *described = hotplug_info_devinfo(device_path, share_path, "1234:00ab:ABC:1");
        });
    };
    scenario.check = [=](bool struck) {
        EXPECT_TRUE(*listed == 0 || (struck && *listed == -1));
        EXPECT_TRUE(*described == 0 || (struck && *described == -1));
    };
    return scenario;
}

TEST(Sweep, ListingAndDescribingWithoutMemory)
{
    int listed = 0;
    int described = 0;
    sweep_allocations(info_scenario(&listed, &described));
}

} // namespace
