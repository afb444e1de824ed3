// Names that stay: a link for each share of the service's, by-share/NAME in its mount directory,
// that leads to where the share's partition is mounted. For programs on the machine itself, whose
// paths must not change when another stick is in the port.
//
// A link is there while the share file tells of the share and its directory is a mount of the
// service's; it is made and taken away when either changes, and all go when the agent ends. In a
// share's name "_" replaces slashes, control characters, bytes that are no character and a dot at
// the beginning; of several shares that come out alike the first has the link.
#pragma once

#include "agent/settings.h"
#include "common/mountinfo.h"
#include "lib/guard.h"

#include <stddef.h>

constexpr size_t by_share_name_size = 256; // bytes with the NUL; what is longer is cut

// Makes a share's name fit for a file's. Returns false for one that nothing is left of. Pure.
bool by_share_name(const char* share, char (&name)[by_share_name_size]);

// Lends what of `path` lies directly in `directory`: "sda1" of "/media/vyhotplug/sda1"; null for
// anything else. Pure.
const char* by_share_place(const char* path, const char* directory);

// Its fields are its own.
struct ByShare {
    const AgentSettings* settings = nullptr; // borrowed
    FdGuard changes;                         // of the share file's directory
    MemGuard<char> file;                     // the share file; null while it is not known
    uint64_t due = agent_never;              // when they are to be brought up to date; 0: at once
    bool failed = false;                     // that they were not has been logged
};

// Begins, or begins anew for another daemon, whose configuration may name another share file. Does
// nothing where the settings want no links.
void by_share_watch(ByShare* links, const AgentSettings* settings);

// Takes what has changed in the share file's directory; the mounts have changed.
void by_share_take_changes(ByShare* links);
void by_share_mounts_changed(ByShare* links);

// Brings the links up to date, if something has changed before the time `now`. What fails is told
// once, and tried again at the next change or after agent_file_pause.
void by_share_advance(ByShare* links, uint64_t now);

// When it is to be advanced if nothing changes before; agent_never.
uint64_t by_share_due(const ByShare* links);

// Takes all links away, and their directory.
void by_share_close(ByShare* links);

// Lends the descriptor that becomes readable when by_share_take_changes is to be called; -1: none.
inline int by_share_descriptor(const ByShare* links)
{
    return links->changes.get();
}
