#include "ctl/problem_text.h"

#include "lib/str.h"

#include <stdint.h>
#include <string.h>

void problems_print(const Terminal& out, const ProblemTable& table)
{
    for (size_t i = 0; i < table.count; i++) {
        const Problem& problem = table.problems[i];
        char remedy[problem_text_size];
        problem_remedy(problem, remedy);
        text_print(out.out, "%s%s\n    %s\n", problem.note ? "note: " : "", problem.text, remedy);
    }
}

// The text with $0, $1 ... where the arguments stand.
static void write_form(Json* json, const Problem& problem)
{
    char form[problem_text_size + 2 * problem_arguments];
    size_t length = 0;
    size_t at = 0;
    for (size_t i = 0; i < problem.argument_count; i++) {
        const TextPart& part = problem.arguments[i];
        memcpy(form + length, problem.text + at, part.begin - at);
        length += part.begin - at;
        form[length++] = '$';
        form[length++] = static_cast<char>('0' + i);
        at = part.end;
    }
    str_cpy(form + length, problem.text + at);
    json_text(json, "form", form);
}

static void write_arguments(Json* json, const Problem& problem)
{
    json_open(json, "arguments", '[');
    for (size_t i = 0; i < problem.argument_count; i++) {
        const TextPart& part = problem.arguments[i];
        char argument[problem_text_size];
        str_ncpy(argument, problem.text + part.begin,
                 static_cast<int32_t>(part.end - part.begin) + 1);
        json_text(json, nullptr, argument);
    }
    json_close(json, ']');
}

void problems_json(Json* json, const char* key, const ProblemTable& table)
{
    json_open(json, key, '[');
    for (size_t i = 0; i < table.count; i++) {
        const Problem& problem = table.problems[i];
        json_open(json, nullptr, '{');
        json_text(json, "id", problem.id);
        json_text(json, "severity", problem.note ? "note" : "problem");
        json_text(json, "text", problem.text);
        write_form(json, problem);
        write_arguments(json, problem);
        char remedy[problem_text_size];
        problem_remedy(problem, remedy);
        json_text(json, "remedy", remedy);
        json_text(json, "remedy_kind", problem.remedy.prose ? "prose" : "command");
        json_close(json, '}');
    }
    json_close(json, ']');
}
