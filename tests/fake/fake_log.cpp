#include "fake/fake_log.h"

#include "lib/log.h"

#include <stdarg.h>
#include <stdio.h>

#include <mutex>
#include <regex>
#include <utility>

static std::mutex mutex;
static std::vector<FakeLogLine> lines;

void log_write(int priority, const char* format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard<std::mutex> lock(mutex);
    lines.push_back({priority, text});
}

std::vector<FakeLogLine> fake_log_lines()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return lines;
}

std::vector<FakeLogLine> fake_log_take()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(lines, {});
}

void fake_log_clear()
{
    const std::lock_guard<std::mutex> lock(mutex);
    lines.clear();
}

std::vector<std::string> fake_log_texts()
{
    static const std::regex number("^([a-z_]+)\\([0-9]+\\)");
    std::vector<std::string> texts;
    for (const FakeLogLine& line : fake_log_lines())
        texts.push_back(std::regex_replace(line.text, number, "$1(#)"));
    return texts;
}
