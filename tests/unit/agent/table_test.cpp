// The table of what was announced, its file, and the queue.
#include "agent/announced.h"
#include "agent/message_queue.h"
#include "agent/state_file.h"
#include "support/files.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr BlockName sda1 = {BLOCK_SD, 1, 1};
static constexpr char path[] = "/tmp/state";

class Table : public testing::Test {
  protected:
    Announced* put(AnnouncedState state, int32_t minor, bool ours = true)
    {
        return announced_put(&table_, state, ours, sda1, 8, minor);
    }
    int used() const
    {
        int count = 0;
        for (const Announced& entry : table_.entries)
            count += entry.state != ANNOUNCED_FREE ? 1 : 0;
        return count;
    }

    AnnouncedTable table_ = {};
};

TEST_F(Table, FindsWhatIsComingOrTold)
{
    Announced* coming = put(ANNOUNCED_COMING, 1);
    Announced* told = put(ANNOUNCED_TOLD, 2);
    put(ANNOUNCED_LEAVING, 3);
    put(ANNOUNCED_LOST, 4);
    put(ANNOUNCED_GONE, 5);
    EXPECT_EQ(announced_find(&table_, 8, 1), coming);
    EXPECT_EQ(announced_find(&table_, 8, 2), told);
    for (const int minor : {0, 3, 4, 5})
        EXPECT_EQ(announced_find(&table_, 8, minor), nullptr) << minor;
    EXPECT_EQ(announced_find(&table_, 9, 1), nullptr);
    EXPECT_EQ(announced_find(&table_, 0, 0), nullptr); // free places have these numbers
    EXPECT_EQ(announced_find_id(&table_, coming->id), coming);
    EXPECT_EQ(announced_find_id(&table_, 0), nullptr);
}

TEST_F(Table, GivesEachEntryAnIdOfItsOwn)
{
    const uint32_t first = put(ANNOUNCED_TOLD, 1)->id;
    announced_clear(&table_);
    EXPECT_EQ(used(), 0);
    EXPECT_NE(put(ANNOUNCED_TOLD, 1)->id, first);
}

TEST_F(Table, ReplacesAnEntryThatIsGone)
{
    put(ANNOUNCED_GONE, 1);
    put(ANNOUNCED_GONE, 2);
    put(ANNOUNCED_COMING, 2);
    EXPECT_EQ(used(), 2);
    EXPECT_NE(announced_find(&table_, 8, 2), nullptr);
    EXPECT_NE(announced_find_state(&table_, 8, 1, ANNOUNCED_GONE), nullptr);
    EXPECT_EQ(announced_find_state(&table_, 8, 2, ANNOUNCED_GONE), nullptr);
}

TEST_F(Table, KeepsALeavingEntryBesideTheNextOne)
{
    put(ANNOUNCED_LEAVING, 1);
    put(ANNOUNCED_COMING, 1);
    EXPECT_EQ(used(), 2);
}

TEST_F(Table, MakesRoomWithEntriesThatAreGone)
{
    for (uint32_t i = 0; i < agent_table_limit; i++)
        ASSERT_NE(put(i == 3 ? ANNOUNCED_GONE : ANNOUNCED_TOLD, static_cast<int>(i)), nullptr);
    ASSERT_NE(put(ANNOUNCED_COMING, 9999), nullptr);
    EXPECT_EQ(put(ANNOUNCED_COMING, 10000), nullptr);
    EXPECT_EQ(announced_find_state(&table_, 8, 3, ANNOUNCED_GONE), nullptr);
}

TEST_F(Table, MakesRoomWithEntriesThatAreNotOurs)
{
    for (uint32_t i = 0; i < agent_table_limit; i++)
        ASSERT_NE(put(ANNOUNCED_LEAVING, static_cast<int>(i), i != 3), nullptr);
    ASSERT_NE(put(ANNOUNCED_COMING, 9999), nullptr);
    EXPECT_EQ(put(ANNOUNCED_COMING, 10000), nullptr);
    EXPECT_EQ(announced_find_state(&table_, 8, 3, ANNOUNCED_LEAVING), nullptr);
}

TEST_F(Table, KnowsWhatIsTheServices)
{
    put(ANNOUNCED_GONE, 1);
    put(ANNOUNCED_LEAVING, 2, false);
    EXPECT_TRUE(announced_is_ours(&table_, 8, 1));
    EXPECT_FALSE(announced_is_ours(&table_, 8, 2));
    EXPECT_FALSE(announced_is_ours(&table_, 8, 3));
}

TEST_F(Table, LosesTheQueue)
{
    put(ANNOUNCED_COMING, 1);
    put(ANNOUNCED_TOLD, 2);
    put(ANNOUNCED_LEAVING, 3);
    put(ANNOUNCED_GONE, 4);
    put(ANNOUNCED_LEAVING, 6, false);
    const uint32_t kept = put(ANNOUNCED_COMING, 5)->id;
    announced_lose_queue(&table_, kept);
    EXPECT_EQ(announced_find(&table_, 8, 1), nullptr);
    EXPECT_NE(announced_find(&table_, 8, 2), nullptr);
    EXPECT_NE(announced_find_state(&table_, 8, 3, ANNOUNCED_LOST), nullptr);
    EXPECT_NE(announced_find_state(&table_, 8, 4, ANNOUNCED_GONE), nullptr);
    EXPECT_NE(announced_find(&table_, 8, 5), nullptr);
    EXPECT_EQ(announced_find_state(&table_, 8, 6, ANNOUNCED_LOST), nullptr);
}

TEST_F(Table, LosesOneEntryForEachNumbers)
{
    put(ANNOUNCED_LEAVING, 1);
    put(ANNOUNCED_LEAVING, 1);
    put(ANNOUNCED_COMING, 1);
    announced_lose_queue(&table_, 0);
    EXPECT_EQ(used(), 1);
    EXPECT_NE(announced_find_state(&table_, 8, 1, ANNOUNCED_LOST), nullptr);
}

TEST_F(Table, TellsWhetherSomethingIsLeaving)
{
    put(ANNOUNCED_TOLD, 1);
    put(ANNOUNCED_GONE, 1);
    put(ANNOUNCED_LOST, 1);
    EXPECT_EQ(announced_leaving(&table_), 0);
    put(ANNOUNCED_LEAVING, 1);
    put(ANNOUNCED_LEAVING, 2);
    EXPECT_EQ(announced_leaving(&table_), 1);
    put(ANNOUNCED_LEAVING, 2);
    EXPECT_EQ(announced_leaving(&table_), 2);
}

// ---- the state file ----

class StateFile : public Table {
  protected:
    ~StateFile() override { unlink(path); }

    const DaemonIdentity daemon_ = {4711, 123456789012345ULL, "boot-id"};
    DaemonIdentity read_ = {};
};

TEST_F(StateFile, BringsBackWhatTheDaemonWasTold)
{
    Announced* told = put(ANNOUNCED_TOLD, 1);
    told->identity = 0xfedcba9876543210ULL;
    put(ANNOUNCED_LEAVING, 2);
    put(ANNOUNCED_LOST, 3);
    put(ANNOUNCED_COMING, 4);
    put(ANNOUNCED_GONE, 5);
    announced_put(&table_, ANNOUNCED_TOLD, true, {BLOCK_MMC, 0, 12}, 179, 12);
    ASSERT_EQ(state_save(path, daemon_, &table_), 0);
    AnnouncedTable table = {};
    ASSERT_EQ(state_load(path, &read_, &table), 0);
    EXPECT_TRUE(daemon_is_same(read_, daemon_));
    const Announced* entry = announced_find(&table, 8, 1);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->identity, 0xfedcba9876543210ULL);
    EXPECT_EQ(entry->state, ANNOUNCED_TOLD);
    EXPECT_TRUE(entry->ours);
    EXPECT_EQ(block_name_compare(entry->name, sda1), 0);
    EXPECT_NE(announced_find(&table, 8, 2), nullptr); // the daemon has it still
    EXPECT_NE(announced_find(&table, 8, 3), nullptr);
    EXPECT_EQ(announced_find(&table, 8, 4), nullptr); // has not heard of it yet
    EXPECT_EQ(announced_find(&table, 8, 5), nullptr);
    EXPECT_NE(announced_find(&table, 179, 12), nullptr);
    struct stat status;
    ASSERT_EQ(stat(path, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_FALSE(exists(std::string(path) + ".tmp"));
}

TEST_F(StateFile, BringsBackADaemonWithoutABootId)
{
    const DaemonIdentity daemon = {1, 2, ""};
    ASSERT_EQ(state_save(path, daemon, &table_), 0);
    ASSERT_EQ(state_load(path, &read_, &table_), 0);
    EXPECT_TRUE(daemon_is_same(read_, daemon));
    EXPECT_EQ(used(), 0);
}

TEST_F(StateFile, HoldsAFullTable)
{
    for (uint32_t i = 0; i < agent_table_limit; i++)
        put(ANNOUNCED_TOLD, static_cast<int>(i));
    ASSERT_EQ(state_save(path, daemon_, &table_), 0);
    ASSERT_EQ(state_load(path, &read_, &table_), 0);
    EXPECT_EQ(used(), static_cast<int>(agent_table_limit));
}

TEST_F(StateFile, IsNotThereAtFirst)
{
    EXPECT_EQ(state_load(path, &read_, &table_), -ENOENT);
}

TEST_F(StateFile, CannotBeKeptWithoutItsDirectory)
{
    EXPECT_EQ(state_save("/tmp/nothing/state", daemon_, &table_), -ENOENT);
    EXPECT_EQ(state_save(std::string(5000, 'x').c_str(), daemon_, &table_), -ENAMETOOLONG);
}

TEST_F(StateFile, ReplacesWhatAKilledAgentLeft)
{
    write_file(std::string(path) + ".tmp", "half a fi");
    write_file("/tmp/victim", "untouched");
    ASSERT_EQ(state_save(path, daemon_, &table_), 0);
    ASSERT_EQ(symlink("/tmp/victim", "/tmp/state.tmp"), 0);
    ASSERT_EQ(state_save(path, daemon_, &table_), 0);
    EXPECT_EQ(read_file("/tmp/victim"), "untouched");
    EXPECT_EQ(state_load(path, &read_, &table_), 0);
}

TEST_F(StateFile, KeepsTheOldFileWhenItsNameIsTaken)
{
    ASSERT_EQ(state_save(path, daemon_, &table_), 0);
    const std::string before = read_file(path);
    mkdir("/tmp/state.tmp", 0755);
    EXPECT_EQ(state_save(path, daemon_, &table_), -EEXIST);
    EXPECT_EQ(read_file(path), before);
    rmdir("/tmp/state.tmp");
}

TEST_F(StateFile, KeepsTheOldFileWhenTheDiskIsFull)
{
    mkdir("/tmp/small", 0755);
    ASSERT_EQ(mount("small", "/tmp/small", "tmpfs", 0, "size=64k"), 0);
    ASSERT_EQ(state_save("/tmp/small/state", daemon_, &table_), 0);
    const std::string before = read_file("/tmp/small/state");
    const int rest = open("/tmp/small/rest", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    while (write(rest, before.data(), before.size()) > 0) {
    } // until nothing more goes in
    close(rest);
    EXPECT_EQ(state_save("/tmp/small/state", daemon_, &table_), -ENOSPC);
    EXPECT_EQ(read_file("/tmp/small/state"), before);
    EXPECT_FALSE(exists("/tmp/small/state.tmp"));
    EXPECT_EQ(umount("/tmp/small"), 0);
}

TEST_F(StateFile, IsRefusedWhenItIsNotInItsForm)
{
    const std::string head = "vyhotplug-agent 1\n";
    const std::string daemon = "daemon 12 34 boot\n";
    const std::string entry = "8 1 sda1 0123456789abcdef\n";
    const std::string wrong[] = {
        "",
        "vyhotplug-agent 2\n" + daemon,
        head,
        head + entry,
        head + "daemon\n",
        head + "daemon x 34 boot\n",
        head + "daemon 12 x boot\n",
        head + "daemon 12 34 " + std::string(100, 'b') + "\n",
        head + daemon + "8 1 sda1\n",
        head + daemon + "8 1 sda1 xyz\n",
        head + daemon + "8 1 sda1 123456789abcdef0123\n",
        head + daemon + "8 1 loop0 12\n",
        head + daemon + "8 x sda1 12\n",
        head + daemon + "x 1 sda1 12\n",
        head + daemon + entry + "\n",
        head + daemon + entry + std::string(10000, 'x'),
        head + daemon + entry + std::string(10, '\0'),
    };
    for (const std::string& text : wrong) {
        write_file(path, text);
        put(ANNOUNCED_TOLD, 7);
        EXPECT_EQ(state_load(path, &read_, &table_), -EINVAL) << text;
        EXPECT_EQ(used(), 0) << text;
        EXPECT_EQ(read_.pid, 0) << text;
    }
    write_file(path, head + daemon + entry);
    EXPECT_EQ(state_load(path, &read_, &table_), 0);
}

TEST_F(StateFile, IsRefusedWhenItHoldsTooMuch)
{
    std::string text = "vyhotplug-agent 1\ndaemon 12 34 boot\n";
    for (uint32_t i = 0; i <= agent_table_limit; i++)
        text += "8 " + std::to_string(i) + " sda1 1\n";
    write_file(path, text);
    EXPECT_EQ(state_load(path, &read_, &table_), -EINVAL);
    EXPECT_EQ(used(), 0);
}

TEST_F(StateFile, IsRefusedWhenItCannotBeRead)
{
    mkdir("/tmp/state-directory", 0755);
    EXPECT_NE(state_load("/tmp/state-directory", &read_, &table_), 0);
    rmdir("/tmp/state-directory");
}

// ---- the queue ----

class Queue : public testing::Test {
  protected:
    ~Queue() override { message_queue_cut(&queue_, 0); }

    MessageQueue queue_ = {};
};

TEST_F(Queue, HandsOutWhatCameFirst)
{
    EXPECT_EQ(message_queue_head(&queue_), nullptr);
    for (int turn = 0; turn < 3; turn++) { // past the ring's end
        for (uint32_t i = 0; i < 700; i++)
            ASSERT_EQ(message_queue_put(&queue_, MESSAGE_ADD, i, std::to_string(i).c_str()), 0);
        for (uint32_t i = 0; i < 700; i++) {
            ASSERT_EQ(message_queue_head(&queue_)->id, i);
            ASSERT_EQ(message_queue_head(&queue_)->text, std::to_string(i));
            message_queue_pop(&queue_);
        }
    }
}

TEST_F(Queue, TakesSoManyAndNoMore)
{
    for (uint32_t i = 0; i < agent_queue_limit; i++)
        ASSERT_EQ(message_queue_put(&queue_, MESSAGE_ADD, i, "x"), 0);
    EXPECT_EQ(message_queue_put(&queue_, MESSAGE_ADD, 0, "x"), -ENOBUFS);
    EXPECT_EQ(queue_.count, agent_queue_limit);
    message_queue_cut(&queue_, 1);
    ASSERT_EQ(queue_.count, 1U);
    EXPECT_EQ(message_queue_head(&queue_)->id, 0U);
    EXPECT_EQ(message_queue_put(&queue_, MESSAGE_REMOVE, 7, "y"), 0);
    message_queue_pop(&queue_);
    EXPECT_EQ(message_queue_head(&queue_)->kind, MESSAGE_REMOVE);
}
