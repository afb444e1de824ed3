#include "ctl/terminal.h"

#include "common/text.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

static constexpr size_t gap = 2;        // columns between two columns
static constexpr size_t widest = 10000; // columns of a terminal that are believed
static constexpr size_t default_width = 80;

// ---- the terminal ----

static const char* environment(const char* name)
{
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

static bool is_utf8()
{
    const char* locale = environment("LC_ALL");
    if (locale[0] == '\0')
        locale = environment("LC_CTYPE");
    if (locale[0] == '\0')
        locale = environment("LANG");
    return strcasestr(locale, "utf-8") != nullptr || strcasestr(locale, "utf8") != nullptr;
}

static size_t width_of(int fd)
{
    const unsigned long long told = strtoull(environment("COLUMNS"), nullptr, 10);
    if (told > 0 && told < widest)
        return static_cast<size_t>(told);
    winsize size = {};
    if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return default_width;
}

Terminal terminal_open(FILE* out)
{
    Terminal terminal = {.out = out, .width = 0, .colour = false, .utf8 = is_utf8()};
    const int fd = fileno(out);
    if (isatty(fd) == 0)
        return terminal;
    terminal.width = width_of(fd);
    terminal.colour =
        environment("NO_COLOR")[0] == '\0' && strcmp(environment("TERM"), "dumb") != 0;
    return terminal;
}

// ---- texts ----

namespace {

struct CharacterRange {
    uint32_t first;
    uint32_t last;
};

// What a terminal obeys, or what takes no room and hides what stands beside it.
constexpr CharacterRange unfit[] = {
    {0x00, 0x1f},     {0x7f, 0x9f},     {0xad, 0xad},     {0x61c, 0x61c},
    {0x180e, 0x180e}, {0x200b, 0x200f}, {0x2028, 0x202e}, {0x2060, 0x206f},
    {0xfe00, 0xfe0f}, {0xfeff, 0xfeff}, {0xfff9, 0xfffb}, {0xe0000, 0xe0fff},
};

// Two columns wide.
constexpr CharacterRange wide[] = {
    {0x1100, 0x115f}, {0x2e80, 0xa4cf}, {0xac00, 0xd7a3},   {0xf900, 0xfaff},
    {0xfe30, 0xfe6f}, {0xff00, 0xff60}, {0x1f300, 0x1faff}, {0x20000, 0x3fffd},
};

// Marks on the letter before them.
constexpr CharacterRange marks[] = {{0x300, 0x36f}};

// One character as it is shown.
struct Shown {
    const char* bytes;
    size_t length;
    size_t columns;
    char escape[8];
};

} // namespace

template <size_t N>
static bool is_in(const CharacterRange (&ranges)[N], uint32_t character)
{
    for (const CharacterRange& range : ranges) {
        if (character >= range.first && character <= range.last)
            return true;
    }
    return false;
}

static uint32_t decode(const char* text, size_t length)
{
    static constexpr uint8_t masks[] = {0, 0x7f, 0x1f, 0x0f, 0x07};
    uint32_t character = static_cast<uint8_t>(text[0]) & masks[length];
    for (size_t i = 1; i < length; i++)
        character = character << 6 | (static_cast<uint8_t>(text[i]) & 0x3fU);
    return character;
}

// Takes the character that the text begins with. Returns the bytes it takes there.
static size_t next_shown(const char* text, Shown* shown)
{
    const size_t length = text_sequence(text);
    const uint32_t character = length != 0 ? decode(text, length) : 0;
    if (!is_in(unfit, character)) {
        shown->bytes = text;
        shown->length = length;
        shown->columns = is_in(marks, character) ? 0 : is_in(wide, character) ? 2 : 1;
        return length;
    }
    (void)snprintf(shown->escape, sizeof shown->escape, "\\x%02x",
                   static_cast<unsigned>(static_cast<uint8_t>(text[0])));
    shown->bytes = shown->escape;
    shown->length = shown->columns = 4;
    return 1; // the bytes behind it are none of a character, and follow as such
}

size_t text_columns(const char* text)
{
    size_t columns = 0;
    Shown shown;
    while (*text != '\0') {
        text += next_shown(text, &shown);
        columns += shown.columns;
    }
    return columns;
}

bool text_is_fit(const char* text)
{
    Shown shown;
    while (*text != '\0') {
        text += next_shown(text, &shown);
        if (shown.bytes == shown.escape)
            return false;
    }
    return true;
}

static void show_bytes(FILE* out, const char* begin, const char* end)
{
    if (begin != end)
        (void)fwrite(begin, 1, static_cast<size_t>(end - begin), out);
}

size_t text_show(FILE* out, const char* text, size_t columns)
{
    const bool whole = text_columns(text) <= columns;
    if (columns == 0)
        return 0;
    const size_t room = whole ? columns : columns - 1;
    size_t taken = 0;
    const char* plain = text; // from here on as it stands
    Shown shown;
    while (*text != '\0') {
        const char* next = text + next_shown(text, &shown);
        if (taken + shown.columns > room)
            break;
        if (shown.bytes == shown.escape) {
            show_bytes(out, plain, text);
            (void)fwrite(shown.bytes, 1, shown.length, out);
            plain = next;
        }
        taken += shown.columns;
        text = next;
    }
    show_bytes(out, plain, text);
    if (!whole) {
        text_print(out, "~");
        taken++;
    }
    return taken;
}

// ---- sentences ----

// Prints what a conversion stands for. `at` is behind its "%". Returns what is behind the
// conversion.
static const char* print_argument(FILE* out, const char* at, va_list* arguments)
{
    char* kind = nullptr;
    const int width = static_cast<int>(strtoull(at, &kind, 10)); // of "-16" it is the negative
    const size_t columns =
        *kind == '.' ? static_cast<size_t>(strtoull(kind + 1, &kind, 10)) : SIZE_MAX;
    if (*kind != 's') {
        fprintf(out, *kind == 'd' ? "%*d" : "%*u", width, va_arg(*arguments, unsigned));
        return kind + 1;
    }
    const char* text = va_arg(*arguments, const char*);
    if (width != 0)
        fprintf(out, "%*s", width, text);
    else if (text != nullptr)
        (void)text_show(out, text, columns);
    return kind + 1;
}

static void print_list(FILE* out, const char* format, va_list* arguments)
{
    for (;;) {
        const size_t plain = strcspn(format, "%");
        (void)fwrite(format, 1, plain, out);
        format += plain;
        if (*format == '\0')
            return;
        format = print_argument(out, format + 1, arguments);
    }
}

void text_print(FILE* out, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print_list(out, format, &arguments);
    va_end(arguments);
}

void complain(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    text_print(stderr, "vyhotplugctl: ");
    print_list(stderr, format, &arguments);
    text_print(stderr, "\n");
    va_end(arguments);
}

ExitStatus complain_errno(const char* what, int error)
{
    complain("%s%s%s", what, what != nullptr ? ": " : "", strerror(error < 0 ? -error : error));
    return EXIT_FAILED;
}

// ---- tables ----

static const char* const colour_codes[] = {"",         "\033[32m", "\033[33m",
                                           "\033[31m", "\033[2m",  "\033[1m"};

static const char* cell_text(const TableCell& cell)
{
    return cell.text != nullptr ? cell.text : "";
}

static size_t table_width(const size_t* widths, size_t count)
{
    size_t sum = 0;
    for (size_t i = 0; i < count; i++) {
        if (widths[i] > 0)
            sum += widths[i] + gap;
    }
    return sum > gap ? sum - gap : 0;
}

// Cuts the column of the highest rank that can be cut still. Returns false when there is none.
static bool cut_one(const TableColumn* columns, size_t count, size_t excess, size_t* widths)
{
    size_t chosen = count;
    for (size_t i = 0; i < count; i++) {
        if (widths[i] > columns[i].least &&
            (chosen == count || columns[i].rank > columns[chosen].rank))
            chosen = i;
    }
    if (chosen == count)
        return false;
    const size_t least = columns[chosen].least;
    const size_t spare = widths[chosen] - least;
    widths[chosen] = least > 0 && spare > excess ? widths[chosen] - excess : least;
    return true;
}

// Leaves out the column of the highest rank. Returns false when only two are left.
static bool drop_one(const TableColumn* columns, size_t count, size_t* widths)
{
    size_t chosen = count;
    size_t left = 0;
    for (size_t i = 0; i < count; i++) {
        left += widths[i] > 0 ? 1 : 0;
        if (widths[i] > 0 && (chosen == count || columns[i].rank > columns[chosen].rank))
            chosen = i;
    }
    if (left <= 2)
        return false;
    widths[chosen] = 0;
    return true;
}

static void fit(size_t width, const TableColumn* columns, size_t count, size_t* widths)
{
    size_t wanted = 0;
    while (width > 0 && (wanted = table_width(widths, count)) > width) {
        if (!cut_one(columns, count, wanted - width, widths) && !drop_one(columns, count, widths))
            return;
    }
}

static void print_blanks(FILE* out, size_t count)
{
    fprintf(out, "%*s", static_cast<int>(count), "");
}

static void print_cell(const Terminal& terminal, const TableCell& cell, size_t width, bool right,
                       bool last)
{
    const char* text = cell_text(cell);
    const size_t needed = text_columns(text);
    const size_t padding = needed < width ? width - needed : 0;
    const bool coloured = terminal.colour && cell.colour != COLOUR_NONE && text[0] != '\0';
    if (right)
        print_blanks(terminal.out, padding);
    if (coloured)
        (void)fwrite(colour_codes[cell.colour], 1, strlen(colour_codes[cell.colour]), terminal.out);
    (void)text_show(terminal.out, text, width);
    if (coloured)
        text_print(terminal.out, "\033[0m");
    if (!last)
        print_blanks(terminal.out, (right ? 0 : padding) + gap);
}

static void print_row(const Terminal& terminal, const TableColumn* columns, const size_t* widths,
                      size_t count, const TableRow& row)
{
    size_t last = 0;
    for (size_t i = 0; i < count; i++)
        last = widths[i] > 0 ? i : last;
    for (size_t i = 0; i < count; i++) {
        if (widths[i] > 0)
            print_cell(terminal, row.cells[i], widths[i], columns[i].right, i == last);
    }
    text_print(terminal.out, "\n");
}

void table_print(const Terminal& terminal, const TableColumn* columns, size_t column_count,
                 const TableRow* rows, size_t row_count)
{
    size_t widths[table_columns] = {};
    TableRow heading = {};
    for (size_t i = 0; i < column_count; i++) {
        heading.cells[i] = {columns[i].heading, COLOUR_BOLD};
        widths[i] = text_columns(columns[i].heading);
        for (size_t r = 0; r < row_count; r++) {
            const size_t needed = text_columns(cell_text(rows[r].cells[i]));
            widths[i] = needed > widths[i] ? needed : widths[i];
        }
    }
    fit(terminal.width, columns, column_count, widths);
    print_row(terminal, columns, widths, column_count, heading);
    for (size_t r = 0; r < row_count; r++)
        print_row(terminal, columns, widths, column_count, rows[r]);
}

// ---- numbers ----

// Divides by 1000 and returns the rest. By hand, in pieces of 32 bits: a 32-bit processor divides
// what is longer by 2 kB of code.
static uint32_t take_thousandth(unsigned long long* number)
{
    const auto high = static_cast<uint32_t>(*number >> 32);
    const auto low = static_cast<uint32_t>(*number);
    const uint32_t middle = high % 1000 << 16 | low >> 16;
    const uint32_t last = middle % 1000 << 16 | (low & 0xffff);
    *number =
        static_cast<unsigned long long>(high / 1000) << 32 | (middle / 1000 << 16 | last / 1000);
    return last % 1000;
}

void size_format(unsigned long long bytes, char (&text)[16])
{
    static constexpr const char* units[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
    size_t unit = 0;
    unsigned rest = 0;
    while (bytes >= 1000) {
        rest = take_thousandth(&bytes);
        unit++;
    }
    const auto whole = static_cast<unsigned>(bytes);
    if (unit > 0 && whole < 10)
        (void)snprintf(text, sizeof text, "%u.%u %s", whole, rest / 100, units[unit]);
    else
        (void)snprintf(text, sizeof text, "%u %s", whole, units[unit]);
}

void bar_format(const Terminal& terminal, unsigned percent, char (&text)[64])
{
    static constexpr unsigned places = 10;
    size_t length = 0;
    text[0] = '\0';
    for (unsigned i = 0; i < places && terminal.width > 0; i++) {
        const bool full = i * 100 < percent * places;
        const char* place = terminal.utf8 ? (full ? "█" : "░") : (full ? "#" : ".");
        length += static_cast<size_t>(snprintf(text + length, sizeof text - length, "%s%s", place,
                                               i + 1 < places ? "" : " "));
    }
    (void)snprintf(text + length, sizeof text - length, "%3u %%", percent);
}
