// What one file server is to the bridge. All that is true for any server stands in this folder; a
// server is one of these tables, and the file that fills it.
//
// The list of shares is a text of sections, "[name]" and lines "<tab>key = value", of which "path"
// tells the directory; behind them stands include_foot. Shares are compared, dropped and kept by
// these sections, so that the bridge itself never reads what a server makes of the other lines.
#pragma once

#include "share/bridge_config.h"
#include "share/notes.h"
#include "share/rights.h"
#include "share/share.h"
#include "share/share_name.h"
#include "share/text_buffer.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// The list's last line.
constexpr char include_foot[] = "[global]\n";

struct ShareServer {
    const char* program; // the bridge's own, as in its help, its log and its files' names
    const char* help;
    BridgeKeys keys; // of its configuration
    ShareNameRules names;

    // Lines whose change does not concern connected clients: their beginnings, null at the end.
    const char* const* harmless_lines;

    // Returns null for a path that the server's configuration can hold exactly; else what it cannot
    // hold: "a control character", ...
    const char* (*path_fault)(const char* path);

    const char* head; // the list's first lines

    // Adds a share's section. A share that the server cannot express as it is meant is left out,
    // and noted. Returns 0 or -ENOMEM; a text that could not grow is marked as failed.
    int (*write_share)(TextBuffer* text, const ExportedShare* exported, const Rights* rights,
                       const RightsSettings* settings, Notes* notes);

    // Reads the list that stands. Returns 0 and an owned text; a negated errno, `text` untouched.
    int (*read)(const BridgeConfig* config, char** text);

    // Replaces the list that stands. Returns 0; a negated errno, the old one untouched.
    int (*write)(const BridgeConfig* config, const char* text);

    // Has the server read its configuration again, or disconnect the clients of a share, and waits
    // for nothing. Returns the process that does it; 0 when it is done; a negated errno.
    pid_t (*reload)(const BridgeConfig* config);
    pid_t (*close)(const BridgeConfig* config, const char* share);

    const char* control_name; // what is run to tell the server, for the log
    int64_t settle_ms;        // from the end of a reload until the server goes by what it has read
    bool closes_all;          // to close one share is to close all
};
