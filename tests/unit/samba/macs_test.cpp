#include "samba/macs.h"

#include "shares_of.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

const std::string with_streams = "\tvfs objects = catia fruit streams_xattr\n";
const std::string rest = "\tfruit:metadata = stream\n"
                         "\tfruit:posix_rename = yes\n"
                         "\tfruit:veto_appledouble = no\n"
                         "\tfruit:wipe_intentionally_left_blank_rfork = yes\n"
                         "\tfruit:delete_empty_adfiles = yes\n";
const std::string mac_lines = with_streams + rest;
const std::string without = "\tvfs objects = catia fruit\n" + rest;

struct Case {
    const char* macs = "disable";
    const char* timemachine = "";
    const char* size = "";
    const char* filesystem = "ext4";
    bool readonly = false;
};

// The lines of a share [My Disk] that is exported as "My Disk (2)".
std::string lines(const Case& with, Texts* said = nullptr)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    const ShareTableGuard table(shares_of("[My Disk]\nPath=/mnt\n", &notes));
    const ExportedShare share = {.share = &table->shares[0],
                                 .name = "My Disk (2)",
                                 .readonly_mount = with.readonly,
                                 .filesystem = with.filesystem};
    Rights rights = {};
    rights.readonly = with.readonly;
    const char* const own[] = {with.macs, with.timemachine, with.size};
    TextBuffer text = {};
    const TextBufferGuard kept(&text);
    macs_write(&text, &share, &rights, own, &notes);
    if (said != nullptr)
        *said = messages(notes);
    else
        EXPECT_EQ(messages(notes), Texts{});
    return text.text != nullptr ? text.text : "";
}

} // namespace

TEST(Macs, WithoutTheKeysAShareIsAsEver)
{
    EXPECT_EQ(lines({}), "");
    EXPECT_EQ(lines({.filesystem = "vfat"}), "");
}

TEST(Macs, WithTheKeyEveryShareServesThem)
{
    for (const char* filesystem : {"ext2", "ext3", "ext4", "btrfs", "f2fs", "xfs"})
        EXPECT_EQ(lines({.macs = "Enable", .filesystem = filesystem}), mac_lines) << filesystem;
    for (const char* filesystem : {"vfat", "exfat", "fuseblk", "ntfs3", "hfsplus", "tmpfs", ""})
        EXPECT_EQ(lines({.macs = "enable", .filesystem = filesystem}), without) << filesystem;
}

TEST(Macs, TimeMachineByEitherName)
{
    const std::string wanted = mac_lines + "\tfruit:time machine = yes\n";
    EXPECT_EQ(lines({.timemachine = "my disk"}), wanted);
    EXPECT_EQ(lines({.timemachine = "Other , My Disk (2),"}), wanted);
    EXPECT_EQ(lines({.timemachine = "My Disk", .size = "500G"}),
              wanted + "\tfruit:time machine max size = 500G\n");
    EXPECT_EQ(lines({.timemachine = "My, Disk, My Disk (3)"}), mac_lines);
    EXPECT_EQ(lines({.timemachine = ",,"}), mac_lines);
}

TEST(Macs, WhereItCannotBeThatIsSaid)
{
    Texts said;
    EXPECT_EQ(lines({.timemachine = "My Disk", .filesystem = "vfat"}, &said), without);
    EXPECT_EQ(said, Texts{"share My Disk is not for Time Machine: its filesystem has no extended "
                          "attributes"});
    EXPECT_EQ(lines({.macs = "enable", .timemachine = "My Disk", .readonly = true}, &said),
              mac_lines);
    EXPECT_EQ(said, Texts{"share My Disk is not for Time Machine: it is read-only"});
}

TEST(Macs, WhatKeysAccept)
{
    EXPECT_TRUE(macs_is_switch("Disable"));
    EXPECT_FALSE(macs_is_switch("yes"));
    EXPECT_TRUE(macs_is_list(""));
    EXPECT_FALSE(macs_is_list("a\tb"));
    for (const char* size : {"", "1", "500G", "2T", "100M", "7K"})
        EXPECT_TRUE(macs_is_size(size)) << size;
    for (const char* size : {"G", "5g", "5GB", "-1", "1.5T", "9999999999999999T", "5 G"})
        EXPECT_FALSE(macs_is_size(size)) << size;
}
