// The share file with every allocation and call failing once: whole sections, or none of them.
#include "config/filesystems.h"
#include "device/crtsec.h"
#include "device/kinds.h"
#include "fake/fake_world.h"
#include "records/conf_dev_file.h"
#include "records/config_file_dir.h"
#include "support/files.h"
#include "sweep/sweep.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <vector>

namespace {

constexpr char share_path[] = "/tmp/vynas.dir.conf";
const std::string old_shares = "[Old]\n";

// A device file with a fixed directory that has every setting, and the two partitions' records.
const std::string devices =
    "[fixed]\nShare Name=Full\nPath=/srv/full\nComment=Ours\nFile System=EXT3\n"
    "Sync=Enable\nRead Only=Enable\nGuest Access=Enable\nGuest Hide=Enable\n"
    "Administrator=Hide\nFull Access Users=1,2\nRead Only Users=3\n"
    "Block Users=4\nHide Users=5\n"
    "[plain]\nPath=/srv/plain\n"
    "[1234:00ab:ABC:1]\nShare Name=Music\n"
    "[0000:0000::2]\n";

const std::vector<std::string> sections = {
    "[Full]\nComment=Ours\nFile System=EXT3\nSync=Enable\nRead Only=Enable\nGuest Access=Enable\n"
    "Guest Hide=Enable\nAdministrator=HideT\nFull Access Users=1,2,\nRead Only Users=3,\n"
    "Block Users=4,\nHide Users=5,\nPath=/srv/full\nIdentifier=fixed\n",
    "[Disk(0)]\nPath=/srv/plain\nComment=Internal Disk\nIdentifier=plain\n",
    "[Music]\nIdentifier=1234:00ab:ABC:1\nPath=/mnt/sda1\nComment=USB Storage Device (Acme/Key)\n"
    "Status=Unmount\nFile System=FAT\nVID=4660\nPID=171\nSerial=ABC\nManufactuare=Acme\n"
    "Product=Key\nSpeed=480\nUSB Port=1-2\nRead Only=Enable\n",
    "[HOLIDAY(A2)]\nIdentifier=0000:0000::2\nPath=/mnt/sda2\nVolume Label=HOLIDAY\n"
    "Comment=USB Storage Device (0x0000/0x0000)\nFile System=FAT\n",
};

MountEntry* add_entry(int32_t minor, const char* mountpoint)
{
    auto* entry = static_cast<MountEntry*>(calloc(1, sizeof(MountEntry)));
    entry->dev = static_cast<HotplugDev*>(calloc(1, sizeof(HotplugDev)));
    entry->dev->range = 16;
    entry->dev->major = MAJOR_SD;
    entry->dev->minor = minor;
    entry->mounted = 1;
    entry->fstype = CONF_DEV_FS_FAT;
    entry->devnode = strdup("/dev/sda");
    entry->mountpoint = strdup(mountpoint);
    EXPECT_EQ(crtsec_blk_add(entry), 0);
    return entry;
}

void fill_set()
{
    ASSERT_EQ(crtsec_init(), 0);
    MountEntry* first = add_entry(1, "/mnt/sda1");
    first->mounted = 0;
    first->dev->vid = 0x1234;
    first->dev->pid = 0xab;
    first->dev->speed = 480;
    first->dev->flags = HOTPLUG_FLAG_READONLY;
    first->dev->usbport[0] = 1;
    first->dev->usbport[1] = 2;
    first->dev->serial = strdup("ABC");
    first->dev->vname = strdup("Acme");
    first->dev->pname = strdup("Key");
    add_entry(2, "/mnt/sda2");
}

void empty_set()
{
    MountEntry* entry = nullptr;
    while (crtsec_blk_search(&entry, 0) == 0) {
        crtsec_blk_del(entry);
        mount_entry_free(entry);
    }
    crtsec_term();
}

// Whether the text is some of the sections, each whole, in their order. A share that lost its label
// has the other name.
bool is_made_of_sections(std::string text)
{
    const std::string drive = "[Drive(A2)]\nIdentifier=0000:0000::2\nPath=/mnt/sda2\n"
                              "Comment=USB Storage Device (0x0000/0x0000)\nFile System=FAT\n";
    std::vector<std::string> known = sections;
    known.push_back(drive);
    for (const std::string& section : known) {
        if (text.compare(0, section.size(), section) == 0)
            text.erase(0, section.size());
    }
    return text.empty();
}

struct SaveShares {
    ConfDevTable* table = nullptr;
    int result = 0;

    Scenario scenario()
    {
        Scenario made;
        made.prepare = [this] {
            write_file(share_path, old_shares);
            write_file("/tmp/devices", devices);
            fake_world().programs["mlabel"] = {FakeRun{0, 1, "HOLIDAY\n"}};
            fill_set();
            table = conf_dev_create();
            ASSERT_EQ(conf_dev_load("/tmp/devices", table), 0);
            fake_world().journal.clear();
        };
        made.run = [this] { result = conf_dir_save(share_path, table, 1); };
        made.finish = [this] {
            conf_dev_free(table);
            empty_set();
        };
        made.check = [this](bool struck) { check(struck); };
        return made;
    }

    void check(bool struck) const
    {
        const std::string now = read_file(share_path);
        std::string all;
        for (const std::string& section : sections)
            all += section;
        EXPECT_TRUE(struck || now == all) << now;
        EXPECT_TRUE(now == old_shares || is_made_of_sections(now)) << now;
        EXPECT_TRUE(result == 0 || (result == -1 && now == old_shares));
    }
};

TEST(Sweep, SharesWithFailingCalls)
{
    SaveShares save;
    sweep_calls(save.scenario());
}

TEST(Sweep, SharesWithoutMemory)
{
    SaveShares save;
    sweep_allocations(save.scenario());
}

} // namespace
