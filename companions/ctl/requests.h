// Mount and unmount requests, with an outcome that is true: what counts is whether the directory
// is mounted afterwards, whatever the service answered.
#pragma once

#include "ctl/status.h"
#include "ctl/view.h"

// Whether the item is mounted now. Writes the directory where it is, or would be.
[[nodiscard]] bool request_is_mounted(const Setup& setup, const Item& item,
                                      char (&directory)[PATH_MAX]);

// Has the service mount the item. Returns an exit status; a failure is told on standard error.
[[nodiscard]] ExitStatus request_mount(const Setup& setup, const Item& item);

// Has the service unmount it, by force if need be. Tells nothing but that there is no service.
// EXIT_BUSY: it is mounted still.
[[nodiscard]] ExitStatus request_unmount(const Setup& setup, const Item& item, bool force);

// Waits until nobody holds the item, for so many seconds at the most; 0 looks once. Returns
// whether nobody does. `told`: who does is printed on standard error then.
[[nodiscard]] bool request_wait_free(const Item& item, int limit_s, bool told);
