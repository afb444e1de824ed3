// The label tools: one program with three names, mlabel for FAT, ntfsvlabel for NTFS and vylabel
// for any filesystem. They take the one command line that the service uses and print the volume's
// label. They run util-linux's blkid, confined (common/confine.h), and never open the device
// themselves.
#pragma once

#include "label/label_text.h"

struct LabelTool {
    const char* name;
    const char* filesystem; // as blkid calls it; null for any
    const char* usage;
    int node;             // index of the node in argv
    const char* words[4]; // argv from 1 on; null for the node and at the end
    int argc;
    bool code_page; // see label_from_printed
};

// Returns the tool for argv[0], which may be a path; null for another name.
const LabelTool* label_tool_find(const char* program);

// Returns the node in the tool's command line; null for a command line of another form.
const char* label_tool_node(const LabelTool* tool, int argc, char* const argv[]);

enum class LabelOutcome {
    read,
    not_started,
    no_volume, // blkid found no such filesystem, or no device
    failed,
    too_long,
    timed_out, // blkid was killed and is not waited for
};

// Runs blkid on the node and stores what it printed. Takes less than 16 seconds, whatever it does.
[[nodiscard]] LabelOutcome label_tool_read(const LabelTool* tool, const char* node,
                                           char (&printed)[label_printed_size]);

// The program. Returns 0 after printing the label, possibly empty, and a line feed; 1 if there is
// none to be had, nothing printed; 2 for another command line or name. Errors go to standard error.
[[nodiscard]] int label_main(int argc, char* argv[]);
