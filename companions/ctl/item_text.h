// What is told of an item in words: a row for each, with its name for people and for programs.
#pragma once

#include "ctl/machine.h"
#include "ctl/view.h"

// In the order of the JSON.
enum ItemText : uint8_t {
    ITEM_TEXT_NAME,
    ITEM_TEXT_IDENTITY,
    ITEM_TEXT_STATE,
    ITEM_TEXT_REASON,
    ITEM_TEXT_SHARE,
    ITEM_TEXT_LABEL,
    ITEM_TEXT_DIRECTORY,
    ITEM_TEXT_FILESYSTEM,
    ITEM_TEXT_VENDOR, // from here on of the device
    ITEM_TEXT_PRODUCT,
    ITEM_TEXT_SERIAL,
    ITEM_TEXT_KERNEL_NAME,
    ITEM_TEXT_UUID,
    ITEM_TEXT_NODE,
    ITEM_TEXT_MOUNTED_AS,
    ITEM_TEXT_MOUNT_FLAGS,
    ITEM_TEXTS,
};

struct ItemTextRow {
    const char* word; // of `show`
    const char* json; // the key
};

extern const ItemTextRow item_text_rows[ITEM_TEXTS];

struct ItemTexts {
    const char* of[ITEM_TEXTS]; // borrowed from the item; null where there is none
    char uuid[machine_uuid_size];
};

// Collects them, with `device` those of the device as well; those of few words as programs read
// them or as people do.
void item_texts(const Item& item, bool json, bool device, ItemTexts* texts);

// Lends the first text that is there and not empty; null.
[[nodiscard]] const char* item_either(const char* a, const char* b);
