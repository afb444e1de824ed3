#include "prepare/settings.h"

#include "lib/file.h"
#include "lib/sys.h"
#include "prepare/places.h"
#include "prepare/settings_loss.h"
#include "prepare/tell.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

static constexpr size_t most_bytes = 4 << 20; // far more than thousands of devices take
static constexpr mode_t device_file_mode = 0644;
static constexpr mode_t copy_mode = 0600;

// Reads a file that is no link; a missing file counts as empty.
static int read_file(const char* path, FileBytes* content)
{
    const int result = file_read_all(path, O_NOFOLLOW, most_bytes, content);
    return result == -ENOENT ? 0 : result;
}

// After a power cut the file has the old content or the new one.
static int replace_file(const char* path, const FileBytes& content, mode_t mode)
{
    return file_replace(path, content.bytes.get(), content.size, mode, FILE_DURABLE);
}

// Returns 1 when the device file holds something, 0 when not; a negated errno where nobody can say.
static int has_settings(const char* device_file)
{
    struct stat status;
    if (stat(device_file, &status) != 0)
        return errno == ENOENT ? 0 : -errno;
    return S_ISREG(status.st_mode) && status.st_size > 0 ? 1 : 0;
}

int settings_restore(const char* device_file)
{
    const int has = has_settings(device_file);
    if (has != 0)
        return has < 0 ? has : 0;
    FileBytes copy;
    const int result = read_file(settings_copy, &copy);
    if (result != 0)
        return result;
    return copy.size > 0 ? replace_file(device_file, copy, device_file_mode) : 0;
}

static bool is_same(const FileBytes& a, const FileBytes& b)
{
    return a.size == b.size && (a.size == 0 || memcmp(a.bytes.get(), b.bytes.get(), a.size) == 0);
}

static int make_copy(const FileBytes& settings)
{
    char directory[place_path_size];
    int result = place_parent(settings_copy, directory);
    if (result == 0)
        result = place_directory(directory);
    return result == 0 ? replace_file(settings_copy, settings, copy_mode) : result;
}

// ---- generations ----

namespace {

struct GenerationPath {
    char text[sizeof settings_copy + 4];
};

} // namespace

// The path of a generation; 0 is one that is being made.
static GenerationPath generation_path(int generation)
{
    GenerationPath path;
    (void)snprintf(path.text, sizeof path.text, "%s.%d", settings_copy, generation);
    return path;
}

static bool is_there(int generation)
{
    struct stat status;
    return lstat(generation_path(generation).text, &status) == 0 || errno != ENOENT;
}

static bool is_kept_already(const FileBytes& copy)
{
    FileBytes last;
    return read_file(generation_path(1).text, &last) == 0 && is_same(copy, last);
}

// Moves each generation to the next number, as far as they follow each other; the last one goes.
static int move_generations()
{
    int free = 1;
    while (free < settings_generations && is_there(free))
        free++;
    int result = 0;
    for (int generation = free; generation > 0 && result == 0; generation--)
        result = sys_rename(generation_path(generation - 1).text, generation_path(generation).text);
    return result;
}

// Keeps what is about to be replaced. It is on the disk before an older one goes.
static int keep_copy(const FileBytes& copy)
{
    if (is_kept_already(copy))
        return 0;
    int result = replace_file(generation_path(0).text, copy, copy_mode);
    if (result == 0)
        result = move_generations();
    if (result == 0)
        tell(LOG_NOTICE, "settings are gone or changed, those of before are in %s",
             generation_path(1).text);
    return result;
}

// Reads the copy. What is no file of a copy's is replaced, so it counts as empty.
static int read_copy(FileBytes* copy)
{
    const int result = read_file(settings_copy, copy);
    if (result != -ELOOP && result != -EINVAL && result != -EFBIG)
        return result;
    copy->size = 0;
    return 0;
}

static int save(const char* device_file, SettingsCheck check)
{
    FileBytes settings;
    FileBytes copy;
    int result = read_file(device_file, &settings);
    if (result == 0)
        result = read_copy(&copy);
    if (result != 0)
        return result;
    if (settings.size == 0 && copy.size > 0)
        tell(LOG_NOTICE, "%s holds nothing, %s stays as it is", device_file, settings_copy);
    if (settings.size == 0 || is_same(settings, copy))
        return 0;
    if (check != nullptr)
        check(device_file, settings.bytes.get(), settings.size);
    if (copy.size > 0 &&
        settings_lost(copy.bytes.get(), copy.size, settings.bytes.get(), settings.size))
        result = keep_copy(copy);
    return result == 0 ? make_copy(settings) : result;
}

static struct stat look_at(const char* path)
{
    struct stat status = {}; // of none
    (void)lstat(path, &status);
    return status;
}

static bool is_same_file(const struct stat& a, const struct stat& b)
{
    return a.st_ino == b.st_ino && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

int settings_save(const char* device_file, SettingsCheck check)
{
    int result = 0;
    for (int pass = 0; pass < settings_passes; pass++) {
        const struct stat before = look_at(device_file);
        result = save(device_file, check);
        if (result != 0 || is_same_file(before, look_at(device_file)))
            break;
    }
    return result;
}
