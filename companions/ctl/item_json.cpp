#include "ctl/item_json.h"

#include "ctl/machine.h"
#include "ctl/settings.h"

#include <stdlib.h>
#include <string.h>

static constexpr const char* state_names[ITEM_STATES] = {
    "shared",  "mounted",   "busy", "unmounted", "not_mounted",
    "waiting", "directory", "gone", "absent",
};

void json_begin(Json* json, const char* call)
{
    json_open(json, nullptr, '{');
    json_text(json, "call", call);
    json_number(json, "version", json_version);
}

void json_end(Json* json)
{
    json_close(json, '}');
    (void)fputc('\n', json->out);
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

// The first that is there.
static const char* either(const char* a, const char* b)
{
    if (a != nullptr && a[0] != '\0')
        return a;
    return b != nullptr && b[0] != '\0' ? b : nullptr;
}

static void write_device(Json* json, const Item& item)
{
    const DiskPart* part = item.part;
    const char* speed = either(item.texts[SHARE_SPEED], part != nullptr ? part->speed : nullptr);
    json_open(json, "device", '{');
    json_text(json, "vendor",
              either(item.texts[SHARE_VENDOR], part != nullptr ? part->vendor : nullptr));
    json_text(json, "product",
              either(item.texts[SHARE_PRODUCT], part != nullptr ? part->product : nullptr));
    json_text(json, "serial",
              either(item.texts[SHARE_SERIAL], part != nullptr ? part->serial : nullptr));
    write_size(json, "speed_mbit_per_s", speed != nullptr ? strtoull(speed, nullptr, 10) : 0,
               speed != nullptr);
    json_text(json, "kernel_name", part != nullptr ? part->name : nullptr);
    char uuid[machine_uuid_size];
    const bool known = part != nullptr && machine_uuid(part->major, part->minor, uuid);
    json_text(json, "uuid", known ? uuid : nullptr);
    json_text(json, "node", item.mount != nullptr ? item.mount->source : nullptr);
    json_text(json, "mounted_as",
              item.mount == nullptr  ? nullptr
              : item.mount->readonly ? "read-only"
                                     : "read-write");
    json_text(json, "mount_flags", item.mount != nullptr ? item.mount->options : nullptr);
    json_close(json, '}');
}

void item_json(Json* json, const char* key, const Item& item, bool whole)
{
    const bool measured = item.mount != nullptr && item.size_bytes > 0;
    json_open(json, key, '{');
    json_text(json, "name", item.name[0] != '\0' ? item.name : nullptr);
    json_text(json, "identity", item.identity);
    json_text(json, "state", state_names[item.state]);
    json_text(json, "reason", item.reason);
    json_text(json, "share", item.share);
    json_text(json, "label", item_label(item));
    json_text(json, "directory", item.directory);
    json_text(json, "filesystem", item_filesystem(item));
    write_size(json, "size_bytes", item.size_bytes, item.size_bytes > 0);
    write_size(json, "used_bytes", item.used_bytes, measured);
    write_size(json, "free_bytes", item.free_bytes, measured);
    json_flag(json, "read_only", item_is_readonly(item));
    write_settings(json, item.settings);
    if (whole)
        write_device(json, item);
    json_close(json, '}');
}
