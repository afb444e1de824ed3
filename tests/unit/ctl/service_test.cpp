#include "ctl/service.h"

#include <gtest/gtest.h>

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
