// The device table: one record of share settings for every partition that was ever shared, named by
// its identity. A table lives for one refresh: created, loaded from the device file, extended with
// what is mounted, written to the share file, pruned, saved, freed.
//
// An identity is "vvvv:pppp:serial:partition" (USB vendor and product id in hexadecimal, the
// device's serial, empty without one, and the partition number, 0 for the whole device), compared
// exactly. One of up to 512 characters is accepted, of which 511 count.
//
// Records belong to their table; callers hold borrowed pointers until the next deletion. Nothing
// here logs.
#pragma once

#include "config/filesystems.h"
#include "lib/guard.h"
#include "lib/vylist.h"

#include <stdint.h>

enum ConfDevAdmin : uint8_t {
    CONF_DEV_ADMIN_HIDE = 0,
    CONF_DEV_ADMIN_BLOCK = 1,
    CONF_DEV_ADMIN_READONLY = 2,
    CONF_DEV_ADMIN_FULL = 3,
};

struct ConfDev {
    char* identifier;   // owned; never null in a table
    char* sharename;    // owned; null: named after the volume
    char* path;         // owned; set: a fixed directory share instead of a plugged partition
    char* comment;      // owned, may be null
    uint8_t filesystem; // ConfDevFs; 0: whatever the partition holds
    uint8_t sync;       // 1: written synchronously
    uint8_t readonly;
    uint8_t guestaccess;
    uint8_t guesthide;
    uint8_t administrator;   // ConfDevAdmin
    vylist* fullaccessusers; // four lists of owned int, each a user id
    vylist* readonlyusers;
    vylist* blockusers;
    vylist* hideusers;

    // Of each list, in this order, its text where that holds anything but user ids and must not get
    // lost (conf_dev_load_whole); else null. Owned.
    char* misread[4];
};

struct ConfDevTable {
    vylist* list; // of owned ConfDev; the device file's order, then the order of addition
};

// Returns owned: an empty table; null when memory runs out.
[[nodiscard]] ConfDevTable* conf_dev_create();

// Takes the table and every record; null is accepted.
void conf_dev_free(ConfDevTable* table);

using ConfDevTableGuard = Guard<ConfDevTable, conf_dev_free>;

// Appends a record with default settings and lends it. Returns null, with the table unchanged, when
// the identity is too long or in the table already, or memory runs out. A null serial is empty.
ConfDev* conf_dev_add(ConfDevTable* table, uint16_t vid, uint16_t pid, const char* serial,
                      int32_t partition);

// Lends the first record of that identity; null without one or when the identity is too long.
[[nodiscard]] ConfDev* conf_dev_find(const ConfDevTable* table, uint16_t vid, uint16_t pid,
                                     const char* serial, int32_t partition);

// Compares as strcmp does: that identity against the record's. -1 when the identity is too long.
[[nodiscard]] int conf_dev_cmp(const ConfDev* dev, uint16_t vid, uint16_t pid, const char* serial,
                               int32_t partition);

// Lends the record at a position (0-based); null when there is none.
[[nodiscard]] ConfDev* conf_dev_find_index(const ConfDevTable* table, int32_t index);

// Lends the n-th (0-based) record that carries nothing of the administrator's; null when there are
// not that many. The filesystem does not count as a setting.
[[nodiscard]] ConfDev* conf_dev_find_def(const ConfDevTable* table, int32_t n);

// Removes and frees this very record. Returns 0; -1, nothing freed, when the table does not hold
// it.
int conf_dev_del(ConfDevTable* table, ConfDev* dev);

// Removes every record that conf_dev_find_def finds and that `in_use` does not want kept, in one
// pass: the same as finding and deleting one at a time, at a cost that grows with the table only.
void conf_dev_prune(ConfDevTable* table, bool (*in_use)(const ConfDev* dev));

// For who builds records otherwise: a record with all members null or 0 but its four empty lists,
// and the release of a record, whose members may be null.
[[nodiscard]] ConfDev* conf_dev_record_create();
void conf_dev_record_free(ConfDev* dev);
void conf_dev_record_defaults(ConfDev* dev); // every setting but the strings and lists

using ConfDevGuard = Guard<ConfDev, conf_dev_record_free>;
