// Stands in for agent/netlink: the events come from the test. It is linked before the agent's
// library, so the library's own is not taken.
#pragma once

#include <string>

// Makes the two ends. To be called before the monitor is started, in the test's own process.
void fake_netlink_open();
void fake_netlink_close();

// Sends an event: "add", "/block/sda/sda1", "8", "1", and further items, each with a line feed.
void fake_netlink_send(const std::string& action, const std::string& devpath, int major, int minor,
                       const std::string& more = "");

// Sends a datagram as it is. "lost" stands for messages that the kernel had to drop, "foreign" for
// one that is not the kernel's.
void fake_netlink_send_bytes(const std::string& bytes);
