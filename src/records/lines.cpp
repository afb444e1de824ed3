#include "records/lines.h"

#include "device/mount_entry.h"

int line_write(FILE* stream, const char* line)
{
    return line == nullptr || fputs(line, stream) != EOF ? 0 : -1;
}

int line_write_text(FILE* stream, const char* key, const char* text)
{
    if (text == nullptr)
        return 0;
    const bool written =
        fputs(key, stream) != EOF && fputs(text, stream) != EOF && fputc('\n', stream) != EOF;
    return written ? 0 : -1;
}

const char* line_of_filesystem(uint8_t filesystem)
{
    switch (filesystem) {
    case CONF_DEV_FS_EXT2:
        return "File System=EXT2\n";
    case CONF_DEV_FS_EXT3:
        return "File System=EXT3\n";
    case CONF_DEV_FS_FAT:
        return "File System=FAT\n";
    case CONF_DEV_FS_NTFS:
        return "File System=NTFS\n";
    default:
        return nullptr;
    }
}
