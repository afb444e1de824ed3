#include "agent/survey.h"

#include "agent/limits.h"
#include "common/mountinfo.h"
#include "common/text.h"
#include "lib/guard.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

static constexpr char node_directory[] = "/dev/";
static constexpr size_t swap_line_size = 4096; // a path, with every byte written in octal
static constexpr size_t path_size = agent_folder_size + 32;

namespace {

// One partition of the disk, or the disk itself.
struct Part {
    BlockName name;
    int32_t major;
    int32_t minor;
    char text[block_name_size];
};

// Says how a part is in use. Returns 1 when it is, and writes it; 0; a negated errno when that
// cannot be said, and writes why.
using Usage = int (*)(const SurveyView& view, const Part& part, bool itself,
                      const Mountinfo* mounts, char (&reason)[survey_reason_size]);

} // namespace

// Returns `result`.
static int tell_trouble(const char* what, int result, char (&reason)[survey_reason_size])
{
    (void)snprintf(reason, sizeof reason, "%s: %s", what, strerror(-result));
    return result;
}

// ---- mounted ----

// The kernel names another device than the partition for filesystems that have several (btrfs), so
// the source's name counts as well.
static bool is_mount_of(const MountinfoEntry& mount, const Part& part)
{
    if (mount.major == static_cast<uint32_t>(part.major) &&
        mount.minor == static_cast<uint32_t>(part.minor))
        return true;
    const size_t length = strlen(node_directory);
    return strncmp(mount.source, node_directory, length) == 0 &&
           strcmp(mount.source + length, part.text) == 0;
}

static bool is_of_service(const SurveyView& view, const Part& part, bool itself,
                          const MountinfoEntry& mount)
{
    if (view.announced != nullptr && announced_is_ours(view.announced, part.major, part.minor))
        return true;
    return (view.leaving || !itself) && mountinfo_is_below(mount.directory, view.mount_directory);
}

static int find_mount(const SurveyView& view, const Part& part, bool itself,
                      const Mountinfo* mounts, char (&reason)[survey_reason_size])
{
    for (size_t i = 0; i < mounts->count; i++) {
        const MountinfoEntry& mount = mounts->entries[i];
        if (!is_mount_of(mount, part) || is_of_service(view, part, itself, mount))
            continue;
        (void)snprintf(reason, sizeof reason, "mounted at %s", mount.directory);
        return 1;
    }
    return 0;
}

// ---- swap ----

// Blanks stand as "\040", and nothing else that is written so occurs in a device's name.
static void decode_blanks(char* text)
{
    char* to = text;
    for (const char* from = text; *from != '\0'; to++) {
        const bool is_blank = strncmp(from, "\\040", 4) == 0;
        *to = is_blank ? ' ' : *from;
        from += is_blank ? 4 : 1;
    }
    *to = '\0';
}

const char* survey_swap_path(char* line)
{
    static constexpr char deleted[] = " (deleted)"; // what the kernel puts behind a removed node
    if (line[0] != '/')
        return nullptr;
    line[strcspn(line, " \t\n")] = '\0';
    decode_blanks(line);
    const size_t length = strlen(line);
    const size_t mark = sizeof deleted - 1;
    if (length > mark && strcmp(line + length - mark, deleted) == 0)
        line[length - mark] = '\0';
    return line;
}

static bool is_path_of(const char* path, const Part& part)
{
    const size_t length = strlen(node_directory);
    if (strncmp(path, node_directory, length) == 0 && strcmp(path + length, part.text) == 0)
        return true;
    struct stat status; // the node may be called otherwise
    return stat(path, &status) == 0 && S_ISBLK(status.st_mode) &&
           major(status.st_rdev) == static_cast<unsigned>(part.major) &&
           minor(status.st_rdev) == static_cast<unsigned>(part.minor);
}

static int find_swap(const SurveyView& view, const Part& part, bool, const Mountinfo*,
                     char (&reason)[survey_reason_size])
{
    char path[path_size];
    (void)snprintf(path, sizeof path, "%s/swaps", view.proc);
    const FileGuard swaps(fopen(path, "re"));
    if (!swaps && errno == ENOENT)
        return 0; // a kernel without swap has no table
    if (!swaps)
        return tell_trouble(path, -errno, reason);
    char line[swap_line_size];
    while (fgets(line, sizeof line, swaps.get()) != nullptr) {
        const char* swap = survey_swap_path(line);
        if (swap == nullptr || !is_path_of(swap, part))
            continue;
        (void)snprintf(reason, sizeof reason, "used as swap");
        return 1;
    }
    return ferror(swaps.get()) == 0 ? 0 : tell_trouble(path, -EIO, reason);
}

// ---- held ----

static int find_holder(const SurveyView& view, const Part& part, bool, const Mountinfo*,
                       char (&reason)[survey_reason_size])
{
    char holder[block_name_size];
    const int result = block_holder(view.sysfs, part.name, holder);
    if (result == -ENOENT)
        return 0;
    if (result != 0)
        return tell_trouble("its holders", result, reason);
    (void)snprintf(reason, sizeof reason, "held by %s", holder);
    return 1;
}

// ---- the disk ----

// Returns as block_numbers.
static int read_part(const SurveyView& view, const BlockName& name, Part* part)
{
    part->name = name;
    block_name_format(name, part->text);
    return block_numbers(view.sysfs, name, &part->major, &part->minor);
}

static int find_usage(const SurveyView& view, const Part& part, bool itself,
                      const Mountinfo* mounts, char (&reason)[survey_reason_size])
{
    static constexpr Usage usages[] = {find_mount, find_swap, find_holder};
    for (const Usage usage : usages) {
        const int result = usage(view, part, itself, mounts, reason);
        if (result != 0)
            return result;
    }
    return 0;
}

// Puts the other part's name before the reason.
static void name_part(const Part& part, char (&reason)[survey_reason_size])
{
    char plain[survey_reason_size];
    memcpy(plain, reason, sizeof plain);
    (void)snprintf(reason, sizeof reason, "%s is %s", part.text, plain);
}

// One partition of the disk, or the disk itself, of which `name` is another or the same.
static int judge_part(const SurveyView& view, const BlockName& name, const BlockName& other,
                      const Mountinfo* mounts, char (&reason)[survey_reason_size])
{
    Part part;
    const int found = read_part(view, other, &part);
    if (found == -ENOENT)
        return 0; // it has just gone
    if (found != 0)
        return tell_trouble(part.text, found, reason);
    const bool itself = block_name_compare(other, name) == 0;
    const int result = find_usage(view, part, itself, mounts, reason);
    if (result > 0 && !itself)
        name_part(part, reason);
    return result;
}

// Returns 1 for a disk of the machine's; 0; a negated errno when that cannot be said.
static int judge_disk(const SurveyView& view, const BlockName& name,
                      char (&reason)[survey_reason_size])
{
    char path[path_size];
    (void)snprintf(path, sizeof path, "%s/self/mountinfo", view.proc);
    MountinfoGuard mounts;
    int result = mountinfo_load(path, mounts.out());
    if (result != 0)
        return tell_trouble(path, result != -ENOENT ? result : -EIO, reason);
    static BlockList parts; // large for a stack
    result = block_list_disk(view.sysfs, name, &parts);
    if (result != 0)
        return tell_trouble("its partitions", result, reason);
    for (uint32_t i = 0; i < parts.count && result == 0; i++)
        result = judge_part(view, name, parts.names[i], mounts.get(), reason);
    return result;
}

int survey_device(const SurveyView& view, const BlockName& name, BlockDevice* device,
                  char (&reason)[survey_reason_size])
{
    const int found = block_device_read(view.sysfs, name, device);
    if (found == -ENOENT)
        return found;
    if (found != 0)
        return tell_trouble(view.sysfs, found, reason);
    if (device->empty) {
        (void)snprintf(reason, sizeof reason, "no medium");
        return 1;
    }
    const int result = view.all ? 0 : judge_disk(view, name, reason);
    if (result != 0)
        (void)text_clean(reason, ""); // a mount directory may have any name
    return result;
}
