#include "samba/include_text.h"

#include "samba/samba_server.h"
#include "share/share_list.h"

#include "lib/str.h"
#include "shares_of.h"
#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

const std::map<int32_t, std::string> users = {
    {0, "root"},        {500, "anna"},       {501, "bert"},  {502, "carl"},     {503, "dora"},
    {600, "@staff"},    {601, "a b"},        {602, "a,b"},   {603, "+x"},       {604, "100%"},
    {605, "a\"b"},      {606, "a\nb"},       {607, "&x"},    {608, "a;b"},      {609, "-x"},
    {610, "DOM\\anna"}, {611, "\xc3\xa9va"}, {612, "a\xff"}, {65534, "nobody"},
};

bool user_name(int32_t id, char (&name)[user_name_size])
{
    const auto found = users.find(id);
    if (found == users.end())
        return false;
    str_cpy(name, found->second.c_str());
    return true;
}

const RightsSettings usual = {.administrator = "root",
                              .guest = "nobody",
                              .forceuser = "",
                              .own = nullptr,
                              .user_name = user_name,
                              .user_fits = include_user_fits};

std::string make(const std::string& share_file, const RightsSettings& settings, Texts* said)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    const ShareTableGuard table(shares_of(share_file, &notes));
    std::vector<ExportedShare> shares;
    for (size_t i = 0; i < table->count; i++)
        shares.push_back({.share = &table->shares[i], .name = table->shares[i].name});
    char* text = nullptr;
    EXPECT_EQ(
        share_list_make(&samba_server, shares.data(), shares.size(), &settings, &notes, &text), 0);
    const std::string made = text;
    free(text);
    if (said != nullptr)
        *said = messages(notes);
    return made;
}

// The lines of one share with these settings and the path /mnt, without their tabs.
Texts lines(const std::string& settings, Texts* said = nullptr, const RightsSettings& with = usual)
{
    const std::string text = make("[A]\nPath=/mnt\n" + settings, with, said);
    Texts found;
    size_t at = text.find("[A]\n") + 4;
    while (text[at] == '\t') {
        const size_t end = text.find('\n', at);
        found.push_back(text.substr(at + 1, end - at - 1));
        at = end + 1;
    }
    EXPECT_EQ(text.substr(at), "[global]\n");
    return found;
}

bool has(const Texts& found, const std::string& line)
{
    return std::find(found.begin(), found.end(), line) != found.end();
}

// The value of a parameter; "(none)" where it is not written.
std::string value(const Texts& found, const std::string& parameter)
{
    for (const std::string& line : found) {
        if (line.compare(0, parameter.size() + 2, parameter + " =") == 0)
            return line.size() > parameter.size() + 3 ? line.substr(parameter.size() + 3) : "";
    }
    return "(none)";
}

struct Access {
    std::string valid;
    std::string read;
    std::string invalid;
    std::string hides;

    bool operator==(const Access& other) const
    {
        return valid == other.valid && read == other.read && invalid == other.invalid &&
               hides == other.hides;
    }
};

std::ostream& operator<<(std::ostream& stream, const Access& access)
{
    return stream << "valid users = " << access.valid << ", read list = " << access.read
                  << ", invalid users = " << access.invalid << ", enum = " << access.hides;
}

Access access(const std::string& settings, const RightsSettings& with = usual)
{
    const Texts found = lines(settings, nullptr, with);
    return {.valid = value(found, "valid users"),
            .read = value(found, "read list"),
            .invalid = value(found, "invalid users"),
            .hides = value(found, "access based share enum")};
}

const std::string none = "(none)";

} // namespace

TEST(IncludeText, AShareWithoutSettings)
{
    EXPECT_EQ(lines(""), (Texts{"path = /mnt", "comment = ", "strict sync = no", "sync always = no",
                                "read only = no", "guest ok = no", "guest only = no",
                                "wide links = no", "admin users =", "write list ="}));
}

TEST(IncludeText, TheFileBeginsWithWhatItIsAndEndsInTheGlobalSection)
{
    const std::string text = make("", usual, nullptr);
    EXPECT_EQ(text.compare(0, 25, "# Made by vynas-samba fro"), 0);
    EXPECT_EQ(text.substr(text.size() - 10), "\n[global]\n");
    EXPECT_EQ(std::count(text.begin(), text.end(), '['), 1);
}

TEST(IncludeText, SharesComeInTheirOrder)
{
    const std::string text = make("[B]\nPath=/b\n[A]\nPath=/a\n", usual, nullptr);
    EXPECT_LT(text.find("[B]\n\tpath = /b\n"), text.find("[A]\n\tpath = /a\n"));
    EXPECT_NE(text.find("[A]\n\tpath = /a\n"), std::string::npos);
}

TEST(IncludeText, Switches)
{
    EXPECT_TRUE(has(lines("Read Only=Enable\n"), "read only = yes"));
    const Texts synchronous = lines("Sync=Enable\n");
    EXPECT_TRUE(has(synchronous, "strict sync = yes"));
    EXPECT_TRUE(has(synchronous, "sync always = yes"));
    EXPECT_TRUE(has(lines("Guest Access=Enable\n"), "guest ok = yes"));
    for (const std::string line :
         {"guest only = no", "wide links = no", "admin users =", "write list ="}) // whatever is set
        EXPECT_TRUE(has(lines("Guest Access=Enable\nFull Access Users=500,\n"), line));
}

TEST(IncludeText, HiddenFromGuestsTheyDoNotEnterEither)
{
    for (const std::string settings :
         {"Guest Hide=Enable\n", "Guest Hide=Enable\nGuest Access=Enable\n"}) {
        EXPECT_TRUE(has(lines(settings), "guest ok = no"));
        EXPECT_EQ(access(settings), (Access{none, none, "nobody", "yes"}));
    }
}

TEST(IncludeText, ABlockedGuestAccountGivesNoGuestAccess)
{
    const Texts found = lines("Guest Access=Enable\nBlock Users=65534,\n");
    EXPECT_TRUE(has(found, "guest ok = no"));
    EXPECT_EQ(value(found, "invalid users"), "nobody");
}

TEST(IncludeText, WithoutAListEverybodyMayEnter)
{
    EXPECT_EQ(access("Block Users=500,\n"), (Access{none, none, "anna", none}));
    EXPECT_EQ(access("Hide Users=500,501,\n"), (Access{none, none, "anna, bert", "yes"}));
    EXPECT_EQ(access("Full Access Users=\nRead Only Users=\n"), (Access{none, none, none, none}));
}

TEST(IncludeText, WithAListOnlyThoseNamedMayEnterAndTheAdministrator)
{
    EXPECT_EQ(access("Full Access Users=500,501,\n"),
              (Access{"anna, bert, root", none, none, none}));
    EXPECT_EQ(access("Read Only Users=500,\n"), (Access{"anna, root", "anna", none, none}));
    EXPECT_EQ(
        access("Full Access Users=500,\nRead Only Users=501,\nBlock Users=502,\nHide Users=503,\n"),
        (Access{"anna, bert, root", "bert", "carl, dora", "yes"}));
}

TEST(IncludeText, WithAListGuestsMayEnterWhereTheyHaveAccess)
{
    EXPECT_EQ(access("Full Access Users=500,\nGuest Access=Enable\n").valid, "anna, root, nobody");
    EXPECT_EQ(access("Full Access Users=500,\nGuest Access=Enable\nGuest Hide=Enable\n"),
              (Access{"anna, root", none, "nobody", "yes"}));
}

TEST(IncludeText, TheAdministrator)
{
    EXPECT_EQ(access("Administrator=ReadOnly\n"), (Access{none, "root", none, none}));
    EXPECT_EQ(access("Administrator=Block\n"), (Access{none, none, "root", none}));
    EXPECT_EQ(access("Administrator=HideT\n"), (Access{none, none, "root", "yes"}));
    EXPECT_EQ(access("Administrator=ReadOnly\nFull Access Users=500,\n"),
              (Access{"anna, root", "root", none, none}));
    EXPECT_EQ(access("Administrator=Block\nFull Access Users=500,\n"),
              (Access{"anna", none, "root", none}));
}

TEST(IncludeText, AListNobodyOfWhomMayEnterLetsNobodyIn)
{
    // The administrator is in both, so the one list is not empty and nobody gets through.
    EXPECT_EQ(access("Administrator=Block\nFull Access Users=999,\n"),
              (Access{"root", none, "root", none}));
    EXPECT_EQ(access("Administrator=Block\nFull Access Users=,\n"),
              (Access{"root", none, "root", none}));
    EXPECT_EQ(access("Administrator=HideT\nRead Only Users=500,\nBlock Users=500,\n"),
              (Access{"root", none, "anna, root", "yes"}));
    EXPECT_EQ(access("Full Access Users=999,\n"), (Access{"root", none, none, none}));
}

TEST(IncludeText, TheStrictestEntryOfAUserCounts)
{
    const std::string full = "Full Access Users=500,\n";
    const std::string read = "Read Only Users=500,\n";
    const std::string block = "Block Users=500,\n";
    const std::string hide = "Hide Users=500,\n";
    EXPECT_EQ(access(full + read), (Access{"anna, root", "anna", none, none}));
    EXPECT_EQ(access(full + block), (Access{"root", none, "anna", none}));
    EXPECT_EQ(access(read + block), (Access{"root", none, "anna", none}));
    EXPECT_EQ(access(block + hide), (Access{none, none, "anna", "yes"}));
    EXPECT_EQ(access(full + read + block + hide), (Access{"root", none, "anna", "yes"}));
    EXPECT_EQ(access("Administrator=ReadOnly\nFull Access Users=0,\n"),
              (Access{"root", "root", none, none}));
    EXPECT_EQ(access("Block Users=0,\n"), (Access{none, none, "root", none}));
}

TEST(IncludeText, EachUserStandsInAListOnce)
{
    EXPECT_EQ(access("Full Access Users=500,500,501,500\n").valid, "anna, bert, root");
}

TEST(IncludeText, IdsMayHaveBlanksAroundThem)
{
    EXPECT_EQ(access("Full Access Users= 500 ,\t501 , ,\n").valid, "anna, bert, root");
}

TEST(IncludeText, UnknownUsersAreLeftOutAndToldOf)
{
    Texts said;
    EXPECT_EQ(value(lines("Full Access Users=500,999,,-1, \n", &said), "valid users"),
              "anna, root");
    EXPECT_EQ(said, (Texts{"share A: no user has the id 999"}));
}

TEST(IncludeText, UsersWhoseNamesMeanSomethingElseAreLeftOutAndToldOf)
{
    for (int id = 600; id <= 612; id++) {
        if (id == 611)
            continue;
        Texts said;
        const std::string number = std::to_string(id);
        EXPECT_EQ(value(lines("Full Access Users=" + number + ",\n", &said), "valid users"),
                  "root");
        ASSERT_EQ(said.size(), 1U) << id;
        EXPECT_NE(said[0].find("(" + number + ") is left out for the name"), std::string::npos);
    }
    EXPECT_EQ(access("Full Access Users=611,\n").valid, "\xc3\xa9va, root");
}

TEST(IncludeText, WhoCannotBeKeptOutByNameKeepsTheShareFromAll)
{
    for (const std::string list : {"Block Users=500,601,\n", "Hide Users=601,\n"}) {
        Texts said;
        EXPECT_EQ(make("[A]\nPath=/mnt\n" + list + "[B]\nPath=/srv\n", usual, &said).find("[A]"),
                  std::string::npos);
        EXPECT_EQ(said, (Texts{"share A: user a b (601) is left out for the name",
                               "share A is withheld: somebody who may not enter cannot be kept out "
                               "by name"}));
        // Where the others are named nobody else enters anyway.
        EXPECT_EQ(access(list + "Full Access Users=501,\n").valid, "bert, root");
    }
    EXPECT_EQ(access("Block Users=999,\n").valid, none); // nobody, who cannot enter
}

TEST(IncludeText, OtherNamesForAdministratorAndGuest)
{
    const RightsSettings other = {.administrator = "carl",
                                  .guest = "dora",
                                  .forceuser = "anna",
                                  .own = nullptr,
                                  .user_name = user_name,
                                  .user_fits = include_user_fits};
    EXPECT_EQ(access("Administrator=ReadOnly\nGuest Access=Enable\nFull Access Users=0,\n", other),
              (Access{"root, carl, dora", "carl", none, none}));
    EXPECT_EQ(value(lines("", nullptr, other), "force user"), "anna");
    EXPECT_EQ(value(lines(""), "force user"), none);
}

TEST(IncludeText, CommentsAreWrittenAsNearAsCanBe)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"Living room; #1 = [x] 'y'", "Living room; #1 = [x] 'y'"},
        {"\xc3\xa9t\xc3\xa9 \xf0\x9f\x92\xbe", "\xc3\xa9t\xc3\xa9 \xf0\x9f\x92\xbe"},
        {"say \"no\"", "say 'no'"},
        {"a\tb\x01", "a_b_"},
        {"a\xff", "a_"},
        {"100%", "100%"},
        {"100% full", "100% full"},
        {"%U %$(HOME) %%u %", "_U _$(HOME) __u %"},
        {"a\\b", "a\\b"},
        {"a\\", "a_"},
        {"a\\\\", "a\\_"},
    };
    for (const auto& [comment, written] : rows)
        EXPECT_EQ(value(lines("Comment=" + comment + "\n"), "comment"), written);
}

TEST(IncludeText, WithoutMemoryThereIsNoText)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    const ShareTableGuard table(
        shares_of("[A]\nPath=/a\nComment=x\nFull Access Users=500,999,\n", &notes));
    const ExportedShare share = {.share = table->shares, .name = "A"};
    const long before = memory_blocks();
    int failures = 0;
    for (int nth = 1;; nth++) {
        Notes lost = {};
        char* text = nullptr;
        memory_fail(nth);
        const int result = share_list_make(&samba_server, &share, 1, &usual, &lost, &text);
        const bool struck = memory_failed();
        notes_clear(&lost);
        free(text);
        EXPECT_EQ(memory_blocks(), before);
        if (!struck) {
            EXPECT_EQ(result, 0);
            break;
        }
        // Want of memory for a note costs the note.
        EXPECT_TRUE(result == -ENOMEM ? text == nullptr : result == 0) << nth;
        failures += result == -ENOMEM ? 1 : 0;
    }
    EXPECT_EQ(failures, 5); // the text, the comment, a place for users, and the names of two
}

TEST(IncludePath, WhatTheFileCanCarryExactly)
{
    for (const char* path :
         {"/", "/srv", "/srv/a b", "/srv/semi;colon", "/srv/h#ash", "/srv/a=b", "/srv/[x]",
          "/srv/a\\b", "/srv/'q'", "/srv/\xc3\xa9", "/srv/x..y", "/srv/...", "/srv/"})
        EXPECT_EQ(include_path_fault(path), nullptr) << path;
}

TEST(IncludePath, WhatItCannot)
{
    for (const char* path : {"srv", "", "/srv/a\tb", "/srv/a\nb", "/srv/\xff", "/srv/\xc2\x85",
                             "/srv/100%", "/srv/%U", "/srv/\"x\"", "/srv/x\"", "/srv/a  b",
                             "/srv/a\\", "/srv/a ", "/srv/..", "/../srv", "/srv/../x"})
        EXPECT_NE(include_path_fault(path), nullptr) << path;
}

TEST(IncludeUser, NamesThatAreOnlyNames)
{
    for (const char* name : {"anna", "anna.b", "anna-b", "a_b", "a$", "\xc3\xa9va", "a@b", "1"})
        EXPECT_TRUE(include_user_fits(name)) << name;
    for (const char* name : {"", "@a", "+a", "&a", "-a", "a b", "a,b", "a;b", "a\"b", "a'b", "a%b",
                             "a\\b", "a*", "a?", "a\tb", "a\nb", "a\xff"})
        EXPECT_FALSE(include_user_fits(name)) << name;
    EXPECT_TRUE(include_user_fits(std::string(255, 'a').c_str()));
    EXPECT_FALSE(include_user_fits(std::string(256, 'a').c_str()));
}
