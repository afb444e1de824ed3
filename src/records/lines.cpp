#include "records/lines.h"

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
