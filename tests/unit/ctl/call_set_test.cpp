#include "ctl/call_set.h"

#include "ctl/settings.h"
#include "fake/fake_world.h"
#include "support/files.h"
#include "unit/ctl/called.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// A share that is plugged, one that is known, and a service.
class CallSet : public testing::Test {
  protected:
    CallSet()
    {
        write_file(ctl_shares, "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n"
                               "[Other]\nIdentifier=1:2:b:1\nPath=/tmp/ctl/mounts/sdb1\n");
        write_file(ctl_devices, before);
    }

    Called set(const std::vector<std::string>& words) { return called(call_set, args_, words); }
    Called unset(const std::vector<std::string>& words) { return called(call_unset, args_, words); }
    Called forget(const std::string& word) { return called(call_forget, args_, {word}); }

    // That nothing was changed, and why.
    static void expect_refused(const Called& result, int status, const std::string& why)
    {
        EXPECT_EQ(result.status, status);
        EXPECT_NE(result.err.find(why), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(read_file(ctl_devices), before);
    }

    static constexpr char before[] = "[1:2:a:1]\nShare Name=Music\nComment=old\n"
                                     "[1:2:c:1]\nComment=away\n";

    CtlWorld world_;
    CtlService service_;
    CallArgs args_ = args_of(world_.setup);
};

} // namespace

TEST_F(CallSet, SeveralAreSetAtOnce)
{
    const Called result = set({"sda1", "comment=new", "guest=yes"});
    EXPECT_EQ(result.status, EXIT_DONE) << result.err;
    EXPECT_EQ(result.out, "1:2:a:1 is set\n");
    EXPECT_EQ(read_file(ctl_devices),
              "[1:2:a:1]\nComment=new\nGuest Access=Enable\nShare Name=Music\n"
              "[1:2:c:1]\nComment=away\n");
}

TEST_F(CallSet, OfAValueAllIsTakenBehindTheFirstEqualsSign)
{
    EXPECT_EQ(set({"sda1", "comment=a=b"}).status, EXIT_DONE);
    EXPECT_NE(read_file(ctl_devices).find("\nComment=a=b\n"), std::string::npos);
}

TEST_F(CallSet, WhatIsUnsetGoes)
{
    const Called result = unset({"sda1", "comment"});
    EXPECT_EQ(result.status, EXIT_DONE) << result.err;
    EXPECT_EQ(result.out, "1:2:a:1 is set\n");
    EXPECT_EQ(read_file(ctl_devices), "[1:2:a:1]\nShare Name=Music\n[1:2:c:1]\nComment=away\n");
}

TEST_F(CallSet, WhatIsForgottenKeepsItsSectionWhileItIsPlugged)
{
    const Called plugged = forget("sda1");
    EXPECT_EQ(plugged.status, EXIT_DONE) << plugged.err;
    EXPECT_EQ(plugged.out, "1:2:a:1 is forgotten\n");
    EXPECT_EQ(read_file(ctl_devices), "[1:2:a:1]\n[1:2:c:1]\nComment=away\n");
    const Called away = forget("1:2:c:1");
    EXPECT_EQ(away.status, EXIT_DONE) << away.err;
    EXPECT_EQ(away.out, "1:2:c:1 is forgotten\n");
    EXPECT_EQ(read_file(ctl_devices), "[1:2:a:1]\n");
}

// ---- what it is said of ----

TEST_F(CallSet, AnIdentityMayStandForADiskThatWasNeverPlugged)
{
    EXPECT_EQ(set({"1234:00ab:ABC:1", "comment=x"}).out, "1234:00ab:ABC:1 is set\n");
    EXPECT_NE(read_file(ctl_devices).find("\n[1234:00ab:ABC:1]\nComment=x\n"), std::string::npos);
    EXPECT_EQ(set({"1234:00ab::12", "comment=x"}).status, EXIT_DONE) << "one without a serial";
    EXPECT_EQ(set({"1234:00ab:a:b:0", "comment=x"}).status, EXIT_DONE) << "one with a colon in it";
}

TEST_F(CallSet, WhatIsNoIdentityIsNothingThatIsKnown)
{
    for (const char* word : {"", "123:00ab:A:1", "12345:00ab:A:1", "1234:00AB:A:1", "1234:00ab:1",
                             "1234:00ab:A:", "1234:00ab:A:x", "1234:00ab:A:1x", "1234:00ab:[:1",
                             "1234:00ab:]:1", "1234:00ab:A\n:1", "1234 00ab:A:1", "1234:00ab"})
        expect_refused(set({word, "comment=x"}), EXIT_NO_DISK, "nothing here is called");
}

TEST_F(CallSet, ADirectoryMayHaveAnyName)
{
    EXPECT_EQ(set({"my files", "comment=x", "path=/srv"}).out, "my files is set\n");
    EXPECT_NE(read_file(ctl_devices).find("\n[my files]\nComment=x\nPath=/srv\n"),
              std::string::npos);
    for (const char* word : {"", "a[b", "a]b", "a\nb", "a\rb"}) {
        const Called result = set({word, "path=/srv"});
        EXPECT_EQ(result.status, EXIT_NO_DISK) << word;
    }
    EXPECT_EQ(set({"other files", "comment=path=/"}).status, EXIT_NO_DISK);
    EXPECT_EQ(set({"other files", "path=srv"}).status, EXIT_NO_DISK);
}

TEST_F(CallSet, OneOfTwoMustBeNamed)
{
    write_file(ctl_shares, "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n"
                           "[Music]\nIdentifier=1:2:b:1\nPath=/tmp/ctl/mounts/sdb1\n");
    expect_refused(set({"Music", "comment=x"}), EXIT_WRONG_CALL, "Music fits 2:\n  sda1  Music\n");
    expect_refused(forget("Music"), EXIT_WRONG_CALL, "Music fits 2:\n");
}

TEST_F(CallSet, WithoutAServiceNothingIsChanged)
{
    service_.end();
    const char* why = "vyhotplugctl: the service is not running, nothing is changed\n";
    expect_refused(set({"sda1", "comment=x"}), EXIT_NO_SERVICE, why);
    expect_refused(forget("sda1"), EXIT_NO_SERVICE, why);
}

// ---- keys and values ----

TEST_F(CallSet, AKeyThatThereIsNotIsToldWithThoseThereAre)
{
    const char* why = "vyhotplugctl: no such setting: colour=red\nThere are:\n  share             "
                      "the share's name, up to 34 bytes\n";
    expect_refused(set({"sda1", "comment=new", "colour=red"}), EXIT_WRONG_CALL, why);
    expect_refused(set({"sda1", std::string(63, 'c') + "=x"}), EXIT_WRONG_CALL, "no such setting");
    expect_refused(set({"sda1", std::string(200, 'c')}), EXIT_WRONG_CALL, "no such setting");
}

TEST_F(CallSet, NoMoreThanAllThereAreIsTaken)
{
    std::vector<std::string> words(1 + setting_count, "comment=x");
    words[0] = "sda1";
    EXPECT_EQ(set(words).status, EXIT_DONE);
    write_file(ctl_devices, before);
    words.emplace_back("comment=x");
    expect_refused(set(words), EXIT_WRONG_CALL, "no such setting: comment=x\n");
}

TEST_F(CallSet, SetWantsAValueAndUnsetNone)
{
    expect_refused(set({"sda1", "comment"}), EXIT_WRONG_CALL,
                   "vyhotplugctl: comment: give a value: KEY=VALUE\n");
    expect_refused(unset({"sda1", "Comment=x"}), EXIT_WRONG_CALL,
                   "vyhotplugctl: comment: unset takes the name alone\n");
}

TEST_F(CallSet, AValueThatDoesNotFitIsRefused)
{
    expect_refused(set({"sda1", "comment=new", "guest=perhaps"}), EXIT_FAILED,
                   "vyhotplugctl: guest: is yes or no\n");
    expect_refused(set({"sda1", "share=other"}), EXIT_FAILED,
                   "vyhotplugctl: share: another share has that name, of sdb1; of two with one "
                   "name only one is shared\n");
}

TEST_F(CallSet, AWarningKeepsNothingFromBeingSet)
{
    const Called result = set({"sda1", "full=4294"});
    EXPECT_EQ(result.status, EXIT_DONE);
    EXPECT_EQ(result.err, "vyhotplugctl: note: full: nobody has the number 4294\n");
}

// ---- how long it waits ----

TEST_F(CallSet, ItWaitsAsLongAsItIsTold)
{
    fake_world().on_sleep = nullptr; // the service does not take it
    for (const int seconds : {-1, 0, 2}) {
        args_.wait_s = seconds;
        const uint64_t slept = fake_world().slept_usec;
        const Called result = set({"sda1", "comment=new"});
        EXPECT_EQ(result.status, EXIT_FAILED);
        EXPECT_NE(result.err.find("the change is in the file, but the service has not taken it"),
                  std::string::npos);
        EXPECT_EQ(fake_world().slept_usec - slept,
                  static_cast<uint64_t>(seconds < 0 ? 90 : seconds) * 1000000U);
    }
}
