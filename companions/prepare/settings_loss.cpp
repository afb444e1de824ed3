#include "prepare/settings_loss.h"

#include "common/text.h"
#include "config/getopt.h"
#include "config/ini.h"

#include <errno.h>
#include <string.h>
#include <strings.h>

namespace {

enum class Compared : unsigned char { text, on_off, word, list };

struct Setting {
    const char* key;
    Compared compared;
};

// The filesystem is none: the service makes nothing of it.
constexpr Setting settings[] = {
    {"sharename", Compared::text},       {"path", Compared::text},
    {"comment", Compared::text},         {"sync", Compared::on_off},
    {"readonly", Compared::on_off},      {"guestaccess", Compared::on_off},
    {"guesthide", Compared::on_off},     {"administrator", Compared::word},
    {"fullaccessusers", Compared::list}, {"readonlyusers", Compared::list},
    {"blockusers", Compared::list},      {"hideusers", Compared::list},
};

} // namespace

static const char* administrator_word(const char* word)
{
    return strcasecmp(word, "ro") == 0 ? "readonly" : word;
}

static bool switch_lost(const char* before, const char* after)
{
    const int was = string_enable_disable(before);
    if (was >= 0)
        return was == 1 && string_enable_disable(after) != 1;
    // What is no word for it means off, but somebody wanted something.
    return before[0] != '\0' && strcasecmp(before, after) != 0;
}

static bool list_has(const char* list, const char* wanted)
{
    char word[VYOPT_ITEM_SIZE];
    while ((list = vyopt_get_section(list, word, sizeof word)) != nullptr) {
        text_trim(word);
        if (strcmp(word, wanted) == 0)
            return true;
    }
    return false;
}

static bool list_lost(const char* before, const char* after)
{
    char word[VYOPT_ITEM_SIZE];
    while ((before = vyopt_get_section(before, word, sizeof word)) != nullptr) {
        text_trim(word);
        if (word[0] != '\0' && !list_has(after, word))
            return true;
    }
    return false;
}

static bool value_lost(Compared compared, const char* before, const char* after)
{
    switch (compared) {
    case Compared::text:
        return before[0] != '\0' && strcmp(before, after) != 0;
    case Compared::on_off:
        return switch_lost(before, after);
    case Compared::word:
        return before[0] != '\0' &&
               strcasecmp(administrator_word(before), administrator_word(after)) != 0;
    case Compared::list:
        return list_lost(before, after);
    }
    return true;
}

// Stores the value, null without one or without a section. Returns 0 or -ENOMEM.
static int read_value(const IniSection* section, const char* key, IniValueGuard* value)
{
    const int result = ini_section_get_string(section, key, value->out(), INI_LAST);
    return result == -ENOMEM ? result : 0;
}

static bool section_lost(const IniDoc* before, const IniDoc* after, const char* name)
{
    IniSectionGuard old_section;
    IniSectionGuard new_section;
    if (ini_section_open(before, name, old_section.out()) == -ENOMEM ||
        ini_section_open(after, name, new_section.out()) == -ENOMEM)
        return true;
    for (const Setting& setting : settings) {
        IniValueGuard old_value;
        IniValueGuard new_value;
        if (read_value(old_section.get(), setting.key, &old_value) != 0 ||
            read_value(new_section.get(), setting.key, &new_value) != 0)
            return true;
        const char* now = new_value ? new_value.get() : "";
        if (old_value && value_lost(setting.compared, old_value.get(), now))
            return true;
    }
    return false;
}

bool settings_lost(const char* before, size_t before_size, const char* after, size_t after_size)
{
    IniDocGuard old;
    IniDocGuard now;
    SectionListGuard sections;
    if (ini_doc_parse(before, before_size, old.out()) != 0 ||
        ini_doc_parse(after, after_size, now.out()) != 0 ||
        ini_doc_get_section_list(old.get(), sections.out()) != 0)
        return true;
    for (vylist_node* node = sections->next; node != vylist_end(sections.get());
         node = node->next) {
        if (section_lost(old.get(), now.get(), static_cast<const char*>(node->data)))
            return true;
    }
    return false;
}
