// The lines of an INI-style file one after the other, with their numbers: for who has to say where
// something stands. What a line means is as config/ini.h has it. Pure.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr size_t ini_key_size = 512;    // bytes with the NUL; the rest of a key does not count
constexpr size_t ini_value_size = 2048; // likewise

// All zero but the text's two ends before the first line.
struct IniLines {
    const char* at;
    const char* end;
    size_t feeds; // line feeds passed so far
};

enum IniLineKind : uint8_t {
    INI_LINE_HEADER, // ends a section and begins one: its name, up to the last "]", is the key
    INI_LINE_ENTRY,
};

struct IniLine {
    size_t number; // the first is 1
    IniLineKind kind;
    char key[ini_key_size];     // without its blanks, letter case as it stands
    char value[ini_value_size]; // without blanks at its ends
};

// Takes the next header or entry; false at the end of the text.
bool ini_lines_next(IniLines* lines, IniLine* line);
