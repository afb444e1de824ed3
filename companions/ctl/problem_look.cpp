#include "ctl/problem_look.h"

#include "ctl/array.h"
#include "lib/str.h"

#include <ctype.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// Writes what a conversion of a format stands for: %s, %d or %zu, and there are no others here.
// Returns how many bytes of the format it takes.
static size_t write_argument(const char* conversion, char* text, size_t room, va_list* arguments)
{
    if (conversion[1] == 's')
        str_ncpy(text, va_arg(*arguments, const char*), static_cast<int32_t>(room));
    else if (conversion[1] == 'd')
        (void)snprintf(text, room, "%d", va_arg(*arguments, int));
    else
        (void)snprintf(text, room, "%zu", va_arg(*arguments, size_t));
    return conversion[1] == 'z' ? 3 : 2;
}

// Writes a sentence as vsnprintf does, and notes where in it the arguments stand.
static void write_text(const char* format, va_list* arguments, char (&text)[problem_text_size],
                       Problem* problem)
{
    size_t length = 0;
    while (*format != '\0' && length + 1 < sizeof text) {
        if (*format != '%') {
            text[length++] = *format++;
            continue;
        }
        const size_t begin = length;
        format += write_argument(format, text + begin, sizeof text - begin, arguments);
        length += strlen(text + begin);
        if (problem->argument_count < problem_arguments)
            problem->arguments[problem->argument_count++] = {.begin = begin, .end = length};
    }
    text[length] = '\0';
}

// A problem that has no text yet.
static Problem wordless(const char* id, bool note, Remedy remedy)
{
    return {.id = id,
            .note = note,
            .text = nullptr,
            .remedy = remedy,
            .arguments = {},
            .argument_count = 0};
}

// Takes a problem but for its text, which is copied.
static void append(ProblemTable* table, Problem* problem, const char* text)
{
    void* grown = array_grow(table->problems, table->count, sizeof(Problem));
    if (grown != nullptr)
        table->problems = static_cast<Problem*>(grown);
    problem->text = grown != nullptr ? strdup(text) : nullptr;
    table->failed |= problem->text == nullptr;
    if (problem->text != nullptr)
        table->problems[table->count++] = *problem;
}

void problem_add(ProblemLook* look, const char* id, bool note, Remedy remedy, const char* format,
                 ...)
{
    char text[problem_text_size];
    Problem problem = wordless(id, note, remedy);
    va_list arguments;
    va_start(arguments, format);
    write_text(format, &arguments, text, &problem);
    va_end(arguments);
    append(look->table, &problem, text);
}

void problem_add_texts(ProblemLook* look, bool note, const FaultTexts& texts)
{
    Problem problem = wordless(texts.id, note, {.text = texts.remedy, .prose = texts.prose});
    append(look->table, &problem, texts.text);
}

// Lends the argument that "$0" stands for; null for any other text.
static const TextPart* argument_of(const Problem& problem, const char* text)
{
    if (problem.remedy.prose || text[0] != '$')
        return nullptr;
    const auto nth = static_cast<size_t>(text[1] - '0');
    return nth < problem.argument_count ? &problem.arguments[nth] : nullptr;
}

// Whether a shell takes it for what it is.
static bool is_plain(char letter)
{
    return isalnum(static_cast<unsigned char>(letter)) != 0 || letter < '\0' ||
           strchr("/.:_-+@,", letter) != nullptr;
}

void problem_remedy(const Problem& problem, char (&text)[problem_text_size])
{
    size_t length = 0;
    for (const char* from = problem.remedy.text; *from != '\0' && length + 1 < sizeof text;) {
        const TextPart* argument = argument_of(problem, from);
        if (argument == nullptr) {
            text[length++] = *from++;
            continue;
        }
        from += 2;
        for (size_t i = argument->begin; i < argument->end && length + 2 < sizeof text; i++) {
            if (!is_plain(problem.text[i]))
                text[length++] = '\\';
            text[length++] = problem.text[i];
        }
    }
    text[length] = '\0';
}

void problems_end(ProblemTable* table)
{
    for (size_t i = 0; i < table->count; i++)
        free(table->problems[i].text);
    free(table->problems);
    *table = {};
}
