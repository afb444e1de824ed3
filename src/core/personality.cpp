#include "core/personality.h"

#include "core/startup.h"
#include "tools/info_tool.h"
#include "tools/mount_client.h"

#include <string.h>

namespace {

struct Personality {
    const char* name;
    int (*run)(int argc, char* argv[]);
};

// In the order in which they are tried.
constexpr Personality personalities[] = {
    {"vyhotplugd", vyhotplug_main},
    {"vymount", hotplug_mount_main},
    {"vyunmount", hotplug_unmount_main},
    {"vyhotpluginfo", hotplug_info_main},
};

} // namespace

int progname(const char* path, const char* name)
{
    const char* found = strstr(path, name);
    if (found == nullptr || found[strlen(name)] != '\0')
        return 0;
    return found == path || found[-1] == '/' ? 1 : 0;
}

int personality_run(int argc, char* argv[])
{
    const char* path = argc > 0 && argv[0] != nullptr ? argv[0] : "";
    for (const Personality& personality : personalities) {
        if (progname(path, personality.name) != 0)
            return personality.run(argc, argv);
    }
    return vyhotplug_main(argc, argv);
}
