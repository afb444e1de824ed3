// INI-style files: single values and the list of section names.
//
// The syntax, shared by the configuration file, the device file and the share file:
// - A line ends at a line feed, a carriage return or a NUL byte, and has no length limit.
// - A header is "[name]" behind optional blanks (space, tab); for a lookup the name ends at the
//   first "]", what follows is ignored, and letter case does not count. Of several headers of one
//   name the last one wins; sections are never merged.
// - A section ends at a line whose very first character is "[" and which holds a "]" anywhere. (An
//   indented header is found, but ends nothing: kept, hand-indented files are read so.)
// - An entry is a line with a "=". Its key is what stands before the first one without any blanks,
//   compared without case, 511 characters significant; its value is what stands behind it without
//   blanks at both ends, cut to 2047 bytes. There are no comments, quotes or escapes.
// - The section list takes a header's name up to the last "]" of its line, blanks and case kept,
//   and only when nothing but blanks follows.
//
// The config_ functions read the file at each call. Who needs many values of one version of a file
// reads it once into an IniDoc, opens the sections it asks, and gets the same answers.
#pragma once

#include "lib/guard.h"
#include "lib/vylist.h"

#include <stddef.h>
#include <stdint.h>

constexpr int32_t INI_LAST = -1; // occurrence: the last entry of the key

// A file's text and the places of its sections. Never changes once it is made, so any number of
// threads may ask it.
struct IniDoc;

// Reads the file and finds its sections. Returns 0 and an owned document; -EIO when the file cannot
// be opened; -ENOMEM; -EINVAL for a null argument; `doc` is untouched on failure. A read error
// ends the text before the line it struck.
[[nodiscard]] int ini_doc_load(const char* path, IniDoc** doc);

// As ini_doc_load from an open file, but all of it or nothing. Returns 0; -ENOMEM; the negated
// errno of a failed read.
[[nodiscard]] int ini_doc_read(int fd, IniDoc** doc);

// As ini_doc_load from bytes at hand, which are copied. Returns 0 or -ENOMEM.
[[nodiscard]] int ini_doc_parse(const char* text, size_t size, IniDoc** doc);

void ini_doc_free(IniDoc* doc);
using IniDocGuard = Guard<IniDoc, ini_doc_free>;

// The entries of one section, listed once for many questions. Borrows the document's text.
struct IniSection;

// Lists a section; null or empty asks for the entries before the first header. Returns 0 and an
// owned section; -1 when there is none of that name; -ENOMEM; -EINVAL for a null document or
// `section`, which is untouched on failure.
[[nodiscard]] int ini_section_open(const IniDoc* doc, const char* name, IniSection** section);

void ini_section_free(IniSection* section);
using IniSectionGuard = Guard<IniSection, ini_section_free>;

// As config_get_ini_string, without the file.
[[nodiscard]] int ini_section_get_string(const IniSection* section, const char* key, char** value,
                                         int32_t occurrence);
[[nodiscard]] int ini_doc_get_string(const IniDoc* doc, const char* section, const char* key,
                                     char** value, int32_t occurrence);

// Whether the key's last value is longer than what is told of it; false without a section or key.
[[nodiscard]] bool ini_section_is_cut(const IniSection* section, const char* key);

// As config_get_section_list, without the file.
[[nodiscard]] int ini_doc_get_section_list(const IniDoc* doc, vylist** sections);

// Looks a key up. `section` null or empty asks for the entries before the first header;
// `occurrence` is INI_LAST or n >= 1 for the n-th. Returns 0 and an owned value, possibly empty,
// to be released with config_release_string; -EINVAL for a null path, key or `value`; -EIO when the
// file cannot be opened; -1 without the section; -ENOENT without the key or with fewer than n
// occurrences; -ENOMEM. `value` is untouched on failure.
[[nodiscard]] int config_get_ini_string(const char* path, const char* section, const char* key,
                                        char** value, int32_t occurrence);

// Frees a value; null is accepted.
void config_release_string(char* value);

// Lists the file's section names in file order, duplicates included. Returns 0 and an owned list of
// owned texts, to be released with config_release_section_list; -EINVAL for a null argument;
// -ENOMEM; -EIO when the file cannot be opened; `sections` is untouched on failure.
[[nodiscard]] int config_get_section_list(const char* path, vylist** sections);

// Frees every name and the list; null is accepted.
void config_release_section_list(vylist* sections);

using IniValueGuard = Guard<char, config_release_string>;
using SectionListGuard = Guard<vylist, config_release_section_list>;

// Returns 1 for "enable" (any case) or "1", 0 for "disable" (any case) or "0", else (null too) -1.
[[nodiscard]] int string_enable_disable(const char* text);

// Returns 1 for "y", "yes" (any case) or "1", 0 for "n", "no" (any case) or "0", else -1.
[[nodiscard]] int string_yes_no(const char* text);
