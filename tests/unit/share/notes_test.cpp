#include "share/notes.h"

#include "shares_of.h"

#include <gtest/gtest.h>

#include <syslog.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

std::vector<std::string> told;

void tell(int priority, const char* message)
{
    told.push_back(std::to_string(priority) + " " + message);
}

Texts new_ones(const Notes& notes, const Notes& before)
{
    told.clear();
    notes_new(&notes, &before, tell);
    return told;
}

} // namespace

TEST(Notes, GiveTheirLinesInOrderWithTheirPriorities)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    notes_add(&notes, LOG_WARNING, "share %s", "A");
    notes_add(&notes, LOG_INFO, "%d", 2);
    EXPECT_EQ(messages_with_priority(notes), (Texts{"4 share A", "6 2"}));
}

TEST(Notes, OnlyWhatTheOnesBeforeDoNotHoldIsNew)
{
    Notes before = {};
    const NotesGuard held_before(&before);
    notes_add(&before, LOG_INFO, "a");
    notes_add(&before, LOG_INFO, "ab");
    Notes notes = {};
    const NotesGuard held(&notes);
    for (const char* text : {"a", "abc", "ab", "b"})
        notes_add(&notes, LOG_INFO, "%s", text);
    notes_add(&notes, LOG_ERR, "a"); // another priority is another line
    EXPECT_EQ(new_ones(notes, before), (Texts{"6 abc", "6 b", "3 a"}));
    EXPECT_EQ(new_ones(before, notes), Texts{});
}

TEST(Notes, WithoutLinesThereIsNothingNew)
{
    const Notes nothing = {};
    EXPECT_EQ(new_ones(nothing, nothing), Texts{});
}

TEST(Notes, ALineIsOneLineWhateverItsTextHolds)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    notes_add(&notes, LOG_INFO, "%s", "a\nb\x1b[31m\xff");
    EXPECT_EQ(messages(notes), (Texts{"a_b_[31m_"}));
}

TEST(Notes, ALongLineIsCut)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    notes_add(&notes, LOG_INFO, "%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(messages(notes), (Texts{std::string(511, 'x')}));
}

TEST(Notes, MoveInPlaceOfOthers)
{
    Notes from = {};
    Notes to = {};
    const NotesGuard held(&to);
    notes_add(&to, LOG_INFO, "old");
    notes_add(&from, LOG_INFO, "new");
    notes_move(&to, &from);
    EXPECT_EQ(messages(to), (Texts{"new"}));
    EXPECT_EQ(messages(from), Texts{});
}
