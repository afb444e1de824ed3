// Control messages of a device (docs/messages.md). Pure: struct in, text out.
#pragma once

#include "agent/block_device.h"
#include "agent/limits.h"

#include <stddef.h>
#include <stdint.h>

// Writes the add message. Items that the device does not have, or that are not what they should be,
// are left out. Texts are trimmed and cleaned: a comma, a bracket (the serial becomes the name of a
// section), a control character and a byte that is no UTF-8 become "_", and so does a "=" that a
// text begins with. A message that would be too long has its names shortened, the longer one first;
// numbers and the serial stay whole, for which there is room: a serial in a BlockDevice has at most
// 399 bytes (agent_text_size), one of a real USB device 378, and all the rest takes 110. Returns
// the length.
size_t add_message_format(const BlockDevice& device, char (&text)[agent_message_size]);

// Writes the remove message. Returns the length.
size_t remove_message_format(int32_t major, int32_t minor, char (&text)[agent_message_size]);
