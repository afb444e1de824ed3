// The command vyhotpluginfo: lists the devices that the daemon knows, or describes one, from the
// files that the daemon writes. Results go to standard output, errors to standard error.
#pragma once

// The command itself (man 1 vyhotpluginfo). Returns 0, -1 on any error.
[[nodiscard]] int hotplug_info_main(int argc, char* argv[]);

// Prints every identifier of the device file, one on a line. Returns 0, -1 when it cannot be read.
[[nodiscard]] int hotplug_info_list(const char* device_file);

// Prints what the device file and the share file hold of one device, plugged or not. Each is read
// once. Returns 0; -1, with nothing printed, when the device file does not know the identifier or
// one of the files cannot be read.
[[nodiscard]] int hotplug_info_devinfo(const char* device_file, const char* share_file,
                                       const char* identifier);
