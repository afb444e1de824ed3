#include "agent/available.h"

#include "config/filesystems.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string>

TEST(AvailableInList, FindsWholeNames)
{
    const char list[] = "nodev\tsysfs\n\text4\nnodev\tfuse\n\tvfat";
    for (const char* type : {"sysfs", "ext4", "fuse", "vfat"})
        EXPECT_TRUE(available_in_list(list, type)) << type;
    for (const char* type : {"ext", "ext44", "nodev", "fat", ""})
        EXPECT_FALSE(available_in_list(list, type)) << type;
    EXPECT_FALSE(available_in_list("", "ext4"));
    EXPECT_FALSE(available_in_list("ext4\n", "ext4")) << "no column";
}

TEST(AvailableAsModule, FindsWholeAliases)
{
    const char aliases[] = "# Aliases\nalias fs-exfat exfat\nalias x alias fs-udf udf\n"
                           "alias fs-iso9660 isofs\n";
    EXPECT_TRUE(available_as_module(aliases, "exfat"));
    EXPECT_TRUE(available_as_module(aliases, "iso9660"));
    for (const char* type : {"udf", "exfa", "isofs", "exfat exfat"})
        EXPECT_FALSE(available_as_module(aliases, type)) << type;
    EXPECT_FALSE(available_as_module("alias fs-exfat", "exfat"));
    EXPECT_FALSE(available_as_module("", "exfat"));
}

static bool has(uint32_t found, const char* type)
{
    for (int i = 0; i < filesystem_count; i++) {
        if (strcmp(filesystems[i].type, type) == 0)
            return (found >> i & 1U) != 0;
    }
    return false;
}

TEST(AvailableFilesystems, AreThoseOfTheKernelAndItsModules)
{
    utsname kernel = {};
    ASSERT_EQ(uname(&kernel), 0);
    const std::string modules = "/tmp/modules";
    const std::string release = modules + "/" + kernel.release;
    mkdir("/tmp/proc", 0755);
    EXPECT_TRUE(has(available_filesystems("/tmp/proc", modules.c_str()), "btrfs"))
        << "nobody knows";
    write_file("/tmp/proc/filesystems", "nodev\tproc\n\text4\n\txfs\n");
    mkdir(modules.c_str(), 0755);
    mkdir(release.c_str(), 0755);
    uint32_t found = available_filesystems("/tmp/proc", modules.c_str());
    EXPECT_TRUE(has(found, "ext4") && has(found, "xfs"));
    EXPECT_FALSE(has(found, "exfat") || has(found, "vfat"));
    write_file(release + "/modules.alias", "alias fs-exfat exfat\n");
    found = available_filesystems("/tmp/proc", modules.c_str());
    EXPECT_TRUE(has(found, "exfat"));
    EXPECT_FALSE(has(found, "vfat"));
}
