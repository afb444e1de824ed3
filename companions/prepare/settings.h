// Keeps the administrator's settings for devices over a restart of the machine: in a copy of the
// device file on disk.
#pragma once

constexpr char settings_copy[] = "/var/lib/vyhotplugd/hotplug.dev.conf";

// Writes the copy back if the device file is missing or empty and there is a copy. Returns 0; a
// negated errno, which the caller tells, the device file untouched.
[[nodiscard]] int settings_restore(const char* device_file);

// Copies the device file if it differs from the copy. If the device file is missing or empty, a
// copy that is not stays as it is, which is told. Returns 0; a negated errno, which the caller
// tells, the copy untouched: -ELOOP for a device file that is a link, -EINVAL for one that is no
// regular file, -EFBIG for one above 4 MiB.
[[nodiscard]] int settings_save(const char* device_file);
