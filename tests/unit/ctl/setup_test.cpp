#include "ctl/setup.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <filesystem>
#include <string>

namespace {

constexpr char config_path[] = "/tmp/ctl.conf";

struct Begun {
    explicit Begun(const char* config)
    {
        testing::internal::CaptureStderr();
        result = setup_begin({.config = config, .sysfs = "/sys", .run = "/run/here"}, &setup);
        told = testing::internal::GetCapturedStderr();
    }
    ~Begun() { setup_end(&setup); }
    Begun(const Begun&) = delete;
    Begun& operator=(const Begun&) = delete;

    Setup setup = {};
    int result = 0;
    std::string told;
};

} // namespace

TEST(Setup, IsThatOfTheConfiguration)
{
    std::filesystem::create_directories("/tmp/real");
    std::filesystem::create_symlink("real", "/tmp/mounts");
    write_file(config_path, "mountpath=/tmp/mounts\nsmbconfigpath=/tmp/shares\n");
    const Begun begun(config_path);
    ASSERT_EQ(begun.result, 0);
    EXPECT_EQ(begun.told, "");
    EXPECT_STREQ(begun.setup.paths.config, config_path);
    EXPECT_STREQ(begun.setup.config->smbconfigpath, "/tmp/shares");
    EXPECT_STREQ(begun.setup.mountroot, "/tmp/real");
    EXPECT_STREQ(begun.setup.not_mounted, "/run/here/not-mounted");
}

TEST(Setup, ADirectoryThatIsNotThereIsAsItIsCalled)
{
    write_file(config_path, "mountpath=/tmp/none\n");
    const Begun begun(config_path);
    ASSERT_EQ(begun.result, 0);
    EXPECT_STREQ(begun.setup.mountroot, "/tmp/none");
}

TEST(Setup, AConfigurationThatIsNotThereIsToldOf)
{
    const Begun begun("/tmp/none.conf");
    EXPECT_EQ(begun.result, -ENOENT);
    EXPECT_EQ(begun.told, "vyhotplugctl: /tmp/none.conf: No such file or directory\n");
    EXPECT_EQ(begun.setup.config, nullptr);
}

TEST(Setup, IsThatOfThePackagesBeforeTheServicesOwn)
{
    const Begun none(nullptr);
    EXPECT_EQ(none.result, -ENOENT);
    EXPECT_STREQ(none.setup.paths.config, "/tmp/vynasmira/vyhotplugd.conf");
    std::filesystem::create_directories("/tmp/vynasmira");
    write_file("/tmp/vynasmira/vyhotplugd.conf", "mountpath=/tmp/own\n");
    const Begun own(nullptr);
    EXPECT_EQ(own.result, 0);
    EXPECT_STREQ(own.setup.mountroot, "/tmp/own");
    std::filesystem::create_directories("/etc/vyhotplugd");
    write_file("/etc/vyhotplugd/vyhotplugd.conf", "mountpath=/tmp/packages\n");
    const Begun packages(nullptr);
    EXPECT_EQ(packages.result, 0);
    EXPECT_STREQ(packages.setup.mountroot, "/tmp/packages");
}
