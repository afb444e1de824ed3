#include "records/conf_dev_file.h"

#include "config/filesystems.h"
#include "config/ini.h"
#include "lib/file.h"
#include "lib/platform.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "lib/trust.h"
#include "records/lines.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

static constexpr char temporary_file[] = "/tmp/vyhotplug.dev.conf.tmp";
static constexpr size_t sharename_max = 34; // bytes kept of what the administrator wrote
static constexpr size_t comment_max = 63;
static constexpr size_t path_size = 256;     // paths are shorter
static constexpr size_t user_id_digits = 32; // longer runs of digits are no user id

namespace {

// ---- the tables of the file ----

struct AdministratorWord {
    const char* text;
    uint8_t value; // ConfDevAdmin
};

constexpr AdministratorWord administrator_words[] = {
    {"hide", CONF_DEV_ADMIN_HIDE},
    {"block", CONF_DEV_ADMIN_BLOCK},
    {"readonly", CONF_DEV_ADMIN_READONLY},
    {"ro", CONF_DEV_ADMIN_READONLY},
};

struct SwitchKey {
    const char* key;
    const char* line; // null: "Sync" has a line of its own, and only when it is on
    uint8_t ConfDev::*field;
};

constexpr SwitchKey switch_keys[] = {
    {"sync", nullptr, &ConfDev::sync},
    {"readonly", "Read Only=", &ConfDev::readonly},
    {"guestaccess", "Guest Access=", &ConfDev::guestaccess},
    {"guesthide", "Guest Hide=", &ConfDev::guesthide},
};

struct UsersKey {
    const char* key;
    const char* line;
    vylist* ConfDev::*field;
};

constexpr UsersKey users_keys[] = {
    {"fullaccessusers", "Full Access Users=", &ConfDev::fullaccessusers},
    {"readonlyusers", "Read Only Users=", &ConfDev::readonlyusers},
    {"blockusers", "Block Users=", &ConfDev::blockusers},
    {"hideusers", "Hide Users=", &ConfDev::hideusers},
};

} // namespace

// ---- user lists ----

static bool holds_user(vylist* users, int32_t id)
{
    for (vylist_node* node = users->next; node != vylist_end(users); node = node->next) {
        if (*static_cast<int32_t*>(node->data) == id)
            return true;
    }
    return false;
}

// Appends the id that `digits` spell. Returns 1 when it was appended, 0 otherwise.
static int append_user(const char* digits, vylist* users, bool* lost)
{
    int32_t id = 0;
    if (str_to_long(digits, &id, 10) != 0 || id < 0 || holds_user(users, id))
        return 0;
    MemGuard<int32_t> element(static_cast<int32_t*>(malloc(sizeof(int32_t))));
    if (!element || vylist_insert(users, vylist_end(users), element.get()) == nullptr) {
        *lost = true;
        return 0;
    }
    *element.take() = id;
    return 1;
}

static size_t digit_run(const char* text)
{
    size_t length = 0;
    while (isdigit(static_cast<unsigned char>(text[length])))
        length++;
    return length;
}

static int parse_user_list(const char* text, vylist* users, bool* lost)
{
    int appended = 0;
    while (*text != '\0') {
        const size_t run = digit_run(text);
        const char end = text[run];
        if (run > 0 && run <= user_id_digits && (end == ',' || end == '\0')) {
            char digits[user_id_digits + 1];
            str_ncpy(digits, text, static_cast<int32_t>(run) + 1);
            appended += append_user(digits, users, lost);
        }
        // The character behind a run goes with it, be it the comma or what spoilt the number.
        text += end == '\0' ? run : run + 1;
    }
    return appended;
}

// Whether a run of digits, which may be empty, is a user id.
static bool is_user_id(const char* run, size_t length)
{
    char digits[user_id_digits + 1];
    int32_t id = 0;
    if (length == 0 || length > user_id_digits)
        return length == 0;
    str_ncpy(digits, run, static_cast<int32_t>(length) + 1);
    return str_to_long(digits, &id, 10) == 0;
}

// Whether the text is a list of user ids and nothing else, so that nothing of it is passed over.
static bool is_user_list(const char* text)
{
    for (;;) {
        text += strspn(text, " \t");
        const size_t run = digit_run(text);
        const char end = text[run];
        if (!is_user_id(text, run) || (end != ',' && end != '\0'))
            return false;
        if (end == '\0')
            return true;
        text += run + 1;
    }
}

int conf_parse_user_list(const char* text, vylist* users)
{
    bool lost = false;
    return parse_user_list(text, users, &lost);
}

int conf_write_user_list(FILE* stream, const vylist* users)
{
    if (stream == nullptr || users == nullptr)
        return -1;
    for (const vylist_node* node = users->next; node != vylist_end(users); node = node->next) {
        if (fprintf(stream, "%d,", *static_cast<const int32_t*>(node->data)) < 0)
            return -1;
    }
    return fputc('\n', stream) == EOF ? -1 : 0;
}

int conf_dev_write_users(FILE* stream, const char* key, const vylist* users, const char* misread)
{
    if (misread != nullptr)
        return line_write_text(stream, key, misread);
    if (line_write(stream, key) != 0)
        return -1;
    return conf_write_user_list(stream, users);
}

// ---- loading ----

namespace {

struct Loading {
    bool lost;  // memory ran out for something that the file holds
    bool exact; // what is not understood is kept as it is written
};

} // namespace

// Reads the key's last value; null when absent or empty.
static void read_value(const IniSection* section, const char* key, IniValueGuard* value,
                       Loading* loading)
{
    if (ini_section_get_string(section, key, value->out(), INI_LAST) == -ENOMEM)
        loading->lost = true;
    if (*value && value->get()[0] == '\0')
        value->reset(nullptr);
}

static void read_text(const IniSection* section, const char* key, size_t max, char** text,
                      Loading* loading)
{
    IniValueGuard value;
    read_value(section, key, &value, loading);
    if (!value)
        return;
    *text = strndup(value.get(), max);
    loading->lost |= *text == nullptr;
}

// Returns -1 when the record must be dropped for its path.
static int read_path(const IniSection* section, ConfDev* dev, Loading* loading)
{
    IniValueGuard value;
    read_value(section, "path", &value, loading);
    if (!value)
        return 0;
    if (value.get()[0] != '/' || strlen(value.get()) >= path_size)
        return -1;
    dev->path = strdup(value.get());
    loading->lost |= dev->path == nullptr;
    return dev->path != nullptr ? 0 : -1;
}

static bool is_word(const char* value, const char* word)
{
    return word != nullptr && strcasecmp(value, word) == 0;
}

// What is no filesystem's word, "deffs" among it, leaves it to the partition.
static void read_filesystem(const IniSection* section, ConfDev* dev, Loading* loading)
{
    IniValueGuard value;
    read_value(section, "filesystem", &value, loading);
    dev->filesystem = CONF_DEV_FS_UNKNOWN;
    if (!value)
        return;
    for (const Filesystem& filesystem : filesystems) {
        if (is_word(value.get(), filesystem.words[0]) || is_word(value.get(), filesystem.words[1]))
            dev->filesystem = filesystem.code;
    }
}

static void read_switch(const IniSection* section, ConfDev* dev, const SwitchKey& row,
                        Loading* loading)
{
    IniValueGuard value;
    read_value(section, row.key, &value, loading);
    dev->*row.field = string_enable_disable(value.get()) == 1 ? 1 : 0;
}

static void read_administrator(const IniSection* section, ConfDev* dev, Loading* loading)
{
    IniValueGuard value;
    read_value(section, "administrator", &value, loading);
    dev->administrator = CONF_DEV_ADMIN_FULL;
    if (!value)
        return;
    for (const AdministratorWord& word : administrator_words) {
        if (is_word(value.get(), word.text))
            dev->administrator = word.value;
    }
}

static void read_users(const IniSection* section, ConfDev* dev, const UsersKey& row,
                       Loading* loading)
{
    IniValueGuard value;
    read_value(section, row.key, &value, loading);
    if (!value)
        return;
    (void)parse_user_list(value.get(), dev->*row.field, &loading->lost);
    if (!loading->exact || is_user_list(value.get()))
        return;
    char** text = &dev->misread[&row - users_keys];
    *text = value.take();
}

// Reads every setting. Returns -1 when the record must be dropped.
static int read_settings(const IniSection* section, ConfDev* dev, Loading* loading)
{
    read_text(section, "sharename", sharename_max, &dev->sharename, loading);
    if (read_path(section, dev, loading) != 0)
        return -1;
    read_text(section, "comment", comment_max, &dev->comment, loading);
    read_filesystem(section, dev, loading);
    for (const SwitchKey& row : switch_keys)
        read_switch(section, dev, row, loading);
    read_administrator(section, dev, loading);
    for (const UsersKey& row : users_keys)
        read_users(section, dev, row, loading);
    return 0;
}

// Appends the record of one section, or nothing for a section that is not usable. Returns -1 when
// loading must end.
static int load_section(const IniDoc* doc, const char* name, ConfDevTable* table, Loading* loading)
{
    ConfDevGuard dev(conf_dev_record_create());
    if (!dev)
        return -1;
    if (name == nullptr || name[0] == '\0')
        return 0;
    dev->identifier = strdup(name);
    loading->lost |= dev->identifier == nullptr;
    if (dev->identifier == nullptr)
        return 0;
    conf_dev_record_defaults(dev.get());
    IniSectionGuard section;
    if (ini_section_open(doc, name, section.out()) == -ENOMEM)
        return -1;
    if (section && read_settings(section.get(), dev.get(), loading) != 0)
        return 0;
    if (vylist_insert(table->list, vylist_end(table->list), dev.get()) == nullptr)
        return -1;
    (void)dev.take();
    return 0;
}

// Appends a record for each usable section. Returns 0; -1 when loading had to end.
static int load_sections(const IniDoc* doc, ConfDevTable* table, Loading* loading)
{
    SectionListGuard sections;
    if (ini_doc_get_section_list(doc, sections.out()) != 0)
        return -1;
    for (vylist_node* node = sections->next; node != vylist_end(sections.get());
         node = node->next) {
        if (load_section(doc, static_cast<const char*>(node->data), table, loading) != 0)
            return -1;
    }
    return 0;
}

int conf_dev_load(const char* path, ConfDevTable* table)
{
    IniDocGuard doc;
    if (ini_doc_load(path, doc.out()) != 0)
        return -1;
    Loading loading = {.lost = false, .exact = false}; // kept: what could be had is worked with
    return load_sections(doc.get(), table, &loading);
}

int conf_dev_load_whole(const char* path, ConfDevTable* table)
{
    const FdGuard fd(trust_open(path));
    if (fd.get() < 0)
        return fd.get();
    IniDocGuard doc;
    const int result = ini_doc_read(fd.get(), doc.out());
    if (result != 0)
        return result;
    Loading loading = {.lost = false, .exact = true};
    return load_sections(doc.get(), table, &loading) != 0 || loading.lost ? -ENOMEM : 0;
}

// ---- saving ----

// A setting that has no word in the file is written as none.
static int write_filesystem(FILE* stream, uint8_t code)
{
    if (code == CONF_DEV_FS_UNKNOWN)
        return 0;
    const Filesystem* filesystem = filesystem_of(code);
    const bool named = filesystem != nullptr && filesystem->file_word != nullptr;
    return line_write_text(stream, "File System=", named ? filesystem->file_word : "DefFS");
}

// Full access is the default, so its line is never asked for.
static const char* administrator_line(uint8_t administrator)
{
    switch (administrator) {
    case CONF_DEV_ADMIN_HIDE:
        return "Administrator=Hide\n";
    case CONF_DEV_ADMIN_BLOCK:
        return "Administrator=Block\n";
    case CONF_DEV_ADMIN_READONLY:
        return "Administrator=ReadOnly\n";
    default:
        return nullptr;
    }
}

static const char* text_or_empty(const char* text)
{
    return text != nullptr ? text : "";
}

static int write_texts(FILE* stream, const ConfDev* dev)
{
    if (fprintf(stream, "[%s]\n", dev->identifier) < 0)
        return -1;
    if (line_write_text(stream, "Share Name=", text_or_empty(dev->sharename)) != 0)
        return -1;
    if (line_write_text(stream, "Path=", dev->path) != 0)
        return -1;
    return line_write_text(stream, "Comment=", text_or_empty(dev->comment));
}

static int write_switches(FILE* stream, const ConfDev* dev)
{
    for (const SwitchKey& row : switch_keys) {
        if (row.line == nullptr)
            continue;
        if (line_write_text(stream, row.line, dev->*row.field != 0 ? "Enable" : "Disable") != 0)
            return -1;
    }
    return 0;
}

static int write_record(FILE* stream, const ConfDev* dev)
{
    if (write_texts(stream, dev) != 0)
        return -1;
    if (write_filesystem(stream, dev->filesystem) != 0)
        return -1;
    if (line_write(stream, dev->sync == 1 ? "Sync=Enable\n" : nullptr) != 0)
        return -1;
    if (write_switches(stream, dev) != 0)
        return -1;
    if (line_write(stream, administrator_line(dev->administrator)) != 0)
        return -1;
    for (const UsersKey& row : users_keys) {
        if (conf_dev_write_users(stream, row.line, dev->*row.field,
                                 dev->misread[&row - users_keys]) != 0)
            return -1;
    }
    return 0;
}

// Writes every record down to the file, so that a full disk shows here. Returns -1 with errno.
static int write_table(FILE* stream, const ConfDevTable* table)
{
    for (vylist_node* node = table->list->next; node != vylist_end(table->list);
         node = node->next) {
        const auto* dev = static_cast<const ConfDev*>(node->data);
        if (dev->identifier != nullptr && write_record(stream, dev) != 0)
            return -1;
    }
    return stream_flush(stream);
}

int conf_dev_save(const char* path, const ConfDevTable* table, bool strict)
{
    if (table == nullptr || table->list == nullptr)
        return -1;
    FileGuard file(strict ? trust_create(temporary_file) : fopen(temporary_file, "w"));
    if (!file)
        return -1;
    errno = 0;
    const int failure = write_table(file.get(), table) == 0 ? 0 : errno;
    file.reset(nullptr);
    if (failure != 0) {
        (void)sys_unlink(temporary_file);
        return -failure;
    }
    (void)file_move(temporary_file, path); // the old file stays when it cannot be moved: kept
    return 0;
}
