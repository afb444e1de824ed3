#include "unit/ctl/made_view.h"

#include "lib/str.h"

#include <gtest/gtest.h>

#include <stdlib.h>

static constexpr uint32_t disk_major = 8;

MadeView::MadeView()
{
    view.mounts = &mounts_;
    view.disks = &disks_;
    view.service_runs = true;
}

Item& MadeView::add(const std::string& name, const std::string& identity, ItemState state)
{
    items_.emplace_back();
    view.items = items_.data();
    view.count = items_.size();
    Item& item = items_.back();
    item.state = state;
    str_ncpy(item.name, name.c_str(), sizeof item.name);
    item.identity = identity.empty() ? nullptr : text(identity);
    return item;
}

DiskPart& MadeView::add_part(const std::string& name, const std::string& disk, uint32_t minor)
{
    parts_.emplace_back();
    disks_ = {.parts = parts_.data(), .count = parts_.size()};
    DiskPart& part = parts_.back();
    str_ncpy(part.name, name.c_str(), sizeof part.name);
    str_ncpy(part.disk, disk.c_str(), sizeof part.disk);
    part.major = disk_major;
    part.minor = minor;
    part.partition = name == disk ? 0 : static_cast<int32_t>(minor % 16);
    return part;
}

MountinfoEntry& MadeView::add_mount(uint32_t minor, const std::string& directory)
{
    entries_.push_back({.id = 1,
                        .parent = 1,
                        .major = disk_major,
                        .minor = minor,
                        .root = "/",
                        .directory = text(directory),
                        .type = "vfat",
                        .source = "/dev/node",
                        .options = "rw,nosuid",
                        .readonly = false});
    mounts_ = {.text = nullptr, .entries = entries_.data(), .count = entries_.size()};
    return entries_.back();
}

char* MadeView::text(const std::string& text)
{
    return texts_.emplace_back(text).data();
}

ConfDev* MadeView::settings()
{
    ConfDev* record = settings_.emplace_back(conf_dev_record_create()).get();
    conf_dev_record_defaults(record);
    return record;
}

void add_user(vylist* users, int32_t uid)
{
    auto* user = static_cast<int32_t*>(malloc(sizeof(int32_t)));
    *user = uid;
    ASSERT_NE(vylist_insert(users, vylist_end(users), user), nullptr);
}
