#include "ctl/problem_text.h"

#include <stdint.h>

void problems_print(const Terminal& out, const ProblemTable& table)
{
    for (size_t i = 0; i < table.count; i++) {
        const Problem& problem = table.problems[i];
        fprintf(out.out, "%s", problem.note ? "note: " : "");
        (void)text_show(out.out, problem.text, SIZE_MAX);
        fprintf(out.out, "\n    %s\n", problem.remedy);
    }
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
        json_text(json, "remedy", problem.remedy);
        json_close(json, '}');
    }
    json_close(json, ']');
}
