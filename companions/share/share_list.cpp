#include "share/share_list.h"

#include <errno.h>
#include <syslog.h>

static int add_share(const ShareServer* server, const ExportedShare* exported,
                     const RightsSettings* settings, Notes* notes, TextBuffer* text)
{
    Rights rights = {};
    const RightsGuard held(&rights);
    if (rights_make(exported, settings, notes, &rights) != 0)
        return -ENOMEM;
    if (rights_let_in_unnamed(&rights)) {
        notes_add(notes, LOG_ERR,
                  "share %s is withheld: somebody who may not enter cannot be kept out by name",
                  exported->share->name);
        return 0;
    }
    return server->write_share(text, exported, &rights, settings, notes);
}

static int add_shares(const ShareServer* server, const ExportedShare* shares, size_t count,
                      const RightsSettings* settings, Notes* notes, TextBuffer* text)
{
    text_buffer_add(text, "%s", server->head);
    for (size_t i = 0; i < count; i++) {
        if (add_share(server, &shares[i], settings, notes, text) != 0)
            return -ENOMEM;
    }
    text_buffer_add(text, "%s", include_foot);
    return text->failed ? -ENOMEM : 0;
}

int share_list_make(const ShareServer* server, const ExportedShare* shares, size_t count,
                    const RightsSettings* settings, Notes* notes, char** text)
{
    TextBuffer made = {};
    const TextBufferGuard held(&made);
    if (add_shares(server, shares, count, settings, notes, &made) != 0)
        return -ENOMEM;
    *text = made.text;
    made.text = nullptr; // handed on
    return 0;
}
