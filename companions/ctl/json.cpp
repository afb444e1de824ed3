#include "ctl/json.h"

#include "common/text.h"

#include <inttypes.h>
#include <string.h>

static void put(const Json* json, const char* text)
{
    // Whoever has the stream flushes it, and sees a failure there.
    (void)fwrite(text, 1, strlen(text), json->out);
}

static void put_character(const Json* json, const char* text, size_t length)
{
    const auto first = static_cast<uint8_t>(text[0]);
    if (length == 0)
        put(json, "\\ufffd");
    else if (first < 0x20 || first == 0x7f)
        fprintf(json->out, "\\u%04x", static_cast<unsigned>(first));
    else if (length == 2 && first == 0xc2 && static_cast<uint8_t>(text[1]) < 0xa0)
        fprintf(json->out, "\\u%04x", static_cast<unsigned>(static_cast<uint8_t>(text[1])));
    else if (first == '"' || first == '\\')
        fprintf(json->out, "\\%c", first);
    else
        (void)fwrite(text, 1, length, json->out);
}

static void put_string(const Json* json, const char* text)
{
    put(json, "\"");
    while (*text != '\0') {
        const size_t length = text_sequence(text);
        put_character(json, text, length);
        text += length != 0 ? length : 1;
    }
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
