#include "label/label_tool.h"

#include "fake/fake_world.h"
#include "lib/version.h"
#include "support/child.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

class LabelToolTest : public testing::Test {
  protected:
    ~LabelToolTest() override { fake_world_reset(); }

    static void blkid_prints(const std::string& output, int status = 0, int polls = 0)
    {
        FakeRun run;
        run.output = output;
        run.wait_status = status << 8;
        run.polls = polls;
        fake_world().programs["blkid"].push_back(run);
    }

    static LabelOutcome read(const char* program = "mlabel")
    {
        char printed[label_printed_size] = "";
        const LabelOutcome outcome =
            label_tool_read(label_tool_find(program), "/dev/sda1", printed);
        return outcome;
    }

    static void expect_failure(const std::string& reason)
    {
        const ChildResult result = run_main(label_main, {"mlabel", "-i", "/dev/sda1", "-n"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "mlabel: /dev/sda1: " + reason + "\n");
    }

    static Texts kills() { return fake_world().calls("kill "); }
};

// The node of a command line; "" when it is refused.
std::string node_of(Texts arguments)
{
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    const LabelTool* tool = label_tool_find(argv[0]);
    const char* node = tool == nullptr
                           ? nullptr
                           : label_tool_node(tool, static_cast<int>(arguments.size()), argv.data());
    return node != nullptr ? node : "";
}

} // namespace

// ---- the command line ----

TEST_F(LabelToolTest, TakesTheServicesCommandLines)
{
    EXPECT_EQ(node_of({"mlabel", "-i", "/dev/sda1", "-n"}), "/dev/sda1");
    EXPECT_EQ(node_of({"ntfsvlabel", "/dev/sda1", "-n"}), "/dev/sda1");
    EXPECT_EQ(node_of({"vylabel", "/dev/sda1"}), "/dev/sda1");
    EXPECT_EQ(node_of({"/usr/libexec/vyhotplugd/mlabel", "-i", "/dev/a b", "-n"}), "/dev/a b");
}

TEST_F(LabelToolTest, RefusesEveryOtherOne)
{
    const std::vector<Texts> others = {
        {"mlabel"},
        {"mlabel", "-i", "/dev/sda1"},
        {"mlabel", "-i", "/dev/sda1", "-s"},
        {"mlabel", "-i", "/dev/sda1", "-c"},
        {"mlabel", "-i", "/dev/sda1", "-N"},
        {"mlabel", "-i", "/dev/sda1", "-n", "::"},
        {"mlabel", "-i", "/dev/sda1", "-n", "-s"},
        {"mlabel", "-n", "-i", "/dev/sda1"},
        {"mlabel", "-s", "-i", "/dev/sda1"},
        {"mlabel", "-i", "/dev/sda1", "::LABEL"},
        {"mlabel", "-i", "/dev/sda1", "-N", "12345678"},
        {"mlabel", "-s", "a:"},
        {"mlabel", "a:LABEL"},
        {"mlabel", "/dev/sda1", "-n"},
        {"mlabel", "-i", "", "-n"},
        {"mlabel", "-i", "-n", "-n"},
        {"mlabel", "-i", "sda1", "-n"},
        {"mlabel", "--help"},
        {"mlabel", "--version", "-n"},
        {"ntfsvlabel"},
        {"ntfsvlabel", "/dev/sda1"},
        {"ntfsvlabel", "/dev/sda1", "Label"},
        {"ntfsvlabel", "-n", "/dev/sda1"},
        {"ntfsvlabel", "-i", "/dev/sda1", "-n"},
        {"ntfsvlabel", "/dev/sda1", "-n", "Label"},
        {"ntfsvlabel", "--version", "-n"},
        {"vylabel"},
        {"vylabel", "/dev/sda1", "-n"},
        {"vylabel", "-n", "/dev/sda1"},
        {"vylabel", "sda1"},
        {"vylabel", "-n"},
        {"label", "/dev/sda1", "-n"},
        {"", "/dev/sda1", "-n"},
    };
    for (const Texts& arguments : others) {
        std::string line;
        for (const std::string& argument : arguments)
            line += argument + " ";
        EXPECT_EQ(node_of(arguments), "") << line;
        const ChildResult result = run_main(label_main, arguments);
        EXPECT_EQ(result.status, 2) << line;
        EXPECT_EQ(result.out, "") << line;
        EXPECT_NE(result.err, "") << line;
    }
    EXPECT_TRUE(fake_world().journal.empty());
}

TEST_F(LabelToolTest, WithoutAnyArgumentsItIsRefusedToo)
{
    char* const none[] = {nullptr};
    EXPECT_EQ(label_main(0, const_cast<char**>(none)), 2);
}

TEST_F(LabelToolTest, TellsItsVersionAndRunsNothing)
{
    for (const char* name : {"mlabel", "ntfsvlabel", "vylabel"}) {
        const ChildResult result = run_main(label_main, {name, "--version"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, std::string(name) + " " + vy_build + "\n");
        EXPECT_EQ(result.err, "");
    }
    EXPECT_TRUE(fake_world().journal.empty());
}

// ---- blkid ----

TEST_F(LabelToolTest, AsksBlkidForTheLabelOfThatFilesystem)
{
    blkid_prints("A\n");
    blkid_prints("B\n");
    EXPECT_EQ(read("mlabel"), LabelOutcome::read);
    EXPECT_EQ(read("ntfsvlabel"), LabelOutcome::read);
    const std::vector<Texts> expected = {
        {"blkid", "-p", "-D", "-n", "vfat", "-s", "LABEL", "-o", "value", "-d", "/dev/sda1"},
        {"blkid", "-p", "-D", "-n", "ntfs", "-s", "LABEL", "-o", "value", "-d", "/dev/sda1"},
    };
    EXPECT_EQ(fake_world().spawned, expected);
    EXPECT_TRUE(kills().empty());
}

TEST_F(LabelToolTest, AsksBlkidForTheLabelOfAnyFilesystemAndItsType)
{
    blkid_prints("A\next4\n");
    EXPECT_EQ(read("vylabel"), LabelOutcome::read);
    const std::vector<Texts> expected = {
        {"blkid", "-p", "-D", "-s", "TYPE", "-s", "LABEL", "-o", "value", "-d", "/dev/sda1"}};
    EXPECT_EQ(fake_world().spawned, expected);
}

TEST_F(LabelToolTest, PrintsTheLabelOfAnyFilesystemWithoutItsType)
{
    const struct {
        const char* printed;
        const char* label;
    } rows[] = {
        {"HOLIDAY\next4\n", "HOLIDAY\n"},
        {"ext4\n", "\n"},
        {"\next4\n", "\n"},
        {"a\nb\next4\n", "a_b\n"},
        {"B\x9aRO\nvfat\n", "B\xc3\x9cRO\n"},
        {"B\x9aRO\next4\n", "B_RO\n"},
        {"B\x9aRO\nxvfat\n", "B_RO\n"},
        {"vfat\next4\n", "vfat\n"},
        {"[A]\nvfat\n", "_A_\n"},
        {"A\nvfat", "A\n"},
        {"", "\n"},
    };
    for (const auto& row : rows) {
        fake_world_reset();
        blkid_prints(row.printed);
        const ChildResult result = run_main(label_main, {"vylabel", "/dev/sda1"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, row.label) << row.printed;
    }
}

TEST_F(LabelToolTest, PrintsTheLabelAsOneLine)
{
    blkid_prints("B\x9aRO [1]\nx\n");
    ChildResult result = run_main(label_main, {"mlabel", "-i", "/dev/sda1", "-n"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "B\xc3\x9cRO _1__x\n");
    EXPECT_EQ(result.err, "");
    fake_world_reset();
    blkid_prints("B\x9aRO\n");
    result = run_main(label_main, {"ntfsvlabel", "/dev/sda1", "-n"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "B_RO\n") << "NTFS has no code pages";
}

TEST_F(LabelToolTest, PrintsAnEmptyLineForNoLabel)
{
    blkid_prints("");
    const ChildResult result = run_main(label_main, {"mlabel", "-i", "/dev/sda1", "-n"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(LabelToolTest, WaitsForABlkidThatHasPrintedAll)
{
    blkid_prints("A\n", 0, 3);
    EXPECT_EQ(read(), LabelOutcome::read);
    EXPECT_LT(fake_world().slept_usec, 100000U);
    EXPECT_TRUE(kills().empty());
}

TEST_F(LabelToolTest, TellsWhyThereIsNone)
{
    blkid_prints("A\n", 2);
    expect_failure("no such volume");
    fake_world_reset();
    blkid_prints("A\n", 8);
    expect_failure("blkid failed");
    fake_world_reset();
    FakeRun killed;
    killed.output = "A\n";
    killed.wait_status = SIGSEGV;
    fake_world().programs["blkid"].push_back(killed);
    expect_failure("blkid failed");
    fake_world_reset();
    expect_failure("blkid cannot be run"); // an unknown program ends with 1
    fake_world().fail("spawn", 0, EAGAIN);
    expect_failure("blkid cannot be run");
}

TEST_F(LabelToolTest, FailsWhereAWaitFails)
{
    for (const char* call : {"select", "waitpid"}) {
        fake_world_reset();
        blkid_prints("A\n");
        fake_world().fail(call, 1, EBADF);
        EXPECT_EQ(read(), LabelOutcome::failed) << call;
    }
}

TEST_F(LabelToolTest, ASignalInBetweenChangesNothing)
{
    blkid_prints("A\n");
    fake_world().fail("select", 1, EINTR);
    EXPECT_EQ(read(), LabelOutcome::read);
}

TEST_F(LabelToolTest, TakesTheLongestLabelAndNotMore)
{
    blkid_prints(std::string(label_printed_size - 1, 'x'));
    EXPECT_EQ(read(), LabelOutcome::read);
    EXPECT_TRUE(kills().empty());
    blkid_prints(std::string(label_printed_size, 'x'), 0, -1);
    EXPECT_EQ(read(), LabelOutcome::too_long);
    EXPECT_EQ(kills(), Texts{"kill 5002 9"});
}

// ---- time ----

TEST_F(LabelToolTest, KillsABlkidThatPrintsNothing)
{
    blkid_prints("", 0, -1);
    fake_world().select_expires = 1;
    EXPECT_EQ(read(), LabelOutcome::timed_out);
    EXPECT_EQ(kills(), Texts{"kill 5001 9"});
    EXPECT_EQ(fake_world().count("waitpid"), 0) << "it may be stuck in the kernel";
}

TEST_F(LabelToolTest, KillsABlkidThatDoesNotEnd)
{
    blkid_prints("A\n", 0, -1);
    expect_failure("blkid does not end");
    blkid_prints("A\n", 0, -1);
    EXPECT_EQ(read(), LabelOutcome::timed_out);
    EXPECT_EQ(kills(), Texts{"kill 5001 9"});
    EXPECT_GE(fake_world().slept_usec, 14000000U);
    EXPECT_LT(fake_world().slept_usec, 16000000U);
}

TEST_F(LabelToolTest, WithoutAClockItDoesNotWait)
{
    blkid_prints("A\n", 0, -1);
    fake_world().fail("clock_gettime", 0, EINVAL);
    EXPECT_EQ(read(), LabelOutcome::timed_out);
    EXPECT_EQ(kills(), Texts{"kill 5001 9"});
}
