// All of the agent's limits.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Sizes in bytes, texts with their NUL.
constexpr size_t agent_message_size = 512;   // a control message
constexpr size_t agent_path_size = 768;      // a path below sysfs
constexpr size_t agent_folder_size = 256;    // a directory named on the command line
constexpr size_t agent_devpath_size = 512;   // DEVPATH of an event
constexpr size_t agent_datagram_size = 8192; // an event; the kernel's own limit is about 4096
constexpr size_t agent_text_size = 400;      // a USB string: 126 characters, 378 bytes in UTF-8
constexpr int agent_netlink_buffer = 1024 * 1024; // events the kernel keeps while the agent works

// Numbers.
constexpr uint32_t agent_table_limit = 512; // devices that the daemon was told of
constexpr uint32_t agent_drive_limit = 16;  // drives whose medium is asked about at once
constexpr uint8_t agent_looks = 6;          // looks whether a device that went is still mounted
constexpr int agent_events_at_once = 64;    // events taken before deliveries go on
constexpr int32_t agent_wait_default = 10;  // seconds that --once and --scan wait for the daemon
constexpr int32_t agent_wait_most = 86400;

// Times in milliseconds.
constexpr uint64_t agent_never = UINT64_MAX; // of what is due at no time
constexpr uint32_t agent_close_wait = 5000;  // for the daemon to close a connection
constexpr uint32_t agent_retry_first = 250;  // until something is tried again; doubled each time
constexpr uint32_t agent_retry_most = 2000;
constexpr uint32_t agent_daemon_look = 5000; // between two looks, where the kernel tells of no end
constexpr uint32_t agent_look_first = 5000;  // until the first look for a mount; doubled each time
constexpr uint32_t agent_first_answer = 10000; // from an announcement until it must be mounted
constexpr uint32_t agent_patience = 130000;   // until then, where a driver may be at it: twice 60 s
constexpr uint32_t agent_driver_pause = 2000; // until a driver's mount is read
constexpr uint32_t agent_file_pause =
    60000;                                // until a file that could not be written is tried again
constexpr uint32_t agent_reading = 15000; // for a drive; a sleeping disk has to spin up
constexpr uint32_t agent_farewell_wait = 1000; // at the end, for a message that is under way

// When something that failed is tried again. All zero: at once.
struct Retry {
    uint32_t pause; // the last one
    uint64_t due;
};

inline void retry_later(Retry* retry, uint64_t now)
{
    retry->pause = retry->pause == 0 ? agent_retry_first : retry->pause * 2;
    if (retry->pause > agent_retry_most)
        retry->pause = agent_retry_most;
    retry->due = now + retry->pause;
}
