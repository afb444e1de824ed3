#include "ctl/requests.h"

#include "common/clock.h"
#include "ctl/holders.h"
#include "ctl/progress.h"
#include "ctl/samba.h"
#include "ctl/service.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "lib/vytime.h"

#include <stdio.h>
#include <string.h>

static constexpr int answer_limit_ms = 120000; // a hook may take 60 s, and so may the NTFS driver
static constexpr int attempts = 5;             // of a request whose answer was lost
static constexpr uint32_t look_ms = 200;
static constexpr int silence_ms = 3000; // for the service to carry out what it does not answer

bool request_is_mounted(const Setup& setup, const Item& item, char (&directory)[PATH_MAX])
{
    MountinfoGuard mounts;
    (void)snprintf(directory, sizeof directory, "%s/%s", setup.mountroot, item.name);
    if (mountinfo_load(mountinfo_path, mounts.out()) != 0)
        return item.mount != nullptr; // as far as is known
    for (size_t i = 0; i < mounts->count; i++) {
        if (strcmp(mounts->entries[i].directory, directory) == 0)
            return true;
    }
    return false;
}

// Waits for what a service that does not answer may do all the same.
static bool becomes(const Setup& setup, const Item& item, bool mounted)
{
    char directory[PATH_MAX];
    const uint64_t end = clock_now() + silence_ms;
    while (request_is_mounted(setup, item, directory) != mounted) {
        if (clock_now() >= end)
            return false;
        (void)vytime_msleep(look_ms);
    }
    return true;
}

// Sends the request until it is as wanted, or the service has refused.
static ExitStatus ask(const Setup& setup, const Item& item, bool mounted, bool force)
{
    char directory[PATH_MAX];
    for (int i = 0; i < attempts; i++) {
        Progress progress = progress_begin("waiting for the service");
        const ServiceAnswer answer = service_request(mounted ? "mount" : "unmount", item.name,
                                                     force, answer_limit_ms, &progress);
        progress_end(&progress);
        if (request_is_mounted(setup, item, directory) == mounted)
            return EXIT_DONE;
        if (answer == SERVICE_GONE) {
            (void)fputs("vyhotplugctl: the service is not running, or what answers is not root's\n",
                        stderr);
            return EXIT_NO_SERVICE;
        }
        if (answer != SERVICE_SILENT)
            return mounted ? EXIT_FAILED : EXIT_BUSY;
        if (becomes(setup, item, mounted))
            return EXIT_DONE;
    }
    return EXIT_FAILED;
}

ExitStatus request_mount(const Setup& setup, const Item& item)
{
    const ExitStatus status = ask(setup, item, true, false);
    if (status == EXIT_FAILED) {
        fprintf(stderr, "vyhotplugctl: %s could not be mounted%s%s\n", item.name,
                item.reason != nullptr ? ": " : "; what the service told: journalctl -u vyhotplugd",
                item.reason != nullptr ? item.reason : "");
    }
    return status;
}

ExitStatus request_unmount(const Setup& setup, const Item& item, bool force)
{
    return ask(setup, item, false, force);
}

static bool is_free(const Item& item, bool told)
{
    HolderTable holders = {};
    if (item.mount != nullptr && holders_find(*item.mount, &holders) != 0)
        perror("vyhotplugctl");
    const bool none = holders.count == 0;
    if (told && !none) {
        fprintf(stderr, "%s is busy:\n", item.name);
        samba_name_clients(&holders);
        holders_print(stderr, holders);
    }
    holders_end(&holders);
    return none;
}

bool request_wait_free(const Item& item, int limit_s, bool told)
{
    const uint64_t begin = clock_now();
    const uint64_t end = begin + static_cast<uint64_t>(limit_s) * 1000;
    Progress progress = progress_begin("waiting until nobody holds it");
    bool none = is_free(item, false);
    while (!none && clock_now() < end) {
        (void)vytime_msleep(look_ms);
        progress_tick(&progress, static_cast<int>(clock_now() - begin));
        none = is_free(item, false);
    }
    progress_end(&progress);
    return none || is_free(item, told);
}
