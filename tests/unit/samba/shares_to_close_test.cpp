#include "share/shares_to_close.h"

#include "samba/samba_server.h"

#include "config/ini.h"
#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

Texts closed(const std::string& old_text, const std::string& new_text)
{
    SectionListGuard names;
    EXPECT_EQ(shares_to_close(old_text.c_str(), new_text.c_str(), samba_server.harmless_lines,
                              names.out()),
              0);
    Texts found;
    for (const vylist_node* node = names->next; node != vylist_end(names.get()); node = node->next)
        found.push_back(static_cast<const char*>(node->data));
    return found;
}

std::string section(const std::string& name, const std::string& lines = "\tpath = /a\n")
{
    return "[" + name + "]\n" + lines;
}

const std::string end = "[global]\n";

} // namespace

TEST(SharesToClose, SharesThatAreGone)
{
    EXPECT_EQ(
        closed("# head\n" + section("A b") + section("B") + section("C") + end, section("B") + end),
        (Texts{"A b", "C"}));
}

TEST(SharesToClose, NothingWhenAllStays)
{
    const std::string text = section("A") + section("B") + end;
    EXPECT_EQ(closed(text, text), Texts{});
    EXPECT_EQ(closed(text, section("B") + section("C") + section("A") + end), Texts{});
    EXPECT_EQ(closed("", text), Texts{});
}

TEST(SharesToClose, SharesThatLeadElsewhereOrAreForOthers)
{
    const std::string before = "\tpath = /a\n\tread only = no\n\tvalid users = a\n";
    for (const std::string after :
         {"\tpath = /b\n\tread only = no\n\tvalid users = a\n",
          "\tpath = /a\n\tread only = yes\n\tvalid users = a\n", "\tpath = /a\n\tread only = no\n",
          "\tpath = /a\n\tread only = no\n\tvalid users = a\n\tinvalid users = b\n"})
        EXPECT_EQ(closed(section("A", before) + end, section("A", after) + end), (Texts{"A"}));
}

TEST(SharesToClose, NotForCommentsAndSynchronousWriting)
{
    const std::string before =
        "\tpath = /a\n\tcomment = x\n\tstrict sync = no\n\tsync always = no\n";
    const std::string after =
        "\tpath = /a\n\tcomment = y\n\tstrict sync = yes\n\tsync always = yes\n"
        "\taccess based share enum = yes\n";
    EXPECT_EQ(closed(section("A", before), section("A", after)), Texts{});
    EXPECT_EQ(closed(section("A", after), section("A", before)), Texts{});
}

TEST(SharesToClose, AnOldFileMayBeAnything)
{
    EXPECT_EQ(closed("\n\n[]\n[x\ny]\n = [z]\n[A]", end), (Texts{"A"}));
    EXPECT_EQ(closed("path = /x", section("A")), Texts{});
}

TEST(SharesToClose, WithoutMemoryThereIsNoList)
{
    const std::string old_text = section("A") + section("B");
    const long before = memory_blocks();
    for (int nth = 1; nth <= 6; nth++) { // the list, its nodes and its names
        vylist* names = nullptr;
        memory_fail(nth);
        const int result =
            shares_to_close(old_text.c_str(), "", samba_server.harmless_lines, &names);
        if (!memory_failed()) {
            EXPECT_EQ(nth, 6);
            EXPECT_EQ(result, 0);
            config_release_section_list(names);
            break;
        }
        EXPECT_EQ(result, -ENOMEM);
        EXPECT_EQ(names, nullptr);
        EXPECT_EQ(memory_blocks(), before);
    }
}
