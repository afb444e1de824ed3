#include "label/label_tool.h"

#include "common/tool.h"
#include "lib/platform.h"
#include "lib/version.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

// blkid takes 0.06 s on a 400 MHz processor (docs/target.md), but a sleeping disk has to spin up.
// Less than the 20 s after which the service gives up.
static constexpr uint32_t limit_ms = 15000;
static constexpr int blkid_found_nothing = 2;

static constexpr LabelTool tools[] = {
    {.name = "mlabel",
     .filesystem = "vfat",
     .usage =
         "usage: mlabel -i NODE -n | --version\n"
         "Prints the volume label of a FAT filesystem. It never writes, and knows nothing else.\n",
     .node = 2,
     .words = {"-i", nullptr, "-n", nullptr},
     .argc = 4,
     .code_page = true},
    {.name = "ntfsvlabel",
     .filesystem = "ntfs",
     .usage = "usage: ntfsvlabel NODE -n | --version\n"
              "Prints the volume label of an NTFS filesystem. It never writes, and knows nothing "
              "else.\n",
     .node = 1,
     .words = {nullptr, "-n", nullptr, nullptr},
     .argc = 3,
     .code_page = false},
    {.name = "vylabel",
     .filesystem = nullptr,
     .usage = "usage: vylabel NODE | --version\n"
              "Prints the volume label of whatever filesystem there is. It never writes, and knows "
              "nothing else.\n",
     .node = 1,
     .words = {nullptr, nullptr, nullptr, nullptr},
     .argc = 2,
     .code_page = false},
};

// ---- the command line ----

const LabelTool* label_tool_find(const char* program)
{
    const char* slash = strrchr(program, '/');
    const char* name = slash != nullptr ? slash + 1 : program;
    for (const LabelTool& tool : tools) {
        if (strcmp(name, tool.name) == 0)
            return &tool;
    }
    return nullptr;
}

const char* label_tool_node(const LabelTool* tool, int argc, char* const argv[])
{
    if (argc != tool->argc)
        return nullptr;
    for (int i = 1; i < argc; i++) {
        const char* word = tool->words[i - 1];
        if (word != nullptr && strcmp(argv[i], word) != 0)
            return nullptr;
    }
    // No drive letter, and nothing that blkid would read as an option.
    return argv[tool->node][0] == '/' ? argv[tool->node] : nullptr;
}

// ---- blkid ----

// execvp takes strings of a writable type, but never writes to them.
static char* text(const char* constant)
{
    return const_cast<char*>(constant);
}

static LabelOutcome outcome_of(const Tool& blkid)
{
    switch (blkid.state) {
    case ToolState::not_started:
        return LabelOutcome::not_started;
    case ToolState::too_long:
        return LabelOutcome::too_long;
    case ToolState::timed_out:
        return LabelOutcome::timed_out;
    case ToolState::ended:
        break;
    case ToolState::none:
    case ToolState::running:
    case ToolState::crashed:
        return LabelOutcome::failed;
    }
    if (blkid.status == blkid_found_nothing)
        return LabelOutcome::no_volume;
    return blkid.status == 0 ? LabelOutcome::read : LabelOutcome::failed;
}

LabelOutcome label_tool_read(const LabelTool* tool, const char* node,
                             char (&printed)[label_printed_size])
{
    // Low-level probing without the cache (-p), without the disk's partition table (-D); what is
    // asked for alone (-s, -o), its bytes unchanged (-d).
    // For one filesystem alone (-n), so that a medium that looks like several has a label, too;
    // without one its type is asked for, which blkid prints behind the label.
    const bool any = tool->filesystem == nullptr;
    char* const argv[] = {text("blkid"),
                          text("-p"),
                          text("-D"),
                          text(any ? "-s" : "-n"),
                          text(any ? "TYPE" : tool->filesystem),
                          text("-s"),
                          text("LABEL"),
                          text("-o"),
                          text("value"),
                          text("-d"),
                          text(node),
                          nullptr};
    Tool blkid;
    tool_start(&blkid, argv, printed, sizeof printed, tool_now(), limit_ms);
    tool_wait(&blkid);
    return outcome_of(blkid);
}

// ---- the program ----

static const char* reason_of(LabelOutcome outcome)
{
    switch (outcome) {
    case LabelOutcome::not_started:
        return "blkid cannot be run";
    case LabelOutcome::no_volume:
        return "no such volume";
    case LabelOutcome::too_long:
        return "blkid prints more than a label";
    case LabelOutcome::timed_out:
        return "blkid does not end";
    case LabelOutcome::read:
    case LabelOutcome::failed:
        break;
    }
    return "blkid failed";
}

int label_main(int argc, char* argv[])
{
    const LabelTool* tool = argc > 0 ? label_tool_find(argv[0]) : nullptr;
    if (tool == nullptr) {
        fputs("to be started as mlabel, ntfsvlabel or vylabel\n", stderr);
        return 2;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        const int printed = printf("%s %s\n", tool->name, vy_build);
        return printed >= 0 && stream_flush(stdout) == 0 ? 0 : 1;
    }
    const char* node = label_tool_node(tool, argc, argv);
    if (node == nullptr) {
        fputs(tool->usage, stderr);
        return 2;
    }
    char printed[label_printed_size];
    const LabelOutcome outcome = label_tool_read(tool, node, printed);
    if (outcome != LabelOutcome::read) {
        fprintf(stderr, "%s: %s: %s\n", tool->name, node, reason_of(outcome));
        return 1;
    }
    char label[label_size];
    const bool of_fat = tool->filesystem == nullptr && label_take_type(printed, "vfat");
    label_from_printed(printed, tool->code_page || of_fat, label);
    return printf("%s\n", label) >= 0 && stream_flush(stdout) == 0 ? 0 : 1;
}
