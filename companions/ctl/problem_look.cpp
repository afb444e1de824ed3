#include "ctl/problem_look.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void problem_add(ProblemLook* look, const char* id, bool note, const char* remedy,
                 const char* format, ...)
{
    ProblemTable* table = look->table;
    char text[768];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (table->count == table->room) {
        const size_t room = table->room * 2 + 8;
        auto* grown = static_cast<Problem*>(realloc(table->problems, room * sizeof(Problem)));
        table->failed |= grown == nullptr;
        if (grown == nullptr)
            return;
        table->problems = grown;
        table->room = room;
    }
    char* copy = strdup(text);
    table->failed |= copy == nullptr;
    if (copy != nullptr)
        table->problems[table->count++] = {.id = id, .note = note, .text = copy, .remedy = remedy};
}

void problems_end(ProblemTable* table)
{
    for (size_t i = 0; i < table->count; i++)
        free(table->problems[i].text);
    free(table->problems);
    *table = {};
}
