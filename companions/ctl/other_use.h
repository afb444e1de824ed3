// What else a disk is in use for, besides what the service has mounted of it.
#pragma once

#include "ctl/target.h"

// Tells on standard error each use of the disk that the service cannot end: a mount of what it has
// not mounted itself, a device that is made of the disk (LVM, RAID, encryption), a swap area. Where
// there is none of these: what other mount namespaces, those of containers, have mounted of it.
// `parts` are the service's own of it, `disk` is the whole one, null where sysfs does not show it.
// Returns whether there is any, or may be any: what cannot be looked at is told as well.
[[nodiscard]] bool other_use_tell(const View& view, const Targets& parts, const DiskPart* disk);

// The same of what is mounted still though the service has unmounted all of `parts`: it is mounted
// elsewhere, too. (What only follows the service's mount has gone with it.)
[[nodiscard]] bool other_use_tell_left(const Targets& parts);
