#include "ctl/edit_text.h"

#include "common/text.h"
#include "ctl/array.h"
#include "ctl/rules.h"
#include "ctl/terminal.h"
#include "lib/platform.h"
#include "lib/str.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

// ---- writing ----

static void write_value(FILE* out, const SettingRow& row, const ConfDev* settings)
{
    char value[setting_value_size] = "";
    fprintf(out, "%s = ", row.word);
    if (row.kind == SETTING_USERS && settings != nullptr)
        users_show(out, settings->*row.users, true);
    else if (settings != nullptr)
        setting_format(row, *settings, value);
    fprintf(out, "%s\n", value);
}

static void write_item(FILE* out, const Item& item)
{
    text_print(out, "\n# %s%s%s%s%.80s\n", item_state_word(item.state),
               item.name[0] != '\0' ? ", " : "", item.name, item.share != nullptr ? ", " : "",
               item.share);
    fprintf(out, "[%s]\n", item.identity);
    for (const SettingRow& row : setting_rows) {
        const bool directory = item.settings != nullptr && item.settings->path != nullptr;
        if (row.kind != SETTING_PATH || directory)
            write_value(out, row, item.settings);
    }
}

int edit_text_write(FILE* out, const View& view, const char* identity)
{
    text_print(out,
               "# Settings of shares. What you change and save is checked, and then set.\n"
               "# A section that is taken out is forgotten. Lines like this one explain.\n#\n");
    for (const SettingRow& row : setting_rows)
        text_print(out, "#   %-16s  %s\n", row.word, row.help);
    text_print(out, "#\n# Users are separated by commas; @music is everybody in that group.\n");
    for (size_t i = 0; i < view.count; i++) {
        const Item& item = view.items[i];
        if (item.identity != nullptr &&
            (identity == nullptr || strcmp(item.identity, identity) == 0))
            write_item(out, item);
    }
    return stream_flush(out);
}

// ---- reading ----

namespace {

// What is written here has room: as many users as a setting holds, 539, by names of up to 63 bytes.
constexpr size_t edit_line_size = 36864;

// A line that is an entry, or a fault.
struct EditLine {
    char* value; // behind the "=" in `text`; null: there is none
    bool cut;    // it is longer
    char text[edit_line_size];
};

struct Reader {
    const View* view;
    EditedText* edited;
    const char* text; // that came back
};

} // namespace

static unsigned number_of(const char* text, size_t at)
{
    unsigned number = 1;
    for (size_t i = 0; i < at; i++)
        number += text[i] == '\n' ? 1 : 0;
    return number;
}

static void tell(Reader* reader, size_t at, const char* what, const char* about)
{
    text_print(stderr, "line %u: %s%.100s\n", number_of(reader->text, at), what, about);
    reader->edited->faults++;
}

// Reads the line at `at`. Returns where the next begins.
static size_t next_line(const char* text, size_t at, size_t end, EditLine* line)
{
    size_t stop = at;
    while (stop < end && text[stop] != '\n')
        stop++;
    const size_t most = sizeof line->text - 1;
    const size_t length = stop - at < most ? stop - at : most;
    line->cut = stop - at > most;
    memcpy(line->text, text + at, length);
    line->text[length] = '\0';
    line->value = strchr(line->text, '=');
    if (line->value != nullptr) {
        *line->value++ = '\0';
        text_trim(line->value);
    }
    text_trim(line->text);
    return stop < end ? stop + 1 : stop;
}

static bool is_explanation(const char* text, size_t at, size_t end)
{
    while (at < end && (text[at] == ' ' || text[at] == '\t'))
        at++;
    return at == end || text[at] == '\n' || text[at] == '#' || text[at] == '\r';
}

// Finds the section's last value of a setting. Returns false without one.
static bool find_value(const FileBytes& text, const Section* section, const SettingRow& row,
                       EditLine* line)
{
    bool found = false;
    EditLine read;
    for (size_t at = section != nullptr ? section->body : 0;
         section != nullptr && at < section->end;) {
        const size_t begin = at;
        at = next_line(text.bytes.get(), at, section->end, &read);
        if (is_explanation(text.bytes.get(), begin, section->end) || read.value == nullptr ||
            setting_find(read.text) != &row)
            continue;
        *line = read;
        line->value = line->text + (read.value - read.text);
        found = true;
    }
    return found;
}

static EditedSection* append(EditedText* edited)
{
    void* grown = array_grow(edited->sections, edited->count, sizeof(EditedSection));
    if (grown == nullptr)
        return nullptr;
    edited->sections = static_cast<EditedSection*>(grown);
    return &edited->sections[edited->count++];
}

// Adds a change; `value` null for a setting that goes. Returns -ENOMEM.
static int add_change(EditedSection* section, const SettingRow& row, const char* value)
{
    const size_t index = section->edit.count;
    section->values[index] = value != nullptr ? strdup(value) : nullptr;
    if (value != nullptr && section->values[index] == nullptr)
        return -ENOMEM;
    section->changes[index] = {.key = row.key, .value = section->values[index]};
    section->edit.count++;
    return 0;
}

// Tells of lines that are no entries of a setting.
static void check_lines(Reader* reader, const Section& section)
{
    EditLine line;
    for (size_t at = section.body; at < section.end;) {
        const size_t begin = at;
        at = next_line(reader->text, at, section.end, &line);
        if (is_explanation(reader->text, begin, section.end))
            continue;
        if (line.cut)
            tell(reader, begin, "is too long: ", line.text);
        else if (line.value == nullptr)
            tell(reader, begin, "there is no = in: ", line.text);
        else if (setting_find(line.text) == nullptr)
            tell(reader, begin, "no such setting: ", line.text);
        else if (section.name_size == 0)
            tell(reader, begin, "belongs to no section: ", line.text);
    }
}

// Compares one setting before and after, and takes the change. Returns -ENOMEM.
static int take_setting(Reader* reader, const SettingRow& row, const EditLine* before,
                        const EditLine* after, size_t at, EditedSection* section)
{
    char value[setting_value_size];
    const bool same = before != nullptr && after != nullptr
                          ? strcmp(before->value, after->value) == 0
                          : before == after || (after != nullptr && after->value[0] == '\0');
    if (same)
        return 0;
    if (after == nullptr)
        return add_change(section, row, nullptr);
    if (rules_parse(*reader->view, section->identity, row, after->value, value) != 0) {
        tell(reader, at, "not taken: ", row.word);
        return 0;
    }
    return add_change(section, row, value);
}

// Takes one section of the text that came back. Returns -ENOMEM.
static int take_section(Reader* reader, const FileBytes& before, const SectionTable& table,
                        const FileBytes& after, const Section& section)
{
    check_lines(reader, section);
    if (section.name_size == 0)
        return 0;
    EditedSection* made = append(reader->edited);
    if (made == nullptr)
        return -ENOMEM;
    made->identity = strndup(after.bytes.get() + section.name, section.name_size);
    if (made->identity == nullptr)
        return -ENOMEM;
    const Section* old = sections_find(&table, before.bytes.get(), made->identity);
    for (const SettingRow& row : setting_rows) {
        EditLine first;
        EditLine second;
        const bool had = find_value(before, old, row, &first);
        const bool has = find_value(after, &section, row, &second);
        if (take_setting(reader, row, had ? &first : nullptr, has ? &second : nullptr,
                         section.begin, made) != 0)
            return -ENOMEM;
    }
    if (made->edit.count == 0) {
        free(made->identity);
        reader->edited->count--;
    }
    return 0;
}

// Whether the item of that identity is plugged, so that its section must stay.
static bool is_plugged(const View& view, const char* identity)
{
    for (size_t i = 0; i < view.count; i++) {
        if (view.items[i].name[0] != '\0' && view.items[i].identity != nullptr &&
            strcmp(view.items[i].identity, identity) == 0)
            return true;
    }
    return false;
}

// Takes a section that was handed out and did not come back. Returns -ENOMEM.
static int take_missing(Reader* reader, const FileBytes& before, const Section& section,
                        const SectionTable& table, const FileBytes& after)
{
    if (section.name_size == 0)
        return 0;
    MemGuard<char> name(strndup(before.bytes.get() + section.name, section.name_size));
    if (!name)
        return -ENOMEM;
    if (sections_find(&table, after.bytes.get(), name.get()) != nullptr)
        return 0;
    EditedSection* made = append(reader->edited);
    if (made == nullptr)
        return -ENOMEM;
    made->edit.forget = true;
    made->edit.dropped = !is_plugged(*reader->view, name.get());
    made->identity = name.take();
    return 0;
}

// Of two sections that come by the same new name, only one would be shared.
static void check_names(Reader* reader)
{
    const EditedText& edited = *reader->edited;
    for (size_t i = 0; i < edited.count; i++) {
        for (size_t j = i + 1; j < edited.count; j++) {
            const SectionChange& a = edited.sections[i].changes[0];
            const SectionChange& b = edited.sections[j].changes[0];
            if (a.key == setting_rows[0].key && b.key == a.key && a.value != nullptr &&
                b.value != nullptr && a.value[0] != '\0' && strcasecmp(a.value, b.value) == 0)
                tell(reader, 0, "two shares of the name ", a.value);
        }
    }
}

int edited_read(const View& view, const FileBytes& before, const FileBytes& after,
                EditedText* edited)
{
    *edited = {};
    Reader reader = {.view = &view, .edited = edited, .text = after.bytes.get()};
    SectionTableGuard old;
    SectionTableGuard now;
    if (sections_cut(before.bytes.get(), before.size, old.out()) != 0 ||
        sections_cut(after.bytes.get(), after.size, now.out()) != 0)
        return -ENOMEM;
    int result = 0;
    for (size_t i = 0; i < now->count && result == 0; i++)
        result = take_section(&reader, before, *old.get(), after, now->sections[i]);
    for (size_t i = 0; i < old->count && result == 0; i++)
        result = take_missing(&reader, before, old->sections[i], *now.get(), after);
    check_names(&reader);
    for (size_t i = 0; i < edited->count; i++) {
        EditedSection* section = &edited->sections[i];
        section->edit.identity = section->identity;
        section->edit.changes = section->changes;
    }
    return result;
}

void edited_end(EditedText* edited)
{
    for (size_t i = 0; i < edited->count; i++) {
        free(edited->sections[i].identity);
        for (char* value : edited->sections[i].values)
            free(value);
    }
    free(edited->sections);
    *edited = {};
}
