// The calls of vyhotplugctl that change something, with every allocation and every call failing
// once: what they tell is true, and nothing is left half done.
#include "ctl/call_edit.h"
#include "ctl/call_mount.h"
#include "ctl/call_set.h"
#include "fake/fake_world.h"
#include "support/failing_calls.h"
#include "support/files.h"
#include "sweep/ctl_swept.h"
#include "sweep/sweep.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

static bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// ---- settings ----

namespace {

constexpr char before[] = "# by hand\n[1:2:a:1]\nShare Name=Music\nFull Access Users=0,1,\n"
                          "[1:2:b:2]\nComment=kept\n";

// A change of settings, which the service takes.
struct Setting {
    SweptCall call;
    SweptService service;
    std::string after;             // the file, where nothing fails
    const char* emptied = nullptr; // the file before its last step, where there are two

    Setting(int (*made)(const CallArgs& args), const std::vector<std::string>& words)
        : call(made, words)
    {
        call.args.wait_s = 8;
        call.prepare = [this] {
            write_file(ctl_devices, before);
            service.attend();
        };
        call.check = [this](bool struck) { check(struck); };
    }

    static std::string without_marks(std::string text)
    {
        for (size_t at = 0; (at = text.find("ctlchange=")) != std::string::npos;)
            text.erase(at, text.find('\n', at) + 1 - at);
        return text;
    }

    bool is_after(const std::string& file) const
    {
        return file == after || (emptied != nullptr && file == emptied);
    }

    void check(bool struck)
    {
        service.hang_up();
        const std::string file = read_file(ctl_devices);
        if (after.empty()) {
            after = file;
            EXPECT_NE(after, before);
            EXPECT_TRUE(has(after, "[1:2:b:2]\nComment=kept\n"));
        }
        EXPECT_TRUE(struck || call.result == EXIT_DONE);
        EXPECT_TRUE(call.result != EXIT_DONE || is_after(file)) << file; // the service wrote it
        EXPECT_TRUE(call.result == EXIT_DONE || !call.complaints.empty());
        if (call.result == EXIT_DONE)
            return;
        // It may have come as far as the file, and then that is told.
        if (file != before) {
            EXPECT_TRUE(is_after(without_marks(file))) << file;
            EXPECT_TRUE(has(call.complaints, "in the file") ||
                        (emptied != nullptr && has(call.complaints, "does not go on")));
        }
    }
};

} // namespace

TEST(Sweep, SettingOneWithoutMemory)
{
    Setting setting(call_set, {"Music", "comment=new"});
    sweep_allocations(setting.call.scenario());
}

TEST(Sweep, SettingOneWithFailingCalls)
{
    Setting setting(call_set, {"Music", "comment=new"});
    sweep_calls(setting.call.scenario());
}

TEST(Sweep, UnsettingOneWithoutMemory)
{
    Setting setting(call_unset, {"Music", "full"});
    sweep_allocations(setting.call.scenario());
}

TEST(Sweep, UnsettingOneWithFailingCalls)
{
    Setting setting(call_unset, {"Music", "full"});
    sweep_calls(setting.call.scenario());
}

TEST(Sweep, ForgettingOneWithoutMemory)
{
    Setting setting(call_forget, {"Music"});
    setting.emptied = "# by hand\n[1:2:a:1]\n[1:2:b:2]\nComment=kept\n";
    sweep_allocations(setting.call.scenario());
}

TEST(Sweep, ForgettingOneWithFailingCalls)
{
    Setting setting(call_forget, {"Music"});
    setting.emptied = "# by hand\n[1:2:a:1]\n[1:2:b:2]\nComment=kept\n";
    sweep_calls(setting.call.scenario());
}

// ---- edit ----

namespace {

// The same with an editor: what somebody has written is set, or lies there still.
struct Editing {
    Setting setting{call_edit, {"Music"}};
    std::string draft;   // its path; "" while there was none
    std::string written; // by the editor

    Editing()
    {
        setting.call.prepare = [this] {
            remove_draft();
            write_file(ctl_devices, before);
            setting.service.attend();
            fake_world().programs["sh"].assign(1, {});
            fake_world().on_spawn = [this](const std::vector<std::string>& arguments) {
                write(arguments.back());
            };
        };
        setting.call.check = [this](bool struck) { check(struck); };
    }

    void remove_draft()
    {
        (void)unlink(draft.c_str());
        draft = written = "";
    }

    void write(const std::string& path)
    {
        calls_overlook(true);
        draft = path;
        written = read_file(path) + "comment = new\n";
        write_file(path, written);
        calls_overlook(false);
    }

    void check(bool struck)
    {
        setting.check(struck);
        size_t drafts = 0;
        for (const std::string& name : names_in("/tmp"))
            drafts += name.starts_with("vyhotplugctl-") ? 1 : 0;
        const bool kept = setting.call.result != EXIT_DONE && !draft.empty();
        const bool removed = !fake_world().calls("unlink /tmp/vyhotplugctl-").empty();
        EXPECT_TRUE(drafts == (kept ? 1U : 0U) || (!kept && removed)) << "removing it failed";
        if (!kept)
            return;
        EXPECT_EQ(read_file(draft), written);
        EXPECT_TRUE(has(setting.call.complaints, draft)) << "nobody knows where it lies";
    }
};

} // namespace

TEST(Sweep, EditingOneWithoutMemory)
{
    Editing editing;
    sweep_allocations(editing.setting.call.scenario());
}

TEST(Sweep, EditingOneWithFailingCalls)
{
    Editing editing;
    sweep_calls(editing.setting.call.scenario());
}

// ---- mount, unmount ----

namespace {

// A partition that is to be mounted, or not any more.
struct Mounting {
    SweptCall call;
    SweptService service;
    bool wanted; // that it is mounted

    explicit Mounting(bool mount) : call(mount ? call_mount : call_unmount, {"sda1"}), wanted(mount)
    {
        CtlWorld::add_usb_disk("sda", "7:3", "1000");
        CtlWorld::add_partition("sda", "sda1", "8:1");
        call.prepare = [this] {
            put(!wanted);
            service.attend();
        };
        call.check = [this](bool struck) { check(struck); };
    }
    ~Mounting() { put(false); }

    static void put(bool mounted)
    {
        if (mounted)
            swept_mount("sda1");
        else
            EXPECT_TRUE(swept_unmount("sda1"));
    }

    void check(bool struck)
    {
        service.hang_up();
        EXPECT_TRUE(struck || call.result == EXIT_DONE);
        EXPECT_TRUE(call.result != EXIT_DONE || swept_is_mounted("sda1") == wanted);
        EXPECT_TRUE(call.result == EXIT_DONE || !call.complaints.empty());
    }
};

} // namespace

TEST(Sweep, MountingOneWithoutMemory)
{
    Mounting mounting(true);
    sweep_allocations(mounting.call.scenario());
}

TEST(Sweep, MountingOneWithFailingCalls)
{
    Mounting mounting(true);
    sweep_calls(mounting.call.scenario());
}

TEST(Sweep, UnmountingOneWithoutMemory)
{
    Mounting mounting(false);
    sweep_allocations(mounting.call.scenario());
}

TEST(Sweep, UnmountingOneWithFailingCalls)
{
    Mounting mounting(false);
    sweep_calls(mounting.call.scenario());
}

// ---- eject ----

namespace {

// A disk of two mounted partitions.
struct Ejecting {
    SweptCall call{call_eject, {"sda"}};
    SweptService service;
    bool lasting = false; // memory stays short
    static constexpr char delete_file[] = "/tmp/ctl/sys/devices/usb-sda/host/delete";

    Ejecting()
    {
        CtlWorld::add_usb_disk("sda", "7:3", "1000");
        CtlWorld::add_partition("sda", "sda1", "8:1");
        CtlWorld::add_partition("sda", "sda2", "8:2");
        EXPECT_EQ(mknod("/dev/sda", S_IFBLK | 0600, makedev(7, 3)), 0);
        call.prepare = [this] {
            swept_mount("sda1");
            swept_mount("sda2");
            write_file(delete_file, "-");
            service.attend();
        };
        call.check = [this](bool struck) { check(struck); };
    }
    ~Ejecting()
    {
        EXPECT_TRUE(swept_unmount("sda1") && swept_unmount("sda2"));
        EXPECT_EQ(unlink("/dev/sda"), 0);
    }

    void check(bool struck)
    {
        service.hang_up();
        const bool deleted = read_file(delete_file) == "1";
        const bool first = swept_is_mounted("sda1");
        const bool second = swept_is_mounted("sda2");
        EXPECT_TRUE(struck || (call.result == EXIT_DONE && deleted));
        EXPECT_TRUE(has(call.told, "safe to pull") == (call.result == EXIT_DONE) ||
                    call.was_not_written());
        EXPECT_TRUE(call.result == EXIT_DONE || !call.complaints.empty());
        // All partitions or none, and what is mounted is not switched off.
        EXPECT_TRUE(first == second || lasting);
        EXPECT_FALSE(deleted && (first || second));
        EXPECT_FALSE(call.result == EXIT_DONE && (first || second));
        EXPECT_TRUE(!has(call.complaints, "stays mounted") || (first && second));
        EXPECT_TRUE(!has(call.complaints, "is unmounted") || (!first && !second));
    }
};

} // namespace

TEST(Sweep, EjectingOneWithoutMemory)
{
    Ejecting ejecting;
    Scenario scenario = ejecting.call.scenario();
    scenario.lasting = &ejecting.lasting;
    sweep_allocations(scenario);
}

TEST(Sweep, EjectingOneWithFailingCalls)
{
    Ejecting ejecting;
    sweep_calls(ejecting.call.scenario());
}
