#include "ctl/json.h"

#include "common/text.h"

#include <inttypes.h>
#include <string.h>

static void put(const Json* json, const char* text)
{
    // Whoever has the stream flushes it, and sees a failure there.
    (void)fwrite(text, 1, strlen(text), json->out);
}

static void put_bytes(const Json* json, const char* begin, const char* end)
{
    if (begin != end)
        (void)fwrite(begin, 1, static_cast<size_t>(end - begin), json->out);
}

// Whether a character stands in a string as it is: none that a terminal or a browser could obey
// (C0, C1, delete), nor one that JSON does.
static bool is_plain(const char* text, size_t length)
{
    const auto first = static_cast<uint8_t>(text[0]);
    const bool c1 = length == 2 && first == 0xc2 && static_cast<uint8_t>(text[1]) < 0xa0;
    return length != 0 && first >= 0x20 && first != 0x7f && !c1 && first != '"' && first != '\\';
}

static void put_escape(const Json* json, const char* text, size_t length)
{
    if (length == 0)
        put(json, "\\ufffd");
    else if (text[0] == '"' || text[0] == '\\')
        fprintf(json->out, "\\%c", text[0]);
    else // of two bytes the second is the character's number
        fprintf(json->out, "\\u%04x",
                static_cast<unsigned>(static_cast<uint8_t>(text[length - 1])));
}

static void put_string(const Json* json, const char* text)
{
    put(json, "\"");
    const char* plain = text; // from here on as it stands
    while (*text != '\0') {
        const size_t length = text_sequence(text);
        const char* next = text + (length != 0 ? length : 1);
        if (!is_plain(text, length)) {
            put_bytes(json, plain, text);
            put_escape(json, text, length);
            plain = next;
        }
        text = next;
    }
    put_bytes(json, plain, text);
    put(json, "\"");
}

// Writes what stands before a value.
static void begin(Json* json, const char* key)
{
    if (json->more)
        put(json, ",");
    json->more = true;
    if (key == nullptr)
        return;
    put_string(json, key);
    put(json, ":");
}

void json_open(Json* json, const char* key, char bracket)
{
    begin(json, key);
    (void)fwrite(&bracket, 1, 1, json->out);
    json->more = false;
}

void json_close(Json* json, char bracket)
{
    (void)fwrite(&bracket, 1, 1, json->out);
    json->more = true;
}

void json_text(Json* json, const char* key, const char* text)
{
    if (text == nullptr)
        return json_null(json, key);
    begin(json, key);
    put_string(json, text);
}

void json_number(Json* json, const char* key, int64_t number)
{
    begin(json, key);
    fprintf(json->out, "%" PRId64, number);
}

void json_flag(Json* json, const char* key, bool flag)
{
    begin(json, key);
    put(json, flag ? "true" : "false");
}

void json_null(Json* json, const char* key)
{
    begin(json, key);
    put(json, "null");
}
