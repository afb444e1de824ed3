// A view that a test makes by hand, item by item.
#pragma once

#include "ctl/view.h"

#include <deque>
#include <string>
#include <vector>

class MadeView {
  public:
    MadeView();
    MadeView(const MadeView&) = delete;
    MadeView& operator=(const MadeView&) = delete;

    // Adds one, to be filled in before the next; empty texts stand for none.
    Item& add(const std::string& name, const std::string& identity, ItemState state);
    DiskPart& add_part(const std::string& name, const std::string& disk, uint32_t minor);
    MountinfoEntry& add_mount(uint32_t minor, const std::string& directory);

    // These last as long as the view: a text that an item holds, and settings with their defaults.
    char* text(const std::string& text);
    ConfDev* settings();

    View view = {};

  private:
    std::deque<std::string> texts_;
    std::deque<ConfDevGuard> settings_;
    std::vector<Item> items_;
    std::vector<DiskPart> parts_;
    std::vector<MountinfoEntry> entries_;
    Mountinfo mounts_ = {};
    DiskTable disks_ = {};
};

// Adds a user to a list of settings.
void add_user(vylist* users, int32_t uid);
