// What blkid makes of a volume, from what it prints with "-o udev". Pure: bytes in, struct out.
#pragma once

#include <stddef.h>

// Bytes with the NUL.
constexpr size_t volume_word_size = 32;
constexpr size_t volume_list_size = 96;

// Words of blkid's; of what a device could have put there, only letters, digits and "+-._" are
// left, "_" in place of others. Empty where blkid says nothing.
struct Volume {
    char type[volume_word_size];    // "exfat", "crypto_LUKS", ...
    char usage[volume_word_size];   // "filesystem", "raid", "crypto" or "other"
    char table[volume_word_size];   // the kind of partition table that is on it
    char several[volume_list_size]; // what it could be where blkid cannot decide: "ext4, vfat"
};

// Reads lines KEY=VALUE. Of a key that comes twice the last counts; other lines are passed over.
void volume_parse(const char* text, Volume* volume);
