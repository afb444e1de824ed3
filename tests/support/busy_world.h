// A daemon's context and busy-device set on the fake world, with directories of its own. It takes
// everything with it when it ends: files, entries, journal and log lines. What cannot be made ends
// the process.
//
// Whoever needs thousands of worlds a second makes the places first, for all of them: then each
// takes back only what its journal says.
#pragma once

#include "core/context.h"
#include "device/mount_entry.h"

#include <optional>
#include <string>
#include <vector>

// The directories of nodes and mounts, and an empty mount table.
class BusyPlaces {
  public:
    BusyPlaces();
    ~BusyPlaces();
    BusyPlaces(const BusyPlaces&) = delete;
    BusyPlaces& operator=(const BusyPlaces&) = delete;
};

class BusyWorld {
  public:
    // Borrows the places; makes some of its own for null.
    explicit BusyWorld(const BusyPlaces* places = nullptr);
    ~BusyWorld();
    BusyWorld(const BusyWorld&) = delete;
    BusyWorld& operator=(const BusyWorld&) = delete;

    // Adds an entry with that node and directory, whose description is a copy that takes the
    // strings over. A mounted one (as FAT) is so in the fake world.
    MountEntry* add(const HotplugDev& dev, const std::string& name, bool mounted);

    // The entries of the set, in order.
    std::vector<MountEntry*> entries() const;

    static std::string node_of(const std::string& name);
    static std::string directory_of(const std::string& name);

    DaemonCtx ctx = {};
    ConfHotplug config = {};
    std::string share_file = "/tmp/vynas.dir.conf";
    std::string device_file = "/tmp/hotplug.dev.conf";
    std::string mountpath = "/media/mnt";
    std::string devicepath = "/media/dev";

  private:
    void take_back() const;

    std::optional<BusyPlaces> own_places_;
    std::vector<std::string> put_; // names of add() that lie there
};
