#include "share/share.h"

#include "shares_of.h"
#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

std::string text_of(const char* text)
{
    return text != nullptr ? text : "(null)";
}

// Reads a file whose notes are of interest, too.
struct Reading {
    explicit Reading(const std::string& text) : table(shares_of(text, &notes)) {}
    ~Reading() { notes_clear(&notes); }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    Texts names() const
    {
        Texts found;
        for (size_t i = 0; i < table->count; i++)
            found.push_back(table->shares[i].name);
        return found;
    }
    const Share& first() const { return table->shares[0]; }

    Notes notes = {};
    ShareTableGuard table;
};

const std::string plain = "Path=/mnt\n";

} // namespace

TEST(SharesRead, AShareWithEverything)
{
    const Reading reading("[Music]\nComment=Living room\nSync=Enable\nRead Only=Enable\n"
                          "Guest Access=Enable\nGuest Hide=Enable\nAdministrator=HideT\n"
                          "Full Access Users=500,501,\nRead Only Users=502,\nBlock Users=8,\n"
                          "Hide Users=9,\nIdentifier=1234:00ab:ABC:1\nPath=/mnt/sda1\n");
    ASSERT_EQ(reading.names(), (Texts{"Music"}));
    const Share& share = reading.first();
    EXPECT_STREQ(share.path, "/mnt/sda1");
    EXPECT_STREQ(share.comment, "Living room");
    EXPECT_STREQ(share.identifier, "1234:00ab:ABC:1");
    EXPECT_TRUE(share.sync);
    EXPECT_TRUE(share.readonly);
    EXPECT_TRUE(share.guestaccess);
    EXPECT_TRUE(share.guesthide);
    EXPECT_EQ(share.administrator, SHARE_HIDE);
    EXPECT_STREQ(share.users[SHARE_FULL], "500,501,");
    EXPECT_STREQ(share.users[SHARE_READ_ONLY], "502,");
    EXPECT_STREQ(share.users[SHARE_BLOCK], "8,");
    EXPECT_STREQ(share.users[SHARE_HIDE], "9,");
    EXPECT_EQ(messages(reading.notes), Texts{});
}

TEST(SharesRead, AShareWithItsPathAlone)
{
    const Reading reading("[Music]\n" + plain);
    ASSERT_EQ(reading.names(), (Texts{"Music"}));
    const Share& share = reading.first();
    EXPECT_EQ(text_of(share.comment), "(null)");
    EXPECT_EQ(text_of(share.identifier), "(null)");
    EXPECT_FALSE(share.sync || share.readonly || share.guestaccess || share.guesthide);
    EXPECT_EQ(share.administrator, SHARE_FULL);
    for (const char* list : share.users)
        EXPECT_EQ(text_of(list), "(null)");
}

TEST(SharesRead, TheLastValueOfAKeyCounts)
{
    const Reading reading("[A]\nPath=/a\nPath=/b\nRead Only=Enable\nRead Only=Disable\n");
    EXPECT_STREQ(reading.first().path, "/b");
    EXPECT_FALSE(reading.first().readonly);
}

TEST(SharesRead, SwitchesAreOnForTheirWordsOnly)
{
    for (const char* word : {"Enable", "enable", "1"})
        EXPECT_TRUE(Reading("[A]\nRead Only=" + std::string(word) + "\n" + plain).first().readonly);
    for (const char* word : {"Disable", "0", "", "yes"})
        EXPECT_FALSE(
            Reading("[A]\nRead Only=" + std::string(word) + "\n" + plain).first().readonly);
}

TEST(SharesRead, WordsForTheAdministrator)
{
    const std::vector<std::pair<std::string, ShareAccess>> rows = {
        {"HideT", SHARE_HIDE},  {"Hide", SHARE_HIDE},          {"hidet", SHARE_HIDE},
        {"Block", SHARE_BLOCK}, {"ReadOnly", SHARE_READ_ONLY}, {"ro", SHARE_READ_ONLY},
        {"", SHARE_FULL}};
    for (const auto& [word, access] : rows) {
        const Reading reading("[A]\nAdministrator=" + word + "\n" + plain);
        EXPECT_EQ(reading.first().administrator, access) << word;
        EXPECT_EQ(messages(reading.notes), Texts{}) << word;
    }
}

TEST(SharesRead, AnUnknownWordForTheAdministratorIsToldOf)
{
    const Reading reading("[A]\nAdministrator=None\n" + plain);
    EXPECT_EQ(reading.first().administrator, SHARE_FULL);
    EXPECT_EQ(messages(reading.notes),
              (Texts{"share A: Administrator=None is unknown, and means full access"}));
}

TEST(SharesRead, AnEmptyLastSectionWithdrawsTheShare)
{
    const Reading reading("[A]\n" + plain + "[B]\n" + plain + "[A]\n");
    EXPECT_EQ(reading.names(), (Texts{"B"}));
    EXPECT_EQ(messages_with_priority(reading.notes), (Texts{"6 share A is withdrawn"}));
}

TEST(SharesRead, AnEmptyLastSectionInOtherLettersWithdrawsItToo)
{
    EXPECT_EQ(Reading("[Music]\n" + plain + "[mUSIC]\n").names(), Texts{});
}

TEST(SharesRead, AShareWithoutAPathIsWithdrawn)
{
    EXPECT_EQ(Reading("[A]\nComment=x\n[B]\nPath=\n").names(), Texts{});
}

TEST(SharesRead, AShareThatIsNotMountedIsWithdrawn)
{
    EXPECT_EQ(Reading("[A]\n" + plain + "Status=Unmount\n[B]\nStatus=Other\n" + plain).names(),
              (Texts{"B"}));
}

TEST(SharesRead, OfSeveralSharesOfANameTheLastCountsAndTheOthersAreToldOf)
{
    const Reading reading("[A]\nPath=/a\n[B]\nPath=/b\n[a]\nPath=/c\n[A]\nPath=/d\n");
    EXPECT_EQ(reading.names(), (Texts{"B", "A"}));
    EXPECT_STREQ(reading.table->shares[1].path, "/d");
    EXPECT_EQ(messages_with_priority(reading.notes),
              (Texts{"4 share A is described 3 times: only the last of them counts"}));
}

TEST(SharesRead, WithdrawingOneOfSeveralSharesOfANameIsToldOf)
{
    const Reading reading("[A]\nPath=/a\n[A]\nPath=/b\n[A]\n");
    EXPECT_EQ(reading.names(), Texts{});
    EXPECT_EQ(messages(reading.notes),
              (Texts{"share A is described 2 times: only the last of them counts",
                     "share A is withdrawn"}));
}

TEST(SharesRead, ANameWithABracketIsLeftOut)
{
    const Reading reading("[A]B]\n" + plain + "[C]\n" + plain);
    EXPECT_EQ(reading.names(), (Texts{"C"}));
    EXPECT_EQ(messages_with_priority(reading.notes),
              (Texts{"4 share A]B is left out: its name holds a bracket"}));
}

TEST(SharesRead, NamesAreKeptAsTheyAre)
{
    EXPECT_EQ(Reading("[ a=b;%\xff]\n" + plain).names(), (Texts{" a=b;%\xff"}));
}

TEST(SharesRead, AnEmptyFileHasNoShares)
{
    EXPECT_EQ(Reading("").names(), Texts{});
    EXPECT_EQ(Reading("Path=/a\n").names(), Texts{});
}

TEST(SharesRead, WithoutMemoryThereIsNoTableAndNothingIsLost)
{
    const std::string text =
        "[A]\nPath=/a\nStatus=x\nAdministrator=Block\nHide Users=5,\n[B]\nPath=/b\n";
    IniDocGuard doc;
    ASSERT_EQ(ini_doc_parse(text.data(), text.size(), doc.out()), 0);
    const long before = memory_blocks();
    int failures = 0;
    for (int nth = 1;; nth++) {
        Notes notes = {};
        ShareTable* table = nullptr;
        memory_fail(nth);
        const int result = shares_read(doc.get(), &notes, &table);
        const bool struck = memory_failed();
        notes_clear(&notes);
        if (!struck) {
            ASSERT_EQ(result, 0);
            shares_free(table);
            break;
        }
        EXPECT_EQ(result, -ENOMEM);
        EXPECT_EQ(table, nullptr);
        EXPECT_EQ(memory_blocks(), before);
        failures++;
    }
    EXPECT_GT(failures, 10);
}

TEST(ShareListsUsers, AListIsGivenWhenItHoldsAnything)
{
    EXPECT_TRUE(
        share_lists_users(&Reading("[A]\nFull Access Users=5,\n" + plain).first(), SHARE_FULL));
    EXPECT_TRUE(
        share_lists_users(&Reading("[A]\nFull Access Users=,\n" + plain).first(), SHARE_FULL));
    EXPECT_FALSE(
        share_lists_users(&Reading("[A]\nFull Access Users=\n" + plain).first(), SHARE_FULL));
    EXPECT_FALSE(share_lists_users(&Reading("[A]\n" + plain).first(), SHARE_FULL));
}

// ---- users ----

namespace {

// What is wrong with the users of a share with these lines: "key: entry", or nothing.
std::string wrong(const std::string& lines)
{
    const Reading reading("[A]\n" + lines + plain);
    char entry[share_user_size];
    const char* list = share_wrong_user(&reading.first(), entry);
    return list != nullptr ? list + (": " + std::string(entry)) : "";
}

} // namespace

TEST(ShareCut, WhatIsLongerThanWhatIsReadOfIt)
{
    const std::string list(2046, '5');
    for (const std::string key :
         {"Full Access Users", "Read Only Users", "Block Users", "Hide Users", "Path"}) {
        const std::string entry = key + "=" + (key == "Path" ? "/" : "") + list;
        const std::string begin = "[A]\n" + (key == "Path" ? "" : plain) + entry;
        EXPECT_EQ(Reading(begin + (key == "Path" ? "" : ",") + "  \n").first().cut, nullptr) << key;
        EXPECT_STREQ(Reading(begin + "5,\n").first().cut, key.c_str());
    }
    EXPECT_EQ(Reading("[A]\nComment=" + list + "xxx\n" + plain).first().cut, nullptr);
}

TEST(ShareWrongUser, ListsAsTheServiceWritesThemAreRight)
{
    for (const std::string list :
         {"", "500,", "500,501,", "500, 501", " 0 ,,", "2147483647", "007,"})
        EXPECT_EQ(wrong("Full Access Users=" + list + "\n"), "") << list;
    EXPECT_EQ(wrong(""), "");
}

TEST(ShareWrongUser, AnythingElseIsFoundInEachList)
{
    for (const std::string key :
         {"Full Access Users", "Read Only Users", "Block Users", "Hide Users"})
        EXPECT_EQ(wrong(key + "=500,anna\n"), key + ": anna");
    for (const std::string entry : {"anna", "-1", "5 00", "500x", "x500", "99999999999", "0x1f4"})
        EXPECT_EQ(wrong("Block Users=" + entry + ",8\n"), "Block Users: " + entry);
}

TEST(ShareWrongUser, WhatIsTooLongToBeAnIdIsNotCutToOne)
{
    const std::string zeros(60, '0');
    EXPECT_EQ(wrong("Hide Users=" + zeros + "500x,\n"), "Hide Users: " + zeros + "...");
    EXPECT_EQ(wrong("Hide Users=" + zeros + "500,\n"), "");
    EXPECT_EQ(wrong("Hide Users=" + zeros + "0500,\n"), "Hide Users: " + zeros + "...");
}
