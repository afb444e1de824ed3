// Keeps the administrator's settings for devices over a restart of the machine: in a copy of the
// device file on disk.
#pragma once

#include <stddef.h>

constexpr char settings_copy[] = "/var/lib/vyhotplugd/hotplug.dev.conf";

// Writes the copy back if the device file is missing or empty and there is a copy. Returns 0; a
// negated errno, which the caller tells, the device file untouched.
[[nodiscard]] int settings_restore(const char* device_file);

// Copies the device file if it differs from the copy. If the device file is missing or empty, a
// copy that is not stays as it is, which is told. A copy that holds settings which the device file
// has lost (settings_loss.h) is kept under the name of the copy and ".1", the one before that as
// ".2", and so on up to settings_generations; where that fails the copy stays as it is. Returns 0;
// a negated errno, which the caller tells, the copy untouched: -ELOOP for a device file that is a
// link, -EINVAL for one that is no regular file, -EFBIG for one above 4 MiB.
//
// A device file that is another one by then is copied anew, settings_passes times at the most: who
// starts this for each change may not see one that is made while it runs, as on flash for a second.
//
// `check` is called with the content before it is copied, if it differs; it may be null.
constexpr int settings_generations = 5;
constexpr int settings_passes = 8;
using SettingsCheck = void (*)(const char* device_file, const char* text, size_t size);
[[nodiscard]] int settings_save(const char* device_file, SettingsCheck check);
