#include "ctl/requests.h"

#include "common/clock.h"
#include "ctl/holders.h"
#include "ctl/progress.h"
#include "ctl/samba.h"
#include "ctl/service.h"
#include "ctl/terminal.h"
#include "lib/str.h"
#include "lib/sys.h"
#include "lib/vytime.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

static constexpr int answer_limit_ms = 120000; // a hook may take 60 s, and so may the NTFS driver
static constexpr int attempts = 5;             // of a request whose answer was lost
static constexpr uint32_t look_ms = 200;
static constexpr uint32_t silence_ms = 3000; // for the service to carry out what it does not answer

// The same without the memory that the table takes.
static bool is_other_filesystem(const char* directory)
{
    struct stat status;
    struct stat above;
    char parent[PATH_MAX];
    (void)snprintf(parent, sizeof parent, "%s/..", directory);
    return stat(directory, &status) == 0 && stat(parent, &above) == 0 &&
           status.st_dev != above.st_dev;
}

bool request_is_mounted(const Setup& setup, const Item& item, char (&directory)[PATH_MAX])
{
    MountinfoGuard mounts;
    (void)snprintf(directory, sizeof directory, "%s/%s", setup.mountroot, item.name);
    if (mountinfo_load(mountinfo_path, mounts.out()) != 0)
        return is_other_filesystem(directory);
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
    const uint32_t begin = clock_ms();
    while (request_is_mounted(setup, item, directory) != mounted) {
        if (clock_ms() - begin >= silence_ms)
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
            complain("the service is not running, or what answers is not root's");
            return EXIT_NO_SERVICE;
        }
        if (answer != SERVICE_SILENT)
            return mounted ? EXIT_FAILED : EXIT_BUSY;
        if (becomes(setup, item, mounted))
            return EXIT_DONE;
    }
    return EXIT_FAILED;
}

// What was known before the request may not be the reason any more.
static void tell_unmounted(const Setup& setup, const Item& item)
{
    View now;
    const char* reason = nullptr;
    if (view_begin(setup, &now) == 0) {
        for (size_t i = 0; i < now.count; i++) {
            if (strcmp(now.items[i].name, item.name) == 0)
                reason = now.items[i].reason;
        }
    }
    if (reason != nullptr)
        complain("%s could not be mounted: %.500s", item.name, reason);
    else
        complain("%s could not be mounted; what the service told: journalctl -u vyhotplugd",
                 item.name);
    view_end(&now);
}

ExitStatus request_mount(const Setup& setup, const Item& item)
{
    const ExitStatus status = ask(setup, item, true, false);
    if (status == EXIT_FAILED)
        tell_unmounted(setup, item);
    return status;
}

ExitStatus request_unmount(const Setup& setup, const Item& item, bool force)
{
    return ask(setup, item, false, force);
}

static bool is_free(const Item& item, bool told)
{
    HolderTable holders = {};
    const int result = item.mount != nullptr ? holders_find(*item.mount, &holders) : 0;
    if (result != 0)
        (void)complain_errno(nullptr, result);
    const bool none = holders.count == 0;
    if (told && !none) {
        text_print(stderr, "%s is busy:\n", item.name);
        samba_name_clients(&holders);
        holders_print(stderr, holders);
    }
    holders_end(&holders);
    return none;
}

bool request_wait_free(const Item& item, int limit_s, bool told)
{
    const uint32_t begin = clock_ms();
    Progress progress = progress_begin("waiting until nobody holds it");
    bool none = is_free(item, false);
    for (int waited = 0; !none && waited < limit_s * 1000;) {
        (void)vytime_msleep(look_ms);
        waited = static_cast<int>(clock_ms() - begin);
        progress_tick(&progress, waited);
        none = is_free(item, false);
    }
    progress_end(&progress);
    return none || is_free(item, told);
}
