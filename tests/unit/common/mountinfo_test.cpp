#include "common/mountinfo.h"

#include "support/failing_calls.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <string>

namespace {

const std::string usual_line =
    "36 35 98:2 /sub /mnt/disk rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n";

Mountinfo* parse(const std::string& text)
{
    Mountinfo* table = nullptr;
    EXPECT_EQ(mountinfo_parse(text.data(), text.size(), &table), 0);
    return table;
}

std::string line_at(const std::string& directory, int id)
{
    return std::to_string(id) + " 1 8:" + std::to_string(id) + " / " + directory +
           " rw - ext4 /dev/sd rw\n";
}

size_t count_of(const std::string& text)
{
    const MountinfoGuard table(parse(text));
    return table->count;
}

// The id of the mount that `path` lies on, 0 for none.
int id_of(const Mountinfo* table, const std::string& path)
{
    const MountinfoEntry* entry = mountinfo_find(table, path.c_str());
    return entry != nullptr ? entry->id : 0;
}

} // namespace

TEST(Mountinfo, ReadsEveryField)
{
    const MountinfoGuard table(parse(usual_line));
    ASSERT_EQ(table->count, 1U);
    const MountinfoEntry& entry = table->entries[0];
    EXPECT_EQ(entry.id, 36);
    EXPECT_EQ(entry.parent, 35);
    EXPECT_EQ(entry.major, 98U);
    EXPECT_EQ(entry.minor, 2U);
    EXPECT_STREQ(entry.root, "/sub");
    EXPECT_STREQ(entry.directory, "/mnt/disk");
    EXPECT_STREQ(entry.type, "ext3");
    EXPECT_STREQ(entry.source, "/dev/root");
    EXPECT_FALSE(entry.readonly);
}

TEST(Mountinfo, ReadOnlyIsWhatTheMountOrItsFilesystemIs)
{
    const struct {
        const char* options;
        const char* of_filesystem;
        bool readonly;
    } cases[] = {
        {"ro", "rw", true},
        {"ro,nosuid", "rw", true},
        {"rw,nosuid", "rw,errors=remount-ro", false},
        {"rw,relatime", "ro,errors=remount-ro", true}, // turned so while it was in use
        {"nosuid,ro", "rw,x", true},
        {"rw", "x,ro", true},
        {"rw", "x=ro,rot,aro,ro=1", false},
        {"rw", "", false},
        {"rw", nullptr, false},
    };
    for (const auto& c : cases) {
        std::string line = std::string("36 35 98:0 / /a ") + c.options + " - ext4 one";
        if (c.of_filesystem != nullptr)
            line += std::string(" ") + c.of_filesystem;
        const MountinfoGuard table(parse(line + "\n"));
        ASSERT_EQ(table->count, 1U) << line;
        EXPECT_EQ(table->entries[0].readonly, c.readonly) << line;
    }
}

TEST(Mountinfo, TakesNoneOrManyOptionalFields)
{
    const MountinfoGuard table(
        parse("36 35 98:0 / /a rw - ext4 one rw\n"
              "37 35 98:0 / /b rw shared:1 master:2 unbindable - xfs two rw\n"));
    ASSERT_EQ(table->count, 2U);
    EXPECT_STREQ(table->entries[0].source, "one");
    EXPECT_STREQ(table->entries[1].type, "xfs");
    EXPECT_STREQ(table->entries[1].source, "two");
}

TEST(Mountinfo, DecodesEscapesInEveryText)
{
    const MountinfoGuard table(
        parse(R"(36 35 0:0 /r\040t /a\011b\012c\134d\040 rw - t\040y s\043 rw)"));
    ASSERT_EQ(table->count, 1U);
    EXPECT_STREQ(table->entries[0].root, "/r t");
    EXPECT_STREQ(table->entries[0].directory, "/a\tb\nc\\d ");
    EXPECT_STREQ(table->entries[0].type, "t y");
    EXPECT_STREQ(table->entries[0].source, "s#");
}

TEST(Mountinfo, LeavesABackslashBeforeAnythingElseAlone)
{
    const MountinfoGuard table(parse(R"(36 35 0:0 / /a\x\08\04 rw - t \400\)"));
    ASSERT_EQ(table->count, 1U);
    EXPECT_STREQ(table->entries[0].directory, R"(/a\x\08\04)");
    EXPECT_STREQ(table->entries[0].source, R"(\400\)");
}

TEST(Mountinfo, AnEmptySourceIsOne)
{
    const MountinfoGuard table(parse("36 35 0:5 / /a rw - tmpfs  rw\n"));
    ASSERT_EQ(table->count, 1U);
    EXPECT_STREQ(table->entries[0].source, "");
}

TEST(Mountinfo, KeepsTheOrderOfTheLines)
{
    const MountinfoGuard table(parse(line_at("/b", 7) + line_at("/a", 3) + line_at("/b", 9)));
    ASSERT_EQ(table->count, 3U);
    EXPECT_EQ(table->entries[0].id, 7);
    EXPECT_EQ(table->entries[1].id, 3);
    EXPECT_EQ(table->entries[2].id, 9);
}

TEST(Mountinfo, TheLastLineNeedsNoLineFeed)
{
    EXPECT_EQ(count_of(usual_line.substr(0, usual_line.size() - 1)), 1U);
}

TEST(Mountinfo, PassesOverWhatIsNotInTheKernelsForm)
{
    for (const char* line :
         {"", "36", "x 35 98:0 / /a rw - ext4 one rw", "36 35 98 / /a rw - e o rw",
          "36 35 98:x / /a rw - e o rw", "36 35 98:0 / /a rw ext4 one rw", "36 35 98:0 / /a rw -",
          "36 35 98:0 / /a rw - ext4", "36 35 98:0 /  rw - ext4 one rw", "36 35 98:0 / /a"}) {
        EXPECT_EQ(count_of(line), 0U) << line;
        EXPECT_EQ(count_of(std::string(line) + "\n" + usual_line), 1U) << line;
    }
}

TEST(Mountinfo, NulBytesEndALineAndNothingElse)
{
    EXPECT_EQ(count_of(std::string(3, '\0') + "\n" + usual_line), 1U);
}

TEST(Mountinfo, NoBytesMakeAnEmptyTable)
{
    Mountinfo* table = nullptr;
    ASSERT_EQ(mountinfo_parse(nullptr, 0, &table), 0);
    EXPECT_EQ(table->count, 0U);
    mountinfo_free(table);
}

TEST(MountinfoRest, IsWhatLiesBelow)
{
    EXPECT_STREQ(mountinfo_rest("/media//vy/sda1/x/", "/media/vy/"), "sda1/x/");
    EXPECT_STREQ(mountinfo_rest("/media/vy", "/media/vy"), "");
    EXPECT_STREQ(mountinfo_rest("/srv", "/"), "srv");
    EXPECT_EQ(mountinfo_rest("/media/vy2", "/media/vy"), nullptr);
    EXPECT_EQ(mountinfo_rest("/media", "/media/vy"), nullptr);
}

TEST(MountinfoIsBelow, ComparesNameByName)
{
    EXPECT_TRUE(mountinfo_is_below("/media/sda1", "/media"));
    EXPECT_TRUE(mountinfo_is_below("/media/sda1/x", "/media"));
    EXPECT_FALSE(mountinfo_is_below("/media", "/media"));
    EXPECT_FALSE(mountinfo_is_below("/media2/sda1", "/media"));
    EXPECT_FALSE(mountinfo_is_below("/medi", "/media"));
    EXPECT_FALSE(mountinfo_is_below("/", "/media"));
}

TEST(MountinfoIsBelow, SlashesDoNotCount)
{
    EXPECT_TRUE(mountinfo_is_below("//media///sda1", "/media/"));
    EXPECT_FALSE(mountinfo_is_below("/media/", "/media"));
    EXPECT_TRUE(mountinfo_is_below("/media", "/"));
    EXPECT_FALSE(mountinfo_is_below("/", "/"));
}

TEST(MountinfoIsBelow, OnlyAbsolutePaths)
{
    EXPECT_FALSE(mountinfo_is_below("media/sda1", "/media"));
    EXPECT_FALSE(mountinfo_is_below("/media/sda1", "media"));
    EXPECT_FALSE(mountinfo_is_below("", ""));
}

TEST(MountinfoFind, TakesTheLongestDirectory)
{
    const MountinfoGuard table(
        parse(line_at("/", 1) + line_at("/media/vy/sda1", 3) + line_at("/media", 2)));
    EXPECT_EQ(id_of(table.get(), "/media/vy/sda1/music"), 3);
    EXPECT_EQ(id_of(table.get(), "/media/vy/sda1"), 3);
    EXPECT_EQ(id_of(table.get(), "/media/vy/sda1/"), 3);
    EXPECT_EQ(id_of(table.get(), "/media/vy/sda10"), 2);
    EXPECT_EQ(id_of(table.get(), "/srv"), 1);
}

TEST(MountinfoFind, OfSeveralAtOnePlaceTheLastCovers)
{
    const MountinfoGuard table(parse(line_at("/a", 5) + line_at("/a", 4)));
    EXPECT_EQ(id_of(table.get(), "/a/b"), 4);
}

TEST(MountinfoFind, NothingAboveThePathIsNone)
{
    const MountinfoGuard table(parse(line_at("/a", 5)));
    EXPECT_EQ(id_of(table.get(), "/b"), 0);
    EXPECT_EQ(id_of(table.get(), "a"), 0);
}

TEST(MountinfoLoad, ReadsTheKernelsOwnTable)
{
    const std::string directory = "/tmp/a blank\tand \\040";
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    ASSERT_EQ(mount("nothing here", directory.c_str(), "tmpfs", 0, nullptr), 0);
    MountinfoGuard table;
    ASSERT_EQ(mountinfo_load(mountinfo_path, table.out()), 0);
    const MountinfoEntry* entry = mountinfo_find(table.get(), (directory + "/x").c_str());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->directory, directory);
    EXPECT_STREQ(entry->type, "tmpfs");
    EXPECT_STREQ(entry->source, "nothing here");
    EXPECT_FALSE(entry->readonly);
    ASSERT_EQ(mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    MountinfoGuard again;
    ASSERT_EQ(mountinfo_load(mountinfo_path, again.out()), 0);
    EXPECT_TRUE(mountinfo_find(again.get(), directory.c_str())->readonly);
}

TEST(MountinfoLoad, ReadsATableOfAnySize)
{
    std::string text;
    for (int i = 1; i <= 3000; i++)
        text += line_at("/d" + std::to_string(i), i);
    write_file("/tmp/table", text);
    MountinfoGuard table;
    ASSERT_EQ(mountinfo_load("/tmp/table", table.out()), 0);
    EXPECT_EQ(table->count, 3000U);
    EXPECT_EQ(id_of(table.get(), "/d3000"), 3000);
}

TEST(MountinfoLoad, TellsWhyAFileCannotBeRead)
{
    Mountinfo* table = nullptr;
    EXPECT_EQ(mountinfo_load("/tmp/none", &table), -ENOENT);
    EXPECT_EQ(mountinfo_load("/tmp", &table), -EISDIR);
    EXPECT_EQ(table, nullptr);
}

TEST(MountinfoLoad, OpensItForNobodyElse)
{
    MountinfoGuard table;
    EXPECT_TRUE(inheritable_after([&] {
                    EXPECT_EQ(mountinfo_load(mountinfo_path, table.out()), 0);
                }).empty());
}

TEST(MountinfoLoad, ReadsThroughTheFirstDescriptor)
{
    MountinfoGuard table;
    with_input_closed([&] { EXPECT_EQ(mountinfo_load(mountinfo_path, table.out()), 0); });
    EXPECT_GT(table->count, 0U);
}

TEST(MountinfoFindDevice, IsTheFirstOfItsMountsBelow)
{
    const MountinfoGuard table(parse("1 1 8:1 / /mnt rw - ext4 x rw\n"
                                     "2 1 8:1 / /media/vy rw - ext4 x rw\n"
                                     "3 1 8:2 / /media/vy/a rw - ext4 x rw\n"
                                     "4 1 9:1 / /media/vy/b rw - ext4 x rw\n"
                                     "5 1 8:1 / /media/vy/c rw - ext4 x rw\n"
                                     "6 1 8:1 / /media/vy/d rw - ext4 x rw\n"));
    const MountinfoEntry* entry = mountinfo_find_device(table.get(), 8, 1, "/media/vy");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->id, 5);
    EXPECT_EQ(mountinfo_find_device(table.get(), 8, 3, "/media/vy"), nullptr);
    EXPECT_EQ(mountinfo_find_device(table.get(), 8, 1, "/media/vy/c"), nullptr);
}

TEST(MountinfoSwapPath, IsTheLinesFirstField)
{
    const struct {
        const char* line;
        const char* path; // null: none
    } rows[] = {
        {"/dev/sda2                               partition\t1024\t0\t-2\n", "/dev/sda2"},
        {"/dev/zram0\tpartition\n", "/dev/zram0"},
        {"/swap\\040file x\n", "/swap file"},
        {"/swap\\011file\\134 x\n", "/swap\tfile\\"},
        {"/dev/sda2\\040(deleted) partition\n", "/dev/sda2"},
        {"/dev/sda2", "/dev/sda2"},
        {"/\\040", "/ "},
        {"/\\04", "/\\04"},
        {"Filename\t\t\t\tType\n", nullptr},
        {"", nullptr},
        {"\n", nullptr},
    };
    for (const auto& row : rows) {
        std::string line = row.line;
        const char* path = mountinfo_swap_path(line.data());
        EXPECT_STREQ(path, row.path) << row.line;
    }
}
