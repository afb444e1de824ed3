// Pruning in one pass against the loop that it stands for: find the n-th default record, compare it
// with every plugged partition, delete it or go on to the next.
#include "records/conf_dev.h"

#include "config/filesystems.h"
#include "record.h"
#include "support/failing_memory.h"
#include "support/random.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Plugged {
    uint16_t vid, pid;
    std::string serial;
    int32_t partition;
};

std::vector<Plugged> plugged;

bool is_plugged(const ConfDev* dev)
{
    for (const Plugged& one : plugged) {
        if (conf_dev_cmp(dev, one.vid, one.pid, one.serial.c_str(), one.partition) == 0)
            return true;
    }
    return false;
}

void prune_one_by_one(ConfDevTable* table)
{
    int32_t n = 0;
    while (ConfDev* dev = conf_dev_find_def(table, n)) {
        if (is_plugged(dev))
            n++;
        else
            EXPECT_EQ(conf_dev_del(table, dev), 0);
    }
}

Plugged random_device(Random& random)
{
    const std::vector<std::string> serials = {"", "A", "a", "AB"};
    return {static_cast<uint16_t>(random.below(2)), 7, random.pick(serials),
            static_cast<int32_t>(random.below(3))};
}

std::string identity(const Plugged& device)
{
    return "000" + std::to_string(device.vid) + ":0007:" + device.serial + ":" +
           std::to_string(device.partition);
}

void random_setting(Random& random, ConfDev* dev)
{
    switch (random.below(12)) {
    case 0:
        set_text(&dev->sharename, "n");
        break;
    case 1:
        set_text(&dev->path, "/p");
        break;
    case 2:
        dev->administrator = static_cast<uint8_t>(random.below(3));
        break;
    case 3:
        add_users(dev->hideusers, {5});
        break;
    case 4:
        dev->guesthide = 1;
        break;
    case 5:
    case 6:
        dev->filesystem = CONF_DEV_FS_NTFS; // counts for nothing
        break;
    default:
        break;
    }
}

TEST(ConfDevPrune, LeavesWhatTheOneByOneLoopLeaves)
{
    Random random(314159);
    size_t kept = 0;
    size_t dropped = 0;
    for (int round = 0; round < 3000; round++) {
        const ConfDevTableGuard pruned(conf_dev_create());
        const ConfDevTableGuard expected(conf_dev_create());
        const uint32_t size = random.below(12);
        for (uint32_t i = 0; i < size; i++) { // doubled identities too, as a file may hold them
            const std::string name = identity(random_device(random));
            const uint32_t seed = random.below(1U << 30);
            for (ConfDevTable* table : {pruned.get(), expected.get()}) {
                Random same(seed);
                random_setting(same, add_raw_record(table, name.c_str()));
            }
        }
        plugged.clear();
        for (uint32_t i = random.below(5); i > 0; i--)
            plugged.push_back(random_device(random));
        conf_dev_prune(pruned.get(), is_plugged);
        prune_one_by_one(expected.get());
        ASSERT_EQ(identifiers(pruned.get()), identifiers(expected.get())) << "round " << round;
        for (size_t i = 0; i < expected->list->count; i++)
            ASSERT_EQ(settings_of(records_of(pruned.get())[i]),
                      settings_of(records_of(expected.get())[i]))
                << "round " << round << " record " << i;
        kept += expected->list->count;
        dropped += size - expected->list->count;
    }
    EXPECT_GT(kept, 3000U);
    EXPECT_GT(dropped, 3000U);
}

TEST(ConfDevPrune, DropsDefaultRecordsThatAreNotPlugged)
{
    const ConfDevTableGuard table(conf_dev_create());
    add_record(table.get(), "gone");
    add_record(table.get(), "plugged");
    add_record(table.get(), "set")->sync = 1;
    add_record(table.get(), "filesystem only")->filesystem = CONF_DEV_FS_EXT3;
    plugged = {{0x1234, 0x00AB, "plugged", 1}};
    conf_dev_prune(table.get(), is_plugged);
    EXPECT_EQ(identifiers(table.get()),
              (std::vector<std::string>{"1234:00ab:plugged:1", "1234:00ab:set:1"}));
}

TEST(ConfDevPrune, FreesWhatItDrops)
{
    const ConfDevTableGuard table(conf_dev_create());
    plugged.clear();
    const long before = memory_blocks();
    for (int i = 0; i < 10; i++)
        add_record(table.get(), std::to_string(i));
    conf_dev_prune(table.get(), is_plugged);
    EXPECT_EQ(memory_blocks(), before);
}

TEST(ConfDevPrune, OfAnEmptyTableDoesNothing)
{
    const ConfDevTableGuard table(conf_dev_create());
    conf_dev_prune(table.get(), is_plugged);
    EXPECT_EQ(table->list->count, 0U);
}

} // namespace
