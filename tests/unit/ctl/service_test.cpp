#include "ctl/service.h"

#include "fake/fake_world.h"
#include "lib/guard.h"
#include "lib/socket_unix.h"
#include "support/child.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <string>

TEST(ServiceLine, IsTheListeningSocketOfThatName)
{
    const std::string line = "0000000000000000: 00000002 00000000 00010000 0001 01 8131 ";
    EXPECT_TRUE(service_line((line + "@vyhotplugd@@@@@@@@@\n").c_str()));
    EXPECT_TRUE(service_line((line + "@vyhotplugd\n").c_str()));
    EXPECT_FALSE(service_line((line + "@vyhotplugd2@@\n").c_str()));
    EXPECT_FALSE(service_line((line + "/vyhotplugd\n").c_str()));
    EXPECT_FALSE(service_line((line + "\n").c_str()));
    EXPECT_FALSE(service_line("Num       RefCount Protocol Flags    Type St Inode Path\n"));
    EXPECT_FALSE(service_line("0: 00000003 00000000 00000000 0001 03 8132 @vyhotplugd@@\n"));
}

TEST(ServiceReload, GoesToTheProcessThatListens)
{
    EXPECT_FALSE(service_listens());
    EXPECT_EQ(service_reload(), -ESRCH);
    const FdGuard listener(unix_create_listen_socket("vyhotplugd"));
    EXPECT_TRUE(service_listens());
    EXPECT_EQ(service_reload(), 0);
    const std::pair<pid_t, int> told = {getpid(), SIGHUP};
    EXPECT_EQ(fake_world().signals, (std::vector<std::pair<pid_t, int>>{told}));
    fake_world().fail("kill", 1, EPERM);
    EXPECT_EQ(service_reload(), -EPERM);
}

TEST(ServiceReload, WhatIsNotRootsIsNotTheService)
{
    const ChildResult child = run_child([] {
        if (seteuid(1) != 0)
            return 99;
        const FdGuard listener(unix_create_listen_socket("vyhotplugd"));
        if (seteuid(0) != 0)
            return 98;
        Progress progress = progress_begin("waiting");
        return service_reload() == -EPERM &&
                       service_request("mount", "sda1", false, 1000, &progress) == SERVICE_GONE &&
                       fake_world().signals.empty()
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.status, 0) << child.err;
}

TEST(ServiceRequest, WithoutAServiceThereIsNobodyToAsk)
{
    Progress progress = progress_begin("waiting");
    EXPECT_EQ(service_request("mount", "sda1", false, 1000, &progress), SERVICE_GONE);
}

TEST(ServiceRequest, OneThatIsTooLongIsNotSent)
{
    const FdGuard listener(unix_create_listen_socket("vyhotplugd"));
    Progress progress = progress_begin("waiting");
    const std::string most(128 - sizeof "ACTION=mount,,force", 't');
    EXPECT_EQ(service_request("mount", (most + "t").c_str(), true, 1000, &progress),
              SERVICE_REFUSED);
    fake_world().impatient = true;
    EXPECT_EQ(service_request("mount", most.c_str(), true, 1000, &progress), SERVICE_SILENT);
}
