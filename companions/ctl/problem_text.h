// Problems as people and as programs read them.
#pragma once

#include "ctl/json.h"
#include "ctl/problems.h"
#include "ctl/terminal.h"

void problems_print(const Terminal& out, const ProblemTable& table);
void problems_json(Json* json, const char* key, const ProblemTable& table);
