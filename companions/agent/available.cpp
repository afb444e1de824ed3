#include "agent/available.h"

#include "agent/limits.h"
#include "config/filesystems.h"
#include "lib/file.h"

#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

static constexpr size_t list_most = 65536;
static constexpr size_t aliases_most = 16 << 20; // some 1.5 MB as a rule

bool available_in_list(const char* list, const char* type)
{
    const size_t length = strlen(type);
    while (*list != '\0') {
        const size_t line = strcspn(list, "\n");
        const auto* tab = static_cast<const char*>(memchr(list, '\t', line));
        if (tab != nullptr && line - static_cast<size_t>(tab + 1 - list) == length &&
            memcmp(tab + 1, type, length) == 0)
            return true;
        list += line + (list[line] == '\n' ? 1 : 0);
    }
    return false;
}

bool available_as_module(const char* aliases, const char* type)
{
    static constexpr char beginning[] = "alias fs-";
    const size_t length = strlen(type);
    for (const char* at = aliases; (at = strstr(at, beginning)) != nullptr;) {
        const bool begins_line = at == aliases || at[-1] == '\n';
        at += sizeof beginning - 1;
        if (begins_line && strncmp(at, type, length) == 0 && at[length] == ' ')
            return true;
    }
    return false;
}

// Where a machine's programs are; the service finds its driver on a PATH of its own.
static bool is_installed(const char* program)
{
    static constexpr const char* directories[] = {"/usr/local/sbin", "/usr/local/bin", "/usr/sbin",
                                                  "/usr/bin",        "/sbin",          "/bin"};
    for (const char* directory : directories) {
        char path[agent_path_size];
        (void)snprintf(path, sizeof path, "%s/%s", directory, program);
        if (access(path, X_OK) == 0)
            return true;
    }
    return false;
}

// The text is empty where there is no such file.
static const char* text_of(FileBytes* content, const char* path, size_t most)
{
    return file_read_all(path, 0, most, content) == 0 ? content->bytes.get() : "";
}

static uint32_t all()
{
    return (1U << filesystem_count) - 1;
}

uint32_t available_filesystems(const char* proc, const char* modules)
{
    static_assert(filesystem_count < 32);
    char path[agent_path_size];
    FileBytes list;
    FileBytes aliases;
    utsname kernel = {};
    (void)snprintf(path, sizeof path, "%s/filesystems", proc);
    if (file_read_all(path, 0, list_most, &list) != 0)
        return all();
    (void)uname(&kernel);
    (void)snprintf(path, sizeof path, "%s/%s/modules.alias", modules, kernel.release);
    const char* names = text_of(&aliases, path, aliases_most);
    uint32_t found = 0;
    for (int i = 0; i < filesystem_count; i++) {
        const Filesystem& row = filesystems[i];
        const bool can = row.driver != nullptr ? is_installed(row.driver)
                                               : available_in_list(list.bytes.get(), row.type) ||
                                                     available_as_module(names, row.type);
        found |= can ? 1U << i : 0;
    }
    return found;
}
