#include "share/share_name.h"

#include "samba/samba_server.h"
#include "shares_of.h"

#include <gtest/gtest.h>

#include <locale.h>
#include <wctype.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

// What the names are exported as.
Texts map(const Texts& originals, Texts* said = nullptr)
{
    std::vector<ShareName> names(originals.size());
    for (size_t i = 0; i < originals.size(); i++)
        names[i].original = originals[i].c_str();
    Notes notes = {};
    share_names_map(&samba_server.names, names.data(), names.size(), &notes);
    if (said != nullptr)
        *said = messages_with_priority(notes);
    notes_clear(&notes);
    Texts exported;
    for (const ShareName& name : names)
        exported.push_back(name.exported);
    return exported;
}

std::string map_one(const std::string& original)
{
    return map({original})[0];
}

} // namespace

TEST(ShareNames, OrdinaryNamesStayAsTheyAre)
{
    for (const std::string name :
         {"Music", "Disk(0)", "Backup 2(B2)", "it's & that", "a$", "-x", "@home", "#1", "{~!^}",
          "\xc3\xa9t\xc3\xa9", "\xe6\x97\xa5\xe6\x9c\xac", "\xf0\x9f\x92\xbe"}) {
        Texts said;
        EXPECT_EQ(map({name}, &said), (Texts{name}));
        EXPECT_EQ(said, Texts{});
    }
}

TEST(ShareNames, WhatANameCannotHoldIsReplaced)
{
    EXPECT_EQ(map_one("a%b<c>d*e?f|g/h\\i+j=k;l:m\"n,o[p]q"), "a_b_c_d_e_f_g_h_i_j_k_l_m_n_o_p_q");
    EXPECT_EQ(map_one("a\tb\x01\x7f"), "a_b__");
    EXPECT_EQ(map_one("a\xff\xc3"), "a__");
}

TEST(ShareNames, BlanksThatWouldBeDroppedAreReplaced)
{
    EXPECT_EQ(map_one(" a"), "_a");
    EXPECT_EQ(map_one("a "), "a_");
    EXPECT_EQ(map_one("a b"), "a b");
    EXPECT_EQ(map_one("a  b"), "a _b");
    EXPECT_EQ(map_one("a   b"), "a _ b");
    EXPECT_EQ(map_one(" "), "_");
    EXPECT_EQ(map_one("  "), "__");
}

TEST(ShareNames, ReservedNamesGetAnUnderscoreInFront)
{
    for (const std::string name : {"global", "globals", "Homes", "PRINTERS", "printer$", "print$",
                                   "ipc", "IPC$", "admin$", ".", ".."})
        EXPECT_EQ(map_one(name), "_" + name);
    EXPECT_EQ(map_one("globally"), "globally");
    EXPECT_EQ(map_one("..."), "...");
}

TEST(ShareNames, AnEmptyNameGetsOne)
{
    EXPECT_EQ(map_one(""), "share");
}

TEST(ShareNames, LongNamesAreCutBetweenCharacters)
{
    EXPECT_EQ(map_one(std::string(80, 'x')), std::string(80, 'x'));
    EXPECT_EQ(map_one(std::string(300, 'x')), std::string(80, 'x'));
    EXPECT_EQ(map_one(std::string(79, 'x') + "\xc3\xa9"), std::string(79, 'x'));
    EXPECT_EQ(map_one(std::string(79, 'x') + " yz"), std::string(79, 'x') + "_");
}

TEST(ShareNames, EachChangeIsToldOf)
{
    Texts said;
    map({"a/b", "fine", "global"}, &said);
    EXPECT_EQ(said,
              (Texts{"5 share a/b is exported as a_b", "5 share global is exported as _global"}));
}

TEST(ShareNames, EqualNamesAreNumbered)
{
    EXPECT_EQ(map({"a/b", "a?b", "a*b"}), (Texts{"a_b", "a_b (2)", "a_b (3)"}));
    EXPECT_EQ(map({"", "\t"}), (Texts{"share", "_"}));
}

TEST(ShareNames, ANameThatNeedsNoChangeComesFirst)
{
    EXPECT_EQ(map({"a/b", "a_b"}), (Texts{"a_b (2)", "a_b"}));
    EXPECT_EQ(map({"a/b", "a?b", "A_B (2)", "a_b"}),
              (Texts{"a_b (3)", "a_b (4)", "A_B (2)", "a_b"}));
}

TEST(ShareNames, NamesThatDifferInCaseAloneAreNumbered)
{
    Texts said;
    EXPECT_EQ(map({"\xc3\xa9t\xc3\xa9", "\xc3\x89T\xc3\x89"}, &said),
              (Texts{"\xc3\xa9t\xc3\xa9", "\xc3\x89T\xc3\x89 (2)"}));
    EXPECT_EQ(said.size(), 1U);
}

TEST(ShareNames, ANumberedNameIsStillShortEnough)
{
    const std::string long_name(80, 'x');
    EXPECT_EQ(map({long_name + "1", long_name + "2"}),
              (Texts{long_name, std::string(76, 'x') + " (2)"}));
    const std::string blank_before_cut = std::string(75, 'x') + " yyyy";
    EXPECT_EQ(map({blank_before_cut + "1", blank_before_cut + "2"}),
              (Texts{blank_before_cut, std::string(75, 'x') + "_ (2)"}));
}

TEST(ShareNames, ManyNamesInOnePlaceAreAllDifferent)
{
    Texts originals(300, "a/b");
    const Texts exported = map(originals);
    for (size_t i = 0; i < exported.size(); i++) {
        for (size_t j = 0; j < i; j++)
            ASSERT_FALSE(share_names_meet(exported[i].c_str(), exported[j].c_str()));
    }
    EXPECT_EQ(exported[299], "a_b (300)");
}

TEST(ShareNamesMeet, WithoutLetterCase)
{
    EXPECT_TRUE(share_names_meet("Music", "mUSIC"));
    EXPECT_TRUE(share_names_meet("\xc3\x84\xce\xa9\xd0\x96", "\xc3\xa4\xcf\x89\xd0\xb6"));
    EXPECT_TRUE(share_names_meet("\xe2\x84\xaa", "k")); // the Kelvin sign
    EXPECT_TRUE(share_names_meet("", ""));
    EXPECT_FALSE(share_names_meet("Music", "Musi"));
    EXPECT_FALSE(share_names_meet("Musi", "Music"));
    EXPECT_FALSE(share_names_meet("\xc3\xa4", "a"));
    EXPECT_FALSE(share_names_meet("\xe6\x97\xa5", "\xe6\x9c\xac"));
}

TEST(ShareNameFold, LettersOfEveryScriptMeetTheirOtherCase)
{
    if (setlocale(LC_CTYPE, "C.UTF-8") == nullptr)
        GTEST_SKIP() << "this system has no locale C.UTF-8";
    int pairs = 0;
    for (uint32_t character = 1; character < 0x110000; character++) {
        for (const wint_t other : {towlower(character), towupper(character)}) {
            if (other == character)
                continue;
            pairs++;
            EXPECT_EQ(share_name_fold(other), share_name_fold(character)) << std::hex << character;
        }
    }
    EXPECT_GT(pairs, 2000);
}

TEST(ShareNameFold, CommonLettersDoNotMeetOthers)
{
    // Latin, Greek, Cyrillic, Armenian: each small letter stands for itself.
    for (const auto& [first, last] : std::vector<std::pair<uint32_t, uint32_t>>{{'a', 'z'},
                                                                                {0xe0, 0xff},
                                                                                {0x3ac, 0x3c1},
                                                                                {0x3c3, 0x3ce},
                                                                                {0x430, 0x45f},
                                                                                {0x561, 0x586}}) {
        for (uint32_t character = first; character <= last; character++)
            EXPECT_EQ(share_name_fold(character), character) << std::hex << character;
    }
    EXPECT_EQ(share_name_fold(0x219), 0x219U); // s and t with a comma below
    EXPECT_EQ(share_name_fold(0x21b), 0x21bU);
    EXPECT_EQ(share_name_fold(0x4e00), 0x4e00U);
}
