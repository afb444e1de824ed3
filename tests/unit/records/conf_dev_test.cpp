#include "records/conf_dev.h"

#include "fake/fake_log.h"
#include "record.h"
#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using Names = std::vector<std::string>;

const std::string defaults = "name null path null comment null fs 0 sync 0 ro 0 guest 0 hide 0 "
                             "admin 3 () () () ()";

class ConfDevTest : public testing::Test {
  protected:
    ~ConfDevTest() override { conf_dev_free(table); }
    ConfDevTable* table = conf_dev_create();
};

// The serial with which an identity of partition 1 has that many characters.
std::string serial_for(size_t length)
{
    return std::string(length - std::string("1234:00ab::1").size(), 's');
}

// ---- identity ----

struct IdentityRow {
    uint16_t vid, pid;
    const char* serial;
    int32_t partition;
    const char* identifier;
};

TEST_F(ConfDevTest, IdentityIsHexadecimalIdsSerialAndPartition)
{
    const IdentityRow rows[] = {
        {0x1234, 0x00AB, "ABC", 1, "1234:00ab:ABC:1"},
        {0, 0, "", 0, "0000:0000::0"},
        {0xFFFF, 0xABCD, "s r:x", 15, "ffff:abcd:s r:x:15"},
        {1, 2, "", -1, "0001:0002::-1"},
    };
    for (const IdentityRow& row : rows) {
        const ConfDev* dev = conf_dev_add(table, row.vid, row.pid, row.serial, row.partition);
        ASSERT_NE(dev, nullptr) << row.identifier;
        EXPECT_STREQ(dev->identifier, row.identifier);
        EXPECT_EQ(conf_dev_find(table, row.vid, row.pid, row.serial, row.partition), dev);
        EXPECT_EQ(conf_dev_cmp(dev, row.vid, row.pid, row.serial, row.partition), 0);
    }
}

TEST_F(ConfDevTest, DefaultsAreOfEverySetting)
{
    const ConfDevGuard dev(conf_dev_record_create());
    for (uint8_t* setting : {&dev->filesystem, &dev->sync, &dev->readonly, &dev->guestaccess,
                             &dev->guesthide, &dev->administrator})
        *setting = 1;
    conf_dev_record_defaults(dev.get());
    EXPECT_EQ(settings_of(dev.get()), defaults);
}

TEST_F(ConfDevTest, MissingSerialIsAnEmptyOne)
{
    const ConfDev* dev = conf_dev_add(table, 1, 2, nullptr, 3);
    ASSERT_NE(dev, nullptr);
    EXPECT_STREQ(dev->identifier, "0001:0002::3");
    EXPECT_EQ(conf_dev_find(table, 1, 2, "", 3), dev);
    EXPECT_EQ(conf_dev_find(table, 1, 2, nullptr, 3), dev);
    EXPECT_EQ(conf_dev_cmp(dev, 1, 2, nullptr, 3), 0);
}

TEST_F(ConfDevTest, IdentityIsComparedExactly)
{
    const ConfDev* dev = add_record(table, "ABC");
    EXPECT_EQ(conf_dev_find(table, 0x1234, 0x00AB, "abc", 1), nullptr);
    EXPECT_EQ(conf_dev_find(table, 0x1234, 0x00AB, "ABC ", 1), nullptr);
    EXPECT_EQ(conf_dev_find(table, 0x1234, 0x00AB, "ABC", 11), nullptr);
    EXPECT_EQ(conf_dev_find(table, 0x1234, 0x00AC, "ABC", 1), nullptr);
    EXPECT_EQ(conf_dev_find(table, 0x1235, 0x00AB, "ABC", 1), nullptr);
    EXPECT_NE(conf_dev_cmp(dev, 0x1234, 0x00AB, "abc", 1), 0);
    EXPECT_NE(add_record(table, "abc"), nullptr);
}

TEST_F(ConfDevTest, IdentityOf513CharactersIsRefused)
{
    const std::string serial = serial_for(513);
    const ConfDev* dev = add_record(table, "ABC");
    EXPECT_EQ(conf_dev_add(table, 0x1234, 0x00AB, serial.c_str(), 1), nullptr);
    EXPECT_EQ(conf_dev_find(table, 0x1234, 0x00AB, serial.c_str(), 1), nullptr);
    EXPECT_EQ(conf_dev_cmp(dev, 0x1234, 0x00AB, serial.c_str(), 1), -1);
    EXPECT_EQ(table->list->count, 1U);
    EXPECT_TRUE(fake_log_lines().empty());
}

TEST_F(ConfDevTest, IdentityOf511CharactersIsWhole)
{
    const std::string serial = serial_for(511);
    const ConfDev* dev = add_record(table, serial);
    EXPECT_EQ(dev->identifier, "1234:00ab:" + serial + ":1");
    EXPECT_EQ(conf_dev_find(table, 0x1234, 0x00AB, serial.c_str(), 2), nullptr);
    EXPECT_NE(conf_dev_cmp(dev, 0x1234, 0x00AB, serial.c_str(), 2), 0);
    EXPECT_NE(add_record(table, serial, 2), nullptr);
}

// The last character, the partition's number, is lost: such devices have always been stored so.
TEST_F(ConfDevTest, IdentityOf512CharactersIsUsedCutTo511)
{
    const std::string serial = serial_for(512);
    const ConfDev* dev = add_record(table, serial);
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->identifier, "1234:00ab:" + serial + ":");
    EXPECT_EQ(conf_dev_find(table, 0x1234, 0x00AB, serial.c_str(), 2), dev);
    EXPECT_EQ(conf_dev_cmp(dev, 0x1234, 0x00AB, serial.c_str(), 2), 0);
    EXPECT_EQ(conf_dev_add(table, 0x1234, 0x00AB, serial.c_str(), 2), nullptr);
}

// What printf(3) makes of it, with every number's length on either side of the limit.
TEST_F(ConfDevTest, IdentityIsAsPrintedUpToItsLimit)
{
    const uint16_t vid = 0xA;
    const uint16_t pid = 0xFFFF;
    const int32_t partitions[] = {0, 9, 10, 99, 255, -1, INT32_MAX, INT32_MIN};
    int refused = 0;
    for (size_t length = 485; length <= 504; length++) {
        const std::string serial(length, 's');
        for (const int32_t partition : partitions) {
            char printed[600];
            const int size = snprintf(printed, sizeof printed, "%04hx:%04hx:%s:%d", vid, pid,
                                      serial.c_str(), partition);
            ConfDev* dev = conf_dev_add(table, vid, pid, serial.c_str(), partition);
            ASSERT_EQ(dev == nullptr, size > 512) << length << " and " << partition;
            if (dev == nullptr) {
                refused++;
                continue;
            }
            EXPECT_EQ(dev->identifier, std::string(printed).substr(0, 511));
            EXPECT_EQ(conf_dev_del(table, dev), 0);
        }
    }
    EXPECT_GT(refused, 0);
}

// ---- adding ----

TEST_F(ConfDevTest, NewTableIsEmpty)
{
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->list->count, 0U);
}

TEST_F(ConfDevTest, NewRecordHasTheDefaults)
{
    EXPECT_EQ(settings_of(add_record(table, "ABC")), defaults);
}

TEST_F(ConfDevTest, NewRecordsGoToTheEnd)
{
    add_record(table, "b");
    add_record(table, "a");
    add_record(table, "c");
    EXPECT_EQ(identifiers(table), (Names{"1234:00ab:b:1", "1234:00ab:a:1", "1234:00ab:c:1"}));
}

TEST_F(ConfDevTest, SecondRecordOfAnIdentityIsRefused)
{
    add_record(table, "ABC");
    EXPECT_EQ(conf_dev_add(table, 0x1234, 0x00AB, "ABC", 1), nullptr);
    EXPECT_EQ(table->list->count, 1U);
}

TEST_F(ConfDevTest, PartitionsOfADeviceAreRecordsOfTheirOwn)
{
    add_record(table, "ABC", 0);
    add_record(table, "ABC", 1);
    add_record(table, "ABC", 2);
    EXPECT_EQ(table->list->count, 3U);
}

TEST_F(ConfDevTest, FailedAddLeavesTheTableUnchanged)
{
    add_record(table, "a");
    for (int nth = 1;; nth++) {
        const long before = memory_blocks();
        memory_fail(nth);
        ConfDev* dev = conf_dev_add(table, 1, 2, "s", 3);
        if (!memory_failed()) {
            EXPECT_NE(dev, nullptr);
            EXPECT_GT(nth, 5) << "a record has a text and four lists";
            break;
        }
        EXPECT_EQ(dev, nullptr) << "allocation " << nth;
        EXPECT_EQ(memory_blocks(), before) << "allocation " << nth;
        EXPECT_EQ(identifiers(table), (Names{"1234:00ab:a:1"})) << "allocation " << nth;
    }
}

TEST(ConfDev, FailedCreateLeavesNothing)
{
    const long before = memory_blocks();
    int nth = 1;
    for (;; nth++) {
        memory_fail(nth);
        ConfDevTable* table = conf_dev_create();
        const bool failed = memory_failed();
        EXPECT_EQ(table == nullptr, failed);
        conf_dev_free(table);
        EXPECT_EQ(memory_blocks(), before) << "allocation " << nth;
        if (!failed)
            break;
    }
    EXPECT_EQ(nth, 3) << "the holder and its list";
}

// ---- finding ----

TEST_F(ConfDevTest, NothingIsFoundInAnEmptyTable)
{
    EXPECT_EQ(conf_dev_find(table, 1, 2, "s", 1), nullptr);
    EXPECT_EQ(conf_dev_find_index(table, 0), nullptr);
    EXPECT_EQ(conf_dev_find_def(table, 0), nullptr);
}

TEST_F(ConfDevTest, FirstOfEqualRecordsIsFound)
{
    const ConfDev* first = add_raw_record(table, "1234:00ab:ABC:1");
    add_raw_record(table, "1234:00ab:ABC:1");
    EXPECT_EQ(conf_dev_find(table, 0x1234, 0x00AB, "ABC", 1), first);
}

TEST_F(ConfDevTest, CompareHasTheSignOfStrcmp)
{
    const ConfDev* dev = add_record(table, "m");
    EXPECT_LT(conf_dev_cmp(dev, 0x1234, 0x00AB, "a", 1), 0);
    EXPECT_GT(conf_dev_cmp(dev, 0x1234, 0x00AB, "z", 1), 0);
    EXPECT_LT(conf_dev_cmp(dev, 0x0234, 0x00AB, "m", 1), 0);
}

TEST_F(ConfDevTest, IndexCountsFromZeroInTableOrder)
{
    const ConfDev* first = add_record(table, "b");
    const ConfDev* second = add_record(table, "a");
    EXPECT_EQ(conf_dev_find_index(table, 0), first);
    EXPECT_EQ(conf_dev_find_index(table, 1), second);
    EXPECT_EQ(conf_dev_find_index(table, 2), nullptr);
    EXPECT_EQ(conf_dev_find_index(table, -1), nullptr);
}

// ---- default records ----

struct SettingRow {
    const char* name;
    std::function<void(ConfDev*)> set;
    bool still_default;
};

TEST_F(ConfDevTest, AnySettingButTheFilesystemMakesARecordWorthKeeping)
{
    const std::vector<SettingRow> rows = {
        {"nothing", [](ConfDev*) {}, true},
        {"filesystem ext3", [](ConfDev* dev) { dev->filesystem = 2; }, true},
        {"filesystem ntfs", [](ConfDev* dev) { dev->filesystem = 5; }, true},
        {"share name", [](ConfDev* dev) { set_text(&dev->sharename, "n"); }, false},
        {"empty share name", [](ConfDev* dev) { set_text(&dev->sharename, ""); }, false},
        {"path", [](ConfDev* dev) { set_text(&dev->path, "/p"); }, false},
        {"comment", [](ConfDev* dev) { set_text(&dev->comment, "c"); }, false},
        {"sync", [](ConfDev* dev) { dev->sync = 1; }, false},
        {"read-only", [](ConfDev* dev) { dev->readonly = 1; }, false},
        {"guest access", [](ConfDev* dev) { dev->guestaccess = 1; }, false},
        {"guest hide", [](ConfDev* dev) { dev->guesthide = 1; }, false},
        {"administrator hide", [](ConfDev* dev) { dev->administrator = 0; }, false},
        {"administrator block", [](ConfDev* dev) { dev->administrator = 1; }, false},
        {"administrator read-only", [](ConfDev* dev) { dev->administrator = 2; }, false},
        {"full access", [](ConfDev* dev) { add_users(dev->fullaccessusers, {0}); }, false},
        {"read-only users", [](ConfDev* dev) { add_users(dev->readonlyusers, {1}); }, false},
        {"block users", [](ConfDev* dev) { add_users(dev->blockusers, {1}); }, false},
        {"hide users", [](ConfDev* dev) { add_users(dev->hideusers, {1}); }, false},
    };
    for (const SettingRow& row : rows) {
        ConfDev* dev = add_record(table, "x");
        row.set(dev);
        EXPECT_EQ(conf_dev_find_def(table, 0), row.still_default ? dev : nullptr) << row.name;
        EXPECT_EQ(conf_dev_del(table, dev), 0);
    }
}

TEST_F(ConfDevTest, DefaultRecordsAreCountedInTableOrder)
{
    const ConfDev* first = add_record(table, "a");
    add_record(table, "b")->sync = 1;
    const ConfDev* second = add_record(table, "c");
    add_record(table, "d")->readonly = 1;
    EXPECT_EQ(conf_dev_find_def(table, 0), first);
    EXPECT_EQ(conf_dev_find_def(table, 1), second);
    EXPECT_EQ(conf_dev_find_def(table, 2), nullptr);
    EXPECT_EQ(conf_dev_find_def(table, -1), nullptr);
}

// ---- deleting and freeing ----

TEST_F(ConfDevTest, DeletesThisVeryRecord)
{
    ConfDev* first = add_raw_record(table, "1234:00ab:ABC:1");
    ConfDev* second = add_raw_record(table, "1234:00ab:ABC:1");
    EXPECT_EQ(conf_dev_del(table, second), 0);
    EXPECT_EQ(records_of(table), (std::vector<ConfDev*>{first}));
}

TEST_F(ConfDevTest, DeletingARecordOfAnotherTableFailsAndFreesNothing)
{
    add_record(table, "ABC");
    const ConfDevTableGuard other(conf_dev_create());
    ConfDev* foreign = add_record(other.get(), "ABC");
    const long before = memory_blocks();
    EXPECT_EQ(conf_dev_del(table, foreign), -1);
    EXPECT_EQ(memory_blocks(), before);
    EXPECT_STREQ(foreign->identifier, "1234:00ab:ABC:1");
    EXPECT_EQ(table->list->count, 1U);
}

TEST_F(ConfDevTest, DeletingFromAnEmptyTableFails)
{
    const ConfDevTableGuard other(conf_dev_create());
    EXPECT_EQ(conf_dev_del(table, add_record(other.get(), "ABC")), -1);
    EXPECT_EQ(conf_dev_del(table, nullptr), -1);
}

void fill(ConfDev* dev)
{
    set_text(&dev->sharename, "n");
    set_text(&dev->path, "/p");
    set_text(&dev->comment, "c");
    add_users(dev->fullaccessusers, {1, 2});
    add_users(dev->readonlyusers, {3});
    add_users(dev->blockusers, {4});
    add_users(dev->hideusers, {5});
}

TEST_F(ConfDevTest, DeletingFreesEverythingOfTheRecord)
{
    const long before = memory_blocks();
    ConfDev* dev = add_record(table, "ABC");
    fill(dev);
    EXPECT_EQ(conf_dev_del(table, dev), 0);
    EXPECT_EQ(memory_blocks(), before);
    EXPECT_EQ(table->list->count, 0U);
}

TEST(ConfDev, FreeingATableFreesEverything)
{
    const long before = memory_blocks();
    ConfDevTable* table = conf_dev_create();
    fill(add_record(table, "a"));
    add_record(table, "b");
    fill(add_record(table, "c"));
    conf_dev_free(table);
    EXPECT_EQ(memory_blocks(), before);
}

TEST(ConfDev, FreeingNullIsHarmless)
{
    conf_dev_free(nullptr);
}

TEST(ConfDev, HalfBuiltRecordIsFreedTheSameWay)
{
    const long before = memory_blocks();
    auto* dev = static_cast<ConfDev*>(calloc(1, sizeof(ConfDev)));
    dev->readonlyusers = vylist_create();
    set_text(&dev->comment, "c");
    conf_dev_record_free(dev);
    EXPECT_EQ(memory_blocks(), before);
}

} // namespace
