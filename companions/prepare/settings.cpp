#include "prepare/settings.h"

#include "lib/file.h"
#include "prepare/places.h"
#include "prepare/tell.h"

#include <errno.h>
#include <fcntl.h>
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

static bool has_settings(const char* device_file)
{
    struct stat status;
    return stat(device_file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

int settings_restore(const char* device_file)
{
    if (has_settings(device_file))
        return 0;
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

int settings_save(const char* device_file)
{
    FileBytes settings;
    FileBytes copy;
    const int result = read_file(device_file, &settings);
    if (result != 0)
        return result;
    const bool readable = read_file(settings_copy, &copy) == 0; // else it is replaced
    if (settings.size == 0) {
        if (!readable || copy.size > 0)
            tell(LOG_NOTICE, "%s holds nothing, %s stays as it is", device_file, settings_copy);
        return 0;
    }
    return readable && is_same(settings, copy) ? 0 : make_copy(settings);
}
