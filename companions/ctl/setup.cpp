#include "ctl/setup.h"

#include "config/config_file.h"
#include "ctl/terminal.h"
#include "lib/str.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static constexpr char package_config[] = "/etc/vyhotplugd/vyhotplugd.conf";
static constexpr char default_config[] = "/tmp/vynasmira/vyhotplugd.conf";

static int fail(const char* what, int error)
{
    (void)complain_errno(what, error);
    return -error;
}

int setup_begin(const SetupPaths& paths, Setup* setup)
{
    *setup = {};
    setup->paths = paths;
    if (paths.config == nullptr)
        setup->paths.config = access(package_config, F_OK) == 0 ? package_config : default_config;
    if (access(setup->paths.config, R_OK) != 0)
        return fail(setup->paths.config, errno);
    setup->config = load_config_hotplug(setup->paths.config);
    const ConfHotplug* config = setup->config;
    if (config == nullptr || config->smbconfigpath == nullptr ||
        config->deviceconfigpath == nullptr || config->mountpath == nullptr ||
        config->devicepath == nullptr)
        return fail(setup->paths.config, ENOMEM);
    if (strlen(config->mountpath) >= sizeof setup->mountroot)
        return fail("mountpath", ENAMETOOLONG);
    if (realpath(config->mountpath, setup->mountroot) == nullptr)
        str_cpy(setup->mountroot, config->mountpath); // nothing is mounted there, then
    (void)snprintf(setup->not_mounted, sizeof setup->not_mounted, "%s/not-mounted", paths.run);
    return 0;
}

// Frees a text that stays otherwise, for a mount layer that is not here.
static void end_text(char** text)
{
    free(*text);
    *text = nullptr;
}

void setup_end(Setup* setup)
{
    if (setup->config != nullptr) {
        end_text(&setup->config->vfatoptions);
        end_text(&setup->config->ntfsoptions);
        end_text(&setup->config->extfsoptions);
    }
    free_config_hotplug(setup->config);
    setup->config = nullptr;
}
