#include "ctl/call_set.h"

#include "ctl/call_status.h"
#include "ctl/device_file.h"
#include "ctl/rules.h"
#include "ctl/target.h"
#include "lib/str.h"

#include <errno.h>
#include <string.h>

static constexpr int default_wait_s = 90; // a refresh may wait for a hook, a driver and labels

namespace {

// What is to be set.
struct Assignments {
    size_t count;
    SectionChange changes[setting_count];
    char values[setting_count][setting_value_size];
};

} // namespace

static int wait_of(const CallArgs& args)
{
    return args.wait_s >= 0 ? args.wait_s : default_wait_s;
}

// ---- the target ----

// Whether it can stand in brackets, on a line of its own.
static bool fits_header(const char* word)
{
    return word[strcspn(word, "[]\r\n")] == '\0';
}

// Four lower-case hexadecimal digits and a colon.
static bool is_id(const char* word)
{
    return strspn(word, "0123456789abcdef") == 4 && word[4] == ':';
}

// "1234:00ab:ABC:1", for a disk that was never plugged here.
static bool is_identity(const char* word)
{
    if (!is_id(word) || !is_id(word + 5))
        return false;
    const char* last = strrchr(word, ':');
    return last >= word + 10 && last[1] != '\0' &&
           last[1 + strspn(last + 1, "0123456789")] == '\0' && fits_header(word);
}

// A new directory of the machine may have any name.
static bool names_directory(const CallArgs& args)
{
    for (int i = 1; i < args.count; i++) {
        if (strncmp(args.words[i], "path=/", 6) == 0)
            return args.words[0][0] != '\0' && fits_header(args.words[0]);
    }
    return false;
}

// Finds the identity that the target stands for; null with the status, told. `plugged`: it is.
static const char* find_identity(const CallArgs& args, const View& view, bool* plugged, int* status)
{
    const char* word = args.words[0];
    Targets targets;
    if (targets_find(view, word, &targets) != 0) {
        *status = complain_errno(nullptr, ENOMEM);
        return nullptr;
    }
    const bool unknown = targets.count == 0;
    targets_end(&targets);
    *plugged = false;
    if (unknown && (is_identity(word) || names_directory(args)))
        return word;
    const Item* item = target_find_one(view, word, status);
    if (item == nullptr)
        return nullptr;
    *plugged = item->state != ITEM_ABSENT && item->name[0] != '\0';
    if (item->identity == nullptr) {
        complain("%s has no settings before the service shares it", item_name(*item));
        *status = EXIT_FAILED;
    }
    return item->identity;
}

// ---- keys and values ----

static int tell_keys(const char* word)
{
    complain("no such setting: %.100s\nThere are:", word);
    for (const SettingRow& row : setting_rows)
        text_print(stderr, "  %-16s  %s\n", row.word, row.help);
    return EXIT_WRONG_CALL;
}

static const SettingRow* find_row(const char* word, size_t length)
{
    char name[64];
    if (length >= sizeof name)
        return nullptr;
    str_ncpy(name, word, static_cast<int32_t>(length) + 1);
    return setting_find(name);
}

// Takes "KEY=VALUE", or "KEY" where it is to be unset.
static int take_word(const View& view, const char* identity, const char* word, bool unset,
                     Assignments* made)
{
    const size_t length = strcspn(word, "=");
    const SettingRow* row = find_row(word, length);
    if (row == nullptr || made->count == setting_count)
        return tell_keys(word);
    if (unset != (word[length] == '\0')) {
        complain("%s: %s", row->word,
                 unset ? "unset takes the name alone" : "give a value: KEY=VALUE");
        return EXIT_WRONG_CALL;
    }
    SectionChange* change = &made->changes[made->count];
    change->key = row->key;
    change->value = nullptr;
    if (!unset) {
        auto* value = &made->values[made->count];
        if (rules_parse(view, identity, *row, word + length + 1, *value) != 0)
            return EXIT_FAILED;
        change->value = *value;
    }
    made->count++;
    return EXIT_DONE;
}

// ---- the calls ----

static int apply(const CallArgs& args, const char* identity, const Assignments& made)
{
    const DeviceEdit edit = {.identity = identity,
                             .changes = made.changes,
                             .count = made.count,
                             .forget = false,
                             .dropped = false};
    const int status = device_file_apply(*args.setup, &edit, 1, wait_of(args));
    if (status == EXIT_DONE)
        text_print(args.out.out, "%.600s is set\n", identity);
    return status;
}

static int assign(const CallArgs& args, bool unset)
{
    View view;
    const MemGuard<Assignments> made(static_cast<Assignments*>(calloc(1, sizeof(Assignments))));
    int status = look(*args.setup, &view);
    if (!made)
        status = complain_errno(nullptr, ENOMEM);
    bool plugged = false;
    const char* identity =
        status == EXIT_DONE ? find_identity(args, view, &plugged, &status) : nullptr;
    for (int i = 1; i < args.count && identity != nullptr && status == EXIT_DONE; i++)
        status = take_word(view, identity, args.words[i], unset, made.get());
    if (identity != nullptr && status == EXIT_DONE)
        status = apply(args, identity, *made.get());
    view_end(&view);
    return status;
}

int call_set(const CallArgs& args)
{
    return assign(args, false);
}

int call_unset(const CallArgs& args)
{
    return assign(args, true);
}

int call_forget(const CallArgs& args)
{
    View view;
    bool plugged = false;
    int status = look(*args.setup, &view);
    const char* identity =
        status == EXIT_DONE ? find_identity(args, view, &plugged, &status) : nullptr;
    if (identity != nullptr && status == EXIT_DONE) {
        const DeviceEdit edit = {.identity = identity,
                                 .changes = nullptr,
                                 .count = 0,
                                 .forget = true,
                                 .dropped = !plugged};
        status = device_file_apply(*args.setup, &edit, 1, wait_of(args));
    }
    if (identity != nullptr && status == EXIT_DONE)
        text_print(args.out.out, "%.600s is forgotten\n", identity);
    view_end(&view);
    return status;
}
