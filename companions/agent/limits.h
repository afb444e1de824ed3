// All of the agent's limits.
#pragma once

#include <stddef.h>
#include <stdint.h>

// ---- sizes ----

constexpr size_t agent_message_size = 512;   // a control message with its zero byte
constexpr size_t agent_path_size = 768;      // a path below sysfs, with its NUL
constexpr size_t agent_folder_size = 256;    // a directory named on the command line
constexpr size_t agent_devpath_size = 512;   // DEVPATH of an event
constexpr size_t agent_datagram_size = 8192; // an event; the kernel's own limit is about 4096
constexpr size_t agent_text_size = 400;      // a USB string: 126 characters, 378 bytes in UTF-8
constexpr int agent_netlink_buffer = 1024 * 1024; // events the kernel keeps while the agent works

// ---- numbers ----

constexpr uint32_t agent_queue_limit = 1024; // messages that wait for the daemon
constexpr uint32_t agent_table_limit = 512;  // devices the daemon has been told of
constexpr uint32_t agent_walk_limit = 1024;  // devices of one walk through sysfs
constexpr uint32_t agent_changed_limit = 16; // disks whose medium was changed while in use
constexpr uint8_t agent_checks = 6;          // looks whether a device that went is still mounted
constexpr int agent_events_at_once = 64;     // events taken before deliveries go on
constexpr int32_t agent_wait_default = 10;   // seconds that --once and --scan wait for the daemon
constexpr int32_t agent_wait_most = 86400;

// ---- times, in milliseconds ----

constexpr uint32_t agent_close_wait = 5000; // for the daemon to close a connection
constexpr uint32_t agent_retry_first = 250; // until a connection is tried again; doubled each time
constexpr uint32_t agent_retry_most = 2000;
constexpr uint32_t agent_daemon_look = 5000; // between two looks, where the kernel tells of no end
constexpr uint32_t agent_check_first = 5000; // until the first look for a mount; doubled each time
constexpr uint32_t agent_farewell_wait = 1000; // at the end, for a message that is under way
