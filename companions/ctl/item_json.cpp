#include "ctl/item_json.h"

#include "ctl/item_text.h"
#include "ctl/settings.h"
#include "ctl/terminal.h"

#include <stdlib.h>
#include <string.h>

void json_begin(Json* json, const char* call)
{
    json_open(json, nullptr, '{');
    json_text(json, "call", call);
    json_number(json, "version", json_version);
}

void json_end(Json* json)
{
    json_close(json, '}');
    text_print(json->out, "\n");
    json->more = false;
}

static void write_users(Json* json, const char* key, const vylist* users)
{
    json_open(json, key, '[');
    for (const vylist_node* node = users->next; node != vylist_end(users); node = node->next) {
        const int32_t uid = *static_cast<const int32_t*>(node->data);
        char name[64];
        user_format(static_cast<unsigned>(uid), name, sizeof name);
        json_open(json, nullptr, '{');
        json_number(json, "uid", uid);
        json_text(json, "name", name);
        json_close(json, '}');
    }
    json_close(json, ']');
}

static void write_setting(Json* json, const SettingRow& row, const ConfDev& settings)
{
    char value[setting_value_size];
    if (row.kind == SETTING_USERS)
        return write_users(json, row.json, settings.*row.users);
    if (row.kind == SETTING_SWITCH)
        return json_flag(json, row.json, settings.*row.number != 0);
    setting_format(row, settings, value);
    json_text(json, row.json, value[0] != '\0' ? value : nullptr);
}

static void write_settings(Json* json, const ConfDev* settings)
{
    if (settings == nullptr)
        return json_null(json, "settings");
    json_open(json, "settings", '{');
    for (const SettingRow& row : setting_rows)
        write_setting(json, row, *settings);
    json_close(json, '}');
}

static void write_size(Json* json, const char* key, uint64_t bytes, bool known)
{
    if (known && bytes <= INT64_MAX)
        json_number(json, key, static_cast<int64_t>(bytes));
    else
        json_null(json, key);
}

static void write_texts(Json* json, const ItemTexts& texts, size_t from, size_t to)
{
    for (size_t i = from; i < to; i++)
        json_text(json, item_text_rows[i].json, texts.of[i]);
}

static void write_device(Json* json, const Item& item, const ItemTexts& texts)
{
    const char* speed =
        item_either(item.texts[SHARE_SPEED], item.part != nullptr ? item.part->speed : nullptr);
    json_open(json, "device", '{');
    write_texts(json, texts, ITEM_TEXT_VENDOR, ITEM_TEXT_KERNEL_NAME);
    write_size(json, "speed_mbit_per_s", speed != nullptr ? strtoull(speed, nullptr, 10) : 0,
               speed != nullptr);
    write_texts(json, texts, ITEM_TEXT_KERNEL_NAME, ITEM_TEXTS);
    json_close(json, '}');
}

void item_json(Json* json, const char* key, const Item& item, bool whole)
{
    const bool measured = item.mount != nullptr && item.size_bytes > 0;
    ItemTexts texts;
    item_texts(item, true, whole, &texts);
    json_open(json, key, '{');
    write_texts(json, texts, ITEM_TEXT_NAME, ITEM_TEXT_VENDOR);
    write_size(json, "size_bytes", item.size_bytes, item.size_bytes > 0);
    write_size(json, "used_bytes", item.used_bytes, measured);
    write_size(json, "free_bytes", item.free_bytes, measured);
    json_flag(json, "read_only", item_is_readonly(item));
    write_settings(json, item.settings);
    if (whole)
        write_device(json, item, texts);
    json_close(json, '}');
}
