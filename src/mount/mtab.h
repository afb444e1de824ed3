// The mount table "/etc/mtab", of the daemon's keeping. Where it is a symbolic link into proc(5) it
// shows the kernel's own table: that needs no keeping and is left alone.
#pragma once

// Appends one line. A table that cannot be opened is passed over.
void mtab_append(const char* devnode, const char* mountpoint, const char* type,
                 const char* options);

// Rewrites the table, through "/tmp/mntent.tmp", without the lines of that node at that directory.
// When the rewrite fails on the way the table stays as it was, and the temporary file is left.
// `strict` makes the temporary file with trust_create (lib/trust.h).
void mtab_remove(const char* devnode, const char* mountpoint, bool strict = false);
