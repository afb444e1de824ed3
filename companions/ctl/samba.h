// What Samba has of a mounted partition: the share that its configuration makes of it, and whose
// clients its processes serve.
#pragma once

#include "ctl/holders.h"
#include "ctl/json.h"

// Adds to the holders that are Samba's whom each of them serves. Asks "smbstatus" if there is such
// a holder; without an answer nothing is added.
void samba_name_clients(HolderTable* table);

// As it prints them. Pure.
void samba_read_clients(const char* answer, size_t size, HolderTable* table);

// Tells of the share with that directory, as it stands in the file that Samba includes: a line for
// each parameter; nothing where there is none.
void samba_print_share(FILE* out, const char* directory);

// The same, as an object of its name and its parameters; null where there is none.
void samba_share_json(Json* json, const char* key, const char* directory);
