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
