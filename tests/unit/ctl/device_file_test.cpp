#include "ctl/device_file.h"

#include "fake/fake_world.h"
#include "lib/guard.h"
#include "lib/socket_unix.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr char identity[] = "1234:00ab:S_1:1";
constexpr char section[] = "[1234:00ab:S_1:1]\n";

// A service that listens, and writes the device file anew while it is waited for.
class DeviceFileApply : public testing::Test {
  protected:
    DeviceFileApply()
    {
        fake_world_reset();
        service_.reset(unix_create_listen_socket("vyhotplugd"));
        EXPECT_GE(service_.get(), 0);
        write_file(ctl_devices, std::string(section) + "comment=Music\n");
        fake_world().on_sleep = [this](uint64_t) { serve(); };
    }

    ExitStatus forget() const
    {
        const DeviceEdit edit = {
            .identity = identity, .changes = nullptr, .count = 0, .forget = true, .dropped = true};
        return device_file_apply(world_.setup, &edit, 1, 10);
    }

    // The share file that the service writes beside it; "" for none.
    std::string shares;

  private:
    void serve() const
    {
        std::string text = read_file(ctl_devices);
        const size_t mark = text.find("ctlchange=");
        if (mark != std::string::npos)
            text.erase(mark, text.find('\n', mark) + 1 - mark);
        write_file(ctl_devices, text);
        if (!shares.empty())
            write_file(ctl_shares, shares);
    }

    CtlWorld world_;
    FdGuard service_;
};

} // namespace

TEST_F(DeviceFileApply, TheSectionOfWhatIsForgottenGoes)
{
    EXPECT_EQ(forget(), EXIT_DONE);
    EXPECT_EQ(read_file(ctl_devices), "");
}

TEST_F(DeviceFileApply, TheSectionOfWhatIsPluggedMeanwhileStays)
{
    shares = "[Music]\nPath=/tmp/ctl/mounts/sda1\nIdentifier=1234:00ab:S_1:1\n";
    EXPECT_EQ(forget(), EXIT_DONE);
    EXPECT_EQ(read_file(ctl_devices), section);
}

TEST_F(DeviceFileApply, AnotherOneThatIsPluggedKeepsNothing)
{
    shares = "[Music]\nIdentifier=1234:00ab:S_1:12\n[More]\nIdentifier=1234:00ab:S_1:2\n";
    EXPECT_EQ(forget(), EXIT_DONE);
    EXPECT_EQ(read_file(ctl_devices), "");
}
