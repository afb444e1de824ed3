#include "ctl/settings.h"

#include "common/text.h"
#include "ctl/terminal.h"
#include "lib/str.h"
#include "records/conf_dev_file.h"

#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <strings.h>

const SettingRow setting_rows[setting_count] = {
    {"share",
     "Share Name",
     "share_name",
     "the share's name, up to 34 bytes",
     SETTING_TEXT,
     34,
     {.text = &ConfDev::sharename}},
    {"comment",
     "Comment",
     "comment",
     "shown beside the name, up to 63 bytes",
     SETTING_TEXT,
     63,
     {.text = &ConfDev::comment}},
    {"path",
     "Path",
     "path",
     "a directory of this machine that is shared",
     SETTING_PATH,
     255,
     {.text = &ConfDev::path}},
    {"read-only",
     "Read Only",
     "read_only",
     "yes: nobody can write",
     SETTING_SWITCH,
     0,
     {.number = &ConfDev::readonly}},
    {"guest",
     "Guest Access",
     "guest",
     "yes: whoever has no password may enter",
     SETTING_SWITCH,
     0,
     {.number = &ConfDev::guestaccess}},
    {"hide-from-guests",
     "Guest Hide",
     "hide_from_guests",
     "yes: guests do not see the share",
     SETTING_SWITCH,
     0,
     {.number = &ConfDev::guesthide}},
    {"sync",
     "Sync",
     "sync",
     "yes: what is written is on the disk before it is answered",
     SETTING_SWITCH,
     0,
     {.number = &ConfDev::sync}},
    {"administrator",
     "Administrator",
     "administrator",
     "full, read-only, block or hide",
     SETTING_WORD,
     0,
     {.number = &ConfDev::administrator}},
    {"full",
     "Full Access Users",
     "full_users",
     "users who may read and write",
     SETTING_USERS,
     0,
     {.users = &ConfDev::fullaccessusers}},
    {"readers",
     "Read Only Users",
     "reading_users",
     "users who may read",
     SETTING_USERS,
     0,
     {.users = &ConfDev::readonlyusers}},
    {"blocked",
     "Block Users",
     "blocked_users",
     "users who may not enter",
     SETTING_USERS,
     0,
     {.users = &ConfDev::blockusers}},
    {"hidden",
     "Hide Users",
     "hidden_users",
     "users who do not even see it",
     SETTING_USERS,
     0,
     {.users = &ConfDev::hideusers}},
};

namespace {

struct Word {
    const char* text;
    const char* value; // in the device file
    uint8_t code;
};

constexpr Word switch_words[] = {
    {"yes", "Enable", 1},  {"on", "Enable", 1},       {"enable", "Enable", 1},
    {"true", "Enable", 1}, {"1", "Enable", 1},        {"no", "Disable", 0},
    {"off", "Disable", 0}, {"disable", "Disable", 0}, {"false", "Disable", 0},
    {"0", "Disable", 0},
};

// The first of a code is the one that is printed.
constexpr Word administrator_words[] = {
    {"full", "", CONF_DEV_ADMIN_FULL}, // the service has no word for it
    {"read-only", "ReadOnly", CONF_DEV_ADMIN_READONLY},
    {"readonly", "ReadOnly", CONF_DEV_ADMIN_READONLY},
    {"ro", "ReadOnly", CONF_DEV_ADMIN_READONLY},
    {"block", "Block", CONF_DEV_ADMIN_BLOCK},
    {"hide", "Hide", CONF_DEV_ADMIN_HIDE},
};

// A value in the making.
struct Value {
    char* text; // of setting_value_size
    char* fault;
};

} // namespace

// ---- words ----

// Compares without blanks, hyphens and letter case.
static bool is_same_word(const char* a, const char* b)
{
    for (;;) {
        while (*a == ' ' || *a == '-' || *a == '_')
            a++;
        while (*b == ' ' || *b == '-' || *b == '_')
            b++;
        if (strncasecmp(a, b, 1) != 0)
            return false;
        if (*a == '\0')
            return true;
        a++;
        b++;
    }
}

const SettingRow* setting_find(const char* word)
{
    for (const SettingRow& row : setting_rows) {
        if (is_same_word(word, row.word) || is_same_word(word, row.key))
            return &row;
    }
    return nullptr;
}

template <size_t N>
static int take_word(const Word (&words)[N], const char* text, const Value& value)
{
    for (const Word& word : words) {
        if (strcasecmp(word.text, text) == 0) {
            str_ncpy(value.text, word.value, setting_value_size);
            return 0;
        }
    }
    return -1;
}

const char* setting_administrator(uint8_t code)
{
    for (const Word& word : administrator_words) {
        if (word.code == code)
            return word.text;
    }
    return "full";
}

// ---- texts ----

static int fail(const Value& value, const char* what, const char* about)
{
    (void)snprintf(value.fault, setting_fault_size, "%s%s", what, about);
    return -1;
}

static int take_text(const SettingRow& row, const char* text, const Value& value)
{
    char clean[setting_value_size];
    str_ncpy(clean, text, sizeof clean);
    if (text_clean(clean, "") > 0)
        return fail(value, "holds a control character, or bytes that are not UTF-8", "");
    text_trim(clean);
    if (strcmp(clean, text) != 0 && strlen(text) < sizeof clean)
        return fail(value, "begins or ends with a blank, which would be lost", "");
    if (is_share_name(row) && text[strcspn(text, "[]")] != '\0')
        return fail(value, "holds a bracket, which no share's name can", "");
    if (strlen(text) > row.most) {
        text_shorten(clean, row.most);
        (void)snprintf(value.fault, setting_fault_size,
                       "has %zu bytes, and %d are kept; this fits: \"%s\"", strlen(text), row.most,
                       clean);
        return -1;
    }
    str_ncpy(value.text, text, setting_value_size);
    return 0;
}

static int take_path(const SettingRow& row, const char* text, const Value& value)
{
    if (text[0] != '\0' && text[0] != '/')
        return fail(value, "must begin with /", "");
    return take_text(row, text, value);
}

// ---- users ----

// Appends a number that the list does not have. Returns -1 when it does not fit.
static int append_user(unsigned uid, const Value& value)
{
    char number[16];
    int length = snprintf(number, sizeof number, "%u", uid);
    if (uid > INT32_MAX) // the service passes it over, and an empty list lets everybody in
        return fail(value,
                    "has a number beyond 2147483647, which the service does not take: ", number);
    str_cpy(number + length++, ",");
    const size_t held = strlen(value.text);
    for (const char* at = value.text; (at = strstr(at, number)) != nullptr; at++) {
        if (at == value.text || at[-1] == ',')
            return 0;
    }
    if (held + static_cast<size_t>(length) >= setting_value_size)
        return fail(value, "are more users than fit; let a group own the files instead", "");
    str_cpy(value.text + held, number);
    return 0;
}

// Appends who is in the group, by its list or as their first group.
static int append_group(const char* name, const Value& value)
{
    const group* found = getgrnam(name);
    if (found == nullptr)
        return fail(value, "no such group: ", name);
    const gid_t gid = found->gr_gid;
    bool any = false;
    for (char** member = found->gr_mem; *member != nullptr; member++) {
        const passwd* user = getpwnam(*member);
        if (user != nullptr && append_user(user->pw_uid, value) != 0)
            return -1;
        any |= user != nullptr;
    }
    int result = 0;
    for (const passwd* user = getpwent(); user != nullptr && result == 0; user = getpwent()) {
        if (user->pw_gid != gid)
            continue;
        result = append_user(user->pw_uid, value);
        any = true;
    }
    endpwent();
    // A list that comes out empty would let everybody in.
    return any || result != 0 ? result : fail(value, "nobody is in the group: ", name);
}

static int append_name(const char* name, const Value& value)
{
    if (name[0] == '@')
        return append_group(name + 1, value);
    const passwd* user = getpwnam(name);
    if (user != nullptr)
        return append_user(user->pw_uid, value);
    int32_t number = 0;
    if (name[strspn(name, "0123456789")] != '\0' || str_to_long(name, &number, 10) != 0)
        return fail(value, "no such user: ", name);
    if (getpwuid(static_cast<uid_t>(number)) == nullptr)
        (void)fail(value, "nobody has the number ", name); // may come yet: a warning
    return append_user(static_cast<unsigned>(number), value);
}

static int take_users(const char* text, const Value& value)
{
    while (*text != '\0') {
        char name[256];
        const size_t length = strcspn(text, ",");
        if (length >= sizeof name)
            return fail(value, "no such user: ", text);
        str_ncpy(name, text, static_cast<int32_t>(length) + 1);
        text_trim(name);
        if (name[0] != '\0' && append_name(name, value) != 0)
            return -1;
        text += length + (text[length] == ',' ? 1 : 0);
    }
    return 0;
}

int setting_parse(const SettingRow& row, const char* text, char (&value)[setting_value_size],
                  char (&fault)[setting_fault_size])
{
    const Value made = {.text = value, .fault = fault};
    value[0] = fault[0] = '\0';
    switch (row.kind) {
    case SETTING_PATH:
        return take_path(row, text, made);
    case SETTING_SWITCH:
        return take_word(switch_words, text, made) == 0 ? 0 : fail(made, "is yes or no", "");
    case SETTING_WORD:
        return take_word(administrator_words, text, made) == 0
                   ? 0
                   : fail(made, "is full, read-only, block or hide", "");
    case SETTING_USERS:
        return take_users(text, made);
    default:
        return take_text(row, text, made);
    }
}

// ---- records ----

static void format_users(const vylist* users, char (&value)[setting_value_size])
{
    const Value made = {.text = value, .fault = nullptr};
    for (const vylist_node* node = users->next; node != vylist_end(users); node = node->next) {
        const size_t held = strlen(made.text);
        if (held + 16 < setting_value_size)
            (void)snprintf(made.text + held, 16, "%d,", *static_cast<const int32_t*>(node->data));
    }
}

void setting_format(const SettingRow& row, const ConfDev& record, char (&value)[setting_value_size])
{
    value[0] = '\0';
    switch (row.kind) {
    case SETTING_SWITCH:
        str_ncpy(value, record.*row.number != 0 ? "yes" : "no", sizeof value);
        break;
    case SETTING_WORD:
        str_ncpy(value, setting_administrator(record.*row.number), sizeof value);
        break;
    case SETTING_USERS:
        format_users(record.*row.users, value);
        break;
    default:
        if (record.*row.text != nullptr)
            str_ncpy(value, record.*row.text, sizeof value);
    }
}

bool setting_is_equal(const SettingRow* wanted, const ConfDev& a, const ConfDev& b)
{
    char first[setting_value_size];
    char second[setting_value_size];
    for (const SettingRow& row : setting_rows) {
        if (wanted != nullptr && wanted != &row)
            continue;
        setting_format(row, a, first);
        setting_format(row, b, second);
        if (strcmp(first, second) != 0)
            return false;
    }
    return true;
}

void user_format(unsigned uid, char* name, size_t size)
{
    const passwd* user = getpwuid(uid);
    (void)snprintf(name, size, "%u", uid);
    if (user != nullptr && strlen(user->pw_name) < size) // a part of it may be somebody else's
        str_ncpy(name, user->pw_name, static_cast<int32_t>(size));
}

// Whether take_users() finds the user of that name.
static bool is_read_back(const char* name)
{
    return name[0] != '@' && name[strcspn(name, ",")] == '\0' && text_is_fit(name);
}

void users_show(FILE* out, const vylist* users, bool read_back)
{
    for (const vylist_node* node = users->next; node != vylist_end(users); node = node->next) {
        const auto uid = static_cast<unsigned>(*static_cast<const int32_t*>(node->data));
        char name[64];
        user_format(uid, name, sizeof name);
        if (read_back && !is_read_back(name))
            (void)snprintf(name, sizeof name, "%u", uid);
        text_print(out, "%s%s", node == users->next ? "" : ", ", name);
    }
}
