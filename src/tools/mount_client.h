// The commands vymount and vyunmount: ask the running daemon to mount or unmount what a target
// names, and tell how it went on standard error.
#pragma once

// The commands themselves. Return -1 for who is not root or gives no target; 0 otherwise, also when
// the request failed: scripts have always gone by the text.
[[nodiscard]] int hotplug_mount_main(int argc, char* argv[]);
[[nodiscard]] int hotplug_unmount_main(int argc, char* argv[]);

// Send one request and wait for its answer, 60 seconds for a mount and 30 for an unmount. Return 0
// when the daemon answered success; -1 otherwise, and for a target that does not fit a message.
[[nodiscard]] int hotplug_cmd_mount(const char* target);
[[nodiscard]] int hotplug_cmd_unmount(const char* target);
