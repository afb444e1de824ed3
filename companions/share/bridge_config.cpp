#include "share/bridge_config.h"

#include "config/ini.h"
#include "lib/log.h"

#include <stdlib.h>
#include <string.h>

static constexpr char log_tag[] = "bridge_config";

bool bridge_config_is_path(const char* value)
{
    return value[0] == '/';
}

bool bridge_config_is_given(const char* value)
{
    return value[0] != '\0';
}

namespace {

// One entry, and what tells whether its value is accepted.
struct Entry {
    const char* key;
    const char* fallback;
    bool (*accepts)(const char* value);
    bool may_be_empty;
};

} // namespace

// Fills one field. Returns 0; -1 when memory runs out.
static int load_entry(const char* path, const Entry& entry, char** field)
{
    IniValueGuard value;
    (void)config_get_ini_string(path, "", entry.key, value.out(), INI_LAST); // else the default
    const bool accepted =
        value && ((entry.may_be_empty && value.get()[0] == '\0') || entry.accepts(value.get()));
    if (value && !accepted)
        VY_LOG(LOG_ERR, "%s = %s is not accepted, %s counts", entry.key, value.get(),
               entry.fallback);
    *field = strdup(accepted ? value.get() : entry.fallback);
    return *field != nullptr ? 0 : -1;
}

static int load_text(const char* path, const BridgeKey& row, char** field)
{
    const Entry entry = {
        .key = row.key, .fallback = row.fallback, .accepts = row.accepts, .may_be_empty = false};
    return load_entry(path, entry, field);
}

static int load_users(const char* path, const BridgeKeys* keys, BridgeConfig* config)
{
    const Entry administrator = {"administrator", "root", keys->user_fits, false};
    const Entry guest = {"guest", "nobody", keys->user_fits, false};
    const Entry forceuser = {"forceuser", "", keys->user_fits, true};
    return load_entry(path, administrator, &config->administrator) == 0 &&
                   load_entry(path, guest, &config->guest) == 0 &&
                   load_entry(path, forceuser, &config->forceuser) == 0
               ? 0
               : -1;
}

// Fills all fields. Returns 0; -1 when memory runs out.
static int load_all(const char* path, const BridgeKeys* keys, BridgeConfig* config)
{
    if (load_text(path, keys->includepath, &config->includepath) != 0 ||
        load_users(path, keys, config) != 0 ||
        load_text(path, keys->control, &config->control) != 0)
        return -1;
    for (size_t i = 0; i < own_key_count && keys->own[i].key != nullptr; i++) {
        if (load_text(path, keys->own[i], &config->own[i]) != 0)
            return -1;
    }
    return 0;
}

BridgeConfig* bridge_config_load(const char* path, const BridgeKeys* keys)
{
    BridgeConfigGuard config(static_cast<BridgeConfig*>(calloc(1, sizeof(BridgeConfig))));
    if (!config || load_all(path, keys, config.get()) != 0)
        return nullptr;
    return config.take();
}

void bridge_config_free(BridgeConfig* config)
{
    char* const texts[] = {config->includepath, config->administrator, config->guest,
                           config->forceuser, config->control};
    for (char* text : texts)
        free(text);
    for (char* text : config->own)
        free(text);
    free(config);
}
