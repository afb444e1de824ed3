#include "ctl/device_file.h"

#include "fake/fake_world.h"
#include "lib/guard.h"
#include "lib/socket_unix.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <sys/file.h>
#include <vector>

namespace {

constexpr char identity[] = "1234:00ab:S_1:1";
constexpr char section[] = "[1234:00ab:S_1:1]\n";
constexpr char before[] = "[1234:00ab:S_1:1]\ncomment=Music\n";
constexpr char others[] = "[1234:00ab:S_2:1]\nComment=Of another\n";

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

    ExitStatus set() const
    {
        const SectionChange change = {.key = "Comment", .value = "new"};
        const DeviceEdit edit = {.identity = identity,
                                 .changes = &change,
                                 .count = 1,
                                 .forget = false,
                                 .dropped = false};
        return device_file_apply(world_.setup, &edit, 1, 10);
    }

    // Has `write` called before the exchange of that number, and each that follows up to `last`.
    void before_exchange(int first, int last, const std::function<void(int)>& write)
    {
        exchanges_ = 0;
        fake_world().on_exchange = [this, first, last, write] {
            exchanges_++;
            if (exchanges_ >= first && exchanges_ <= last)
                write(exchanges_);
        };
    }

    // As the service does, a new file in the place of the old one.
    static void replace(const std::string& text)
    {
        write_file(std::string(ctl_devices) + ".tmp", text);
        ASSERT_EQ(rename((std::string(ctl_devices) + ".tmp").c_str(), ctl_devices), 0);
    }

    // What stands beside the device file: nothing is to be left there.
    static std::vector<std::string> copies()
    {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator("/tmp/ctl")) {
            if (entry.path().filename().string().find(".ctl-") != std::string::npos)
                found.push_back(entry.path().string());
        }
        return found;
    }

    // The share file that the service writes beside it; "" for none.
    std::string shares;

    CtlWorld world_;
    FdGuard service_;

  private:
    void serve() const
    {
        int accepted = -1;
        while ((accepted = unix_accept_addr(service_.get(), nullptr, nullptr)) >= 0)
            close(accepted); // who asked for its number
        std::string text = read_file(ctl_devices);
        const size_t mark = text.find("ctlchange=");
        if (mark != std::string::npos)
            text.erase(mark, text.find('\n', mark) + 1 - mark);
        write_file(ctl_devices, text);
        if (!shares.empty())
            write_file(ctl_shares, shares);
    }

    int exchanges_ = 0;
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

// ---- who writes between the reading of the file and its replacement ----

TEST_F(DeviceFileApply, WhatIsWrittenInBetweenIsCarriedOver)
{
    before_exchange(1, 1, [](int) { replace(std::string(before) + others); });
    EXPECT_EQ(set(), EXIT_DONE);
    const std::string text = read_file(ctl_devices);
    EXPECT_NE(text.find("Comment=new\n"), std::string::npos) << text;
    EXPECT_NE(text.find(others), std::string::npos) << text;
    EXPECT_EQ(copies(), std::vector<std::string>());
}

TEST_F(DeviceFileApply, WhatIsWrittenInBetweenOutlivesAFailure)
{
    const struct {
        const char* call;
        int nth;
    } rows[] = {{"exchange", 2}, {"rename", 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        fake_world().on_exchange = nullptr;
        replace(before);
        fake_world().fail(row.call, row.nth, ENOSPC);
        before_exchange(1, 1, [](int) { replace(std::string(before) + others); });
        EXPECT_EQ(set(), EXIT_FAILED);
        EXPECT_NE(read_file(ctl_devices).find(others), std::string::npos);
        EXPECT_EQ(copies(), std::vector<std::string>());
    }
}

TEST_F(DeviceFileApply, AServiceThatIsAlwaysQuickerLosesNothing)
{
    std::string last;
    before_exchange(1, 22, [&last](int call) {
        last = std::string(before) + "[1234:00ab:N" + std::to_string(call) + ":1]\n";
        replace(last);
    });
    EXPECT_EQ(set(), EXIT_FAILED);
    EXPECT_EQ(read_file(ctl_devices), last);
    EXPECT_EQ(copies(), std::vector<std::string>());
}

TEST_F(DeviceFileApply, WhatCannotBePutBackIsKeptBeside)
{
    before_exchange(1, 1, [](int) {
        replace(std::string(before) + others);
        fake_world().fail("rename", 1, ENOSPC);
    });
    fake_world().fail("exchange", 2, EIO);
    testing::internal::CaptureStderr();
    EXPECT_EQ(set(), EXIT_FAILED);
    const std::string told = testing::internal::GetCapturedStderr();
    ASSERT_EQ(copies().size(), 1U);
    EXPECT_NE(read_file(copies()[0].c_str()).find(others), std::string::npos);
    EXPECT_NE(told.find(copies()[0]), std::string::npos) << told;
}

TEST_F(DeviceFileApply, WhatCannotBeReadInBetweenIsPutBack)
{
    before_exchange(1, 1, [](int) {
        unlink(ctl_devices);
        ASSERT_EQ(symlink("/tmp/not-there", ctl_devices), 0);
    });
    testing::internal::CaptureStderr();
    EXPECT_EQ(set(), EXIT_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string("vyhotplugctl: ") + ctl_devices + ": " + strerror(ENOENT) + "\n");
    EXPECT_TRUE(std::filesystem::is_symlink(ctl_devices));
    EXPECT_EQ(copies(), std::vector<std::string>());
}

TEST_F(DeviceFileApply, ARefreshThatReadTheFileInBetweenTakesNothingAway)
{
    std::string read_by_refresh;
    before_exchange(1, 2, [&read_by_refresh](int call) {
        if (call == 1)
            replace(std::string(before) + others);
        else
            read_by_refresh = read_file(ctl_devices);
    });
    const auto serve = fake_world().on_sleep;
    fake_world().on_sleep = [&read_by_refresh, serve](uint64_t usec) {
        if (!read_by_refresh.empty())
            replace(read_by_refresh);
        read_by_refresh.clear();
        serve(usec);
    };
    EXPECT_EQ(set(), EXIT_DONE);
    const std::string text = read_file(ctl_devices);
    EXPECT_NE(text.find("Comment=new\n"), std::string::npos) << text;
    EXPECT_NE(text.find(others), std::string::npos) << text;
}

TEST_F(DeviceFileApply, TheFirstFileOfTheServiceIsNotReplaced)
{
    unlink(ctl_devices);
    fake_world().on_link = [] { write_file(ctl_devices, others); };
    EXPECT_EQ(set(), EXIT_DONE);
    const std::string text = read_file(ctl_devices);
    EXPECT_NE(text.find("Comment=new\n"), std::string::npos) << text;
    EXPECT_NE(text.find(others), std::string::npos) << text;
}

TEST_F(DeviceFileApply, WhatIsSetWhileItIsForgottenStays)
{
    before_exchange(2, 2, [](int) { replace(std::string(section) + "Comment=Mine\n"); });
    EXPECT_EQ(forget(), EXIT_DONE);
    EXPECT_EQ(read_file(ctl_devices), std::string(section) + "Comment=Mine\n");
}

TEST_F(DeviceFileApply, OneThatHasBeenStoppedIsNotWaitedForWithoutEnd)
{
    const FdGuard lock(open("/var/run/vyhotplugctl.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
    EXPECT_EQ(set(), EXIT_FAILED);
    EXPECT_EQ(read_file(ctl_devices), before);
}

TEST_F(DeviceFileApply, SomebodyWhoIsQuickerTwentyTimesHasTheFile)
{
    fake_world().fail("exchange", 0, EAGAIN);
    EXPECT_EQ(forget(), EXIT_FAILED);
    EXPECT_EQ(fake_world().count("exchange"), 20);
    EXPECT_EQ(read_file(ctl_devices), before);
}

// ---- memory that runs out once somebody has written in between ----

TEST_F(DeviceFileApply, WithoutMemoryWhatIsSetWhileItIsForgottenStays)
{
    for (int nth = 1;; nth++) {
        replace(before);
        before_exchange(2, 2, [nth](int) {
            replace(std::string(section) + "Comment=Mine\n");
            memory_fail(nth);
        });
        testing::internal::CaptureStderr();
        (void)forget();
        (void)testing::internal::GetCapturedStderr();
        EXPECT_EQ(read_file(ctl_devices), std::string(section) + "Comment=Mine\n") << nth;
        if (!memory_failed())
            break;
    }
}

TEST_F(DeviceFileApply, WithoutMemoryWhatIsWrittenWhileItIsSetStays)
{
    for (int nth = 1;; nth++) {
        replace(before);
        before_exchange(1, 1, [nth](int) {
            replace(std::string(before) + others);
            memory_fail(nth);
        });
        testing::internal::CaptureStderr();
        const ExitStatus status = set();
        (void)testing::internal::GetCapturedStderr();
        const std::string text = read_file(ctl_devices);
        EXPECT_NE(text.find(others), std::string::npos) << nth;
        EXPECT_TRUE(status != EXIT_DONE || text.find("Comment=new\n") != std::string::npos) << nth;
        EXPECT_EQ(copies(), std::vector<std::string>()) << nth;
        if (!memory_failed())
            break;
        fake_world().on_sleep(0); // where it has not slept many would wait to be accepted
    }
}

// ---- who else is there ----

TEST_F(DeviceFileApply, NoSignalStopsItWhileItWrites)
{
    std::string blocked; // at the exchange
    before_exchange(1, 1, [&blocked](int) {
        sigset_t now;
        EXPECT_EQ(sigprocmask(SIG_BLOCK, nullptr, &now), 0);
        for (int number = 1; number < 32; number++)
            blocked += sigismember(&now, number) == 1 ? std::to_string(number) + " " : "";
    });
    EXPECT_EQ(set(), EXIT_DONE);
    std::string expected;
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP})
        expected += std::to_string(number) + " ";
    EXPECT_EQ(blocked, expected) << "Ctrl-Z would have it keep the lock";
    sigset_t now;
    EXPECT_EQ(sigprocmask(SIG_BLOCK, nullptr, &now), 0);
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP})
        EXPECT_EQ(sigismember(&now, number), 0) << number;
}

TEST_F(DeviceFileApply, WhatIsNoEditIsNotLookedAt)
{
    const SectionChange change = {.key = "Comment", .value = "new"};
    const DeviceEdit edits[] = {
        {.identity = identity, .changes = &change, .count = 1, .forget = false, .dropped = false},
        {.identity = identity, .changes = nullptr, .count = 0, .forget = true, .dropped = true}};
    EXPECT_EQ(device_file_apply(world_.setup, edits, 1, 10), EXIT_DONE);
    EXPECT_EQ(fake_world().count("exchange"), 1);
    EXPECT_EQ(read_file(ctl_devices), "[1234:00ab:S_1:1]\nComment=new\n");
}

TEST_F(DeviceFileApply, AServiceThatEndsMeanwhileIsToldOf)
{
    fake_world().on_sleep = [this](uint64_t) { service_.reset(-1); };
    testing::internal::CaptureStderr();
    EXPECT_EQ(set(), EXIT_NO_SERVICE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vyhotplugctl: the service has ended; the change is in the file, and counts from its "
              "next start\n");
}

TEST_F(DeviceFileApply, OneThatDoesNotTakeItIsRemindedEachFiveSeconds)
{
    fake_world().on_sleep = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(set(), EXIT_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vyhotplugctl: the change is in the file, but the service has not taken it; is /tmp "
              "full, or read-only?\n");
    EXPECT_EQ(fake_world().slept_usec, 10000000U);
    EXPECT_EQ(fake_world().count("kill"), 3);
}

TEST_F(DeviceFileApply, OneThatAlwaysWritesSomethingElseDoesNotHoldIt)
{
    fake_world().on_sleep = [](uint64_t) { replace(before); };
    testing::internal::CaptureStderr();
    EXPECT_EQ(set(), EXIT_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vyhotplugctl: the service does not hold the change: others write the device file at "
              "the same moment\n");
    EXPECT_EQ(fake_world().count("exchange"), 8);
}
