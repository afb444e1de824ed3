#include "tools/info_tool.h"

#include "fake/fake_log.h"
#include "fake_files.h"
#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const char usage[] = "\n"
                     "VY NAS Mira - Hotplug Information.\n"
                     "Usage: vyhotpluginfo {option} [device identifier]\n"
                     "\n"
                     "option:\n"
                     " -f --file  [path] : config file path(def=/tmp/vynasmira/"
                     "vyhotplugd.conf)\n"
                     " -h --help         : display this help message and exit.\n"
                     " -l --list         : display device identifier list.\n"
                     "\n"
                     "\n";
const char config_file[] = "/tmp/vynasmira/vyhotplugd.conf";
const char device_list[] = "1:2:A:1\n1:2:B:1\n3:4:C:0\n";
const char begin_of_c[] = "Share Name=\nComment=of c\n";

ChildResult info(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "vyhotpluginfo");
    return run_main(hotplug_info_main, arguments);
}

// The library's own word on a wrong option left out.
std::string own_words(const ChildResult& result)
{
    const std::string begin = "vyhotpluginfo: ";
    const bool found = result.err.compare(0, begin.size(), begin) == 0;
    return found ? result.err.substr(result.err.find('\n') + 1) : result.err;
}

std::string refusal(const char* code)
{
    return std::string("getopt returned character code ") + code + "\n\n" + usage;
}

void expect_failure(const std::vector<std::string>& arguments, const std::string& text)
{
    SCOPED_TRACE(arguments.empty() ? "" : arguments.back());
    const ChildResult result = info(arguments);
    EXPECT_EQ(own_words(result), text);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.status, 255);
}

// Three devices, none of them plugged in.
class InfoCommandTest : public testing::Test {
  protected:
    InfoCommandTest()
    {
        EXPECT_EQ(mkdir("/tmp/vynasmira", 0755), 0);
        write_file(config_file, "deviceconfigpath=/tmp/devices\nsmbconfigpath=/tmp/shares\n");
        write_file("/tmp/devices", "[1:2:A:1]\n[1:2:B:1]\n[3:4:C:0]\ncomment=of c\n");
        write_file("/tmp/shares", "");
    }
};

// ---- options ----

TEST_F(InfoCommandTest, WithoutArgumentsTellsHowToUseIt)
{
    expect_failure({}, usage);
}

TEST_F(InfoCommandTest, HelpIsNoError)
{
    for (const char* option : {"-h", "--help"}) {
        const ChildResult result = info({option});
        EXPECT_EQ(result.err, usage);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.status, 0);
    }
}

TEST_F(InfoCommandTest, HelpEndsTheCommandLine)
{
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"-l", "-h"},
                                                      {"-h", "-x"},
                                                      {"3:4:C:0", "-h", "-f", "/missing"}}) {
        const ChildResult result = info(arguments);
        EXPECT_EQ(result.err, usage);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.status, 0);
    }
}

TEST_F(InfoCommandTest, AnUnknownOptionIsRefused)
{
    expect_failure({"-x"}, refusal("0x3f"));
    expect_failure({"--unknown"}, refusal("0x3f"));
    expect_failure({"-l", "-x"}, refusal("0x3f"));
    expect_failure({"--help=1"}, refusal("0x3f"));
    expect_failure({"-f"}, refusal("0x3f"));
    expect_failure({"--file"}, refusal("0x3f"));
}

// Kept: the long option asks for an argument and does nothing with it.
TEST_F(InfoCommandTest, TheLongListOptionAloneIsRefused)
{
    expect_failure({"--list"}, refusal("0x3f"));
    expect_failure({"3:4:C:0", "--list"}, refusal("0x3f"));
}

TEST_F(InfoCommandTest, TheLongListOptionIgnoresItsArgument)
{
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--list", "x"},
                                                      {"--list=x"},
                                                      {"--list", "3:4:C:0"},
                                                      {"--list="}}) {
        const ChildResult result = info(arguments);
        EXPECT_EQ(result.out, device_list) << arguments.front();
        EXPECT_EQ(result.status, 0);
    }
}

TEST_F(InfoCommandTest, AConfigurationFileThatIsMissingIsRefused)
{
    const std::string text = std::string("Error : no such file (/tmp/missing)\n") + usage;
    expect_failure({"-f", "/tmp/missing"}, text);
    expect_failure({"--file=/tmp/missing", "-l"}, text);
    expect_failure({"-l", "-f", "/tmp/missing"}, text);
    expect_failure({"-f", "/tmp/missing", "-h"}, text); // before it comes to the help
}

// ---- the list ----

TEST_F(InfoCommandTest, ListsTheIdentifiers)
{
    const ChildResult result = info({"-l"});
    EXPECT_EQ(result.out, device_list);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
}

TEST_F(InfoCommandTest, TheListWinsOverAnIdentifier)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-l", "3:4:C:0"}, {"3:4:C:0", "-l"}, {"-l", "unknown"}}) {
        const ChildResult result = info(arguments);
        EXPECT_EQ(result.out, device_list);
        EXPECT_EQ(result.status, 0);
    }
}

TEST_F(InfoCommandTest, TheListNeedsNoShareFile)
{
    write_file(config_file, "deviceconfigpath=/tmp/devices\n");
    EXPECT_EQ(info({"-l"}).status, 0);
}

// ---- a device ----

TEST_F(InfoCommandTest, DescribesADevice)
{
    const ChildResult result = info({"3:4:C:0"});
    EXPECT_EQ(result.out.substr(0, sizeof begin_of_c - 1), begin_of_c);
    EXPECT_EQ(result.out.substr(result.out.size() - 14), "Status=Unplug\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
}

TEST_F(InfoCommandTest, TheLastIdentifierWins)
{
    EXPECT_EQ(info({"1:2:A:1", "unknown", "3:4:C:0"}).out.substr(0, sizeof begin_of_c - 1),
              begin_of_c);
    EXPECT_EQ(info({"3:4:C:0", "unknown"}).status, 255);
}

TEST_F(InfoCommandTest, AnUnknownDeviceIsAnErrorWithoutWords)
{
    expect_failure({"9:9:9:9"}, "");
}

TEST_F(InfoCommandTest, AMissingShareFileIsAnErrorWithoutWords)
{
    ASSERT_EQ(unlink("/tmp/shares"), 0);
    expect_failure({"3:4:C:0"}, "");
}

// What it has to tell goes to its caller alone.
TEST_F(InfoCommandTest, TheSystemLogHearsNothing)
{
    write_file("/tmp/gone.conf", "deviceconfigpath=/tmp/gone\nsmbconfigpath=/tmp/gone\n");
    struct Row {
        std::vector<std::string> arguments;
        bool answered; // on standard output
    };
    for (const Row& row :
         {Row{{"-l"}, true}, Row{{"3:4:C:0"}, true}, Row{{"9:9:9:9"}, false}, Row{{"-x"}, false},
          Row{{"-f", "/tmp/missing", "-l"}, false}, Row{{"-f", "/tmp/gone.conf", "-l"}, false}}) {
        SCOPED_TRACE(row.arguments.back());
        std::vector<std::string> all = {"vyhotpluginfo"};
        all.insert(all.end(), row.arguments.begin(), row.arguments.end());
        const ChildResult result = run_child([&] {
            (void)call_main(hotplug_info_main, all);
            return static_cast<int>(fake_log_lines().size());
        });
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out.empty(), !row.answered);
    }
}

// ---- the configuration ----

TEST_F(InfoCommandTest, AnotherConfigurationMayBeGiven)
{
    write_file("/tmp/other.conf", "Device Config Path = /tmp/other\n[section]\n"
                                  "deviceconfigpath=/tmp/devices\n");
    write_file("/tmp/other", "[other]\n");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-f", "/tmp/other.conf", "-l"},
          {"-l", "--file", "/tmp/other.conf"},
          {"-f", config_file, "-lf", "/tmp/other.conf"}})
        EXPECT_EQ(info(arguments).out, "other\n");
}

TEST_F(InfoCommandTest, TheLastValueOfTheConfigurationCounts)
{
    write_file(config_file, "deviceconfigpath=/tmp/missing\ndeviceconfigpath=/tmp/devices\n"
                            "smbconfigpath=/tmp/missing\nsmbconfigpath=/tmp/shares\n");
    EXPECT_EQ(info({"3:4:C:0"}).status, 0);
}

TEST_F(InfoCommandTest, WithoutAConfigurationItFails)
{
    ASSERT_EQ(unlink(config_file), 0);
    const std::string text = "Error - Read Hotplug Config File. (No Permission or No such file.)\n";
    expect_failure({"-l"}, text);
    expect_failure({"3:4:C:0"}, text);
}

TEST_F(InfoCommandTest, AConfigurationThatMayNotBeReadFails)
{
    ASSERT_EQ(chmod(config_file, 0600), 0);
    const ChildResult result = run_child([] {
        (void)!setuid(65534);
        return call_main(hotplug_info_main, {"vyhotpluginfo", "-f", config_file, "-l"});
    });
    EXPECT_EQ(result.err, "Error - Read Hotplug Config File. (No Permission or No such file.)\n");
    EXPECT_EQ(result.status, 255);
}

TEST_F(InfoCommandTest, NeedNotBeRoot)
{
    const ChildResult result = run_child([] {
        (void)!setuid(65534);
        return call_main(hotplug_info_main, {"vyhotpluginfo", "-l"});
    });
    EXPECT_EQ(result.out, device_list);
    EXPECT_EQ(result.status, 0);
}

// The daemon has a default for this path, the tool has none.
TEST_F(InfoCommandTest, AConfigurationWithoutTheDeviceFilesPathFails)
{
    write_file("/tmp/hotplug.dev.conf", "[1]\n");
    write_file(config_file, "smbconfigpath=/tmp/shares\n[s]\ndeviceconfigpath=/tmp/devices\n");
    const std::string text = "Error - Read Hotplug Config File (Device Config Path)\n";
    expect_failure({"-l"}, text);
    expect_failure({"3:4:C:0"}, text);
}

TEST_F(InfoCommandTest, ADeviceFileThatCannotBeReadFails)
{
    ASSERT_EQ(unlink("/tmp/devices"), 0);
    expect_failure({"-l"}, "Error - Device Config File (/tmp/devices)\n");
    expect_failure({"3:4:C:0"}, "Error - Device Config File (/tmp/devices)\n");
    write_file(config_file, "deviceconfigpath=\n");
    expect_failure({"-l"}, "Error - Device Config File ()\n");
}

TEST_F(InfoCommandTest, AConfigurationWithoutTheShareFilesPathFails)
{
    write_file("/tmp/vynas.dir.conf", "");
    write_file(config_file, "deviceconfigpath=/tmp/devices\n");
    expect_failure({"3:4:C:0"}, "Error - Read Hotplug Config File (SMB Config Path)\n");
}

// Kept: it is the device file that is looked at, the share file that is named.
TEST_F(InfoCommandTest, ADeviceFileThatVanishesIsToldUnderTheShareFilesName)
{
    fake_files().unreadable = "/tmp/devices";
    fake_files().readable_times = 1;
    expect_failure({"3:4:C:0"}, "Error - SMB Config File (/tmp/shares)\n");
}

TEST_F(InfoCommandTest, TheShareFileIsNotLookedAtBeforeItIsRead)
{
    fake_files().unreadable = "/tmp/shares";
    EXPECT_EQ(info({"3:4:C:0"}).status, 0);
}

} // namespace
