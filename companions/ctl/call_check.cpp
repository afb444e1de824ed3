#include "ctl/call_check.h"

#include "ctl/call_status.h"
#include "ctl/item_json.h"
#include "ctl/problem_text.h"

static int tell(const CallArgs& args, const ProblemTable& table, int wrong)
{
    Json json = {.out = args.out.out, .more = false};
    if (!args.json) {
        problems_print(args.out, table);
        if (wrong == 0)
            text_print(args.out.out, "All is well.\n");
    } else {
        json_begin(&json, "check");
        problems_json(&json, "problems", table);
        json_end(&json);
    }
    return wrong == 0 ? EXIT_DONE : EXIT_FAILED;
}

int call_check(const CallArgs& args)
{
    View view;
    ProblemTable table = {};
    int status = look(*args.setup, &view);
    if (status == EXIT_DONE) {
        const int wrong = problems_find(
            *args.setup, view, args.offline ? PROBLEMS_CONFIGURATION : PROBLEMS_ALL, &table);
        status = wrong < 0 ? complain_errno(nullptr, wrong) : tell(args, table, wrong);
    }
    problems_end(&table);
    view_end(&view);
    return status;
}
