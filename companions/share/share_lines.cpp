#include "share/share_lines.h"

#include <errno.h>
#include <string.h>

int share_lines_begin(TextBuffer* text, const ExportedShare* exported, void (*fit)(char* comment))
{
    const Share* share = exported->share;
    const MemGuard<char> comment(strdup(share->comment != nullptr ? share->comment : ""));
    if (!comment)
        return -ENOMEM;
    fit(comment.get());
    text_buffer_add(text, "[%s]\n\tpath = %s\n\tcomment = %s\n", exported->name, share->path,
                    comment.get());
    return 0;
}

void share_lines_access(TextBuffer* text, const Rights* rights, const RightsSettings* settings)
{
    if (rights->selective && share_line_users(text, "valid users", rights, member_may_enter) == 0)
        text_buffer_add(text, "\tvalid users = %s\n", settings->administrator);
    (void)share_line_users(text, "read list", rights, member_reads_only);
    (void)share_line_users(text, "invalid users", rights, member_may_not_enter);
}

void share_lines_forced(TextBuffer* text, const RightsSettings* settings)
{
    if (settings->forceuser != nullptr && settings->forceuser[0] != '\0')
        text_buffer_add(text, "\tforce user = %s\n", settings->forceuser);
}

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
