#include "config/getopt.h"

#include "fake/fake_log.h"
#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <string.h>
#include <syslog.h>

#include <string>
#include <vector>

namespace {

constexpr vyopt_option filesystems[] = {
    {'f', VYOPT_NOCASE, "fat"},  {'f', VYOPT_NOCASE, "vfat"},
    {'n', VYOPT_NOCASE, "ntfs"}, {'e', VYOPT_NOCASE, "ext"},
    {'e', VYOPT_NOCASE, "ext2"}, {'e', VYOPT_NOCASE, "ext3"},
    {'e', VYOPT_NOCASE, "ext4"}, {0, 0, nullptr},
};

constexpr vyopt_option message_keys[] = {
    {'a', VYOPT_ARG, "ACTION"},
    {'j', VYOPT_ARG, "MAJOR"},
    {'n', VYOPT_ARG, "MINOR"},
    {0, 0, nullptr},
};

// The items of a text, "name=value" or "name" where there is no value.
std::vector<std::string> items_of(const std::string& text)
{
    const OptionMapGuard map(vyopt_create_opmap(text.c_str()));
    std::vector<std::string> items;
    for (vyopt_op** op = map.get(); *op != nullptr; op++) {
        std::string item = (*op)->name;
        if ((*op)->value != nullptr)
            item += std::string("=") + (*op)->value;
        items.push_back(item);
    }
    return items;
}

using Items = std::vector<std::string>;

// Every answer for a text: "a=add" where a value was lent, "a" where none was.
std::vector<std::string> answers(const std::string& text, const vyopt_option* table)
{
    const OptionMapGuard map(vyopt_create_opmap(text.c_str()));
    std::vector<std::string> found;
    int32_t index = 0;
    for (;;) {
        const char* value = "not touched";
        const int code = vy_getopt(&index, map.get(), table, &value);
        if (code == 0)
            return found;
        std::string answer(1, static_cast<char>(code));
        if (value != nullptr)
            answer += std::string("=") + value;
        found.push_back(answer);
        EXPECT_EQ(static_cast<size_t>(index), found.size()) << "one item at each call";
    }
}

// ---- one item ----

struct SectionRow {
    const char* text;
    int32_t size;
    const char* copied; // null: no item left
    const char* rest;
};

TEST(VyoptGetSection, CopiesTheNextItemAndReturnsItsEnd)
{
    const SectionRow rows[] = {
        {"a,b", 8, "a", ",b"},         {",b", 8, "b", ""},
        {",,,b,,c", 8, "b", ",,c"},    {"abc", 8, "abc", ""},
        {"abc", 4, "abc", ""},         {"abc,d", 4, "abc", ",d"},
        {"abc,d", 3, "ab", ",d"}, // cut, and the whole item passed
        {"abc,d", 1, "", ",d"},        {"abcdef", 3, "ab", ""},
        {" a b ,c", 8, " a b ", ",c"}, // kept exactly
        {"k=a=b,c", 8, "k=a=b", ",c"}, {"", 8, nullptr, nullptr},
        {",", 8, nullptr, nullptr},    {",,,", 8, nullptr, nullptr},
    };
    for (const SectionRow& row : rows) {
        char buffer[16];
        memset(buffer, '#', sizeof buffer);
        const char* end = vyopt_get_section(row.text, buffer, row.size);
        if (row.copied == nullptr) {
            EXPECT_EQ(end, nullptr) << row.text;
            continue;
        }
        EXPECT_STREQ(end, row.rest) << row.text;
        EXPECT_STREQ(buffer, row.copied) << row.text;
        EXPECT_EQ(buffer[row.size], '#') << "behind the buffer, " << row.text;
    }
}

TEST(VyoptGetSection, HasNoItemAtNull)
{
    char buffer[8];
    EXPECT_EQ(vyopt_get_section(nullptr, buffer, sizeof buffer), nullptr);
}

TEST(VyoptGetSection, ReturnsAPlaceInsideTheText)
{
    const char* text = ",ab,c";
    char buffer[8];
    EXPECT_EQ(vyopt_get_section(text, buffer, sizeof buffer), text + 3);
    EXPECT_EQ(vyopt_get_section(text + 3, buffer, sizeof buffer), text + 5);
    EXPECT_EQ(vyopt_get_section(text + 5, buffer, sizeof buffer), nullptr);
}

// ---- the map ----

TEST(OptionMap, HoldsTheItemsInOrder)
{
    EXPECT_EQ(items_of("a,b=1,a"), (Items{"a", "b=1", "a"}));
}

TEST(OptionMap, OfNothingButCommasIsEmpty)
{
    EXPECT_EQ(items_of(""), Items());
    EXPECT_EQ(items_of(","), Items());
    EXPECT_EQ(items_of(",,,,"), Items());
}

TEST(OptionMap, PassesEmptyItemsOver)
{
    EXPECT_EQ(items_of("a,,b"), (Items{"a", "b"}));
    EXPECT_EQ(items_of(",,a,"), (Items{"a"}));
}

TEST(OptionMap, StopsAtTheFirstItemWithoutAName)
{
    EXPECT_EQ(items_of("x=1,=2,y=3"), (Items{"x=1"}));
    EXPECT_EQ(items_of("=1,y"), Items());
    EXPECT_EQ(items_of("x,=,y"), (Items{"x"}));
}

TEST(OptionMap, SplitsAnItemAtItsFirstEqualsSign)
{
    const OptionMapGuard map(vyopt_create_opmap("k=a=b,k=,k"));
    EXPECT_STREQ(map.get()[0]->name, "k");
    EXPECT_STREQ(map.get()[0]->value, "a=b");
    EXPECT_STREQ(map.get()[1]->value, "");
    EXPECT_EQ(map.get()[2]->value, nullptr);
    EXPECT_EQ(map.get()[3], nullptr);
}

TEST(OptionMap, KeepsNamesAndValuesExactly)
{
    EXPECT_EQ(items_of(" A b = C\t, d"), (Items{" A b = C\t", " d"}));
}

TEST(OptionMap, CutsAnItemTo511BytesBeforeItIsSplit)
{
    const std::string name(600, 'n');
    EXPECT_EQ(items_of(name + ",b"), (Items{std::string(511, 'n'), "b"}));
    EXPECT_EQ(items_of(name + "=v"), (Items{std::string(511, 'n')})) << "the = is cut off";
    EXPECT_EQ(items_of("k=" + name), (Items{"k=" + std::string(509, 'n')}));
    EXPECT_EQ(items_of(std::string(510, 'n') + "=v"), (Items{std::string(510, 'n') + "="}));
    EXPECT_EQ(items_of(std::string(511, 'n')), (Items{std::string(511, 'n')}));
}

TEST(OptionMap, HoldsAnyNumberOfItems)
{
    std::string text;
    for (int i = 0; i < 1000; i++)
        text += "i" + std::to_string(i) + ",";
    const Items items = items_of(text);
    ASSERT_EQ(items.size(), 1000U);
    EXPECT_EQ(items[999], "i999");
}

TEST(OptionMap, FreeingNullIsHarmless)
{
    vyopt_free_opmap(nullptr);
    vyopt_free_op(nullptr);
}

TEST(OptionMap, IsFreedWhole)
{
    const long before = memory_blocks();
    vyopt_free_opmap(vyopt_create_opmap("a=1,b,c=,d=e=f"));
    EXPECT_EQ(memory_blocks(), before);
}

// Running out of memory is no error: the map holds what came before.
TEST(OptionMap, IsShortenedWhenMemoryRunsOut)
{
    const long before = memory_blocks();
    const Items whole = {"a=1", "b", "c=3"};
    bool shortened = false;
    bool refused = false;
    for (int nth = 1;; nth++) {
        memory_fail(nth);
        vyopt_op** map = vyopt_create_opmap("a=1,b,c=3");
        const bool failed = memory_failed();
        size_t count = 0;
        while (map != nullptr && map[count] != nullptr)
            count++;
        for (size_t i = 0; i < count; i++)
            EXPECT_EQ(whole[i].substr(0, 1), map[i]->name) << "allocation " << nth;
        shortened = shortened || (map != nullptr && count > 0 && count < whole.size());
        refused = refused || map == nullptr;
        vyopt_free_opmap(map);
        EXPECT_EQ(memory_blocks(), before) << "allocation " << nth;
        if (!failed) {
            EXPECT_EQ(count, whole.size());
            break;
        }
        EXPECT_TRUE(map == nullptr || count < whole.size()) << "allocation " << nth;
    }
    EXPECT_TRUE(shortened);
    EXPECT_TRUE(refused) << "without a list or an array there is no map";
}

// ---- the walk ----

TEST(VyGetopt, GivesTheCodeAndTheValue)
{
    EXPECT_EQ(answers("ACTION=add,MAJOR=8,MINOR=", message_keys), (Items{"a=add", "j=8", "n="}));
}

TEST(VyGetopt, GivesNoValueForAnOptionThatTakesNone)
{
    EXPECT_EQ(answers("NTFS,ext2=x,Fat=", filesystems), (Items{"n", "e", "f"}));
}

TEST(VyGetopt, GivesNoValueWhereTheItemHasNone)
{
    EXPECT_EQ(answers("ACTION", message_keys), (Items{"a"}));
}

TEST(VyGetopt, GivesTheNameOfAnUnknownItem)
{
    EXPECT_EQ(answers("force,action=add,,x=1,MAJO,MAJORS", message_keys),
              (Items{"-=force", "-=action", "-=x", "-=MAJO", "-=MAJORS"}));
    EXPECT_EQ(VYOPT_UNKNOWN, 45);
}

TEST(VyGetopt, ComparesWithoutCaseOnlyWhereTheTableSaysSo)
{
    EXPECT_EQ(answers("vFaT,EXT4", filesystems), (Items{"f", "e"}));
    EXPECT_EQ(answers("Action=add", message_keys), (Items{"-=Action"}));
}

TEST(VyGetopt, AnOptionMayTakeAValueAndAnyCase)
{
    const vyopt_option table[] = {{'x', VYOPT_ARG | VYOPT_NOCASE, "Key"}, {0, 0, nullptr}};
    EXPECT_EQ(answers("kEY=v,KEY", table), (Items{"x=v", "x"}));
}

TEST(VyGetopt, FirstDescriptorOfANameWins)
{
    const vyopt_option table[] = {
        {'1', 0, "a"}, {'2', VYOPT_ARG, "a"}, {'3', VYOPT_NOCASE, "A"}, {0, 0, nullptr}};
    EXPECT_EQ(answers("a=v,A", table), (Items{"1", "3"}));
}

TEST(VyGetopt, TableEndsAtACodeOfZeroOrANullName)
{
    const vyopt_option by_code[] = {{'1', 0, "a"}, {0, 0, "b"}, {'3', 0, "c"}, {0, 0, nullptr}};
    const vyopt_option by_name[] = {{'1', 0, "a"}, {'2', 0, nullptr}, {'3', 0, "c"}, {0, 0, "d"}};
    EXPECT_EQ(answers("a,b,c", by_code), (Items{"1", "-=b", "-=c"}));
    EXPECT_EQ(answers("a,b,c", by_name), (Items{"1", "-=b", "-=c"}));
}

TEST(VyGetopt, ACodeMayBeNegative)
{
    const vyopt_option table[] = {{-5, 0, "a"}, {0, 0, nullptr}};
    const OptionMapGuard map(vyopt_create_opmap("a"));
    int32_t index = 0;
    EXPECT_EQ(vy_getopt(&index, map.get(), table, nullptr), -5);
}

TEST(VyGetopt, NeedsNoPlaceForTheValue)
{
    const OptionMapGuard map(vyopt_create_opmap("ACTION=add,force"));
    int32_t index = 0;
    EXPECT_EQ(vy_getopt(&index, map.get(), message_keys, nullptr), 'a');
    EXPECT_EQ(vy_getopt(&index, map.get(), message_keys, nullptr), '-');
    EXPECT_EQ(vy_getopt(&index, map.get(), message_keys, nullptr), 0);
}

TEST(VyGetopt, GivesZeroAtTheEndAndStaysThere)
{
    const OptionMapGuard empty(vyopt_create_opmap(""));
    const OptionMapGuard map(vyopt_create_opmap("a"));
    int32_t index = 0;
    EXPECT_EQ(vy_getopt(&index, empty.get(), message_keys, nullptr), 0);
    EXPECT_EQ(index, 0);
    index = 1;
    EXPECT_EQ(vy_getopt(&index, map.get(), message_keys, nullptr), 0);
    EXPECT_EQ(index, 1);
    index = 100;
    EXPECT_EQ(vy_getopt(&index, map.get(), message_keys, nullptr), 0);
}

TEST(VyGetopt, StartsWhereTheIndexSays)
{
    const OptionMapGuard map(vyopt_create_opmap("ACTION=add,MAJOR=8"));
    int32_t index = 1;
    const char* value = nullptr;
    EXPECT_EQ(vy_getopt(&index, map.get(), message_keys, &value), 'j');
    EXPECT_STREQ(value, "8");
}

TEST(VyGetopt, GivesZeroForMissingArgumentsAndANegativeIndex)
{
    const OptionMapGuard map(vyopt_create_opmap("ACTION=add"));
    int32_t index = 0;
    const char* value = nullptr;
    EXPECT_EQ(vy_getopt(nullptr, map.get(), message_keys, &value), 0);
    EXPECT_EQ(vy_getopt(&index, nullptr, message_keys, &value), 0);
    EXPECT_EQ(vy_getopt(&index, map.get(), nullptr, &value), 0);
    index = -1;
    EXPECT_EQ(vy_getopt(&index, map.get(), message_keys, &value), 0);
    EXPECT_EQ(index, -1);
    EXPECT_TRUE(fake_log_lines().empty());
}

TEST(VyGetopt, LendsTheMapsOwnTexts)
{
    const OptionMapGuard map(vyopt_create_opmap("ACTION=add,force"));
    int32_t index = 0;
    const char* value = nullptr;
    (void)vy_getopt(&index, map.get(), message_keys, &value);
    EXPECT_EQ(value, map.get()[0]->value);
    (void)vy_getopt(&index, map.get(), message_keys, &value);
    EXPECT_EQ(value, map.get()[1]->name);
}

// Tools look for these lines by their numbers, so the numbers do not follow the source.
TEST(VyGetopt, LogsEachItemAtDebugLevelUnderItsOldLineNumber)
{
    (void)answers("ACTION=add,force,MAJOR=,x=1=2", message_keys);
    std::vector<std::string> texts;
    for (const FakeLogLine& line : fake_log_lines()) {
        EXPECT_EQ(line.priority, LOG_DEBUG) << line.text;
        texts.push_back(line.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"getopt(243)ACTION=add", "getopt(245)force",
                                               "getopt(243)MAJOR=", "getopt(243)x=1=2"}));
}

} // namespace
