#include "ctl/view.h"

#include "ctl/events.h"
#include "ctl/rules.h"
#include "ctl/target.h"
#include "support/failing_memory.h"
#include "support/files.h"
#include "unit/ctl/ctl_world.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

struct Viewed {
    explicit Viewed(const CtlWorld& world) { EXPECT_EQ(view_begin(world.setup, &view), 0); }
    ~Viewed() { view_end(&view); }
    Viewed(const Viewed&) = delete;
    Viewed& operator=(const Viewed&) = delete;

    // What there is: "name identity state share".
    std::vector<std::string> items() const
    {
        std::vector<std::string> found;
        for (size_t i = 0; i < view.count; i++) {
            const Item& item = view.items[i];
            found.push_back(std::string(item.name) + "|" +
                            (item.identity != nullptr ? item.identity : "") + "|" +
                            item_state_word(item.state) + "|" +
                            (item.share != nullptr ? item.share : ""));
        }
        return found;
    }

    std::vector<std::string> targets(const char* word) const
    {
        Targets targets;
        EXPECT_EQ(targets_find(view, word, &targets), 0);
        std::vector<std::string> found;
        for (size_t i = 0; i < targets.count; i++)
            found.push_back(item_name(*targets.items[i]));
        targets_end(&targets);
        return found;
    }

    View view;
};

using Names = std::vector<std::string>;

void write_shares()
{
    write_file(ctl_shares,
               "[Folder]\nPath=/tmp\nIdentifier=disk:f\n"
               "[Gone]\nPath=/tmp/none\nIdentifier=disk:g\n"
               "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\nVolume Label=BACKUP\n"
               "[Music]\nIdentifier=1:2:b:1\nPath=/tmp/ctl/mounts/sdb1\n"
               "[Photos]\nIdentifier=1:2:b:2\nPath=/tmp/ctl/mounts/sdb2\nStatus=Unmount\n");
    write_file(ctl_devices,
               "[1:2:a:1]\nShare Name=Music\nFull Access Users=0,1,\nGuest Access=1\n[1:2:c:1]\n"
               "Share Name=Away\n");
}

} // namespace

TEST(View, JoinsTheFiles)
{
    const CtlWorld world;
    write_shares();
    CtlWorld::add_usb_disk("sdc", "8:32", "1000");
    CtlWorld::add_usb_disk("sdd", "8:48", "1000");
    CtlWorld::add_usb_disk("sde", "8:64", "0"); // a reader without a card
    write_file(ctl_not_mounted,
               "nothing of use\nsdd\t8:48\trefused\text4\tsdd is damaged\te2fsck\nsdd1\tother\n");
    const Viewed viewed(world);
    EXPECT_EQ(viewed.items(),
              (Names{"sda1|1:2:a:1|unmounted|Music", "sdb1|1:2:b:1|unmounted|Music",
                     "sdb2|1:2:b:2|unmounted|Photos", "sdc0|1234:00ab:S_1:0|waiting|",
                     "sdd0|1234:00ab:S_1:0|not mounted|", "|disk:f|shared|Folder",
                     "|disk:g|not there|Gone", "|1:2:c:1|not plugged|"}));
    EXPECT_STREQ(viewed.view.items[4].reason, "is damaged; type: e2fsck");
    char who[64];
    item_access(viewed.view.items[0], who, sizeof who);
    EXPECT_STREQ(who, "root, daemon, guests");
    item_access(viewed.view.items[1], who, sizeof who);
    EXPECT_STREQ(who, "everybody");
}

TEST(View, AListThatIsCutSaysSo)
{
    const CtlWorld world;
    write_shares();
    const Viewed viewed(world);
    const std::string whole = "root, daemon, guests";
    char who[64];
    for (size_t size = 4; size <= sizeof who; size++) {
        memset(who, 'x', sizeof who);
        item_access(viewed.view.items[0], who, size);
        const std::string expected = size > whole.size()                  ? whole
                                     : size > strlen("root, daemon, ...") ? "root, daemon, ..."
                                     : size > strlen("root, ...")         ? "root, ..."
                                                                          : "...";
        EXPECT_EQ(who, expected) << size;
    }
}

TEST(View, ADirectoryOnADiskIsADirectory)
{
    const CtlWorld world;
    std::filesystem::create_directories("/tmp/ctl/mounts/sda1/photos");
    write_file(ctl_shares, "[Photos]\nPath=/tmp/ctl/mounts/sda1/photos\nIdentifier=disk:p\n"
                           "[Gone]\nPath=/tmp/ctl/mounts/sda2/photos\nIdentifier=disk:g\n");
    const Viewed viewed(world);
    EXPECT_EQ(viewed.items(), (Names{"|disk:p|shared|Photos", "|disk:g|not there|Gone"}));
    EXPECT_EQ(viewed.targets("/tmp/ctl/mounts/sda1/photos"), Names{"disk:p"});
}

TEST(View, AValueOfOneLetterIsAValue)
{
    const CtlWorld world;
    write_file(ctl_shares, "[M]\nIdentifier=a\nPath=/tmp/ctl/mounts/s\nComment=\nProduct=p\n");
    const Viewed viewed(world);
    EXPECT_EQ(viewed.items(), Names{"s|a|unmounted|M"});
    EXPECT_STREQ(viewed.view.items[0].texts[SHARE_PRODUCT], "p");
    EXPECT_EQ(viewed.view.items[0].texts[SHARE_COMMENT], nullptr) << "one of none is none";
}

TEST(View, WithoutAnyFileThereIsNothing)
{
    const CtlWorld world;
    const Viewed viewed(world);
    EXPECT_EQ(viewed.items(), Names{});
    EXPECT_FALSE(viewed.view.service_runs);
}

TEST(View, WithoutMemoryItFailsAndKeepsNothing)
{
    const CtlWorld world;
    write_shares();
    CtlWorld::add_usb_disk("sdc", "8:32", "1000");
    bool done = false;
    for (int nth = 1; nth < 2000 && !done; nth++) {
        const long before = memory_blocks();
        View view;
        memory_fail(nth);
        const int result = view_begin(world.setup, &view);
        done = !memory_failed();
        view_end(&view);
        EXPECT_EQ(memory_blocks(), before) << nth;
        EXPECT_TRUE(done ? result == 0 : result <= 0) << nth;
    }
    EXPECT_TRUE(done);
}

TEST(Targets, TheFirstKindOfWordThatFitsCounts)
{
    const CtlWorld world;
    write_shares();
    CtlWorld::add_usb_disk("sdb", "8:16", "1000");
    CtlWorld::add_partition("sdb", "sdb1", "8:17");
    const Viewed viewed(world);
    EXPECT_EQ(viewed.targets("sda1"), Names{"sda1"});
    EXPECT_EQ(viewed.targets("/dev/sda1"), Names{"sda1"});
    EXPECT_EQ(viewed.targets("sdb"), (Names{"sdb1", "sdb2"}));
    EXPECT_EQ(viewed.targets("1:2:c:1"), Names{"1:2:c:1"});
    EXPECT_EQ(viewed.targets("music"), (Names{"sda1", "sdb1"}));
    EXPECT_EQ(viewed.targets("Away"), Names{"1:2:c:1"});
    EXPECT_EQ(viewed.targets("backup"), Names{"sda1"});
    EXPECT_EQ(viewed.targets("/tmp/ctl/mounts/sdb2/"), Names{"sdb2"});
    EXPECT_EQ(viewed.targets("/tmp/ctl/mounts/sdb2/file"), Names{"sdb2"});
    EXPECT_EQ(viewed.targets("/tmp/ctl/mounts"), Names{"disk:f"});
    for (const char* word : {"", "sd", "sdz", "/", "/var", "1:2:C:1", "/dev/"})
        EXPECT_EQ(viewed.targets(word), Names{}) << word;
}

TEST(Rules, ANameIsTakenByOthersOnly)
{
    const CtlWorld world;
    write_shares();
    const Viewed viewed(world);
    EXPECT_EQ(rules_find_namesake(viewed.view, "1:2:b:2", "PHOTOS"), nullptr);
    EXPECT_EQ(rules_find_namesake(viewed.view, "1:2:a:1", "PHOTOS"), &viewed.view.items[2]);
    EXPECT_NE(rules_find_namesake(viewed.view, "1:2:a:1", "away"), nullptr);
    EXPECT_EQ(rules_find_namesake(viewed.view, "1:2:a:1", "New"), nullptr);
}

TEST(Events, AreTheDifferences)
{
    const CtlWorld world;
    const auto note = [](void* context, EventKind kind, const Item& item) {
        static_cast<Names*>(context)->push_back(std::string(item_name(item)) + " " +
                                                event_word(kind));
    };
    write_shares();
    const Viewed before(world);
    write_file(ctl_shares, "[Music]\nIdentifier=1:2:a:1\nPath=/tmp/ctl/mounts/sda1\n"
                           "[Folder]\nPath=/tmp\nIdentifier=disk:f\n"
                           "[New]\nIdentifier=1:2:d:1\nPath=/tmp/ctl/mounts/sdd1\n");
    write_file(ctl_devices, "[1:2:a:1]\nShare Name=Music\n");
    const Viewed after(world);
    Names events;
    events_find(nullptr, before.view, note, &events);
    EXPECT_EQ(events, (Names{"sda1 present", "sdb1 present", "sdb2 present", "disk:f present",
                             "disk:g present"}));
    events.clear();
    events_find(&before.view, after.view, note, &events);
    EXPECT_EQ(events, (Names{"sdb1 pulled", "sdb2 pulled", "disk:g pulled", "1:2:c:1 forgotten",
                             "sda1 changed", "sdd1 plugged", "sdd1 unmounted"}));
    events.clear();
    events_find(&after.view, after.view, note, &events);
    EXPECT_EQ(events, Names{});
    write_file(ctl_devices, "[1:2:a:1]\nShare Name=Music\n[1:2:e:1]\nComment=away\n");
    const Viewed known(world);
    write_file(ctl_devices, "[1:2:a:1]\nShare Name=Music\n[1:2:e:1]\nComment=far away\n");
    const Viewed changed(world);
    events_find(&after.view, known.view, note, &events);
    EXPECT_EQ(events, Names{"1:2:e:1 changed"});
    events.clear();
    events_find(&known.view, changed.view, note, &events);
    EXPECT_EQ(events, Names{"1:2:e:1 changed"});
}
