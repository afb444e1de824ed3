#include "agent/kernel_log.h"

#include "common/text.h"
#include "lib/str.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

static constexpr int32_t least_priority = 4; // a warning; from 8 on it is not the kernel's own line
static constexpr int records_at_once = 4096; // more than a kernel's buffer holds as a rule

// ---- one line ----

static bool find_name(const char* text, BlockName* name)
{
    static constexpr char of_words[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789_";
    for (;;) {
        text += strcspn(text, of_words);
        const size_t length = strspn(text, of_words);
        char word[block_name_size] = "";
        if (length == 0)
            return false;
        if (length < sizeof word)
            memcpy(word, text, length);
        if (block_name_parse(word, name))
            return true;
        text += length;
    }
}

bool kernel_line_parse(const char* record, KernelLine* line)
{
    char priority[8];
    const size_t length = strcspn(record, ",;");
    const char* message = strchr(record, ';');
    int32_t number = 0;
    if (message == nullptr || length >= sizeof priority)
        return false;
    memcpy(priority, record, length);
    priority[length] = '\0';
    if (str_to_long(priority, &number, 10) != 0 || number < 0 || number > least_priority)
        return false;
    *line = {};
    const size_t size = strcspn(message + 1, "\n");
    const size_t kept = size < sizeof line->text ? size : sizeof line->text - 1;
    memcpy(line->text, message + 1, kept);
    line->text[kept] = '\0';
    (void)text_clean(line->text, "");
    return find_name(line->text, &line->name);
}

int kernel_line_errno(const char* text)
{
    const char* minus = strrchr(text, '-');
    if (minus == nullptr || minus == text || strchr(" =", minus[-1]) == nullptr)
        return 0;
    char digits[8];
    const size_t length = strspn(minus + 1, "0123456789");
    if (length == 0 || length > 4)
        return 0;
    const char* rest = minus + 1 + length;
    memcpy(digits, minus + 1, length);
    digits[length] = '\0';
    int32_t number = 0;
    const bool ends = rest[strspn(rest, ").")] == '\0';
    return ends && str_to_long(digits, &number, 10) == 0 && number < 4096 ? number : 0;
}

// ---- the log ----

void kernel_log_open(KernelLog* log, const char* path)
{
    log->fd.reset(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (log->fd.get() >= 0)
        (void)lseek(log->fd.get(), 0, SEEK_END);
}

static KernelLine* begin(const KernelLog* log)
{
    return log->lines.get();
}

static KernelLine* end(const KernelLog* log)
{
    return log->lines.get() + log->count;
}

// A mount that fails is tried again, and the kernel says all of it again.
static bool repeats(const KernelLog* log, const KernelLine& line)
{
    for (KernelLine* kept = begin(log); kept != end(log); kept++) {
        if (strcmp(kept->text, line.text) != 0) // the name is in it
            continue;
        kept->time = line.time;
        return true;
    }
    return false;
}

static void keep(KernelLog* log, const KernelLine& line)
{
    if (!log->lines)
        log->lines.reset(static_cast<KernelLine*>(calloc(kernel_line_limit, sizeof(KernelLine))));
    if (!log->lines || repeats(log, line))
        return; // without memory the next one may find some
    if (log->count == kernel_line_limit)
        memmove(begin(log), begin(log) + 1, --log->count * sizeof line);
    begin(log)[log->count++] = line;
}

void kernel_log_forget(KernelLog* log, const BlockName& name)
{
    size_t kept = 0;
    for (const KernelLine* line = begin(log); line != end(log); line++) {
        if (block_name_compare(line->name, name) != 0)
            begin(log)[kept++] = *line;
    }
    log->count = kept;
}

void kernel_log_take(KernelLog* log, uint64_t now)
{
    for (int i = 0; log->fd.get() >= 0 && i < records_at_once; i++) {
        char record[2048]; // the kernel hands out one at a time, and none is longer as a rule
        const ssize_t length = read(log->fd.get(), record, sizeof record - 1);
        if (length == 0 || (length < 0 && errno != EPIPE && errno != EINTR && errno != EINVAL))
            return;
        KernelLine line;
        record[length > 0 ? length : 0] = '\0'; // lost records, and one that is too long, are none
        if (!kernel_line_parse(record, &line))
            continue;
        line.time = now;
        keep(log, line);
    }
}

const KernelLine* kernel_log_find(const KernelLog* log, const BlockName& name, const char* prefix,
                                  const char* part, uint64_t since)
{
    const KernelLine* first = nullptr;
    for (const KernelLine* line = begin(log); line != end(log); line++) {
        if (line->time <= since || block_name_compare(line->name, name) != 0 ||
            strncmp(line->text, prefix, strlen(prefix)) != 0 || strstr(line->text, part) == nullptr)
            continue;
        if (kernel_line_errno(line->text) != 0)
            return line;
        first = first == nullptr ? line : first;
    }
    return first;
}
