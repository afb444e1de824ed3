#include "records/volume_label.h"

#include "config/filesystems.h"
#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "record.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

namespace {

using Arguments = std::vector<std::vector<std::string>>;

class VolumeLabelTest : public testing::Test {
  protected:
    VolumeLabelTest() { memset(buffer, '#', sizeof buffer); }
    ~VolumeLabelTest() override
    {
        mount_entry_free(entry);
        conf_dir_set_fat_vlabel(1);
        conf_dir_set_all_vlabels(0);
        fake_world_reset(); // whose hooks refer to the test's variables
    }

    int read_label(int size = 80) { return conf_dir_get_vlabel(entry, buffer, size); }

    // The label of a partition whose tool prints that.
    std::string label_of(const std::string& output)
    {
        label_tool_prints("mlabel", output);
        EXPECT_EQ(read_label(), 0);
        return buffer;
    }

    MountEntry* entry = create_partition(); // FAT
    char buffer[128];
};

// ---- which tool ----

// Whether the one tool that ran had its output taken and nothing else of this process.
void expect_output_alone()
{
    ASSERT_EQ(fake_world().streams.size(), 1U);
    const auto& [in, out, err] = fake_world().streams[0];
    EXPECT_EQ(in, -1) << "/dev/null";
    EXPECT_GE(out, 0);
    EXPECT_EQ(err, -1) << "/dev/null";
}

TEST_F(VolumeLabelTest, FatLabelIsMlabels)
{
    EXPECT_EQ(label_of("PHOTOS\n"), "PHOTOS");
    EXPECT_EQ(fake_world().spawned, (Arguments{{"mlabel", "-i", "/dev/sda1", "-n"}}));
    expect_output_alone();
}

TEST_F(VolumeLabelTest, NtfsLabelIsNtfsvlabels)
{
    entry->fstype = CONF_DEV_FS_NTFS;
    label_tool_prints("ntfsvlabel", "Backup\n");
    EXPECT_EQ(read_label(), 0);
    EXPECT_STREQ(buffer, "Backup");
    EXPECT_EQ(fake_world().spawned, (Arguments{{"ntfsvlabel", "/dev/sda1", "-n"}}));
    expect_output_alone();
}

TEST_F(VolumeLabelTest, EveryFilesystemsLabelIsVylabelsWhenAllAreAskedFor)
{
    conf_dir_set_all_vlabels(1);
    for (uint8_t code = 1; code <= filesystem_count; code++) {
        fake_world_reset();
        entry->fstype = code;
        label_tool_prints("vylabel", "Photos\n");
        EXPECT_EQ(read_label(), 0) << int{code};
        EXPECT_STREQ(buffer, "Photos");
        EXPECT_EQ(fake_world().spawned, (Arguments{{"vylabel", "/dev/sda1"}})) << int{code};
        expect_output_alone();
    }
}

TEST_F(VolumeLabelTest, FatLabelsMayBeOffWhenAllOthersAreRead)
{
    conf_dir_set_all_vlabels(1);
    conf_dir_set_fat_vlabel(0);
    EXPECT_EQ(read_label(), -1);
    entry->fstype = CONF_DEV_FS_EXT4;
    label_tool_prints("vylabel", "Photos\n");
    EXPECT_EQ(read_label(), 0);
}

TEST_F(VolumeLabelTest, OtherFilesystemsHaveNone)
{
    for (const uint8_t type :
         {CONF_DEV_FS_UNKNOWN, CONF_DEV_FS_EXT2, CONF_DEV_FS_EXT3, CONF_DEV_FS_EXT4}) {
        entry->fstype = type;
        buffer[0] = '\0';
        EXPECT_EQ(read_label(), -1) << int{type};
        EXPECT_STREQ(buffer, "") << int{type};
    }
    entry->fstype = 6;
    EXPECT_EQ(read_label(), -1);
    EXPECT_TRUE(fake_world().spawned.empty());
}

// ---- the switch ----

TEST_F(VolumeLabelTest, SwitchOffLeavesAFatPartitionWithoutALabel)
{
    conf_dir_set_fat_vlabel(0);
    label_tool_prints("mlabel", "PHOTOS\n");
    EXPECT_EQ(read_label(), -1);
    EXPECT_EQ(conf_dir_get_vlabel_vfat(entry, buffer, 80), -1);
    EXPECT_EQ(buffer[0], '#') << "the buffer is not touched";
    EXPECT_TRUE(fake_world().spawned.empty());
}

// Kept: the switch is FAT's alone.
TEST_F(VolumeLabelTest, SwitchOffLeavesNtfsLabelsOn)
{
    conf_dir_set_fat_vlabel(0);
    entry->fstype = CONF_DEV_FS_NTFS;
    label_tool_prints("ntfsvlabel", "Backup\n");
    EXPECT_EQ(read_label(), 0);
    EXPECT_STREQ(buffer, "Backup");
}

TEST_F(VolumeLabelTest, AnyOtherNumberSwitchesOn)
{
    for (const int flag : {1, 2, -1, 256}) {
        conf_dir_set_fat_vlabel(0);
        conf_dir_set_fat_vlabel(flag);
        EXPECT_EQ(label_of("L\n"), "L") << flag;
    }
}

// ---- what is printed ----

TEST_F(VolumeLabelTest, OneLineFeedAtTheEndIsRemoved)
{
    EXPECT_EQ(label_of("A\n"), "A");
    EXPECT_EQ(label_of("A\n\n"), "A\n");
    EXPECT_EQ(label_of("A"), "A");
    EXPECT_EQ(label_of("\n"), "");
    EXPECT_EQ(label_of("A\nB"), "A\nB");
}

TEST_F(VolumeLabelTest, BlanksAndCarriageReturnsStay)
{
    EXPECT_EQ(label_of(" A  B  \n"), " A  B  ");
    EXPECT_EQ(label_of("A\r\n"), "A\r");
    EXPECT_EQ(label_of("A\n\r"), "A\n\r");
}

TEST_F(VolumeLabelTest, BytesAbove127Stay)
{
    EXPECT_EQ(label_of("\xC3\x84\xFF\n"), "\xC3\x84\xFF");
}

TEST_F(VolumeLabelTest, PrintingNothingIsAnEmptyLabel)
{
    EXPECT_EQ(label_of(""), "");
}

TEST_F(VolumeLabelTest, LongLabelIsCutToTheBuffer)
{
    label_tool_prints("mlabel", "abcdefghijklmnop\n");
    EXPECT_EQ(read_label(8), 0);
    EXPECT_STREQ(buffer, "abcdefg");
    EXPECT_EQ(buffer[8], '#');
}

TEST_F(VolumeLabelTest, LineFeedThatJustFitsIsRemovedToo)
{
    label_tool_prints("mlabel", "abcdef\n");
    EXPECT_EQ(read_label(8), 0);
    EXPECT_STREQ(buffer, "abcdef");
    label_tool_prints("mlabel", "abcdefg\n");
    EXPECT_EQ(read_label(8), 0);
    EXPECT_STREQ(buffer, "abcdefg");
}

TEST_F(VolumeLabelTest, BufferOfOneByteHoldsAnEmptyLabel)
{
    label_tool_prints("mlabel", "A\n");
    EXPECT_EQ(read_label(1), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(buffer[1], '#');
}

TEST_F(VolumeLabelTest, OneFilesystemsReaderGivesTheBytesAsPrinted)
{
    label_tool_prints("mlabel", "AB\n");
    EXPECT_EQ(conf_dir_get_vlabel_vfat(entry, buffer, 80), 3);
    EXPECT_STREQ(buffer, "AB\n");
    label_tool_prints("ntfsvlabel", "C\n");
    EXPECT_EQ(conf_dir_get_vlabel_ntfs(entry, buffer, 80), 2);
    EXPECT_STREQ(buffer, "C\n");
    label_tool_prints("mlabel", std::string(100, 'x'));
    EXPECT_EQ(conf_dir_get_vlabel_vfat(entry, buffer, 80), 79);
    EXPECT_STREQ(buffer, std::string(79, 'x').c_str());
}

// ---- tools that fail ----

// The result for a tool that ends so, whatever it printed.
void fail_tool(int wait_status, int polls)
{
    FakeRun run;
    run.wait_status = wait_status;
    run.polls = polls;
    run.output = "LABEL\n";
    fake_world().programs["mlabel"].push_back(run);
    fake_world().programs["ntfsvlabel"].push_back(run);
}

TEST_F(VolumeLabelTest, ToolThatFailsGivesAnEmptyLabelWhateverItPrinted)
{
    for (const int status : {1 << 8, 255 << 8, SIGKILL, SIGSEGV}) {
        fail_tool(status, 0);
        EXPECT_EQ(read_label(), 0) << status;
        EXPECT_STREQ(buffer, "") << status;
        buffer[0] = '#';
        EXPECT_EQ(conf_dir_get_vlabel_ntfs(entry, buffer, 80), 0) << status;
        EXPECT_STREQ(buffer, "") << status;
    }
}

TEST_F(VolumeLabelTest, MissingToolGivesAnEmptyLabel)
{
    EXPECT_EQ(read_label(), 0); // as no program of that name: the child exits with 1
    EXPECT_STREQ(buffer, "");
}

TEST_F(VolumeLabelTest, ToolThatTakesItsTimeIsWaitedFor)
{
    fail_tool(0, 99); // the last look of 20 seconds finds it done
    EXPECT_EQ(read_label(), 0);
    EXPECT_STREQ(buffer, "LABEL");
    EXPECT_TRUE(fake_world().signals.empty());
}

TEST_F(VolumeLabelTest, ToolThatHangsIsInterruptedAfter20Seconds)
{
    fail_tool(0, -1);
    EXPECT_EQ(read_label(), 0);
    EXPECT_STREQ(buffer, "");
    ASSERT_EQ(fake_world().signals.size(), 1U);
    EXPECT_EQ(fake_world().signals[0].second, SIGINT);
    EXPECT_EQ(fake_world().slept_usec, 20000000U);
}

TEST_F(VolumeLabelTest, ToolThatCannotBeWaitedForGivesAnEmptyLabel)
{
    label_tool_prints("mlabel", "A\n");
    fake_world().fail("waitpid", 1, ECHILD);
    EXPECT_EQ(read_label(), 0);
    EXPECT_STREQ(buffer, "");
}

TEST_F(VolumeLabelTest, ToolThatCannotBeStartedGivesItsErrno)
{
    fake_world().fail("pipe", 1, EMFILE);
    EXPECT_EQ(read_label(), -EMFILE);
    fake_world().fail("spawn", 1, EAGAIN);
    EXPECT_EQ(read_label(), -EAGAIN);
    entry->fstype = CONF_DEV_FS_NTFS;
    fake_world().fail("spawn", 1, ENOMEM);
    EXPECT_EQ(read_label(), -ENOMEM);
}

// The pipes that this process holds open.
std::set<int> open_pipes()
{
    std::set<int> found;
    for (int fd = 0; fd < 256; fd++) {
        struct stat status;
        if (fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode))
            found.insert(fd);
    }
    return found;
}

// A directory takes the place of the pipe while the tool is waited for.
TEST_F(VolumeLabelTest, OutputThatCannotBeReadGivesTheErrnoAndAnEmptyLabel)
{
    fail_tool(0, 1);
    const std::set<int> before = open_pipes();
    fake_world().on_sleep = [&before](uint64_t) {
        const int directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (const int fd : open_pipes()) {
            if (before.count(fd) != 0)
                continue;
            EXPECT_EQ(dup2(directory, fd), fd);
        }
        close(directory);
    };
    EXPECT_EQ(read_label(), -EISDIR);
    EXPECT_STREQ(buffer, "");
}

// A child of the tool may hold on to the pipe when the tool itself has ended.
TEST_F(VolumeLabelTest, PipeThatSomebodyElseHoldsIsNotWaitedFor)
{
    const std::set<int> before = open_pipes();
    int held = -1;
    fake_world().on_sleep = [&](uint64_t) {
        for (const int fd : open_pipes()) {
            if (before.count(fd) == 0)
                held = open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_WRONLY | O_CLOEXEC);
        }
    };
    fail_tool(0, 1);
    EXPECT_EQ(read_label(), 0);
    EXPECT_STREQ(buffer, "LABEL");
    EXPECT_EQ(close(held), 0);
    fail_tool(0, 1);
    fake_world().programs["mlabel"].front().output = "";
    EXPECT_EQ(read_label(), -EAGAIN);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(close(held), 0);
}

// ---- what is left behind ----

TEST_F(VolumeLabelTest, PipeIsClosedInEveryCase)
{
    const int before = open_descriptors();
    EXPECT_EQ(label_of("A\n"), "A");
    fail_tool(1 << 8, 0);
    EXPECT_EQ(read_label(), 0);
    fail_tool(0, -1);
    EXPECT_EQ(read_label(), 0);
    fake_world().fail("waitpid", 1, ECHILD);
    EXPECT_EQ(read_label(), 0);
    fake_world().fail("spawn", 1, EAGAIN);
    EXPECT_EQ(read_label(), -EAGAIN);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(VolumeLabelTest, LogsNothing)
{
    fail_tool(1 << 8, 0);
    EXPECT_EQ(read_label(), 0);
    fake_world().fail("spawn", 1, EAGAIN);
    EXPECT_EQ(read_label(), -EAGAIN);
    EXPECT_TRUE(fake_log_lines().empty());
}

} // namespace
