// Loading the device table.
#include "records/conf_dev_file.h"

#include "fake/fake_log.h"
#include "record.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Names = std::vector<std::string>;

const std::string path = "/tmp/hotplug.dev.conf";
const std::string defaults = "name null path null comment null fs 0 sync 0 ro 0 guest 0 hide 0 "
                             "admin 3 () () () ()";

class ConfDevLoadTest : public testing::Test {
  protected:
    ~ConfDevLoadTest() override { conf_dev_free(table); }

    int load(const std::string& text)
    {
        write_file(path, text);
        return conf_dev_load(path.c_str(), table);
    }

    // The settings of the one record of a section with these lines; "none" when it was dropped.
    std::string settings(const std::string& lines)
    {
        conf_dev_free(table);
        table = conf_dev_create();
        EXPECT_EQ(load("[dev]\n" + lines + "\n"), 0);
        const std::vector<ConfDev*> records = records_of(table);
        EXPECT_LE(records.size(), 1U);
        return records.empty() ? "none" : settings_of(records[0]);
    }

    // The default settings with one part replaced.
    static std::string defaults_but(const std::string& part, const std::string& other)
    {
        std::string text = defaults;
        const size_t at = text.find(part);
        EXPECT_NE(at, std::string::npos) << part;
        return text.replace(at, part.size(), other);
    }

    ConfDevTable* table = conf_dev_create();
};

// ---- values ----

TEST_F(ConfDevLoadTest, EmptySectionHasTheDefaults)
{
    EXPECT_EQ(settings(""), defaults);
}

TEST_F(ConfDevLoadTest, EmptyValuesAreTheDefaults)
{
    EXPECT_EQ(settings("sharename=\npath=\ncomment=\nfilesystem=\nsync=\nreadonly=\nguestaccess=\n"
                       "guesthide=\nadministrator=\nfullaccessusers=\nreadonlyusers=\n"
                       "blockusers=\nhideusers=\n"),
              defaults);
}

TEST_F(ConfDevLoadTest, EveryKeyReachesItsField)
{
    EXPECT_EQ(settings("sharename=n\npath=/p\ncomment=c\nfilesystem=ext2\nsync=1\nreadonly=1\n"
                       "guestaccess=1\nguesthide=1\nadministrator=block\nfullaccessusers=1\n"
                       "readonlyusers=2\nblockusers=3\nhideusers=4"),
              "name \"n\" path \"/p\" comment \"c\" fs 1 sync 1 ro 1 guest 1 hide 1 admin 1 "
              "(1,) (2,) (3,) (4,)");
}

TEST_F(ConfDevLoadTest, KeysMayBeWrittenAsTheWriterWritesThem)
{
    EXPECT_EQ(settings("Share Name=n\nPath=/p\nComment=c\nFile System=NTFS\nSync=Enable\n"
                       "Read Only=Enable\nGuest Access=Enable\nGuest Hide=Enable\n"
                       "Administrator=Hide\nFull Access Users=1,\nRead Only Users=2,\n"
                       "Block Users=3,\nHide Users=4,"),
              "name \"n\" path \"/p\" comment \"c\" fs 5 sync 1 ro 1 guest 1 hide 1 admin 0 "
              "(1,) (2,) (3,) (4,)");
}

TEST_F(ConfDevLoadTest, LastOfARepeatedKeyCounts)
{
    EXPECT_EQ(settings("readonly=1\nRead Only=Disable\ncomment=a\ncomment=b"),
              defaults_but("comment null", "comment \"b\""));
    EXPECT_EQ(settings("sharename=a\nsharename="), defaults);
    EXPECT_EQ(settings("blockusers=1,2\nblockusers=3"),
              defaults_but("() () () ()", "() () (3,) ()"));
}

TEST_F(ConfDevLoadTest, ShareNameIsItsFirst34Bytes)
{
    const std::string name = "abcdefghijklmnopqrstuvwxyz0123456789ABCD";
    EXPECT_EQ(settings("sharename=" + name),
              defaults_but("name null", "name \"" + name.substr(0, 34) + "\""));
    EXPECT_EQ(settings("sharename=" + name.substr(0, 34)),
              defaults_but("name null", "name \"" + name.substr(0, 34) + "\""));
}

// Bytes, not characters.
TEST_F(ConfDevLoadTest, ShareNameMayEndInsideACharacter)
{
    const std::string name = std::string(33, 'a') + "\xC3\xA4";
    EXPECT_EQ(settings("sharename=" + name),
              defaults_but("name null", "name \"" + name.substr(0, 34) + "\""));
}

// The cut is the last thing that happens to it.
TEST_F(ConfDevLoadTest, ShareNameMayEndInABlank)
{
    const std::string letters(33, 'a');
    EXPECT_EQ(settings("sharename=" + letters + " b"),
              defaults_but("name null", "name \"" + letters + " \""));
}

TEST_F(ConfDevLoadTest, CommentIsItsFirst63Bytes)
{
    const std::string comment(40, 'a');
    const std::string more(40, 'b');
    EXPECT_EQ(settings("comment=" + comment + more),
              defaults_but("comment null", "comment \"" + comment + more.substr(0, 23) + "\""));
}

TEST_F(ConfDevLoadTest, PathMustBeAbsoluteAndShorterThan256Bytes)
{
    const std::string longest = "/" + std::string(254, 'p');
    EXPECT_EQ(settings("path=" + longest), defaults_but("path null", "path \"" + longest + "\""));
    EXPECT_EQ(settings("path=" + longest + "p"), "none");
    EXPECT_EQ(settings("path=" + longest + std::string(1000, 'p')), "none");
    EXPECT_EQ(settings("path=relative"), "none");
    EXPECT_EQ(settings("path=."), "none");
    EXPECT_EQ(settings("path=/"), defaults_but("path null", "path \"/\""));
}

TEST_F(ConfDevLoadTest, BadPathDropsOnlyItsOwnSection)
{
    EXPECT_EQ(load("[a]\nreadonly=1\n[b]\npath=x\n[c]\nsync=1\n"), 0);
    EXPECT_EQ(identifiers(table), (Names{"a", "c"}));
}

struct WordRow {
    const char* text;
    int value;
};

TEST_F(ConfDevLoadTest, FilesystemWords)
{
    const WordRow rows[] = {
        {"deffs", 0}, {"DefFS", 0}, {"fat", 4},  {"FAT", 4},   {"vfat", 4}, {"VFat", 4},
        {"ntfs", 5},  {"NTFS", 5},  {"ext2", 1}, {"EXT2", 1},  {"ext3", 2}, {"Ext3", 2},
        {"ext4", 3},  {"EXT4", 3},  {"ext", 0},  {"exfat", 0}, {"5", 0},    {"fat32", 0},
    };
    for (const WordRow& row : rows)
        EXPECT_EQ(settings(std::string("filesystem=") + row.text),
                  defaults_but("fs 0", "fs " + std::to_string(row.value)))
            << row.text;
}

TEST_F(ConfDevLoadTest, AdministratorWords)
{
    const WordRow rows[] = {
        {"hide", 0},     {"Hide", 0},      {"block", 1}, {"BLOCK", 1}, {"readonly", 2},
        {"ReadOnly", 2}, {"ro", 2},        {"RO", 2},    {"Full", 3},  {"yes", 3},
        {"HideT", 3},    {"read only", 3}, {"0", 3},     {"rw", 3},
    };
    for (const WordRow& row : rows)
        EXPECT_EQ(settings(std::string("administrator=") + row.text),
                  defaults_but("admin 3", "admin " + std::to_string(row.value)))
            << row.text;
}

TEST_F(ConfDevLoadTest, SwitchWords)
{
    const WordRow rows[] = {
        {"enable", 1}, {"Enable", 1}, {"ENABLE", 1}, {"1", 1},  {"disable", 0}, {"Disable", 0},
        {"0", 0},      {"yes", 0},    {"y", 0},      {"on", 0}, {"2", 0},       {"true", 0},
    };
    for (const WordRow& row : rows) {
        const std::string value = std::to_string(row.value);
        for (const auto& [key, part] : {std::pair("sync", "sync "),
                                        {"readonly", "ro "},
                                        {"guestaccess", "guest "},
                                        {"guesthide", "hide "}})
            EXPECT_EQ(settings(std::string(key) + "=" + row.text),
                      defaults_but(std::string(part) + "0", part + value))
                << key << "=" << row.text;
    }
}

TEST_F(ConfDevLoadTest, UserListsHoldEachIdOnce)
{
    EXPECT_EQ(settings("hideusers=501,500,501,"),
              defaults_but("() () () ()", "() () () (501,500,)"));
}

// ---- sections ----

TEST_F(ConfDevLoadTest, RecordsComeInFileOrder)
{
    EXPECT_EQ(load("[b]\n[a]\nsync=1\n[c]\n"), 0);
    EXPECT_EQ(identifiers(table), (Names{"b", "a", "c"}));
}

TEST_F(ConfDevLoadTest, IdentityIsTheSectionsNameAsItStands)
{
    const std::string longest(2000, 'n');
    EXPECT_EQ(load("[1234:00AB:A b c:1]\n[ x ]  \n  [y]\n[" + longest + "]\n[]\n[z] word\n"), 0);
    EXPECT_EQ(identifiers(table), (Names{"1234:00AB:A b c:1", " x ", "y", longest}));
}

TEST_F(ConfDevLoadTest, KeysOutsideASectionAreNobodys)
{
    EXPECT_EQ(load("readonly=1\n[a]\n"), 0);
    EXPECT_EQ(settings_of(records_of(table).at(0)), defaults);
}

// The last section of a name answers for all of them.
TEST_F(ConfDevLoadTest, SectionsOfOneNameGiveARecordEach)
{
    EXPECT_EQ(load("[a]\nsync=1\n[b]\n[a]\nreadonly=1\n"), 0);
    EXPECT_EQ(identifiers(table), (Names{"a", "b", "a"}));
    EXPECT_EQ(settings_of(records_of(table)[0]), defaults_but("ro 0", "ro 1"));
    EXPECT_EQ(settings_of(records_of(table)[2]), defaults_but("ro 0", "ro 1"));
}

TEST_F(ConfDevLoadTest, NamesThatDifferInCaseShareTheLastOnesSettings)
{
    EXPECT_EQ(load("[dev]\nsync=1\n[DEV]\nreadonly=1\n"), 0);
    EXPECT_EQ(identifiers(table), (Names{"dev", "DEV"}));
    EXPECT_EQ(settings_of(records_of(table)[0]), defaults_but("ro 0", "ro 1"));
}

// A lookup ends the name at its first bracket, so it finds nothing for such a record.
TEST_F(ConfDevLoadTest, NameWithAClosingBracketHasTheDefaults)
{
    EXPECT_EQ(load("[a]b]\nsync=1\n"), 0);
    EXPECT_EQ(identifiers(table), (Names{"a]b"}));
    EXPECT_EQ(settings_of(records_of(table)[0]), defaults);
}

// Such a header is listed, but does not end the section above it.
TEST_F(ConfDevLoadTest, IndentedSectionLendsItsEntriesToTheOneAbove)
{
    EXPECT_EQ(load("[a]\nsync=1\n  [b]\nreadonly=1\n"), 0);
    EXPECT_EQ(settings_of(records_of(table).at(0)), defaults_but("sync 0 ro 0", "sync 1 ro 1"));
    EXPECT_EQ(settings_of(records_of(table).at(1)), defaults_but("ro 0", "ro 1"));
}

TEST_F(ConfDevLoadTest, FileWithoutSectionsAddsNothing)
{
    EXPECT_EQ(load(""), 0);
    EXPECT_EQ(load("readonly=1\n"), 0);
    EXPECT_EQ(table->list->count, 0U);
}

TEST_F(ConfDevLoadTest, LoadingTwiceDoublesTheRecords)
{
    EXPECT_EQ(load("[a]\n[b]\n"), 0);
    EXPECT_EQ(load("[a]\n[b]\n"), 0);
    EXPECT_EQ(identifiers(table), (Names{"a", "b", "a", "b"}));
}

TEST_F(ConfDevLoadTest, RecordsAreAppendedToWhatIsThere)
{
    add_record(table, "x");
    EXPECT_EQ(load("[a]\n"), 0);
    EXPECT_EQ(identifiers(table), (Names{"1234:00ab:x:1", "a"}));
}

TEST_F(ConfDevLoadTest, MissingFileFailsAndLeavesTheTable)
{
    add_record(table, "x");
    EXPECT_EQ(conf_dev_load("/tmp/none", table), -1);
    EXPECT_EQ(conf_dev_load(nullptr, table), -1);
    EXPECT_EQ(identifiers(table), (Names{"1234:00ab:x:1"}));
    EXPECT_TRUE(fake_log_lines().empty());
}

TEST_F(ConfDevLoadTest, TenThousandSectionsGiveTenThousandRecords)
{
    std::string text;
    for (int i = 0; i < 10000; i++)
        text += "[1234:00ab:S" + std::to_string(i) + ":1]\nShare Name=n" + std::to_string(i) +
                "\nHide Users=" + std::to_string(i) + ",\n";
    ASSERT_EQ(load(text), 0);
    const std::vector<ConfDev*> records = records_of(table);
    ASSERT_EQ(records.size(), 10000U);
    for (size_t i = 0; i < records.size(); i++) {
        const std::string number = std::to_string(i);
        ASSERT_EQ(records[i]->identifier, "1234:00ab:S" + number + ":1");
        ASSERT_EQ(records[i]->sharename, "n" + number);
        ASSERT_EQ(user_ids(records[i]->hideusers), (std::vector<int>{static_cast<int>(i)}));
    }
}

// ---- how often the file is opened ----

// Counts how often `file` is opened while `work` runs.
int count_opens(const std::string& file, const std::function<void()>& work)
{
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    // Openings alone would be told as one; between two of them there is a close.
    EXPECT_GE(inotify_add_watch(watch, file.c_str(), IN_OPEN | IN_CLOSE), 0);
    work();
    int opens = 0;
    inotify_event event;
    alignas(inotify_event) char buffer[4096];
    ssize_t size = 0;
    while ((size = read(watch, buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(sizeof event + event.len)) {
            memcpy(&event, buffer + at, sizeof event);
            opens += (event.mask & IN_OPEN) != 0 ? 1 : 0;
        }
    }
    close(watch);
    return opens;
}

// One version of the file for the list of sections and for every value.
TEST_F(ConfDevLoadTest, OpensTheFileOnceHoweverManySections)
{
    write_file(path, "[a]\nsync=1\n[b]\n[c]\nreadonly=1\n");
    EXPECT_EQ(count_opens(path, [this] { EXPECT_EQ(conf_dev_load(path.c_str(), table), 0); }), 1);
    EXPECT_EQ(table->list->count, 3U);
    // What the count is worth:
    EXPECT_EQ(count_opens(path, [] { EXPECT_EQ(read_file(path), read_file(path)); }), 2);
}

// A pipe gives its content to the first reader only.
TEST_F(ConfDevLoadTest, LoadsFromAPipeThatIsWrittenOnce)
{
    const std::string pipe = "/tmp/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::atomic<bool> loaded = false;
    std::thread writer([&] {
        write_file(pipe, "[a]\nsync=1\n[b]\nreadonly=1\n");
        // A reader that opens the pipe again waits for a writer; it gets an empty one in the end.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!loaded) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            if (std::chrono::steady_clock::now() > deadline)
                close(open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        }
    });
    EXPECT_EQ(conf_dev_load(pipe.c_str(), table), 0);
    loaded = true;
    writer.join();
    ASSERT_EQ(identifiers(table), (Names{"a", "b"}));
    EXPECT_EQ(settings_of(records_of(table)[0]), defaults_but("sync 0", "sync 1"));
    EXPECT_EQ(settings_of(records_of(table)[1]), defaults_but("ro 0", "ro 1"));
}

TEST_F(ConfDevLoadTest, ClosesTheFileInEveryCase)
{
    const int before = open_descriptors();
    EXPECT_EQ(load("[a]\npath=x\n[b]\n"), 0);
    EXPECT_EQ(conf_dev_load("/tmp/none", table), -1);
    EXPECT_EQ(open_descriptors(), before);
}

// ---- memory ----

bool is_subsequence(const Names& part, const Names& whole)
{
    size_t at = 0;
    for (const std::string& name : whole)
        at += at < part.size() && part[at] == name ? 1 : 0;
    return at == part.size();
}

// Whatever allocation fails, the table holds usable records only and nothing is lost.
TEST_F(ConfDevLoadTest, SurvivesAnyAllocationThatFails)
{
    const Names whole = {"a", "b", "c"};
    write_file(path, "[a]\nsharename=n\ncomment=c\nhideusers=1,2\n[b]\npath=/p\n[c]\nsync=1\n");
    const int descriptors = open_descriptors();
    int partial = 0;
    int dropped = 0;
    int nothing = 0;
    for (int nth = 1;; nth++) {
        const long before = memory_blocks();
        ConfDevTable* loaded = conf_dev_create();
        memory_fail(nth);
        const int result = conf_dev_load(path.c_str(), loaded);
        const bool failed = memory_failed();
        const Names names = identifiers(loaded);
        EXPECT_TRUE(result == 0 || result == -1) << "allocation " << nth;
        EXPECT_TRUE(is_subsequence(names, whole)) << "allocation " << nth;
        nothing += result != 0 && names.empty() ? 1 : 0;
        partial += result != 0 && !names.empty() ? 1 : 0;
        dropped += result == 0 && names.size() == 2 ? 1 : 0;
        conf_dev_free(loaded);
        ASSERT_EQ(memory_blocks(), before) << "allocation " << nth;
        ASSERT_EQ(open_descriptors(), descriptors) << "allocation " << nth;
        if (!failed) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(names, whole);
            break;
        }
    }
    EXPECT_GT(nothing, 0) << "without the list of sections nothing is loaded";
    EXPECT_GT(partial, 0) << "records that came before the failure stay";
    EXPECT_EQ(dropped, 4) << "three identities and one path that cannot be copied";
}

} // namespace
