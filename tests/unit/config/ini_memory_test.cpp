// The reader when memory runs out or the file cannot be read to its end.
#include "config/ini.h"

#include "support/failing_calls.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <string>
#include <vector>

namespace {

const std::string path = "/tmp/test.conf";

int get(const char* section, const char* key, std::string* text)
{
    char* value = nullptr;
    const int result = config_get_ini_string(path.c_str(), section, key, &value, INI_LAST);
    *text = value != nullptr && result == 0 ? value : "";
    if (result == 0)
        config_release_string(value);
    return result;
}

std::vector<std::string> list_sections()
{
    SectionListGuard list;
    EXPECT_EQ(config_get_section_list(path.c_str(), list.out()), 0);
    std::vector<std::string> names;
    if (!list)
        return names;
    for (vylist_node* node = list->next; node != vylist_end(list.get()); node = node->next)
        names.emplace_back(static_cast<const char*>(node->data));
    return names;
}

// Lets the 1st, 2nd, ... allocation of a lookup fail until none is left. Returns how many there
// were.
int sweep_lookup(const char* section, const char* key, const std::string& expected)
{
    for (int nth = 1;; nth++) {
        const long before = memory_blocks();
        const int descriptors = open_descriptors();
        std::string text;
        memory_fail(nth);
        const int result = get(section, key, &text);
        const bool failed = memory_failed();
        EXPECT_EQ(memory_blocks(), before) << "allocation " << nth;
        EXPECT_EQ(open_descriptors(), descriptors) << "allocation " << nth;
        if (!failed) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(text, expected);
            return nth - 1;
        }
        EXPECT_EQ(result, -ENOMEM) << "allocation " << nth;
    }
}

TEST(IniMemory, ALookupThatRunsOutGivesEnomemAndLeavesNothing)
{
    write_file(path, "[dev]\nk=v\n");
    EXPECT_GT(sweep_lookup("dev", "k", "v"), 0);
}

TEST(IniMemory, ALookupOfAnEmptyValueThatRunsOutGivesEnomem)
{
    write_file(path, "[dev]\nk=\n");
    EXPECT_GT(sweep_lookup("dev", "k", ""), 0);
}

TEST(IniMemory, ALargeFileThatRunsOutGivesEnomem)
{
    write_file(path, std::string(100000, 'x') + "\n[dev]\nk=v\n");
    EXPECT_GT(sweep_lookup("dev", "k", "v"), 0);
}

// The table of sections is made larger as they come: at 32 of them, at 64, at 128.
TEST(IniMemory, ManySectionsThatRunOutGiveEnomem)
{
    std::string text;
    for (int i = 0; i < 150; i++)
        text += "[s" + std::to_string(i) + "]\nk=" + std::to_string(i) + "\n";
    write_file(path, text);
    const int of_many = sweep_lookup("S31", "k", "31");
    write_file(path, "[s]\nk=v\n");
    EXPECT_EQ(of_many, sweep_lookup("s", "k", "v") + 3);
}

TEST(IniMemory, AListThatRunsOutGivesEnomemAndLeavesNothing)
{
    write_file(path, "[a]\n[b]\n[c]\n");
    int nth = 1;
    for (;; nth++) {
        const long before = memory_blocks();
        const int descriptors = open_descriptors();
        vylist mark;
        vylist* list = &mark;
        memory_fail(nth);
        const int result = config_get_section_list(path.c_str(), &list);
        const bool failed = memory_failed();
        EXPECT_EQ(open_descriptors(), descriptors) << "allocation " << nth;
        if (!failed) {
            ASSERT_EQ(result, 0);
            EXPECT_EQ(list->count, 3U);
            config_release_section_list(list);
            EXPECT_EQ(memory_blocks(), before) << "the release frees every name and the list";
            break;
        }
        EXPECT_EQ(result, -ENOMEM) << "allocation " << nth;
        EXPECT_EQ(list, &mark) << "allocation " << nth;
        EXPECT_EQ(memory_blocks(), before) << "allocation " << nth;
    }
    EXPECT_GT(nth, 3);
}

TEST(IniRead, GoesOnAfterPiecesOfAnySize)
{
    write_file(path, "[dev]\nk=value\n");
    for (size_t most = 1; most <= 16; most++) {
        reads_cut(most);
        std::string text;
        EXPECT_EQ(get("dev", "k", &text), 0) << most;
        EXPECT_EQ(text, "value") << most;
    }
}

TEST(IniRead, AnInterruptedReadIsRepeated)
{
    write_file(path, "[dev]\nk=value\n");
    call_fail("read", 1, EINTR);
    std::string text;
    EXPECT_EQ(get("dev", "k", &text), 0);
    EXPECT_EQ(text, "value");
}

// What was read whole counts; the line that was being read does not.
TEST(IniRead, AnErrorEndsTheFileBeforeTheLineItStruck)
{
    write_file(path, "a=1\nb=2\nc=3\n");
    std::string text;
    reads_cut(1);
    call_fail("read", 6, EIO); // five bytes: "a=1", its end, "b"
    EXPECT_EQ(get("", "a", &text), 0);
    EXPECT_EQ(text, "1");
    call_fail("read", 8, EIO); // seven bytes: "b=2" is there, its end is not
    EXPECT_EQ(get("", "b", &text), -ENOENT);
    call_fail("read", 9, EIO);
    EXPECT_EQ(get("", "b", &text), 0);
    EXPECT_EQ(text, "2");
    call_fail("read", 9, EIO);
    EXPECT_EQ(get("", "c", &text), -ENOENT);
}

TEST(IniRead, AnErrorEndsTheSectionListBeforeTheLineItStruck)
{
    write_file(path, "[a]\n[b]\n[c]\n");
    reads_cut(1);
    call_fail("read", 8, EIO); // seven bytes: "[b]" is there, its end is not
    EXPECT_EQ(list_sections(), (std::vector<std::string>{"a"}));
    call_fail("read", 9, EIO);
    EXPECT_EQ(list_sections(), (std::vector<std::string>{"a", "b"}));
}

} // namespace
