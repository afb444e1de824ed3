// once GROUP WHO INPUT
//
// Runs one of the measured functions twice, to let it make what it makes only once, and tells of
// the second run, as JSON: what was found, allocations and their bytes. Under callgrind with
// --instr-atstart=no the second run's instructions are what is counted.
#include "functions/counted.h"
#include "functions/operations.h"

#include <stdio.h>
#include <string.h>
#include <syslog.h>

int main(int argc, char* argv[])
{
    if (argc != 4) {
        fprintf(stderr, "usage: once GROUP WHO INPUT\n");
        return 2;
    }
    setlogmask(LOG_UPTO(LOG_WARNING));
    const Input input = make_input(argv[3]);
    for (const Operation& operation : all_operations()) {
        if (strcmp(operation.group, argv[1]) != 0 || strcmp(operation.who, argv[2]) != 0)
            continue;
        (void)operation.run(input);
        const Allocations before = allocations_so_far();
        CALLGRIND_START_INSTRUMENTATION;
        const size_t found = operation.run(input);
        CALLGRIND_STOP_INSTRUMENTATION;
        const Allocations after = allocations_so_far();
        printf("{\"found\": %zu, \"allocations\": %zu, \"bytes\": %zu, \"size\": %zu}\n", found,
               after.count - before.count, after.bytes - before.bytes, input.size);
        return 0;
    }
    fprintf(stderr, "no operation %s of %s\n", argv[1], argv[2]);
    return 1;
}
