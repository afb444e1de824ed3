#include "ksmbd/ksmbd_text.h"

#include "ksmbd/ksmbd_server.h"
#include "lib/str.h"
#include "share/share_list.h"
#include "shares_of.h"
#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <map>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

const std::map<int32_t, std::string> users = {
    {0, "root"}, {500, "anna"}, {501, "bert"}, {602, "a#b"}, {603, "a:b"}, {65534, "nobody"},
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
                              .user_fits = ksmbd_user_fits};

// The section of one share with these settings and the path /mnt; empty when it is left out.
std::string section(const std::string& settings, Texts* said = nullptr,
                    const RightsSettings& with = usual)
{
    Notes notes = {};
    const NotesGuard held(&notes);
    const ShareTableGuard table(shares_of("[A]\nPath=/mnt\n" + settings, &notes));
    const ExportedShare share = {.share = &table->shares[0], .name = "A"};
    char* text = nullptr;
    EXPECT_EQ(share_list_make(&ksmbd_server, &share, 1, &with, &notes, &text), 0);
    std::string made = text;
    free(text);
    if (said != nullptr)
        *said = messages(notes);
    EXPECT_EQ(made.compare(0, strlen(ksmbd_server.head), ksmbd_server.head), 0);
    made.erase(0, strlen(ksmbd_server.head));
    EXPECT_EQ(made.substr(made.size() - strlen(include_foot)), include_foot);
    return made.substr(0, made.size() - strlen(include_foot));
}

const std::string open_share = "[A]\n\tpath = /mnt\n\tcomment = \n\tread only = no\n"
                               "\tguest ok = no\n\tbrowseable = yes\n";

std::string map_name(const std::string& original)
{
    ShareName name = {.original = original.c_str(), .exported = "", .hash = 0, .settled = false};
    Notes notes = {};
    const NotesGuard held(&notes);
    share_names_map(&ksmbd_server.names, &name, 1, &notes);
    return name.exported;
}

} // namespace

TEST(KsmbdText, AShareWithoutSettingsIsEverybodys)
{
    EXPECT_EQ(section(""), open_share);
}

TEST(KsmbdText, EverySetting)
{
    EXPECT_EQ(section("Comment=Ours\nRead Only=Enable\nGuest Access=Enable\n"
                      "Administrator=ReadOnly\nFull Access Users=500,\nBlock Users=501,\n"),
              "[A]\n\tpath = /mnt\n\tcomment = Ours\n\tread only = yes\n\tguest ok = yes\n"
              "\tbrowseable = yes\n\tvalid users = anna, root, nobody\n\tread list = root\n"
              "\tinvalid users = bert\n");
}

TEST(KsmbdText, WhereNobodyMayEnterNobodyDoes)
{
    EXPECT_EQ(section("Full Access Users=777,\nAdministrator=Block\n"),
              open_share + "\tvalid users = root\n\tinvalid users = root\n");
}

TEST(KsmbdText, WhatIsHiddenFromSomebodyIsWithheld)
{
    for (const char* settings :
         {"Hide Users=500,\n", "Guest Hide=Enable\n", "Administrator=HideT\n",
          "Full Access Users=500,\nHide Users=500,"}) {
        Texts said;
        EXPECT_EQ(section(settings, &said), "") << settings;
        EXPECT_EQ(said, Texts{"share A is withheld: ksmbd cannot hide it from some"});
    }
}

TEST(KsmbdText, GuestsWhoMayOnlyReadWhileOthersWriteKeepTheShareClosed)
{
    Texts said;
    EXPECT_EQ(section("Guest Access=Enable\nRead Only Users=65534,\n", &said), "");
    EXPECT_EQ(said, Texts{"share A is withheld: ksmbd cannot let guests only read it"});
    EXPECT_NE(section("Guest Access=Enable\nRead Only Users=65534,\nRead Only=Enable\n"), "");
    EXPECT_NE(section("Read Only Users=65534,\n"), "") << "guests have no access at all";
}

TEST(KsmbdText, SyncIsSaidToBeMissing)
{
    Texts said;
    EXPECT_EQ(section("Sync=Enable\n", &said), open_share);
    EXPECT_EQ(said, Texts{"share A: ksmbd has no Sync, clients decide"});
}

TEST(KsmbdText, NothingBeginsACommentOfTheFile)
{
    EXPECT_NE(section("Comment=a;b#c\n").find("\tcomment = a_b_c\n"), std::string::npos);
    EXPECT_NE(section("Full Access Users=500,602,603,\n").find("\tvalid users = anna, root\n"),
              std::string::npos);
    EXPECT_STREQ(ksmbd_path_fault("/mnt/a;b"), "a semicolon or a hash");
    EXPECT_STREQ(ksmbd_path_fault("/mnt/#1"), "a semicolon or a hash");
    EXPECT_STREQ(ksmbd_path_fault("/mnt/a "), "a blank at its end");
    EXPECT_STREQ(ksmbd_path_fault("mnt"), "no slash at its beginning");
    EXPECT_STREQ(ksmbd_path_fault("/mnt/../etc"), "\"..\" as a name");
    EXPECT_EQ(ksmbd_path_fault("/mnt/a  b%\"'\\"), nullptr);
}

TEST(KsmbdText, EverybodyWorksAsOneUser)
{
    RightsSettings forced = usual;
    forced.forceuser = "media";
    EXPECT_EQ(section("", nullptr, forced), open_share + "\tforce user = media\n");
}

TEST(KsmbdNames, WhatItCannotHaveIsReplaced)
{
    EXPECT_EQ(map_name("Music #1"), "Music _1");
    EXPECT_EQ(map_name("IPC$x"), "IPC_x") << "ksmbd takes what begins so for its pipes";
    EXPECT_EQ(map_name("B\xc3\xbc"
                       "cher"),
              "B\xc3\xbc"
              "cher");
    EXPECT_EQ(map_name("Gro\xc3\x9f"), "Gro_") << "ss to ksmbd";
    EXPECT_EQ(map_name("e\xcc\x81"), "e_") << "the same as one character of its own";
    EXPECT_EQ(map_name(std::string(100, 'a')), std::string(63, 'a'));
    EXPECT_EQ(map_name("\xf0\x9f\x98\x80"), "_");
}

TEST(KsmbdText, WithoutMemoryNothingIsMade)
{
    const ShareTableGuard table(shares_of("[A]\nPath=/mnt\nFull Access Users=500,\n", nullptr));
    const ExportedShare share = {.share = &table->shares[0], .name = "A"};
    for (int failing = 1;; failing++) {
        const long before = memory_blocks();
        Notes lost = {};
        char* text = nullptr;
        memory_fail(failing);
        const int result = share_list_make(&ksmbd_server, &share, 1, &usual, &lost, &text);
        const bool struck = memory_failed();
        memory_fail(0);
        notes_clear(&lost);
        EXPECT_EQ(result, struck ? -ENOMEM : 0);
        free(text);
        EXPECT_EQ(memory_blocks(), before);
        if (!struck)
            break;
    }
}

// ---- characters ----

TEST(KsmbdCharacters, EndWhereTheirAlphabetsDo)
{
    constexpr struct {
        uint32_t before, first, last, behind; // those beside it do not fit
    } ranges[] = {
        {0x1f, 0x20, 0x7e, 0x7f},         {0xbf, 0xc0, 0xd6, 0xd7},
        {0xd7, 0xd8, 0xde, 0xdf},         {0xdf, 0xe0, 0xf6, 0xf7},
        {0xf7, 0xf8, 0x12f, 0x130},       {0x133, 0x134, 0x137, 0x138},
        {0x138, 0x139, 0x13e, 0x13f},     {0x140, 0x141, 0x148, 0x149},
        {0x149, 0x14a, 0x17e, 0x17f},     {0x387, 0x388, 0x38a, 0x38b},
        {0x38b, 0x38c, 0x38c, 0x38d},     {0x38d, 0x38e, 0x38f, 0x390},
        {0x390, 0x391, 0x3a1, 0x3a2},     {0x3a2, 0x3a3, 0x3af, 0x3b0},
        {0x3b0, 0x3b1, 0x3ce, 0x3cf},     {0x3ff, 0x400, 0x45f, 0x460},
        {0x48f, 0x490, 0x491, 0x492},     {0x3040, 0x3041, 0x3096, 0x3097},
        {0x30a0, 0x30a1, 0x30fa, 0x30fb}, {0x30fb, 0x30fc, 0x30fc, 0x30fd},
        {0x4dff, 0x4e00, 0x9fa5, 0x9fa6}, {0xabff, 0xac00, 0xd7a3, 0xd7a4},
    };
    for (const auto& range : ranges) {
        EXPECT_FALSE(ksmbd_character_fits(range.before)) << range.before;
        EXPECT_TRUE(ksmbd_character_fits(range.first)) << range.first;
        EXPECT_TRUE(ksmbd_character_fits(range.last)) << range.last;
        EXPECT_FALSE(ksmbd_character_fits(range.behind)) << range.behind;
    }
    EXPECT_TRUE(ksmbd_character_fits(0x3ab) && ksmbd_character_fits(0x3ac));
}
