#include "samba/macs.h"

#include "common/text.h"

#include <string.h>
#include <strings.h>
#include <syslog.h>

static constexpr size_t entry_size = 128; // bytes of a name in the list, with the NUL

// Filesystems whose files can have attributes of the user's.
static constexpr const char* with_attributes[] = {"ext2", "ext3", "ext4", "btrfs",
                                                  "f2fs", "xfs",  "zfs"};

// ---- values ----

bool macs_is_switch(const char* value)
{
    return strcasecmp(value, "enable") == 0 || strcasecmp(value, "disable") == 0;
}

bool macs_is_list(const char* value)
{
    for (const char* at = value; *at != '\0'; at++) {
        if (static_cast<uint8_t>(*at) < ' ')
            return false;
    }
    return true;
}

bool macs_is_size(const char* value)
{
    const size_t digits = strspn(value, "0123456789");
    const char* unit = value + digits;
    if (value[0] == '\0')
        return true;
    return digits > 0 && digits < 16 && (unit[0] == '\0' || strchr("KMGT", unit[0]) != nullptr) &&
           (unit[0] == '\0' || unit[1] == '\0');
}

// ---- a share ----

static bool has_attributes(const char* filesystem)
{
    for (const char* type : with_attributes) {
        if (strcmp(filesystem, type) == 0)
            return true;
    }
    return false;
}

// Whether the share is in a list of names.
static bool is_listed(const char* list, const char* name)
{
    char entry[entry_size];
    while (*list != '\0') {
        const size_t length = strcspn(list, ",");
        if (length < sizeof entry) {
            memcpy(entry, list, length);
            entry[length] = '\0';
            text_trim(entry);
            if (strcasecmp(entry, name) == 0)
                return true;
        }
        list += length;
        list += *list == ',' ? 1 : 0;
    }
    return false;
}

// Returns why a share cannot hold backups; null when it can.
static const char* find_obstacle(const ExportedShare* exported, const Rights* rights)
{
    if (rights->readonly)
        return "it is read-only";
    return has_attributes(exported->filesystem) ? nullptr
                                                : "its filesystem has no extended attributes";
}

static bool holds_backups(const ExportedShare* exported, const Rights* rights,
                          const char* const* own, Notes* notes)
{
    const char* name = exported->share->name;
    if (!is_listed(own[SAMBA_TIMEMACHINE], name) &&
        !is_listed(own[SAMBA_TIMEMACHINE], exported->name))
        return false;
    const char* obstacle = find_obstacle(exported, rights);
    if (obstacle != nullptr)
        notes_add(notes, LOG_WARNING, "share %s is not for Time Machine: %s", name, obstacle);
    return obstacle == nullptr;
}

void macs_write(TextBuffer* text, const ExportedShare* exported, const Rights* rights,
                const char* const* own, Notes* notes)
{
    if (own == nullptr)
        return;
    const bool backups = holds_backups(exported, rights, own, notes);
    const bool macs =
        strcasecmp(own[SAMBA_MACS], "enable") == 0 || own[SAMBA_TIMEMACHINE][0] != '\0';
    if (!macs)
        return;
    text_buffer_add(text, "\tvfs objects = catia fruit%s\n",
                    has_attributes(exported->filesystem) ? " streams_xattr" : "");
    text_buffer_add(text, "\tfruit:metadata = stream\n"
                          "\tfruit:posix_rename = yes\n"
                          "\tfruit:veto_appledouble = no\n"
                          "\tfruit:wipe_intentionally_left_blank_rfork = yes\n"
                          "\tfruit:delete_empty_adfiles = yes\n");
    if (!backups)
        return;
    text_buffer_add(text, "\tfruit:time machine = yes\n");
    if (own[SAMBA_TIMEMACHINE_SIZE][0] != '\0')
        text_buffer_add(text, "\tfruit:time machine max size = %s\n", own[SAMBA_TIMEMACHINE_SIZE]);
}
