// Records, tables, mounted partitions and small disks for the tests of the records.
#pragma once

#include "device/mount_entry.h"
#include "records/conf_dev.h"

#include <stdint.h>

#include <initializer_list>
#include <string>
#include <vector>

// Appends a record of 1234:00ab with that serial, default settings.
ConfDev* add_record(ConfDevTable* table, const std::string& serial, int32_t partition = 1);

// Appends a record of any identity, even one that is there already or null.
ConfDev* add_raw_record(ConfDevTable* table, const char* identifier);

// Replaces a text of a record or an entry.
void set_text(char** field, const std::string& text);

void add_users(vylist* users, std::initializer_list<int> ids);
std::vector<int> user_ids(const vylist* users);

// The table's records in order, and their identities.
std::vector<ConfDev*> records_of(const ConfDevTable* table);
std::vector<std::string> identifiers(const ConfDevTable* table);

// A record's settings on one line, for comparing and for messages.
std::string settings_of(const ConfDev* dev);

// A mounted FAT partition of a USB disk: /dev/sda1, 8:1, on /mnt/sda1, ids 1234:00ab, serial "ABC".
// Owned by the caller (mount_entry_free).
MountEntry* create_partition();

// Lets the label tool print `output` and exit with 0 at its next run.
void label_tool_prints(const char* tool, const std::string& output);

// Puts a small filesystem in the place of /tmp, which is full after so many KiB.
void make_small_tmp(int kibibytes);
