#include "device/mount_entry.h"

#include <stdlib.h>

static void free_string(char** text)
{
    free(*text);
    *text = nullptr;
}

void hotplug_dev_clear(HotplugDev* dev)
{
    free_string(&dev->vname);
    free_string(&dev->pname);
    free_string(&dev->serial);
}

void mount_entry_free(MountEntry* entry)
{
    if (entry->dev != nullptr)
        hotplug_dev_clear(entry->dev);
    free(entry->dev);
    free(entry->sharename);
    free(entry->devnode);
    free(entry->mountpoint);
    free(entry);
}
