#include "prepare/mistakes.h"

#include "common/config_check.h"
#include "common/settings_check.h"
#include "lib/file.h"
#include "prepare/tell.h"

#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>

static constexpr size_t most_bytes = 4 << 20;
static constexpr size_t table_size = 16; // bytes of one of the kernel's settings

namespace {

struct About {
    const char* path;
};

} // namespace

static void tell_finding(void* context, const Finding& finding)
{
    char text[finding_text_size];
    finding_format(finding, text);
    tell(LOG_WARNING, "%s:%zu: %s", static_cast<About*>(context)->path, finding.line, text);
}

void mistakes_tell_config(const char* path)
{
    About about = {path};
    FileBytes content;
    const int result = file_read_all(path, 0, most_bytes, &content);
    if (result != 0)
        tell(LOG_WARNING, "%s is not looked through for mistakes: %s", path, strerror(-result));
    else
        (void)config_check(content.bytes.get(), content.size, tell_finding, &about); // told
}

static bool find_user(const char* name, uint32_t* id)
{
    const passwd* user = getpwnam(name); // there is one thread
    if (user != nullptr)
        *id = user->pw_uid;
    return user != nullptr;
}

void mistakes_tell_settings(const char* path, const char* text, size_t size)
{
    About about = {path};
    (void)settings_check(text, size, find_user, tell_finding, &about); // told
}

void mistakes_tell_settings_file(const char* path)
{
    FileBytes content;
    if (file_read_all(path, O_NOFOLLOW, most_bytes, &content) == 0)
        mistakes_tell_settings(path, content.bytes.get(), content.size);
}

void mistakes_tell_kernel()
{
    static constexpr const char* settings[] = {"protected_symlinks", "protected_regular",
                                               "protected_fifos"};
    for (const char* setting : settings) {
        char path[64];
        FileBytes value;
        (void)snprintf(path, sizeof path, "/proc/sys/fs/%s", setting);
        // An older kernel does not have all of them.
        if (file_read_all(path, 0, table_size, &value) != 0 || value.bytes.get()[0] != '0')
            continue;
        tell(LOG_WARNING,
             "fs.%s is 0, the kernel does not keep root from what others lay in /tmp: set it to 1",
             setting);
    }
}
