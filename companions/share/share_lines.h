// Lines of a share's section. Touches no world.
#pragma once

#include "share/rights.h"
#include "share/text_buffer.h"

// Begins a section: the share's name, its path, and its comment, in which `fit` replaces in place
// what the server's configuration cannot hold. Returns 0 or -ENOMEM.
[[nodiscard]] int share_lines_begin(TextBuffer* text, const ExportedShare* exported,
                                    void (*fit)(char* comment));

// Adds who may enter, who may only read, and who may not enter. An empty list of those who may
// would let everybody enter: it names the administrator then, who is among those who may not.
void share_lines_access(TextBuffer* text, const Rights* rights, const RightsSettings* settings);

// Adds in whose name everybody works, where that is set.
void share_lines_forced(TextBuffer* text, const RightsSettings* settings);

// Adds a line with yes or no.
void share_line_switch(TextBuffer* text, const char* parameter, bool on);

// Adds a line with the members for whom `fits` holds; none, no line. Returns their number.
size_t share_line_users(TextBuffer* text, const char* parameter, const Rights* rights,
                        bool (*fits)(const Member* member));
