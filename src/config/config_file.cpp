#include "config/config_file.h"

#include "config/config_keys.h"
#include "config/filesystems.h"
#include "config/getopt.h"
#include "config/ini.h"
#include "config/mount_flags.h"
#include "lib/log.h"
#include "lib/str.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

static constexpr char log_tag[] = "config_file";

// Returns owned: the key's last value, possibly empty; null without one.
static char* read_value(const IniSection* keys, const char* key)
{
    char* value = nullptr;
    return ini_section_get_string(keys, key, &value, INI_LAST) == 0 ? value : nullptr;
}

// ---- words ----

static bool names_own_server(const char* value)
{
    for (const auto& name : own_server_names) {
        if (strcasecmp(value, name) == 0)
            return true;
    }
    return false;
}

// An unknown word means the own server too.
static uint8_t parse_smbtype(const char* value)
{
    const bool samba = !names_own_server(value) && strcasecmp(value, samba_word) == 0;
    return samba ? SMB_TYPE_SAMBA : SMB_TYPE_OWN;
}

static void load_smbtype(const IniSection* keys, ConfHotplug* config)
{
    const IniValueGuard value(read_value(keys, smbtype_key));
    if (value)
        config->smbtype = parse_smbtype(value.get());
}

// Off only when the value says so.
static void load_switch(const IniSection* keys, ConfHotplug* config, const SwitchKey& row)
{
    const IniValueGuard value(read_value(keys, row.key));
    if (value)
        config->*row.field = string_enable_disable(value.get()) == 0 ? 0 : 1;
}

// Anything but "all" is as if the key were not there.
static void load_labels(const IniSection* keys, ConfHotplug* config)
{
    const IniValueGuard value(read_value(keys, labels_key));
    config->labels = value && strcasecmp(value.get(), labels_word) == 0 ? 1 : 0;
}

// ---- paths ----

static void load_path(const IniSection* keys, ConfHotplug* config, const PathKey& row)
{
    const IniValueGuard value(read_value(keys, row.key));
    const bool absolute = value && value.get()[0] == '/';
    config->*row.field = strdup(absolute ? value.get() : row.fallback);
}

// ---- numbers ----

// Reads the number; false when the key is absent. A bad number gives `bad` = true.
static bool read_number(const IniSection* keys, const NumberKey& row, int32_t* number, bool* bad)
{
    const IniValueGuard value(read_value(keys, row.key));
    if (!value)
        return false;
    *bad = str_to_long(value.get(), number, row.base) != 0;
    return true;
}

static void load_owner(const IniSection* keys, ConfHotplug* config, const NumberKey& row)
{
    int32_t number = 0;
    bool bad = false;
    if (read_number(keys, row, &number, &bad))
        config->*row.field = bad ? row.fallback : static_cast<uint32_t>(number);
}

static void load_permission(const IniSection* keys, ConfHotplug* config, const NumberKey& row)
{
    int32_t number = 0;
    bool bad = false;
    if (read_number(keys, row, &number, &bad))
        config->*row.field = bad ? row.fallback : ~static_cast<uint32_t>(number) & permission_bits;
}

// ---- mount options ----

static void load_options(const IniSection* keys, ConfHotplug* config, const OptionsKey& row)
{
    const IniValueGuard value(read_value(keys, row.key));
    const char* chosen = value && value.get()[0] != '\0' ? value.get() : row.fallback;
    config->*row.field = chosen == nullptr ? nullptr : strdup(chosen);
}

// ---- filesystems ----

static constexpr int words_per_filesystem = 3;

// The words of a filesystem that the configuration knows; null for none.
struct FilesystemWords {
    const char* of[words_per_filesystem];
};

static FilesystemWords words_of(const Filesystem& filesystem)
{
    return {{filesystem.words[0], filesystem.words[1], filesystem.group}};
}

// The names of the option map: all words of all filesystems, each with the code of its own.
struct FilesystemNames {
    vyopt_option options[filesystem_count * words_per_filesystem + 1];
};

static FilesystemNames list_filesystem_names()
{
    FilesystemNames names = {};
    int count = 0;
    for (const Filesystem& filesystem : filesystems) {
        for (const char* word : words_of(filesystem).of) {
            if (word != nullptr)
                names.options[count++] = {static_cast<int8_t>(filesystem.code), VYOPT_NOCASE, word};
        }
    }
    return names;
}

static void switch_filesystems(ConfHotplug* config, uint32_t on)
{
    for (const Filesystem& filesystem : filesystems) {
        if (!filesystem_is_other(filesystem))
            config->*filesystem.enabled = on;
    }
}

// A list that is there replaces all three defaults: what it does not name is not mounted.
static void load_mountfs(const IniSection* keys, ConfHotplug* config)
{
    const IniValueGuard value(read_value(keys, mountfs_key));
    if (!value)
        return;
    const OptionMapGuard map(vyopt_create_opmap(value.get()));
    if (!map)
        return;
    switch_filesystems(config, 0);
    const FilesystemNames names = list_filesystem_names();
    int32_t index = 0;
    int code = 0;
    while ((code = vy_getopt(&index, map.get(), names.options, nullptr)) != 0) {
        if (code != VYOPT_UNKNOWN)
            config->*filesystem_of(static_cast<uint8_t>(code))->enabled = 1;
    }
}

// ---- other filesystems ----

// Takes the blanks from both ends of an item.
static char* trim(char* item)
{
    static constexpr char blanks[] = " \t";
    item += strspn(item, blanks);
    size_t length = strlen(item);
    while (length > 0 && strchr(blanks, item[length - 1]) != nullptr)
        length--;
    item[length] = '\0';
    return item;
}

static const Filesystem* other_of(const char* word)
{
    for (const Filesystem& filesystem : filesystems) {
        if (filesystem_is_other(filesystem) && strcasecmp(filesystem.type, word) == 0)
            return &filesystem;
    }
    return nullptr;
}

// What it does not know, or knows already, it passes over: vyhotplug-prepare tells of such words.
static void load_otherfs(const IniSection* keys, ConfHotplug* config)
{
    const IniValueGuard value(read_value(keys, otherfs_key));
    char item[VYOPT_ITEM_SIZE];
    const char* position = value.get();
    int count = 0;
    while ((position = vyopt_get_section(position, item, sizeof item)) != nullptr) {
        const Filesystem* filesystem = other_of(trim(item));
        if (filesystem != nullptr && !filesystem_is_wanted(*filesystem, config))
            config->otherfs[count++] = filesystem->code;
    }
}

static void load_other_options(const IniSection* keys, ConfHotplug* config)
{
    static_assert(filesystem_count < OTHERFS_SIZE);
    for (const Filesystem& filesystem : filesystems) {
        if (!filesystem_is_other(filesystem))
            continue;
        char key[options_key_size];
        (void)snprintf(key, sizeof key, "%s%s", filesystem.type, options_ending);
        IniValueGuard value(read_value(keys, key));
        if (value && value.get()[0] != '\0')
            config->otheroptions[filesystem.code] = value.take();
    }
}

// ---- what closes doors: a value of these that is there but cannot be had ends the loading ----

// Reads the key's value; null without one. Returns 0 or -ENOMEM.
static int read_needed(const IniSection* keys, const char* key, IniValueGuard* value)
{
    const int result = ini_section_get_string(keys, key, value->out(), INI_LAST);
    return result == -ENOMEM ? result : 0;
}

// Absent means off; a word that is misspelt means on, the safe side.
static int load_needed_switch(const IniSection* keys, ConfHotplug* config, const SwitchKey& row)
{
    IniValueGuard value;
    if (read_needed(keys, row.key, &value) != 0)
        return -ENOMEM;
    if (value)
        config->*row.field = string_enable_disable(value.get()) == 0 ? 0 : 1;
    return 0;
}

static uint32_t flag_of(const char* word)
{
    for (const MountFlag& row : mount_flags) {
        if (strcasecmp(row.word, word) == 0)
            return row.flag;
    }
    return 0;
}

// Whoever wrote a word that is none wanted something: it is told, and the others count.
static int load_mountflags(const IniSection* keys, ConfHotplug* config)
{
    IniValueGuard value;
    if (read_needed(keys, mountflags_key, &value) != 0)
        return -ENOMEM;
    char item[VYOPT_ITEM_SIZE];
    const char* position = value.get();
    while ((position = vyopt_get_section(position, item, sizeof item)) != nullptr) {
        const char* word = trim(item);
        const uint32_t flag = flag_of(word);
        if (flag == 0)
            VY_LOG(LOG_ERR, "Error - Unknown Mount Flag(%s)", word);
        config->mountflags |= flag;
    }
    return 0;
}

static int load_needed(const IniSection* keys, ConfHotplug* config)
{
    for (const SwitchKey& row : needed_switches) {
        if (load_needed_switch(keys, config, row) != 0)
            return -ENOMEM;
    }
    return load_mountflags(keys, config);
}

// ---- the record ----

static void set_defaults(ConfHotplug* config)
{
    *config = {};
    config->smbtype = SMB_TYPE_OWN;
    config->naswork = 1;
    config->fatvolumelabel = 1;
    config->fileumask = default_file_umask;
    config->dirumask = default_dir_umask;
    switch_filesystems(config, 1);
}

static void load_keys(const IniSection* keys, ConfHotplug* config)
{
    load_smbtype(keys, config);
    load_switch(keys, config, naswork_key);
    for (const PathKey& row : path_keys)
        load_path(keys, config, row);
    for (const NumberKey& row : owner_keys)
        load_owner(keys, config, row);
    for (const NumberKey& row : permission_keys)
        load_permission(keys, config, row);
    for (const OptionsKey& row : options_keys)
        load_options(keys, config, row);
    load_mountfs(keys, config);
    load_switch(keys, config, fat_label_key);
    load_otherfs(keys, config);
    load_other_options(keys, config);
    load_labels(keys, config);
}

// Opens the unnamed section of the file. Null, which holds no key, when it cannot be read.
static void open_keys(const char* path, IniDocGuard* doc, IniSectionGuard* keys)
{
    if (ini_doc_load(path, doc->out()) == 0)
        (void)ini_section_open(doc->get(), "", keys->out());
}

ConfHotplug* load_config_hotplug(const char* path)
{
    if (path == nullptr)
        return nullptr;
    if (access(path, R_OK) != 0)
        VY_LOG(LOG_ERR, "No Such File(%s)", path);
    ConfHotplugGuard config(static_cast<ConfHotplug*>(malloc(sizeof(ConfHotplug))));
    if (!config)
        return nullptr;
    set_defaults(config.get());
    IniDocGuard doc;
    IniSectionGuard keys;
    open_keys(path, &doc, &keys);
    load_keys(keys.get(), config.get());
    if (load_needed(keys.get(), config.get()) == 0)
        return config.take();
    for (const OptionsKey& row : options_keys) { // nobody has seen them
        free(config.get()->*row.field);
        config.get()->*row.field = nullptr;
    }
    return nullptr;
}

// The option texts of the record freed last: within reach until the process ends, so that leak
// checkers see them as what they are.
__attribute__((used)) static char* kept_options[3];

void free_config_hotplug(ConfHotplug* config)
{
    if (config == nullptr)
        return;
    kept_options[0] = config->vfatoptions;
    kept_options[1] = config->ntfsoptions;
    kept_options[2] = config->extfsoptions;
    free(config->smbconfigpath);
    free(config->deviceconfigpath);
    free(config->mountpath);
    free(config->devicepath);
    for (char* options : config->otheroptions)
        free(options);
    free(config);
}
