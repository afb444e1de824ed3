#include "ctl/samba.h"

#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>

namespace {

constexpr char sessions[] =
    R"({"version": "4.17", "sessions": {)"
    R"("11": {"session_id": "11", "server_id": {"pid": "67", "task_id": "0"}, "uid": 0,)"
    R"( "username": "anna", "remote_machine": "192.168.1.7", "encryption": {"cipher": "-"}},)"
    R"("12": {"username": "ben", "remote_machine": "box", "server_id": {"pid": "68"}}},)"
    R"( "tcons": {"9": {"server_id": {"pid": "69"}, "username": "x", "machine": "y"}}})";

// Holders with the processes 67, 68 and 69 of the same name.
class SambaClients : public testing::Test {
  protected:
    SambaClients()
    {
        for (int i = 0; i < 3; i++) {
            holders[i].pid = 67 + i;
            strcpy(holders[i].command, "smbd");
        }
        table.holders = holders;
        table.count = 3;
    }

    std::string told(const std::string& answer)
    {
        samba_read_clients(answer.data(), answer.size(), &table);
        std::string text;
        for (const Holder& holder : holders)
            text += std::string(holder.client_user) + "@" + holder.client_machine + " ";
        return text;
    }

    Holder holders[3] = {};
    HolderTable table = {};
};

} // namespace

TEST_F(SambaClients, EachProcessServesOne)
{
    EXPECT_EQ(told(sessions), "anna@192.168.1.7 ben@box @ ");
}

TEST_F(SambaClients, OthersServeNobody)
{
    strcpy(holders[0].command, "smbdx");
    EXPECT_EQ(told(sessions), "@ ben@box @ ");
}

TEST_F(SambaClients, WhatWasCutTellsWhatItHas)
{
    const std::string text(sessions);
    EXPECT_EQ(told(text.substr(0, text.find("\"12\""))), "anna@192.168.1.7 @ @ ");
}

TEST_F(SambaClients, NoAnswerAndNumbersThatAreNoneTellNothing)
{
    EXPECT_EQ(told(""), "@ @ @ ");
    EXPECT_EQ(told(R"({"sessions": {"1": {"server_id": {"pid": "67x"}, "username": "a"}}})"),
              "@ @ @ ");
    EXPECT_EQ(told(R"({"sessions": "67", "a": {"1": {"server_id": {"pid": "67"}}}})"), "@ @ @ ");
}

TEST_F(SambaClients, OneWithoutANameDoesNotTakeTheNameOfTheOneBefore)
{
    EXPECT_EQ(told(R"({"sessions": {"1": {"username": "a", "remote_machine": "b",)"
                   R"( "server_id": {"pid": "67"}}, "2": {"server_id": {"pid": "68"}}}})"),
              "a@b @ @ ");
}

namespace {

constexpr char include[] = "# made\n"
                           "[Photos]\n"
                           "\tpath = /media/sda1\n"
                           "\tcomment = a = b\n"
                           "\tadmin users =\n"
                           "\tguest ok = yes\n"
                           "[Other]\n"
                           "\tpath = /media/sda10\n"
                           "[global]\n"
                           "\tguest account = nobody\n";

class SambaShare : public testing::Test {
  protected:
    SambaShare()
    {
        (void)mkdir("/run/vynas-samba", 0755);
        write_file("/run/vynas-samba/shares.conf", include);
    }
    ~SambaShare() override { (void)unlink("/run/vynas-samba/shares.conf"); }

    static std::string printed(const char* directory)
    {
        return written_by([directory](FILE* out) { samba_print_share(out, directory); });
    }
    static std::string json_of(const char* directory)
    {
        return written_by([directory](FILE* out) {
            Json json = {.out = out, .more = false};
            samba_share_json(&json, nullptr, directory);
        });
    }
};

} // namespace

TEST_F(SambaShare, IsFoundByItsDirectory)
{
    EXPECT_EQ(printed("/media/sda1"), "          in Samba  Photos\n"
                                      "                    path = /media/sda1\n"
                                      "                    comment = a = b\n"
                                      "                    guest ok = yes\n");
    EXPECT_EQ(
        json_of("/media/sda1"),
        R"({"name":"Photos","parameters":{"path":"/media/sda1","comment":"a = b","guest ok":"yes"}})");
    EXPECT_EQ(json_of("/media/sda10"), R"({"name":"Other","parameters":{"path":"/media/sda10"}})");
}

TEST_F(SambaShare, OneThatIsNotSharedHasNone)
{
    EXPECT_EQ(printed("/media/sda"), "");
    EXPECT_EQ(printed(nullptr), "");
    EXPECT_EQ(json_of("/media/sda"), "null");
    ASSERT_EQ(unlink("/run/vynas-samba/shares.conf"), 0);
    EXPECT_EQ(json_of("/media/sda1"), "null");
}
