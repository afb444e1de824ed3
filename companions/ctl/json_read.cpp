#include "ctl/json_read.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

namespace {

struct Reader {
    const char* at;
    const char* end;
    JsonVisit visit;
    void* context;
    char closing[json_depth]; // what ends each of those that are open
    JsonPath path;
};

} // namespace

static char peek(Reader* reader)
{
    while (reader->at < reader->end && strchr(" \t\r\n", *reader->at) != nullptr &&
           *reader->at != 0)
        reader->at++;
    return reader->at < reader->end ? *reader->at : '\0';
}

static bool take(Reader* reader, char wanted)
{
    if (wanted == '\0' || peek(reader) != wanted)
        return false;
    reader->at++;
    return true;
}

// ---- values ----

// The character behind a backslash; '\0' for none that JSON has.
static char take_escape(Reader* reader)
{
    static constexpr char from[] = "\"\\/bfnrt";
    static constexpr char to[] = "\"\\/\b\f\n\r\t";
    if (reader->at == reader->end || *reader->at == '\0')
        return '\0';
    const char letter = *reader->at++;
    const char* found = strchr(from, letter);
    if (found != nullptr)
        return to[found - from];
    char digits[5] = "";
    if (letter != 'u' || reader->end - reader->at < 4)
        return '\0';
    memcpy(digits, reader->at, 4);
    if (strspn(digits, "0123456789abcdefABCDEF") != 4)
        return '\0';
    reader->at += 4;
    const auto code = static_cast<unsigned>(strtoull(digits, nullptr, 16));
    return code > 0 && code < 0x80 ? static_cast<char>(code) : '?';
}

// Takes a text, as much of it as there is room for.
static bool take_text(Reader* reader, char* text, size_t size)
{
    size_t length = 0;
    if (!take(reader, '"'))
        return false;
    while (reader->at < reader->end && *reader->at != '"') {
        char c = *reader->at++;
        if (c == '\\')
            c = take_escape(reader);
        if (c == '\0')
            return false;
        if (length + 1 < size)
            text[length++] = c;
    }
    text[length] = '\0';
    return take(reader, '"');
}

// A number, or true, false, null.
static bool take_word(Reader* reader, char* text, size_t size)
{
    size_t length = 0;
    while (reader->at < reader->end && *reader->at != '\0' &&
           strchr(",]} \t\r\n", *reader->at) == nullptr) {
        if (length + 1 < size)
            text[length++] = *reader->at;
        reader->at++;
    }
    text[length] = '\0';
    return length > 0;
}

static bool take_plain(Reader* reader)
{
    char value[json_value_size];
    const bool taken = peek(reader) == '"' ? take_text(reader, value, sizeof value)
                                           : take_word(reader, value, sizeof value);
    if (taken)
        reader->visit(reader->context, reader->path, value);
    return taken;
}

// ---- objects and arrays ----

static bool is_in_object(const Reader& reader)
{
    return reader.path.count > 0 && reader.closing[reader.path.count - 1] == '}';
}

static bool open(Reader* reader, char closing)
{
    if (reader->path.count == json_depth)
        return false;
    reader->at++;
    reader->path.keys[reader->path.count][0] = '\0';
    reader->closing[reader->path.count++] = closing;
    return true;
}

// Closes all that end here. Afterwards everything has ended, or a further value follows.
static bool close_ended(Reader* reader)
{
    while (reader->path.count > 0) {
        if (take(reader, ','))
            return true;
        if (!take(reader, reader->closing[reader->path.count - 1]))
            return false;
        reader->path.count--;
    }
    return true;
}

static bool take_key(Reader* reader)
{
    return take_text(reader, reader->path.keys[reader->path.count - 1], json_key_size) &&
           take(reader, ':');
}

// Takes a value, or what begins one that holds others.
static bool take_value(Reader* reader)
{
    if (is_in_object(*reader) && !take_key(reader))
        return false;
    const char first = peek(reader);
    if (first != '{' && first != '[')
        return take_plain(reader) && close_ended(reader);
    const char closing = first == '{' ? '}' : ']';
    if (!open(reader, closing))
        return false;
    return peek(reader) != closing || close_ended(reader); // an empty one holds no value
}

bool json_read(const char* text, size_t size, JsonVisit visit, void* context)
{
    Reader reader = {};
    reader.at = text;
    reader.end = text + size;
    reader.visit = visit;
    reader.context = context;
    do {
        if (!take_value(&reader))
            return false;
    } while (reader.path.count > 0);
    return peek(&reader) == '\0' && reader.at == reader.end;
}
