#include "share/include_file.h"

#include "lib/file.h"
#include "lib/sys.h"

#include <errno.h>
#include <string.h>

static constexpr mode_t file_mode = 0644; // smbd reads it under any user id
static constexpr mode_t directory_mode = 0755;

int include_file_read(const char* path, char** text)
{
    FileBytes content;
    const int result = file_read_all(path, 0, FILE_ANY_SIZE, &content);
    if (result != 0)
        return result;
    *text = content.bytes.take();
    return 0;
}

static int make_directory_of(const char* path)
{
    const char* slash = strrchr(path, '/');
    if (slash == nullptr || slash == path)
        return 0; // the root directory exists
    const MemGuard<char> directory(strndup(path, static_cast<size_t>(slash - path)));
    if (!directory)
        return -ENOMEM;
    const int result = sys_mkdir(directory.get(), directory_mode);
    return result == -EEXIST ? 0 : result;
}

int include_file_write(const char* path, const char* text)
{
    const int result = make_directory_of(path);
    return result == 0 ? file_replace(path, text, strlen(text), file_mode, 0) : result;
}
