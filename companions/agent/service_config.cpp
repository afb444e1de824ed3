#include "agent/service_config.h"

#include <stdlib.h>
#include <unistd.h>

void service_config_release(ConfHotplug* config)
{
    char** const options[] = {&config->vfatoptions, &config->ntfsoptions, &config->extfsoptions};
    for (char** text : options) { // which stay otherwise until the process ends
        free(*text);
        *text = nullptr;
    }
    free_config_hotplug(config);
}

ConfHotplug* service_config_load(const char* path)
{
    return access(path, R_OK) == 0 ? load_config_hotplug(path) : nullptr;
}
