// Lines of a share's section. Touches no world.
#pragma once

#include "share/rights.h"
#include "share/text_buffer.h"

// Adds a line with yes or no.
void share_line_switch(TextBuffer* text, const char* parameter, bool on);

// Adds a line with the members for whom `fits` holds; none, no line. Returns their number.
size_t share_line_users(TextBuffer* text, const char* parameter, const Rights* rights,
                        bool (*fits)(const Member* member));
