#include "ctl/edit_text.h"

#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

void put(const std::string& text, FileBytes* bytes)
{
    bytes->bytes.reset(static_cast<char*>(malloc(text.size() + 1)));
    memcpy(bytes->bytes.get(), text.c_str(), text.size() + 1);
    bytes->size = text.size();
}

// What came of an edited text, a line for each change, and how many faults it has.
std::vector<std::string> changes_of(const View& view, const std::string& before,
                                    const std::string& after, unsigned faults = 0)
{
    FileBytes first;
    FileBytes second;
    put(before, &first);
    put(after, &second);
    EditedText edited;
    EXPECT_EQ(edited_read(view, first, second, &edited), 0);
    EXPECT_EQ(edited.faults, faults);
    std::vector<std::string> found;
    for (size_t i = 0; i < edited.count; i++) {
        const DeviceEdit& edit = edited.sections[i].edit;
        if (edit.forget)
            found.push_back(std::string(edit.identity) +
                            (edit.dropped ? " dropped" : " forgotten"));
        for (size_t j = 0; j < edit.count; j++)
            found.push_back(std::string(edit.identity) + " " + edit.changes[j].key + "=" +
                            (edit.changes[j].value != nullptr ? edit.changes[j].value : "(none)"));
    }
    edited_end(&edited);
    return found;
}

using Changes = std::vector<std::string>;

} // namespace

class EditText : public testing::Test {
  protected:
    void SetUp() override
    {
        write_file(
            ctl_devices,
            "[1:2:a:1]\nShare Name=Music\nFull Access Users=0,1,\n[1:2:c:1]\nComment=away\n");
        write_file(ctl_shares, "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n");
        ASSERT_EQ(view_begin(world.setup, &view), 0);
        text = written_by(
            [this](FILE* stream) { EXPECT_EQ(edit_text_write(stream, view, nullptr), 0); });
    }
    void TearDown() override { view_end(&view); }

    std::string replaced(const std::string& from, const std::string& to) const
    {
        std::string result = text;
        EXPECT_NE(result.find(from), std::string::npos) << from;
        return result.replace(result.find(from), from.size(), to);
    }

    CtlWorld world;
    View view = {};
    std::string text;
};

TEST_F(EditText, WhatIsNotTouchedIsNoChange)
{
    EXPECT_NE(text.find("\n# unmounted, sda1, Music\n[1:2:a:1]\nshare = Music\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\nfull = root, daemon\n"), std::string::npos);
    EXPECT_EQ(changes_of(view, text, text), Changes{});
    EXPECT_EQ(changes_of(view, text, "# mine = yes\n\n" + text), Changes{});
}

TEST_F(EditText, OnlyWhatIsTouchedIsAChange)
{
    EXPECT_EQ(changes_of(view, text, replaced("share = Music", "share = Songs")),
              Changes{"1:2:a:1 Share Name=Songs"});
    EXPECT_EQ(changes_of(view, text, replaced("full = root, daemon", "full=daemon")),
              Changes{"1:2:a:1 Full Access Users=1,"});
    EXPECT_EQ(changes_of(view, text, replaced("share = Music\n", "")),
              Changes{"1:2:a:1 Share Name=(none)"});
    EXPECT_EQ(changes_of(view, text, text + "[1:2:d:1]\nguest = yes\nsync =\n"),
              Changes{"1:2:d:1 Guest Access=Enable"});
}

TEST_F(EditText, WhatIsTakenOutIsForgotten)
{
    EXPECT_EQ(changes_of(view, text, ""), (Changes{"1:2:a:1 forgotten", "1:2:c:1 dropped"}));
}

TEST_F(EditText, WrongLinesAreFaults)
{
    EXPECT_EQ(changes_of(view, text, replaced("share = Music", "shares = Music"), 1),
              Changes{"1:2:a:1 Share Name=(none)"});
    EXPECT_EQ(changes_of(view, text, replaced("share = Music", "share = Music\nrubbish"), 1),
              Changes{});
    EXPECT_EQ(changes_of(view, text, replaced("full = root", "full = nobody-here"), 1), Changes{});
    EXPECT_EQ(changes_of(view, text, "guest = yes\n" + text, 1), Changes{});
    EXPECT_EQ(
        changes_of(view, text, text + "[1:2:d:1]\nshare = x\n[1:2:e:1]\nshare = X\n", 1).size(),
        2U);
}

TEST_F(EditText, WithoutMemoryItFails)
{
    FileBytes before;
    FileBytes after;
    put(text, &before);
    put(replaced("share = Music", "share = Songs"), &after);
    for (int nth = 1;; nth++) {
        const long blocks = memory_blocks();
        EditedText edited;
        memory_fail(nth);
        const int result = edited_read(view, before, after, &edited);
        const bool failed = memory_failed();
        edited_end(&edited);
        EXPECT_EQ(memory_blocks(), blocks) << nth;
        if (!failed)
            break;
        EXPECT_EQ(result, -ENOMEM) << nth;
    }
}

TEST_F(EditText, AFaultIsToldWithItsLine)
{
    const auto told = [this](const std::string& after) {
        testing::internal::CaptureStderr();
        (void)changes_of(view, text, after, 1);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(told("guest = yes\n" + text), "line 1: belongs to no section: guest\n");
    EXPECT_EQ(told("#\n#\n\033rubbish\n" + text), "line 3: there is no = in: \\x1brubbish\n");
    EXPECT_EQ(told("# x\n[1:2:d:1]\n\ncolour = red\n" + text), "line 4: no such setting: colour\n");
    EXPECT_EQ(told("#\n[1:2:d:1]\nguest = x\n" + text),
              "vyhotplugctl: guest: is yes or no\nline 2: not taken: guest\n");
    EXPECT_EQ(told(text + "[1:2:d:1]\nshare = x\n[1:2:e:1]\nshare = X\n"),
              "line 1: two shares of the name x\n");
}

TEST_F(EditText, BlanksSayNothing)
{
    EXPECT_EQ(changes_of(view, text, "\r\n \t# explained\r\n" + text), Changes{});
    EXPECT_EQ(changes_of(view, text, replaced("share = Music\n", "\tshare\t=\tSongs \n")),
              Changes{"1:2:a:1 Share Name=Songs"});
}

TEST_F(EditText, OfSeveralLinesTheLastCounts)
{
    EXPECT_EQ(changes_of(view, text, replaced("share = Music\n", "share = A\nShare Name = B\n")),
              Changes{"1:2:a:1 Share Name=B"});
    EXPECT_EQ(changes_of(view, text, replaced("share = Music\n", "share = A\nshare = Music\n")),
              Changes{});
}

TEST_F(EditText, ADirectoryHasAPath)
{
    EXPECT_EQ(text.find("\npath = "), std::string::npos);
    view_end(&view);
    write_file(ctl_devices, "[my]\nPath=/srv\n");
    ASSERT_EQ(view_begin(world.setup, &view), 0);
    text = written_by([this](FILE* stream) { EXPECT_EQ(edit_text_write(stream, view, "my"), 0); });
    EXPECT_NE(text.find("\n# not plugged\n[my]\nshare = \ncomment = \npath = /srv\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("[1:2:a:1]"), std::string::npos);
}

TEST_F(EditText, OfManyUsersNoneGetsLost)
{
    std::string users = "root:x:0:0::/:\n";
    std::string numbers;
    for (int uid = 1000; uid < 1400; uid++) {
        users +=
            std::string(28, 'u') + std::to_string(uid) + ":x:" + std::to_string(uid) + ":5::/:\n";
        numbers += std::to_string(uid) + ",";
    }
    write_file("/etc/passwd", users);
    view_end(&view);
    write_file(ctl_devices, "[1:2:a:1]\nBlock Users=" + numbers + "\n");
    ASSERT_EQ(view_begin(world.setup, &view), 0);
    text = written_by([this](FILE* out) { EXPECT_EQ(edit_text_write(out, view, nullptr), 0); });
    EXPECT_EQ(changes_of(view, text, replaced("blocked = ", "blocked = root, ")),
              Changes{"1:2:a:1 Block Users=0," + numbers});
}

TEST_F(EditText, TheLongestListOfUsersHasRoom)
{
    std::string users;
    std::string numbers; // no longer than the service reads them
    for (int uid = 0; numbers.size() + 4 < setting_value_size; uid++) {
        std::string name = "u" + std::to_string(uid);
        name.resize(63, 'u');
        users += name + ":x:" + std::to_string(uid) + ":5::/:\n";
        numbers += std::to_string(uid) + ",";
    }
    write_file("/etc/passwd", users);
    view_end(&view);
    write_file(ctl_devices, "[1:2:a:1]\nBlock Users=" + numbers + "\n");
    ASSERT_EQ(view_begin(world.setup, &view), 0);
    text = written_by([this](FILE* out) { EXPECT_EQ(edit_text_write(out, view, nullptr), 0); });
    EXPECT_EQ(changes_of(view, text, replaced("share = ", "share = new")),
              Changes{"1:2:a:1 Share Name=new"});
    EXPECT_EQ(changes_of(view, text,
                         replaced("blocked = ", "blocked = u8" + std::string(61, 'u') + ", ")),
              Changes{"1:2:a:1 Block Users=8," + numbers.replace(numbers.find(",8,"), 3, ",")});
}

// What stands there is read back, so it must not be what a name is only shown as.
TEST_F(EditText, AnUnusualNameStandsThereAsItsNumber)
{
    std::string users = "root:x:0:0::/:\nDOM\\j\xc3\xb6rg@x y:x:1:0::/:\n";
    std::string numbers;
    int uid = 1001;
    for (const char* name : {"m\xfcller", "m\xc2\xadller", "m\xe2\x80\x8bller", "a,b", "@sudo"}) {
        users += std::string(name) + ":x:" + std::to_string(uid) + ":0::/:\n";
        numbers += std::to_string(uid++) + ",";
    }
    write_file("/etc/passwd", users);
    view_end(&view);
    write_file(ctl_devices, "[1:2:a:1]\nBlock Users=1," + numbers + "\n");
    ASSERT_EQ(view_begin(world.setup, &view), 0);
    text = written_by([this](FILE* out) { EXPECT_EQ(edit_text_write(out, view, nullptr), 0); });
    EXPECT_NE(text.find("\nblocked = DOM\\j\xc3\xb6rg@x y, 1001, 1002, 1003, 1004, 1005\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(changes_of(view, text, replaced("blocked = ", "blocked = root, ")),
              Changes{"1:2:a:1 Block Users=0,1," + numbers});
}

TEST_F(EditText, ALineThatIsTooLongIsAFault)
{
    const std::string most = "comment = " + std::string(36863 - 10, 'c');
    testing::internal::CaptureStderr();
    (void)changes_of(view, text, "[1:2:d:1]\n" + most + "\n" + text, 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("line 2: "), std::string::npos);
    testing::internal::CaptureStderr();
    (void)changes_of(view, text, "[1:2:d:1]\n" + most + "c\n" + text, 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("line 2: is too long: comment"), 0U);
}
