#include "record.h"

#include "config/filesystems.h"
#include "device/kinds.h"
#include "fake/fake_world.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>

ConfDev* add_record(ConfDevTable* table, const std::string& serial, int32_t partition)
{
    ConfDev* dev = conf_dev_add(table, 0x1234, 0x00AB, serial.c_str(), partition);
    EXPECT_NE(dev, nullptr) << serial;
    return dev;
}

ConfDev* add_raw_record(ConfDevTable* table, const char* identifier)
{
    ConfDev* dev = conf_dev_record_create();
    conf_dev_record_defaults(dev);
    dev->identifier = identifier != nullptr ? strdup(identifier) : nullptr;
    EXPECT_NE(vylist_insert(table->list, vylist_end(table->list), dev), nullptr);
    return dev;
}

void set_text(char** field, const std::string& text)
{
    free(*field);
    *field = strdup(text.c_str());
}

void add_users(vylist* users, std::initializer_list<int> ids)
{
    for (const int id : ids) {
        auto* element = static_cast<int32_t*>(malloc(sizeof(int32_t)));
        *element = id;
        EXPECT_NE(vylist_insert(users, vylist_end(users), element), nullptr);
    }
}

std::vector<int> user_ids(const vylist* users)
{
    std::vector<int> ids;
    for (const vylist_node* node = users->next; node != vylist_end(users); node = node->next)
        ids.push_back(*static_cast<const int32_t*>(node->data));
    return ids;
}

std::vector<ConfDev*> records_of(const ConfDevTable* table)
{
    std::vector<ConfDev*> records;
    for (vylist_node* node = table->list->next; node != vylist_end(table->list); node = node->next)
        records.push_back(static_cast<ConfDev*>(node->data));
    EXPECT_EQ(table->list->count, records.size());
    return records;
}

std::vector<std::string> identifiers(const ConfDevTable* table)
{
    std::vector<std::string> names;
    for (const ConfDev* dev : records_of(table))
        names.emplace_back(dev->identifier != nullptr ? dev->identifier : "(null)");
    return names;
}

static std::string quoted(const char* text)
{
    return text != nullptr ? std::string("\"") + text + "\"" : "null";
}

static std::string listed(const vylist* users)
{
    std::string text = " (";
    for (const int id : user_ids(users))
        text += std::to_string(id) + ",";
    return text + ")";
}

std::string settings_of(const ConfDev* dev)
{
    return "name " + quoted(dev->sharename) + " path " + quoted(dev->path) + " comment " +
           quoted(dev->comment) + " fs " + std::to_string(dev->filesystem) + " sync " +
           std::to_string(dev->sync) + " ro " + std::to_string(dev->readonly) + " guest " +
           std::to_string(dev->guestaccess) + " hide " + std::to_string(dev->guesthide) +
           " admin " + std::to_string(dev->administrator) + listed(dev->fullaccessusers) +
           listed(dev->readonlyusers) + listed(dev->blockusers) + listed(dev->hideusers);
}

MountEntry* create_partition()
{
    auto* entry = static_cast<MountEntry*>(calloc(1, sizeof(MountEntry)));
    entry->dev = static_cast<HotplugDev*>(calloc(1, sizeof(HotplugDev)));
    entry->mounted = 1;
    entry->fstype = CONF_DEV_FS_FAT;
    entry->devnode = strdup("/dev/sda1");
    entry->mountpoint = strdup("/mnt/sda1");
    entry->dev->vid = 0x1234;
    entry->dev->pid = 0x00AB;
    entry->dev->serial = strdup("ABC");
    entry->dev->range = 16;
    entry->dev->major = MAJOR_SD;
    entry->dev->minor = 1;
    return entry;
}

void label_tool_prints(const char* tool, const std::string& output)
{
    FakeRun run;
    run.output = output;
    fake_world().programs[tool].push_back(run);
}

void make_small_tmp(int kibibytes)
{
    const std::string options = "mode=1777,size=" + std::to_string(kibibytes) + "k";
    ASSERT_EQ(mount("small", "/tmp", "tmpfs", 0, options.c_str()), 0) << strerror(errno);
}
