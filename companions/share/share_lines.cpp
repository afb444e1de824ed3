#include "share/share_lines.h"

void share_line_switch(TextBuffer* text, const char* parameter, bool on)
{
    text_buffer_add(text, "\t%s = %s\n", parameter, on ? "yes" : "no");
}

size_t share_line_users(TextBuffer* text, const char* parameter, const Rights* rights,
                        bool (*fits)(const Member* member))
{
    size_t written = 0;
    for (size_t i = 0; i < rights->count; i++) {
        const Member* member = &rights->members[i];
        if (!fits(member))
            continue;
        if (written++ == 0)
            text_buffer_add(text, "\t%s = ", parameter);
        else
            text_buffer_add(text, ", ");
        text_buffer_add(text, "%s", member->name);
    }
    if (written > 0)
        text_buffer_add(text, "\n");
    return written;
}
