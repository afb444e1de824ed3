// What is saved is loaded back, for random tables.
#include "records/conf_dev_file.h"

#include "config/filesystems.h"
#include "device/crtsec.h"
#include "record.h"
#include "records/config_file_dir.h"
#include "support/files.h"
#include "support/random.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::string path = "/tmp/hotplug.dev.conf";

// Text that may hold anything but a line's end; never a blank at its ends or at a place where it
// would be cut.
std::string random_text(Random& random, size_t longest)
{
    const std::vector<std::string> parts = {"a",   "B",    "7",  "=", "]",  "[",
                                            "#",   ";",    ",",  ":", "\"", "\xC3\xA4",
                                            "a b", "x\ty", "%s", "/", "\\"};
    std::string text = "s";
    for (uint32_t left = random.below(12); left > 0; left--)
        text += random.pick(parts);
    text = text.substr(0, longest);
    while (text.back() == ' ' || text.back() == '\t')
        text.pop_back();
    return text;
}

std::string random_serial(Random& random, bool nasty)
{
    std::string serial = nasty ? random_text(random, 30) : "S" + std::to_string(random.below(1000));
    return random.chance(10) ? "" : serial;
}

void random_users(Random& random, vylist* users)
{
    for (uint32_t left = random.below(4); left > 0; left--)
        add_users(users, {static_cast<int>(random.below(1U << 31))});
}

void random_settings(Random& random, ConfDev* dev)
{
    if (random.chance(50))
        set_text(&dev->sharename, random_text(random, 34));
    if (random.chance(30))
        set_text(&dev->path, "/" + random_text(random, 100));
    if (random.chance(50))
        set_text(&dev->comment, random_text(random, 63));
    dev->filesystem = static_cast<uint8_t>(random.below(6));
    dev->sync = static_cast<uint8_t>(random.below(2));
    dev->readonly = static_cast<uint8_t>(random.below(2));
    dev->guestaccess = static_cast<uint8_t>(random.below(2));
    dev->guesthide = static_cast<uint8_t>(random.below(2));
    dev->administrator = static_cast<uint8_t>(random.below(4));
    random_users(random, dev->fullaccessusers);
    random_users(random, dev->readonlyusers);
    random_users(random, dev->blockusers);
    random_users(random, dev->hideusers);
}

void random_table(Random& random, ConfDevTable* table, bool nasty)
{
    for (uint32_t left = random.below(8); left > 0; left--) {
        ConfDev* dev = conf_dev_add(table, static_cast<uint16_t>(random.below(3)), 1,
                                    random_serial(random, nasty).c_str(),
                                    static_cast<int32_t>(random.below(4)));
        if (dev != nullptr)
            random_settings(random, dev);
    }
}

std::string save(const ConfDevTable* table)
{
    EXPECT_EQ(conf_dev_save(path.c_str(), table), 0);
    return read_file(path);
}

// Replaces the table by what the saved file holds.
void reload(ConfDevTableGuard* table)
{
    table->reset(conf_dev_create());
    EXPECT_EQ(conf_dev_load(path.c_str(), table->get()), 0);
}

TEST(DeviceFile, GivesBackEverySettingButExt4)
{
    Random random(271828);
    int records = 0;
    for (int round = 0; round < 1000; round++) {
        ConfDevTableGuard table(conf_dev_create());
        random_table(random, table.get(), false);
        std::vector<std::string> expected;
        (void)save(table.get());
        for (ConfDev* dev : records_of(table.get())) {
            if (dev->filesystem == CONF_DEV_FS_EXT4)
                dev->filesystem = CONF_DEV_FS_UNKNOWN; // what the file makes of it
            expected.push_back(std::string(dev->identifier) + " " + settings_of(dev));
        }
        records += static_cast<int>(expected.size());
        reload(&table);
        std::vector<std::string> found;
        for (const ConfDev* dev : records_of(table.get()))
            found.push_back(std::string(dev->identifier) + " " + settings_of(dev));
        ASSERT_EQ(found, expected) << "round " << round;
    }
    EXPECT_GT(records, 1000);
}

// Names that meet in another case, or hold brackets, lose their settings once and then stay.
TEST(DeviceFile, IsTheSameAfterEachFurtherSave)
{
    Random random(161803);
    int changed = 0;
    for (int round = 0; round < 1000; round++) {
        ConfDevTableGuard table(conf_dev_create());
        random_table(random, table.get(), true);
        const std::string first = save(table.get());
        reload(&table);
        const std::string second = save(table.get());
        reload(&table);
        ASSERT_EQ(save(table.get()), second) << "round " << round << ", first saved as\n" << first;
        changed += first != second ? 1 : 0;
    }
    EXPECT_GT(changed, 0) << "ext4 and odd names make the first file another";
}

TEST(DeviceFile, Ext4IsLoadedAsUnknown)
{
    ConfDevTableGuard table(conf_dev_create());
    add_record(table.get(), "ABC")->filesystem = CONF_DEV_FS_EXT4;
    EXPECT_NE(save(table.get()).find("File System=DefFS\n"), std::string::npos);
    reload(&table);
    EXPECT_EQ(records_of(table.get()).at(0)->filesystem, CONF_DEV_FS_UNKNOWN);
    EXPECT_EQ(save(table.get()).find("File System="), std::string::npos);
}

TEST(DeviceFile, OverlongTextsAreCutOnce)
{
    ConfDevTableGuard table(conf_dev_create());
    ConfDev* dev = add_record(table.get(), "ABC");
    set_text(&dev->sharename, std::string(40, 'n'));
    set_text(&dev->comment, std::string(80, 'c'));
    (void)save(table.get());
    reload(&table);
    EXPECT_EQ(records_of(table.get()).at(0)->sharename, std::string(34, 'n'));
    EXPECT_EQ(records_of(table.get()).at(0)->comment, std::string(63, 'c'));
}

// The blank that a cut leaves at a name's end is lost at the next load, and nothing after it.
TEST(DeviceFile, BlankAtANamesEndIsLostOnce)
{
    const std::string letters(33, 'n');
    write_file(path, "[1234:00ab:ABC:1]\nShare Name=" + letters + " b\n");
    ConfDevTableGuard table;
    reload(&table);
    EXPECT_EQ(records_of(table.get()).at(0)->sharename, letters + " ");
    for (int again = 0; again < 3; again++) {
        (void)save(table.get());
        reload(&table);
        EXPECT_EQ(records_of(table.get()).at(0)->sharename, letters);
    }
}

} // namespace

// ---- lists that are none ----

namespace {

const std::string misread_lines = "Full Access Users=anna\nRead Only Users=500 ,501\n"
                                  "Block Users=8,99999999999\nHide Users=7, carl\n";

// What a refresh makes of a device file with this section: both files.
struct Refreshed {
    std::string devices;
    std::string shares;
};

Refreshed refreshed(const std::string& lines, bool whole)
{
    const std::string file = "/tmp/misread.conf";
    write_file(file, "[disk:x]\nPath=/mnt\n" + lines);
    const ConfDevTableGuard table(conf_dev_create());
    EXPECT_EQ(whole ? conf_dev_load_whole(file.c_str(), table.get())
                    : conf_dev_load(file.c_str(), table.get()),
              0);
    EXPECT_EQ(conf_dev_save(file.c_str(), table.get()), 0);
    EXPECT_EQ(crtsec_init(), 0);
    EXPECT_EQ(conf_dir_save("/tmp/shares.conf", table.get(), 0), 0);
    crtsec_term();
    return {read_file(file), read_file("/tmp/shares.conf")};
}

bool holds(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(MisreadUsers, AStrictRefreshKeepsThemInBothFiles)
{
    const Refreshed files = refreshed(misread_lines, true);
    EXPECT_TRUE(holds(files.devices, misread_lines)) << files.devices;
    EXPECT_TRUE(holds(files.shares, misread_lines)) << files.shares;
}

// Kept: what is no number goes with the first refresh.
TEST(MisreadUsers, AnyOtherRefreshLosesThem)
{
    const Refreshed files = refreshed(misread_lines, false);
    EXPECT_TRUE(holds(files.devices, "Full Access Users=\nRead Only Users=501,\n"
                                     "Block Users=8,\nHide Users=7,\n"))
        << files.devices;
    EXPECT_FALSE(holds(files.shares, "anna")) << files.shares;
}

TEST(MisreadUsers, RightListsAreWrittenAsEver)
{
    for (const std::string list : {"500,", "500, 501", "", ",,7", "0500"}) {
        const std::string lines = "Full Access Users=" + list + "\n";
        const Refreshed strict = refreshed(lines, true);
        const Refreshed other = refreshed(lines, false);
        EXPECT_EQ(strict.devices, other.devices) << list;
        EXPECT_EQ(strict.shares, other.shares) << list;
    }
}

TEST(MisreadUsers, AreASettingThatIsNotPruned)
{
    const std::string file = "/tmp/misread.conf";
    write_file(file, "[a]\n[b]\nBlock Users=anna\n");
    const ConfDevTableGuard table(conf_dev_create());
    ASSERT_EQ(conf_dev_load_whole(file.c_str(), table.get()), 0);
    conf_dev_prune(table.get(), [](const ConfDev*) { return false; });
    ASSERT_NE(conf_dev_find_index(table.get(), 0), nullptr);
    EXPECT_STREQ(conf_dev_find_index(table.get(), 0)->identifier, "b");
    EXPECT_EQ(conf_dev_find_index(table.get(), 1), nullptr);
}
