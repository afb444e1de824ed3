#include "ctl/sections.h"

#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <time.h>

#include <string>
#include <vector>

using std::string_literals::operator""s;

namespace {

std::vector<std::string> names_of(const std::string& text)
{
    SectionTableGuard table;
    EXPECT_EQ(sections_cut(text.data(), text.size(), table.out()), 0);
    std::vector<std::string> names;
    for (size_t i = 0; i < table->count; i++) {
        const Section& section = table->sections[i];
        names.push_back(text.substr(section.name, section.name_size));
    }
    return names;
}

std::string text_of(const FileBytes& bytes)
{
    return {bytes.bytes.get(), bytes.size};
}

std::string change(const std::string& text, const char* name,
                   const std::vector<SectionChange>& changes)
{
    FileBytes out;
    EXPECT_EQ(sections_change(text.data(), text.size(), name, changes.data(), changes.size(), &out),
              0);
    return text_of(out);
}

void put(const std::string& text, FileBytes* bytes)
{
    bytes->bytes.reset(static_cast<char*>(malloc(text.size() + 1)));
    memcpy(bytes->bytes.get(), text.c_str(), text.size() + 1);
    bytes->size = text.size();
}

std::string unite(const std::string& a, const std::string& b, int added)
{
    FileBytes first;
    FileBytes second;
    put(a, &first);
    put(b, &second);
    FileBytes out;
    EXPECT_EQ(sections_unite(first, second, &out), added);
    return text_of(out);
}

} // namespace

TEST(Sections, AreCutAtHeaders)
{
    EXPECT_EQ(names_of(""), std::vector<std::string>{""});
    EXPECT_EQ(names_of("a\n[one]\nb=c\n  [two] \t\n[three"),
              (std::vector<std::string>{"", "one", "two"}));
    EXPECT_EQ(names_of("[a]b]\r[c]\0[d]\n"s), (std::vector<std::string>{"", "a]b", "c", "d"}));
}

TEST(Sections, WithAHeaderThatIsNotListedHaveNoName)
{
    EXPECT_EQ(names_of("[a] b\nc=d\n[]\n"), (std::vector<std::string>{"", "", ""}));
}

TEST(Sections, AreCoveredWithoutGaps)
{
    const std::string text = "x\n[a]\r\nb\n\0[c]d\n [e]\nlast"s;
    SectionTableGuard table;
    ASSERT_EQ(sections_cut(text.data(), text.size(), table.out()), 0);
    size_t at = 0;
    for (size_t i = 0; i < table->count; i++) {
        EXPECT_EQ(table->sections[i].begin, at);
        EXPECT_GE(table->sections[i].body, at);
        at = table->sections[i].end;
    }
    EXPECT_EQ(at, text.size());
}

TEST(Sections, TheLastOfANameIsFoundInAnyCase)
{
    const std::string text = "[a]\nx=1\n[A]\nx=2\n";
    SectionTableGuard table;
    ASSERT_EQ(sections_cut(text.data(), text.size(), table.out()), 0);
    EXPECT_EQ(sections_find(table.get(), text.data(), "a"), &table->sections[2]);
    EXPECT_EQ(sections_find(table.get(), text.data(), "ab"), nullptr);
    EXPECT_TRUE(section_has(text.data(), table->sections[1], "X"));
    EXPECT_FALSE(section_has(text.data(), table->sections[1], "y"));
}

TEST(Sections, AChangeReplacesTheLinesOfItsKey)
{
    EXPECT_EQ(change("[a]\nShare Name=x\n sharename =y\nkeep\n[b]\nShare Name=z\n", "a",
                     {{"Share Name", "new"}}),
              "[a]\nShare Name=new\nkeep\n[b]\nShare Name=z\n");
    EXPECT_EQ(change("[a]\nx=1\ny=2\n", "a", {{"x", nullptr}, {"z", "3"}}), "[a]\nz=3\ny=2\n");
}

TEST(Sections, AChangeOfWhatIsNotThereAddsASection)
{
    EXPECT_EQ(change("", "a", {{"x", "1"}}), "[a]\nx=1\n");
    EXPECT_EQ(change("[b]\ny", "a", {{"x", "1"}}), "[b]\ny\n[a]\nx=1\n");
    EXPECT_EQ(change("y", "a", {{"x", "1"}}), "y\n[a]\nx=1\n");
}

TEST(Sections, AreEmptiedAndLeftOut)
{
    const std::string text = "top\n[a]\nx\n[b]\ny\n[A]\nz\n";
    FileBytes out;
    ASSERT_EQ(sections_empty(text.data(), text.size(), "a", true, &out), 0);
    EXPECT_EQ(text_of(out), "top\n[a]\n[b]\ny\n[A]\n");
    ASSERT_EQ(sections_empty(text.data(), text.size(), "a", false, &out), 0);
    EXPECT_EQ(text_of(out), "top\n[b]\ny\n");
}

TEST(Sections, AreUnitedByTheirNames)
{
    EXPECT_EQ(unite("[a]\nx=1\n", "[A]\nx=2\n[b]\ny\n", 1), "[a]\nx=1\n[b]\ny\n");
    EXPECT_EQ(unite("", "[a]\n", 1), "[a]\n");
    EXPECT_EQ(unite("[a]", "no\n", 0), "[a]");
    EXPECT_EQ(unite("[ab]\n[A]\n[b]\n[]\n", "[B]\nx\n[aB]\nx\n[abc]\n[]\n[ABC]\n[a]\n", 2),
              "[ab]\n[A]\n[b]\n[]\n[abc]\n[ABC]\n");
}

TEST(Sections, ThatAreManyAreUnitedInNoTime)
{
    constexpr int many = 20000;
    std::string first;
    std::string second;
    for (int i = 0; i < many; i++) {
        first += "[1234:5678:SERIAL" + std::to_string(i) + ":1]\n";
        second += "[1234:5678:SERIAL" + std::to_string(many + i) + ":1]\n";
    }
    const clock_t begin = clock();
    EXPECT_EQ(unite(first, second, many), first + second);
    EXPECT_LT(clock() - begin, CLOCKS_PER_SEC) << "each is looked for among all";
}

TEST(Sections, WithoutMemoryNothingIsMade)
{
    const std::string text = "[a]\nx=1\n";
    const SectionChange x = {"x", "2"};
    for (int nth = 1;; nth++) {
        FileBytes out;
        memory_fail(nth);
        const int result = sections_change(text.data(), text.size(), "a", &x, 1, &out);
        if (!memory_failed()) {
            EXPECT_EQ(result, 0);
            EXPECT_GT(nth, 2);
            break;
        }
        EXPECT_EQ(result, -ENOMEM);
    }
}
