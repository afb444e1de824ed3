#include "ctl/file_server.h"

#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>

namespace {

const FileServer& samba = file_servers[0];
const FileServer& ksmbd = file_servers[1];

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

class ServerShare : public testing::Test {
  protected:
    ServerShare()
    {
        (void)mkdir("/run/vynas-samba", 0755);
        (void)mkdir("/run/vynas-ksmbd", 0755);
        write_file(samba.list, include);
    }
    ~ServerShare() override
    {
        (void)unlink(samba.list);
        (void)unlink(ksmbd.list);
    }

    static std::string printed(const FileServer& server, const char* directory)
    {
        return written_by([&](FILE* out) { file_server_print_share(out, server, directory); });
    }
    static std::string json_of(const FileServer& server, const char* directory)
    {
        return written_by([&](FILE* out) {
            Json json = {.out = out, .more = false};
            file_server_share_json(&json, server, directory);
        });
    }
};

} // namespace

TEST_F(ServerShare, IsFoundByItsDirectory)
{
    EXPECT_EQ(printed(samba, "/media/sda1"), "          in Samba  Photos\n"
                                             "                    path = /media/sda1\n"
                                             "                    comment = a = b\n"
                                             "                    guest ok = yes\n");
    EXPECT_EQ(
        json_of(samba, "/media/sda1"),
        R"("samba":{"name":"Photos","parameters":{"path":"/media/sda1","comment":"a = b","guest ok":"yes"}})");
    EXPECT_EQ(json_of(samba, "/media/sda10"),
              R"("samba":{"name":"Other","parameters":{"path":"/media/sda10"}})");
}

TEST_F(ServerShare, OneThatIsNotSharedHasNone)
{
    EXPECT_EQ(printed(samba, "/media/sda"), "");
    EXPECT_EQ(printed(samba, nullptr), "");
    EXPECT_EQ(json_of(samba, "/media/sda"), R"("samba":null)");
    ASSERT_EQ(unlink(samba.list), 0);
    EXPECT_EQ(json_of(samba, "/media/sda1"), R"("samba":null)");
}

TEST_F(ServerShare, OfKsmbdStandsBehindItsGlobalParameters)
{
    write_file(ksmbd.list, "[global]\n\tpath = /media/sda1\n# made\n[K]\n\tpath = /media/sda1\n"
                           "\tread only = yes\n[global]\n");
    EXPECT_EQ(printed(ksmbd, "/media/sda1"), "          in ksmbd  K\n"
                                             "                    path = /media/sda1\n"
                                             "                    read only = yes\n");
    EXPECT_EQ(json_of(ksmbd, "/media/sda1"),
              R"("ksmbd":{"name":"K","parameters":{"path":"/media/sda1","read only":"yes"}})");
}

TEST(ServerUser, IsTheOneWhoseNameIsWholeBeforeAColon)
{
    const char lines[] = "anna:1001:Anna\nben:aGFzaA==\nx";
    EXPECT_TRUE(file_server_has_user(lines, "anna"));
    EXPECT_TRUE(file_server_has_user(lines, "ben"));
    EXPECT_FALSE(file_server_has_user(lines, "ann"));
    EXPECT_FALSE(file_server_has_user(lines, "1001"));
    EXPECT_FALSE(file_server_has_user(lines, "x"));
    EXPECT_FALSE(file_server_has_user("", "anna"));
}
