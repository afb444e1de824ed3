// The settings that administrators have made for devices, kept over a restart of the machine: a
// copy of the device file on a disk.
#pragma once

constexpr char settings_copy[] = "/var/lib/vyhotplugd/hotplug.dev.conf";

// Writes the copy back where the device file is missing or empty; else, or without a copy, does
// nothing. Returns 0; a negated errno, the device file as it was, which the caller tells.
[[nodiscard]] int settings_restore(const char* device_file);

// Copies the device file if it differs from the copy. A copy that holds something stays when the
// device file is missing or empty, which is told. Returns 0; a negated errno, the copy as it was,
// which the caller tells: -ELOOP or -EINVAL for a device file that is a link or no file, -EFBIG for
// one above 4 MiB.
[[nodiscard]] int settings_save(const char* device_file);
