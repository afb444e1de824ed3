// The device file: the device table between refreshes and across restarts, one INI section for each
// record. Administrators write settings into it. The lines are listed in docs/device-file.md.
//
// Nothing here logs but what is told of.
#pragma once

#include "records/conf_dev.h"

#include <stdio.h>

// Appends a record for each usable section of the file. Returns 0; -1 when the file cannot be read,
// memory runs out or a record cannot be appended, records already appended staying. The file is
// read once. Sections of one name give a record each; one whose path is no absolute path shorter
// than 256 bytes is left out.
int conf_dev_load(const char* path, ConfDevTable* table);

// As conf_dev_load for a file that nobody but root can have made (lib/trust.h), and all of it or
// nothing. Returns 0; -ENOENT, -EPERM and -EACCES as trust_open; another negated errno when the
// file cannot be read to its end or memory runs out for any part of it: what the table then holds
// must not be saved. A list of users that holds anything but user ids is kept as it is written: the
// share file and the device file show it so, until somebody has mended it.
[[nodiscard]] int conf_dev_load_whole(const char* path, ConfDevTable* table);

// Writes the table to a temporary file and moves it to `path`, which is either replaced whole or
// left as it was. Returns 0, also when only the move failed; -1 when the table is missing or the
// temporary file cannot be made; the negated errno of a failed write. `strict` makes the temporary
// file with trust_create, which logs.
int conf_dev_save(const char* path, const ConfDevTable* table, bool strict = false);

// Writes "500,501," and a line feed for a list of user ids. Returns 0; -1 when an argument is null
// or a write fails.
[[nodiscard]] int conf_write_user_list(FILE* stream, const vylist* users);

// Writes the line of a list: its text where that was kept, else its ids. Returns as
// conf_write_user_list.
[[nodiscard]] int conf_dev_write_users(FILE* stream, const char* key, const vylist* users,
                                       const char* misread);

// Appends the user ids of a text such as "500, 501" to `users`, each once. Numbers stand before a
// comma or the end; whatever else the text holds is passed over. Returns how many were appended.
int conf_parse_user_list(const char* text, vylist* users);
