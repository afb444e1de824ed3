// The text of a file of sections, cut at its headers, so that one section can be changed and all
// others stay byte for byte as they are. Touches no world. The syntax is that of config/ini.h.
#pragma once

#include "lib/file.h"
#include "lib/guard.h"

#include <stddef.h>

// A header and what stands below it, to the next header. What stands before the first header is a
// section without a name, and so is one whose header the service does not list.
struct Section {
    size_t begin; // of the header's line
    size_t name;  // of what stands between the brackets
    size_t name_size;
    size_t body; // behind the header's line
    size_t end;
};

struct SectionTable {
    Section* sections; // in the file's order, without gaps; owned
    size_t count;
};

// Cuts `size` bytes. Returns 0 and an owned table; -ENOMEM.
[[nodiscard]] int sections_cut(const char* text, size_t size, SectionTable** table);

void sections_free(SectionTable* table);
using SectionTableGuard = Guard<SectionTable, sections_free>;

// Lends the last section of that name, as a look-up finds it: without regard to letter case. Null
// without one.
[[nodiscard]] const Section* sections_find(const SectionTable* table, const char* text,
                                           const char* name);

// Whether the section has a line of that key, which is compared without blanks and letter case.
[[nodiscard]] bool section_has(const char* text, const Section& section, const char* key);

// A key and its new value.
struct SectionChange {
    const char* key;
    const char* value; // null: the key's lines go
};

// Makes a new text of the old one: in the last section of that name, which is added at the end
// where there is none, the lines of all keys of `changes` are replaced. Returns 0; -ENOMEM; -EFBIG
// for a text without end.
[[nodiscard]] int sections_change(const char* text, size_t size, const char* name,
                                  const SectionChange* changes, size_t count, FileBytes* out);

// Leaves out every line of the sections of that name but their headers, or the headers too.
[[nodiscard]] int sections_empty(const char* text, size_t size, const char* name, bool headers,
                                 FileBytes* out);

// Adds to `text` each section of `other` whose name it does not have. Returns how many were added;
// -ENOMEM; -EFBIG.
[[nodiscard]] int sections_unite(const FileBytes& text, const FileBytes& other, FileBytes* out);
