// What is said of settings before they are written.
#pragma once

#include "ctl/settings.h"
#include "ctl/view.h"

// Makes the file's value, as setting_parse, and looks whether another share has that name. Tells
// what is wrong, and what is worth a warning, on standard error. Returns 0; -1.
[[nodiscard]] int rules_parse(const View& view, const char* identity, const SettingRow& row,
                              const char* text, char (&value)[setting_value_size]);

// Lends the item that already has a share of that name, or would have if it were plugged; null.
// The item of that identity does not count.
[[nodiscard]] const Item* rules_find_namesake(const View& view, const char* identity,
                                              const char* name);
