// Whose clients Samba's processes serve.
#pragma once

#include "ctl/holders.h"

// Adds to the holders that are Samba's whom each of them serves. Asks "smbstatus" if there is such
// a holder; without an answer nothing is added.
void samba_name_clients(HolderTable* table);

// As it prints them. Pure.
void samba_read_clients(const char* answer, size_t size, HolderTable* table);
