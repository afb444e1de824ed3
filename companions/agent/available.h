// Which filesystems can be mounted on this machine at all.
#pragma once

#include <stdint.h>

constexpr char modules_directory[] = "/lib/modules";

// Bit n of the answer: filesystems[n] of config/filesystems.h can be mounted, by a kernel that has
// it or has a module for it below `modules`/RELEASE, or by a driver that is installed. All bits
// where there is no looking into `proc`.
uint32_t available_filesystems(const char* proc, const char* modules);

// Whether the kernel's list of filesystems ("nodev\tsysfs\n\text4\n") holds the type. Pure.
bool available_in_list(const char* list, const char* type);

// Whether a line of modules.alias or modules.builtin.alias text is "alias fs-TYPE ...". Pure.
bool available_as_module(const char* aliases, const char* type);
