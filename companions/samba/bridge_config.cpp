#include "samba/bridge_config.h"

#include "config/ini.h"
#include "lib/log.h"
#include "samba/include_text.h"

#include <stdlib.h>
#include <string.h>

static constexpr char log_tag[] = "bridge_config";

static bool is_path(const char* value)
{
    return value[0] == '/';
}

static bool is_user_or_empty(const char* value)
{
    return value[0] == '\0' || include_user_fits(value);
}

static bool is_given(const char* value)
{
    return value[0] != '\0';
}

namespace {

struct TextKey {
    const char* key;
    char* BridgeConfig::*field;
    const char* fallback;
    bool (*accepts)(const char* value);
};

constexpr TextKey text_keys[] = {
    {"includepath", &BridgeConfig::includepath, "/run/vynas-samba/shares.conf", is_path},
    {"administrator", &BridgeConfig::administrator, "root", include_user_fits},
    {"guest", &BridgeConfig::guest, "nobody", include_user_fits},
    {"forceuser", &BridgeConfig::forceuser, "", is_user_or_empty},
    {"smbcontrol", &BridgeConfig::smbcontrol, "smbcontrol", is_given},
};

} // namespace

// Fills one field. Returns 0; -1 when memory runs out.
static int load_text(const char* path, BridgeConfig* config, const TextKey& row)
{
    IniValueGuard value;
    (void)config_get_ini_string(path, "", row.key, value.out(), INI_LAST); // else the default
    const bool accepted = value && row.accepts(value.get());
    if (value && !accepted)
        VY_LOG(LOG_ERR, "%s = %s is not accepted, %s counts", row.key, value.get(), row.fallback);
    config->*row.field = strdup(accepted ? value.get() : row.fallback);
    return config->*row.field != nullptr ? 0 : -1;
}

BridgeConfig* bridge_config_load(const char* path)
{
    BridgeConfigGuard config(static_cast<BridgeConfig*>(calloc(1, sizeof(BridgeConfig))));
    if (!config)
        return nullptr;
    for (const TextKey& row : text_keys) {
        if (load_text(path, config.get(), row) != 0)
            return nullptr;
    }
    return config.take();
}

void bridge_config_free(BridgeConfig* config)
{
    for (const TextKey& row : text_keys)
        free(config->*row.field);
    free(config);
}
