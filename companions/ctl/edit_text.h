// The text that `edit` hands to an editor, and what is made of it afterwards. Only what was changed
// in it is a change, so that two who edit at once, or the service, lose nothing to each other.
#pragma once

#include "ctl/device_file.h"
#include "ctl/settings.h"
#include "ctl/view.h"

#include <stdio.h>

// Writes every item that has an identity, or the one of `identity` alone: a section for each, users
// by name. Lines that begin with "#" explain. Returns 0; -1 when writing fails.
[[nodiscard]] int edit_text_write(FILE* out, const View& view, const char* identity);

// What becomes of one section.
struct EditedSection {
    char* identity; // owned
    DeviceEdit edit;
    SectionChange changes[setting_count];
    char* values[setting_count]; // owned; what `changes` borrows
};

struct EditedText {
    EditedSection* sections; // those with changes; owned
    size_t count;
    unsigned faults; // lines that cannot be taken
};

// Reads the text that came back, beside the one that was handed out, and tells on standard error
// what is wrong with it, line by line. Returns 0, also with faults; -ENOMEM. Either way it is to be
// ended by edited_end.
[[nodiscard]] int edited_read(const View& view, const FileBytes& before, const FileBytes& after,
                              EditedText* edited);
void edited_end(EditedText* edited);
