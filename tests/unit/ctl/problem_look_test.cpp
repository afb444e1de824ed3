#include "ctl/problem_look.h"

#include "ctl/problem_text.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class ProblemLookTest : public testing::Test {
  protected:
    ~ProblemLookTest() override { problems_end(&table_); }

    const Problem& last() const { return table_.problems[table_.count - 1]; }

    // Where its arguments stand: "3-7 9-10".
    std::string places() const
    {
        std::string text;
        for (size_t i = 0; i < last().argument_count; i++)
            text += (i > 0 ? " " : "") + std::to_string(last().arguments[i].begin) + "-" +
                    std::to_string(last().arguments[i].end);
        return text;
    }

    std::string json() const
    {
        return written_by([this](FILE* out) {
            Json json = {.out = out, .more = false};
            problems_json(&json, nullptr, table_);
        });
    }

    ProblemTable table_ = {};
    ProblemLook look_ = {.setup = nullptr,
                         .view = nullptr,
                         .table = &table_,
                         .server = nullptr,
                         .processes = nullptr,
                         .asks = false};
};

} // namespace

TEST_F(ProblemLookTest, ASentenceKnowsWhereItsArgumentsStand)
{
    problem_add(&look_, "x", false, typed("do"), "%s:%zu: in %s", "file", size_t{12}, "a b");
    EXPECT_STREQ(last().text, "file:12: in a b");
    EXPECT_EQ(places(), "0-4 5-7 12-15");
    problem_add(&look_, "x", false, typed("do"), "number %d.", -7);
    EXPECT_STREQ(last().text, "number -7.");
    EXPECT_EQ(places(), "7-9");
    problem_add(&look_, "x", true, prose("be"), "nothing");
    EXPECT_STREQ(last().text, "nothing");
    EXPECT_EQ(places(), "");
    problem_add(&look_, "x", true, prose("be"), "%d%d%d%d", 1, 2, 3, 4);
    EXPECT_STREQ(last().text, "1234");
    EXPECT_EQ(places(), "0-1 1-2 2-3") << "more are not noted";
}

TEST_F(ProblemLookTest, ALongSentenceIsCut)
{
    const std::string path(problem_text_size - 10, 'p');
    problem_add(&look_, "x", false, typed("do"), "%s: %s", path.c_str(), "0123456789");
    EXPECT_EQ(std::string(last().text), path + ": 0123456");
    EXPECT_EQ(places(), "0-758 760-767");
    problem_add(&look_, "x", false, typed("do"), "%s%s!", (path + "0123456789").c_str(), "more");
    EXPECT_EQ(std::string(last().text), path + "012345678");
    EXPECT_EQ(places(), "0-767");
}

TEST_F(ProblemLookTest, WhatToTypeNamesWhatTheTextNames)
{
    const auto remedy = [this] {
        char text[problem_text_size];
        problem_remedy(last(), text);
        return std::string(text);
    };
    problem_add(&look_, "x", false, typed("mend $1, then $0 $2"), "%s and %d", "a/b-c.d:1", 7);
    EXPECT_EQ(remedy(), "mend 7, then a/b-c.d:1 $2");
    problem_add(&look_, "x", false, prose("pay $0"), "%s", "it");
    EXPECT_EQ(remedy(), "pay $0") << "a sentence names nothing";
    problem_add(&look_, "x", false, typed("rm $0"), "%s", "it's; $(x) \u00e4");
    EXPECT_EQ(remedy(), "rm it\\'s\\;\\ \\$\\(x\\)\\ \u00e4") << "one word of a shell";
    problem_add(&look_, "x", false, typed("rm $0 now"), "%s", std::string(700, ' ').c_str());
    EXPECT_EQ(remedy().size(), problem_text_size - 1);
    EXPECT_TRUE(remedy().ends_with("\\ ")) << "cut behind a whole letter";
}

TEST_F(ProblemLookTest, ManyAreKept)
{
    for (int i = 0; i < 30; i++)
        problem_add(&look_, "x", false, typed("do"), "%d", i);
    ASSERT_EQ(table_.count, 30U);
    for (int i = 0; i < 30; i++)
        EXPECT_EQ(table_.problems[i].text, std::to_string(i));
    EXPECT_FALSE(table_.failed);
}

TEST_F(ProblemLookTest, WithoutMemoryTheTableHasFailed)
{
    for (int nth = 1; nth <= 2; nth++) {
        memory_fail(nth);
        problem_add(&look_, "x", false, typed("do"), "text");
        EXPECT_TRUE(memory_failed());
        EXPECT_TRUE(table_.failed) << nth;
        EXPECT_EQ(table_.count, 0U);
        problems_end(&table_);
        EXPECT_FALSE(table_.failed);
    }
}

TEST_F(ProblemLookTest, PeopleReadWhatIsWrongAndWhatToType)
{
    problem_add(&look_, "x", false, typed("systemctl start it"), "%s is \033off", "it");
    problem_add_texts(&look_, true, {.id = "y", .text = "small", .remedy = "be big"});
    const std::string text = written_by([this](FILE* out) {
        problems_print({.out = out, .width = 10, .colour = false, .utf8 = false}, table_);
    });
    EXPECT_EQ(text, "it is \\x1boff\n    systemctl start it\nnote: small\n    be big\n");
}

TEST_F(ProblemLookTest, ProgramsReadTheSentenceApartFromItsArguments)
{
    EXPECT_EQ(json(), "[]");
    problem_add(&look_, "twice", false, typed("rename"), "%s and %s: one", "a", "bc");
    EXPECT_EQ(json(), R"([{"id":"twice","severity":"problem","text":"a and bc: one",)"
                      R"("form":"$0 and $1: one","arguments":["a","bc"],)"
                      R"("remedy":"rename","remedy_kind":"command"}])");
    problems_end(&table_);
    problem_add_texts(&look_, true,
                      {.id = "y", .text = "small", .remedy = "be big", .prose = true});
    EXPECT_EQ(json(), R"([{"id":"y","severity":"note","text":"small","form":"small",)"
                      R"("arguments":[],"remedy":"be big","remedy_kind":"prose"}])");
}
