// What Macs want of a share: names and streams as they know them, and Time Machine. Touches no
// world.
//
// Streams need a filesystem with extended attributes, which FAT, exFAT and NTFS have not. There
// Macs are offered none, and keep what belongs to a file in one beside it. A Mac expects all shares
// of a machine to be of one kind, so they all are for Macs or none is.
#pragma once

#include "share/rights.h"
#include "share/text_buffer.h"

// The bridge's own keys, in this order: "macs", "timemachine" and "timemachinesize".
enum SambaKey : uint8_t {
    SAMBA_MACS,
    SAMBA_TIMEMACHINE,
    SAMBA_TIMEMACHINE_SIZE,
};

// Adds the share's lines where `macs` is on or `timemachine` names any share. Where the share is to
// be one of these and cannot, that is noted. `own` are the keys' values, null for none of them.
void macs_write(TextBuffer* text, const ExportedShare* exported, const Rights* rights,
                const char* const* own, Notes* notes);

// Whether a value is one of "enable" and "disable" (letter case ignored).
[[nodiscard]] bool macs_is_switch(const char* value);

// Whether it is names with commas between them, none of them with what would end its line.
[[nodiscard]] bool macs_is_list(const char* value);

// Whether it is a number of bytes, with K, M, G or T for more, or empty: no limit.
[[nodiscard]] bool macs_is_size(const char* value);
