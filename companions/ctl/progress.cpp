#include "ctl/progress.h"

#include "ctl/terminal.h"
#include "lib/platform.h"

#include <unistd.h>

static constexpr int quiet_s = 2;

Progress progress_begin(const char* what)
{
    return {.what = what, .terminal = isatty(STDERR_FILENO) != 0, .told_s = 0};
}

void progress_tick(Progress* progress, int waited_ms)
{
    const int seconds = waited_ms / 1000;
    if (!progress->terminal || seconds < quiet_s || seconds == progress->told_s)
        return;
    text_print(stderr, "\r%s, %d s ", progress->what, seconds);
    (void)stream_flush(stderr); // there is no line feed
    progress->told_s = seconds;
}

void progress_end(Progress* progress)
{
    if (progress->told_s > 0)
        text_print(stderr, "\r\033[K");
    (void)stream_flush(stderr);
    progress->told_s = 0;
}
