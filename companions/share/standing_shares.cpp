#include "share/standing_shares.h"

#include "common/include_sections.h"
#include "common/text.h"
#include "share/share_name.h"
#include "share/share_server.h"
#include "share/text_buffer.h"

#include <errno.h>
#include <limits.h>
#include <string.h>

static void add_span(TextBuffer* buffer, Span span)
{
    text_buffer_add(buffer, "%.*s", static_cast<int>(span.size), span.begin);
}

// Returns 0 and the buffer's text, which is never null then; -ENOMEM.
static int hand_on(TextBuffer* buffer, char** text)
{
    text_buffer_add(buffer, "%s", "");
    if (buffer->failed)
        return -ENOMEM;
    *text = buffer->text;
    buffer->text = nullptr;
    return 0;
}

template <size_t N>
static bool copy_span(char (&copy)[N], Span span)
{
    if (span.size >= N)
        return false;
    memcpy(copy, span.begin, span.size);
    copy[span.size] = '\0';
    return true;
}

namespace {

enum class Place {
    elsewhere, // not below the root
    mounted,
    bare,
};

} // namespace

// Where the section's directory lies. `path` is filled unless it is elsewhere.
static Place place_of(const IncludeSection& section, const MountRoot* root, const Mountinfo* mounts,
                      char (&path)[PATH_MAX])
{
    Span value;
    if (!include_section_value(&section, "path", &value) || !copy_span(path, value) ||
        !share_mount_is_wanted(root, path))
        return Place::elsewhere;
    return share_mount_find(root, path, mounts) != nullptr ? Place::mounted : Place::bare;
}

// ---- what is not mounted any more ----

int standing_drop(const char* standing, const MountRoot* root, const Mountinfo* mounts, char** text,
                  size_t* dropped)
{
    TextBuffer made = {};
    const TextBufferGuard held(&made);
    size_t count = 0;
    const char* done = standing;
    const char* at = standing;
    IncludeSection section;
    char path[PATH_MAX];
    while (include_section_next(&at, &section)) {
        if (place_of(section, root, mounts, path) != Place::bare)
            continue;
        add_span(&made, {.begin = done, .size = static_cast<size_t>(section.text.begin - done)});
        done = section.text.begin + section.text.size;
        count++;
    }
    text_buffer_add(&made, "%s", done);
    if (hand_on(&made, text) != 0)
        return -ENOMEM;
    *dropped = count;
    return 0;
}

// ---- what is kept ----

static bool has_path(const ShareTable* table, const char* path)
{
    for (size_t i = 0; i < table->count; i++) {
        if (strcmp(table->shares[i].path, path) == 0)
            return true;
    }
    return false;
}

// Whether a share of this name could stand under `exported`, which may have a number behind it.
static bool may_stand_as(const ShareNameRules* rules, const char* name, const char* exported)
{
    ShareName mapped = {.original = name, .exported = "", .hash = 0, .settled = false};
    Notes ignored = {};
    share_names_map(rules, &mapped, 1, &ignored);
    notes_clear(&ignored);
    if (share_names_meet(mapped.exported, exported))
        return true;
    char base[share_name_size];
    memcpy(base, exported, strlen(exported) + 1);
    char* number = strrchr(base, ' ');
    if (number == nullptr || strncmp(number, " (", 2) != 0)
        return false;
    *number = '\0';
    return share_names_meet(mapped.exported, base);
}

static bool is_withdrawn(const Believed* believed, const char* exported)
{
    const vylist* names = believed->table->withdrawn;
    for (const vylist_node* node = names->next; node != vylist_end(names); node = node->next) {
        if (may_stand_as(believed->rules, static_cast<const char*>(node->data), exported))
            return true;
    }
    return false;
}

static bool is_taken(const char* new_text, const char* exported)
{
    IncludeSection section;
    char name[share_name_size];
    while (include_section_next(&new_text, &section)) {
        if (copy_span(name, section.name) && share_names_meet(name, exported))
            return true;
    }
    return false;
}

// Whether the section is one of the bridge's own, and the share file says nothing against it.
static bool may_stay(const IncludeSection& section, const char* path, const Believed* believed,
                     const char* new_text)
{
    char name[share_name_size];
    return copy_span(name, section.name) && text_clean(name, "") == 0 &&
           !has_path(believed->table, path) && !is_withdrawn(believed, name) &&
           !is_taken(new_text, name);
}

int standing_keep(const char* standing, const char* new_text, const Believed* believed,
                  const MountRoot* root, const Mountinfo* mounts, char** text, size_t* kept)
{
    TextBuffer made = {};
    const TextBufferGuard held(&made);
    size_t count = 0;
    const size_t body = strlen(new_text) - strlen(include_foot);
    add_span(&made, {.begin = new_text, .size = body});
    IncludeSection section;
    char path[PATH_MAX];
    while (include_section_next(&standing, &section)) {
        if (place_of(section, root, mounts, path) != Place::mounted ||
            !may_stay(section, path, believed, new_text))
            continue;
        add_span(&made, section.text);
        count++;
    }
    text_buffer_add(&made, "%s", include_foot);
    if (hand_on(&made, text) != 0)
        return -ENOMEM;
    *kept = count;
    return 0;
}
