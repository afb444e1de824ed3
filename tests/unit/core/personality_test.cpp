#include "core/personality.h"

#include "support/child.h"

#include <gtest/gtest.h>

namespace {

TEST(Progname, IsTheLastComponentOfThePath)
{
    struct Row {
        const char* path;
        const char* name;
        int expected;
    };
    const Row rows[] = {
        {"vymount", "vymount", 1},
        {"/usr/sbin/vymount", "vymount", 1},
        {"./vymount", "vymount", 1},
        {"/vymount", "vymount", 1},
        {"", "vymount", 0},
        {"/usr/sbin/", "vymount", 0},
        {"vymount/", "vymount", 0},
        {"vymounts", "vymount", 0},
        {"vymount.real", "vymount", 0},
        {"my-vymount", "vymount", 0},
        {"/usr/sbin/xvymount", "vymount", 0},
        {"vyunmount", "vymount", 0},
        {"VYMOUNT", "vymount", 0},
        {"vymount/other", "vymount", 0},
        // Kept: only the first occurrence counts.
        {"/opt/vymount/vymount", "vymount", 0},
        {"vymount/vymount", "vymount", 0},
        {"/opt/vymount-1.0/vymount", "vymount", 0},
    };
    for (const Row& row : rows)
        EXPECT_EQ(progname(row.path, row.name), row.expected) << row.path << " " << row.name;
}

// Tells the personalities apart by what they print without arguments, or for "-h".
const char daemon_title[] = "\nVY NAS Mira - Hotplug Daemon.\n";
const char mount_title[] = "mount command.\n";
const char unmount_title[] = "unmount command.\n";
const char info_title[] = "\nVY NAS Mira - Hotplug Information.\n";

void expect_personality(const std::vector<std::string>& arguments, const std::string& title,
                        int status)
{
    SCOPED_TRACE(arguments[0]);
    const ChildResult result = run_main(personality_run, arguments);
    EXPECT_EQ(result.err.substr(0, title.size()), title);
    EXPECT_EQ(result.status, status);
}

TEST(Personality, IsChosenByTheName)
{
    expect_personality({"/usr/sbin/vyhotplugd", "-h"}, daemon_title, 0);
    expect_personality({"/usr/sbin/vymount"}, mount_title, 255);
    expect_personality({"/usr/sbin/vyunmount"}, unmount_title, 255);
    expect_personality({"/usr/sbin/vyhotpluginfo"}, info_title, 255);
    expect_personality({"vyhotpluginfo", "-h"}, info_title, 0);
}

TEST(Personality, AnUnknownNameIsTheDaemon)
{
    for (const char* name : {"something", "/bin/vyhotplugd2", "/opt/vymount/", "", "VYMOUNT"})
        expect_personality({name, "-h"}, daemon_title, 0);
}

// Kept: a directory of the same name hides the command.
TEST(Personality, ANameThatComesFirstAsADirectoryIsTheDaemon)
{
    expect_personality({"/opt/vymount/vymount", "-h"}, daemon_title, 0);
}

TEST(Personality, TheNameAtTheEndOfThePathWins)
{
    expect_personality({"/opt/vyhotplugd/vymount"}, mount_title, 255);
    expect_personality({"/opt/vymount/vyunmount"}, unmount_title, 255);
}

TEST(Personality, WithoutAnyArgumentItIsTheDaemon)
{
    const ChildResult result = run_child([] {
        char* argv[] = {nullptr};
        return personality_run(0, argv) == -1 ? 1 : 2;
    });
    EXPECT_EQ(result.status, 0); // it has gone into the background
}

} // namespace
