// The label tools: one program with two names, mlabel for FAT and ntfsvlabel for NTFS. They take
// the one command line that the service uses and print the volume's label. They read it with
// util-linux's blkid and never open the device themselves.
#pragma once

#include "label/label_text.h"

struct LabelTool {
    const char* name;
    const char* filesystem; // blkid's word
    const char* usage;
    int node;             // the node's place among the arguments
    const char* words[4]; // the arguments from the first on; null for the node, and at the end
    int argc;
    bool code_page; // see label_from_printed
};

// Returns the tool of that name, with or without folders before it; null for another name.
const LabelTool* label_tool_find(const char* program);

// Returns the node of a command line of the tool's one form; null for any other.
const char* label_tool_node(const LabelTool* tool, int argc, char* const argv[]);

enum class LabelOutcome {
    read,
    not_started,
    no_volume, // blkid saw no such filesystem there, or no device
    failed,
    too_long,
    timed_out, // blkid was killed and is not waited for
};

// Runs blkid on the node and stores what it printed. Takes less than 16 seconds, whatever it does.
[[nodiscard]] LabelOutcome label_tool_read(const LabelTool* tool, const char* node,
                                           char (&printed)[label_printed_size]);

// The program. Returns 0 with the label, possibly empty, and a line feed printed; 1 with nothing
// printed when it cannot be had; 2 for another command line or name. What is wrong is told on
// standard error.
[[nodiscard]] int label_main(int argc, char* argv[]);
