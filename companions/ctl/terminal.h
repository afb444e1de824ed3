// What people read: texts from media made fit for a terminal, and tables.
#pragma once

#include "ctl/status.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// What the stream is written for.
struct Terminal {
    FILE* out;
    size_t width; // columns; 0: no terminal, nothing is cut and nothing is drawn
    bool colour;
    bool utf8; // bars are drawn with block characters
};

// Looks at the stream and the environment (COLUMNS, NO_COLOR, LC_ALL, LC_CTYPE, LANG). Borrows the
// stream.
[[nodiscard]] Terminal terminal_open(FILE* out);

enum Colour : unsigned char {
    COLOUR_NONE,
    COLOUR_GOOD,
    COLOUR_WARN,
    COLOUR_BAD,
    COLOUR_DIM,
    COLOUR_BOLD,
};

// Columns that `text` takes when it is shown.
[[nodiscard]] size_t text_columns(const char* text);

// Shows at most `columns` columns of a text; one that is cut ends in "~". Control characters, bytes
// that are not UTF-8, and characters that turn the direction of writing or take no room are shown
// as "\x1b". Returns the columns taken.
size_t text_show(FILE* out, const char* text, size_t columns);

// Whether it is shown as it is, nothing of it as "\x1b".
[[nodiscard]] bool text_is_fit(const char* text);

// Prints as fprintf(3) does, but each %s as text_show does, %.80s no more columns of it than that;
// a null text is an empty one. A text with a width, as %18s, is printed as it is. Besides there are
// %d and %u, and no others.
__attribute__((format(printf, 2, 3))) void text_print(FILE* out, const char* format, ...);

// Tells on standard error what is wrong: the program's name, what text_print makes of the rest, and
// a line feed.
__attribute__((format(printf, 1, 2))) void complain(const char* format, ...);

// The same of an errno, negated or not, and what it happened to; null for nothing. Returns the exit
// status.
ExitStatus complain_errno(const char* what, int error);

// ---- tables ----

constexpr size_t table_columns = 9; // at most

struct TableCell {
    const char* text; // borrowed; null for none
    Colour colour;
};

struct TableRow {
    TableCell cells[table_columns];
};

struct TableColumn {
    const char* heading;
    bool right;    // numbers
    uint8_t least; // columns that are left when the table is too wide; 0: it is left out as a whole
    uint8_t rank;  // the highest is cut first
};

// Prints the table, no wider than the terminal as far as the columns can be cut.
void table_print(const Terminal& terminal, const TableColumn* columns, size_t column_count,
                 const TableRow* rows, size_t row_count);

// Writes the size in steps of 1000 ("8.0 GB").
void size_format(unsigned long long bytes, char (&text)[16]);

// Writes a bar of ten places and the percentage; the percentage alone where there is no terminal.
void bar_format(const Terminal& terminal, unsigned percent, char (&text)[64]);
