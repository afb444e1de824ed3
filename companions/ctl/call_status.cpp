#include "ctl/call_status.h"

#include "ctl/file_server.h"
#include "ctl/holders.h"
#include "ctl/item_json.h"
#include "ctl/item_text.h"
#include "ctl/problem_text.h"
#include "ctl/samba.h"
#include "ctl/settings.h"
#include "ctl/target.h"
#include "ctl/view.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int look(const Setup& setup, View* view)
{
    const int result = view_begin(setup, view);
    return result == 0 ? EXIT_DONE : complain_errno(nullptr, result);
}

// ---- status ----

namespace {

enum Column : uint8_t {
    COLUMN_NAME,
    COLUMN_SHARE,
    COLUMN_STATE,
    COLUMN_SIZE,
    COLUMN_USED,
    COLUMN_FILESYSTEM,
    COLUMN_MODE,
    COLUMN_WHO,
    COLUMNS,
};

constexpr TableColumn columns[COLUMNS] = {
    {"PARTITION", false, 6, 4}, {"SHARE", false, 6, 6}, {"STATE", false, 6, 5},
    {"SIZE", true, 0, 8},       {"USED", false, 0, 9},  {"FILESYSTEM", false, 0, 10},
    {"MODE", false, 0, 7},      {"WHO", false, 9, 11},
};
static_assert(COLUMNS <= table_columns);

constexpr Colour state_colours[ITEM_STATES] = {
    COLOUR_GOOD, COLOUR_GOOD, COLOUR_WARN, COLOUR_DIM, COLOUR_BAD,
    COLOUR_WARN, COLOUR_GOOD, COLOUR_BAD,  COLOUR_DIM,
};

// The texts of a row that are made for it.
struct RowTexts {
    char state[256];
    char size[16];
    char used[64];
    char who[512];
};

} // namespace

static unsigned percent_used(const Item& item)
{
    uint64_t usable = item.used_bytes + item.free_bytes;
    uint64_t used = item.used_bytes;
    // As in size_format, no long division.
    for (; usable > 1 << 24; usable >>= 1)
        used >>= 1;
    return usable == 0 ? 0 : static_cast<unsigned>(used) * 100 / static_cast<unsigned>(usable);
}

static void fill_row(const Terminal& out, const Item& item, RowTexts* texts, TableRow* row)
{
    TableCell* cells = row->cells;
    const char* share = item.share;
    if (share == nullptr && item.settings != nullptr)
        share = item.settings->sharename;
    (void)snprintf(texts->state, sizeof texts->state, "%s%s%s", item_state_word(item.state),
                   item.reason != nullptr ? ": " : "", item.reason != nullptr ? item.reason : "");
    if (item.size_bytes > 0)
        size_format(item.size_bytes, texts->size);
    if (item.mount != nullptr)
        bar_format(out, percent_used(item), texts->used);
    item_access(item, texts->who, sizeof texts->who);
    cells[COLUMN_NAME] = {item_name(item), COLOUR_BOLD};
    cells[COLUMN_SHARE] = {share, COLOUR_NONE};
    cells[COLUMN_STATE] = {texts->state, state_colours[item.state]};
    cells[COLUMN_SIZE] = {texts->size, COLOUR_NONE};
    cells[COLUMN_USED] = {texts->used, COLOUR_NONE};
    cells[COLUMN_FILESYSTEM] = {item_filesystem(item), COLOUR_NONE};
    cells[COLUMN_MODE] = {item_is_readonly(item) ? "read-only" : "", COLOUR_WARN};
    cells[COLUMN_WHO] = {texts->who, COLOUR_NONE};
}

static int print_table(const CallArgs& args, const View& view)
{
    const MemGuard<RowTexts> texts(
        static_cast<RowTexts*>(calloc(view.count + 1, sizeof(RowTexts))));
    const MemGuard<TableRow> rows(static_cast<TableRow*>(calloc(view.count + 1, sizeof(TableRow))));
    if (!texts || !rows)
        return complain_errno(nullptr, ENOMEM);
    size_t count = 0;
    for (size_t i = 0; i < view.count; i++) {
        if (!args.all && !item_is_present(view.items[i]))
            continue;
        fill_row(args.out, view.items[i], &texts.get()[count], &rows.get()[count]);
        count++;
    }
    if (count > 0)
        table_print(args.out, columns, COLUMNS, rows.get(), count);
    else
        text_print(args.out.out, "Nothing is plugged.\n");
    return EXIT_DONE;
}

static void print_json(const CallArgs& args, const View& view, const ProblemTable& problems)
{
    Json json = {.out = args.out.out, .more = false};
    json_begin(&json, "status");
    json_flag(&json, "service_runs", view.service_runs);
    json_open(&json, "items", '[');
    for (size_t i = 0; i < view.count; i++) {
        if (args.all || item_is_present(view.items[i]))
            item_json(&json, nullptr, view.items[i], true);
    }
    json_close(&json, ']');
    problems_json(&json, "problems", problems);
    json_end(&json);
}

// A line for each; "check" tells the rest.
static void print_problems(const CallArgs& args, const ProblemTable& problems)
{
    for (size_t i = 0; i < problems.count; i++) {
        if (problems.problems[i].note)
            continue;
        text_print(args.out.out, "! ");
        (void)text_show(args.out.out, problems.problems[i].text,
                        args.out.width > 2 ? args.out.width - 2 : SIZE_MAX);
        text_print(args.out.out, "\n");
    }
}

static int print_status(const CallArgs& args, const View& view, const ProblemTable& problems)
{
    if (args.json) {
        print_json(args, view, problems);
    } else {
        const int status = print_table(args, view);
        if (status != EXIT_DONE)
            return status;
        print_problems(args, problems);
    }
    return view.service_runs ? EXIT_DONE : EXIT_NO_SERVICE;
}

int call_status(const CallArgs& args)
{
    View view;
    ProblemTable problems = {};
    int status = look(*args.setup, &view);
    const int wrong =
        status == EXIT_DONE ? problems_find(*args.setup, view, PROBLEMS_QUICK, &problems) : 0;
    if (wrong < 0)
        status = complain_errno(nullptr, wrong);
    if (status == EXIT_DONE)
        status = print_status(args, view, problems);
    problems_end(&problems);
    view_end(&view);
    return status;
}

// ---- show ----

static void print_line(FILE* out, const char* name, const char* text)
{
    if (text != nullptr && text[0] != '\0')
        text_print(out, "%18s  %.4096s\n", name, text);
}

static void print_settings(FILE* out, const ConfDev* settings)
{
    for (const SettingRow& row : setting_rows) {
        char value[setting_value_size] = "";
        if (settings == nullptr)
            return;
        if (row.kind != SETTING_USERS) {
            setting_format(row, *settings, value);
            print_line(out, row.word, value);
        } else if ((settings->*row.users)->count > 0) {
            text_print(out, "%18s  ", row.word);
            users_show(out, settings->*row.users, false);
            text_print(out, "\n");
        }
    }
}

static void print_sizes(FILE* out, const Item& item)
{
    char size[16];
    char used[16];
    char left[16];
    size_format(item.size_bytes, size);
    size_format(item.used_bytes, used);
    size_format(item.free_bytes, left);
    if (item.mount != nullptr)
        text_print(out, "%18s  %s, %s used, %s free\n", "size", size, used, left);
    else if (item.size_bytes > 0)
        print_line(out, "size", size);
}

static void print_texts(FILE* out, const ItemTexts& texts, size_t from, size_t to)
{
    for (size_t i = from; i < to; i++)
        print_line(out, item_text_rows[i].word, texts.of[i]);
}

static void print_item(FILE* out, const Item& item, const HolderTable& holders)
{
    ItemTexts texts;
    item_texts(item, false, true, &texts);
    print_texts(out, texts, ITEM_TEXT_NAME, ITEM_TEXT_VENDOR);
    print_texts(out, texts, ITEM_TEXT_NODE, ITEM_TEXTS);
    print_sizes(out, item);
    print_texts(out, texts, ITEM_TEXT_KERNEL_NAME, ITEM_TEXT_NODE);
    print_texts(out, texts, ITEM_TEXT_VENDOR, ITEM_TEXT_KERNEL_NAME);
    print_line(out, "Mbit/s", item.texts[SHARE_SPEED]);
    char who[512];
    item_access(item, who, sizeof who);
    print_line(out, "who may enter", who);
    print_settings(out, item.settings);
    for (const FileServer& server : file_servers)
        file_server_print_share(out, server, item.directory);
    if (holders.count > 0)
        text_print(out, "%18s\n", "held by");
    holders_print(out, holders);
}

// Finds who holds the item; nobody where it is not there.
static int hold(const Item& item, HolderTable* holders)
{
    int result = 0;
    *holders = {};
    if (item.mount != nullptr)
        result = holders_find(*item.mount, holders);
    else if (item.state == ITEM_DIRECTORY)
        result = holders_find_below(item.directory, holders);
    if (result != 0)
        return complain_errno(nullptr, result);
    samba_name_clients(holders);
    return EXIT_DONE;
}

static void print_one(const CallArgs& args, const Item& item, const HolderTable& holders,
                      const char* call, bool whole)
{
    Json json = {.out = args.out.out, .more = false};
    if (!args.json) {
        if (whole)
            print_item(args.out.out, item, holders);
        else if (holders.count > 0)
            holders_print(args.out.out, holders);
        else
            text_print(args.out.out, "Nobody holds %s.\n", item_name(item));
        return;
    }
    json_begin(&json, call);
    item_json(&json, "item", item, whole);
    for (size_t i = 0; i < file_server_count && whole; i++)
        file_server_share_json(&json, file_servers[i], item.directory);
    holders_json(&json, "holders", holders);
    json_end(&json);
}

// What `show` and `who` have in common.
static int tell_of_one(const CallArgs& args, const char* call, bool whole)
{
    View view;
    HolderTable holders = {};
    int status = look(*args.setup, &view);
    if (status == EXIT_DONE) {
        const Item* item = target_find_one(view, args.words[0], &status);
        if (item != nullptr)
            status = hold(*item, &holders);
        if (item != nullptr && status == EXIT_DONE)
            print_one(args, *item, holders, call, whole);
    }
    holders_end(&holders);
    view_end(&view);
    return status;
}

int call_show(const CallArgs& args)
{
    return tell_of_one(args, "show", true);
}

int call_who(const CallArgs& args)
{
    if (geteuid() != 0)
        complain("only root sees who else holds files");
    return tell_of_one(args, "who", false);
}
