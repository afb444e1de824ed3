// The socket on which the kernel sends its device events.
#pragma once

#include <stddef.h>
#include <sys/types.h>

// Returns owned: a non-blocking descriptor; a negated errno.
[[nodiscard]] int netlink_open();

// Takes one message into `buffer` of `size` bytes. Returns its length; 0 for one that is not the
// kernel's, to be passed over; -EAGAIN when none is left; -ENOBUFS when messages were lost; another
// negated errno.
[[nodiscard]] ssize_t netlink_take(int fd, char* buffer, size_t size);
