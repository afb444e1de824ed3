#include "ctl/samba.h"

#include "fake/fake_world.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

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

TEST_F(SambaClients, SambaIsAskedWhereItHoldsSomething)
{
    ASSERT_EQ(mount("x", "/usr/local/sbin", "tmpfs", 0, nullptr), 0);
    write_file("/usr/local/sbin/smbstatus", "");
    ASSERT_EQ(chmod("/usr/local/sbin/smbstatus", 0755), 0);
    fake_world().programs["/usr/local/sbin/smbstatus"] = {{1 << 8, 0, sessions}, {0, 0, sessions}};
    samba_name_clients(&table);
    EXPECT_STREQ(holders[1].client_user, "") << "it has failed";
    samba_name_clients(&table);
    EXPECT_STREQ(holders[1].client_user, "ben");
    EXPECT_STREQ(holders[1].client_machine, "box");
    EXPECT_EQ(fake_world().spawned[1][1], "--json");
    for (Holder& holder : holders)
        strcpy(holder.command, "sh");
    samba_name_clients(&table);
    EXPECT_EQ(fake_world().count("spawn"), 2);
}
