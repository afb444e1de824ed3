#include "agent/kernel_log.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <string>

static BlockName name_of(const std::string& text)
{
    BlockName name = {};
    EXPECT_TRUE(block_name_parse(text.c_str(), &name)) << text;
    return name;
}

TEST(KernelLine, NamesADevice)
{
    const struct {
        const char* record;
        const char* name; // "" for a line that is passed over
        const char* text;
    } rows[] = {
        {"4,339,5140900,-;XFS (sda1): SB validate failed with error -117.", "sda1",
         "XFS (sda1): SB validate failed with error -117."},
        {"3,1,2,-,caller=T12;BTRFS error (device sdb2): devid 2 is missing\n SUBSYSTEM=block\n",
         "sdb2", "BTRFS error (device sdb2): devid 2 is missing"},
        {"3,1,2,-;I/O error, dev mmcblk0, sector 0 op 0x0", "mmcblk0",
         "I/O error, dev mmcblk0, sector 0 op 0x0"},
        {"0,1,2,-;x /dev/sdaa3: y", "sdaa3", "x /dev/sdaa3: y"},
        {"3,1,2,-;sda before sdb", "sda", "sda before sdb"},
        {"3,1,2,-;bad \x1b[31m in sda", "sda", "bad _[31m in sda"},
        // A program's line, less than a warning, and what is no record.
        {"11,1,2,-;XFS (sda1): I lie", "", ""},
        {"12,1,2,-;XFS (sda1): I lie", "", ""},
        {"6,1,2,-;XFS (sda1): Mounting V5 Filesystem", "", ""},
        {"5,1,2,-;XFS (sda1): Mounting", "", ""},
        {"-1,1,2,-;sda", "", ""},
        {"x,1,2,-;sda", "", ""},
        {",1,2,-;sda", "", ""},
        {"3,1,2,- sda", "", ""},
        {"99999999999,1;sda", "", ""},
        {"", "", ""},
        // No device, or none of ours.
        {"3,1,2,-;nothing", "", ""},
        {"3,1,2,-;usda Xsda1 sda01 loop0 mmcblk0boot0 sda1x", "", ""},
        {"3,1,2,-;\n sda", "", ""},
    };
    for (const auto& row : rows) {
        KernelLine line = {};
        const bool taken = kernel_line_parse(row.record, &line);
        EXPECT_EQ(taken, row.name[0] != '\0') << row.record;
        if (taken) {
            EXPECT_STREQ(line.name.text, row.name) << row.record;
            EXPECT_STREQ(line.text, row.text) << row.record;
        }
    }
}

TEST(KernelLine, IsCutWhereItIsTooLong)
{
    KernelLine line;
    EXPECT_TRUE(kernel_line_parse(("3,1,2,-;sda " + std::string(1000, 'x')).c_str(), &line));
    EXPECT_EQ(strlen(line.text), kernel_line_size - 1);
    EXPECT_FALSE(kernel_line_parse(("3,1,2,-;" + std::string(1000, '(') + "sda").c_str(), &line));
}

TEST(KernelLine, TellsAnErrnoAtItsEnd)
{
    const struct {
        const char* text;
        int error;
    } rows[] = {
        {"XFS (sda1): SB validate failed with error -117.", 117},
        {"BTRFS error (device sda1): open_ctree failed: -22", 22},
        {"EXT4-fs (sda1): x (err=-5)", 5},
        {"error -117 in cluster 2", 0},
        {"range 3-5", 0},
        {"-5", 0},
        {"x -", 0},
        {"x -99999", 0},
        {"x -4096", 0},
        {"x -a", 0},
        {"", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(kernel_line_errno(row.text), row.error) << row.text;
}

// ---- the log, from a FIFO: what one write puts there one read takes ----

class KernelLogTest : public testing::Test {
  protected:
    static constexpr char path[] = "/tmp/kmsg";

    KernelLogTest()
    {
        EXPECT_EQ(mkfifo(path, 0600), 0);
        writer_.reset(open(path, O_RDWR));
        kernel_log_open(&log_, path);
    }
    ~KernelLogTest() override { unlink(path); }

    void say(const std::string& text, uint64_t now, int priority = 3)
    {
        const std::string record = std::to_string(priority) + ",1,2,-;" + text + "\n";
        EXPECT_EQ(write(writer_.get(), record.data(), record.size()),
                  static_cast<ssize_t>(record.size()));
        kernel_log_take(&log_, now);
    }

    std::string find(const std::string& name, const char* prefix, uint64_t since = 0,
                     const char* part = "") const
    {
        const KernelLine* line = kernel_log_find(&log_, name_of(name), prefix, part, since);
        return line != nullptr ? line->text : "";
    }

    FdGuard writer_;
    KernelLog log_;
};

TEST_F(KernelLogTest, FindsTheFirstLineAboutADevice)
{
    EXPECT_EQ(find("sda1", ""), "");
    say("XFS (sda1): one", 10);
    say("XFS (sda1): two", 20);
    say("XFS (sdb1): other", 30);
    EXPECT_EQ(find("sda1", "XFS ("), "XFS (sda1): one");
    EXPECT_EQ(find("sda1", "XFS (", 10), "XFS (sda1): two");
    EXPECT_EQ(find("sda1", "XFS (", 20), "");
    EXPECT_EQ(find("sda1", "FAT-fs ("), "");
    EXPECT_EQ(find("sda1", "XFS (", 0, "two"), "XFS (sda1): two");
    EXPECT_EQ(find("sda", ""), "") << "of the disk nothing was said";
}

TEST_F(KernelLogTest, PrefersTheLineThatTellsAnErrno)
{
    say("XFS (sda1): one", 10);
    say("XFS (sda1): two -117", 20);
    say("XFS (sda1): three -5", 30);
    EXPECT_EQ(find("sda1", "XFS ("), "XFS (sda1): two -117");
}

TEST_F(KernelLogTest, KeepsWhatIsSaidAgainOnce)
{
    say("XFS (sda1): one", 10);
    for (int i = 0; i < 1000; i++) {
        say("XFS (sdb1): again", 20);
        say("XFS (sdb1): and again", 20);
    }
    EXPECT_EQ(find("sda1", "XFS ("), "XFS (sda1): one");
    EXPECT_EQ(find("sdb1", "XFS ("), "XFS (sdb1): again");
    say("XFS (sda1): one", 30);
    EXPECT_EQ(find("sda1", "XFS (", 29), "XFS (sda1): one") << "it was said again, later";
}

TEST_F(KernelLogTest, HasRoomForAHandfulOfDisksThatAreDivided)
{
    constexpr int devices = 30; // two of them with all their partitions
    constexpr int words = 12;   // of filesystems that it does not hold
    for (int device = 0; device < devices; device++) {
        const std::string name = "sda" + std::to_string(device + 1);
        for (int word = 0; word < words; word++)
            say("FS" + std::to_string(word) + " (" + name + "): no", 10);
    }
    for (int device = 0; device < devices; device++) {
        const std::string name = "sda" + std::to_string(device + 1);
        EXPECT_EQ(find(name, "FS0"), "FS0 (" + name + "): no");
    }
}

TEST_F(KernelLogTest, ForgetsADevice)
{
    kernel_log_forget(&log_, name_of("sda1"));
    say("XFS (sda1): one", 10);
    say("XFS (sdb1): other", 10);
    say("XFS (sda1): two", 10);
    kernel_log_forget(&log_, name_of("sda1"));
    EXPECT_EQ(find("sda1", ""), "");
    EXPECT_EQ(find("sdb1", ""), "XFS (sdb1): other");
    say("XFS (sda1): two", 20);
    say("XFS (sda1): one", 20);
    EXPECT_EQ(find("sda1", ""), "XFS (sda1): two");
}

TEST_F(KernelLogTest, KeepsTheLastLines)
{
    for (int i = 0; i <= static_cast<int>(kernel_line_limit); i++)
        say("XFS (sda1): line " + std::to_string(i), 10);
    EXPECT_EQ(find("sda1", "XFS ("), "XFS (sda1): line 1");
}

TEST(KernelLog, WithoutOneNothingIsFound)
{
    KernelLog log;
    kernel_log_open(&log, "/tmp/there-is-none");
    kernel_log_take(&log, 1);
    EXPECT_EQ(kernel_log_find(&log, name_of("sda"), "", "", 0), nullptr);
}

TEST(KernelLog, BeginsBehindWhatWasSaidBefore)
{
    write_file("/tmp/log", "3,1,2,-;XFS (sda1): old\n");
    KernelLog log;
    kernel_log_open(&log, "/tmp/log");
    kernel_log_take(&log, 1);
    EXPECT_EQ(kernel_log_find(&log, name_of("sda1"), "", "", 0), nullptr);
    unlink("/tmp/log");
}
