// Ends the TCP connections of a port, as "ss --kill" does: the kernel tells both sides that they
// are over. The kernel must have been built with CONFIG_INET_DIAG_DESTROY, and the caller needs
// CAP_NET_ADMIN.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Returns how many were ended; a negated errno, which is -EOPNOTSUPP for a kernel that cannot.
[[nodiscard]] int connections_end(uint16_t port);
